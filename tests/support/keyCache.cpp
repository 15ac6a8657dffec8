// The build tree's cache of test keys.
#include "keyCache.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "testKeys.h"
#include "testSupport.h"

namespace testsupport {
namespace {

// Holds an exclusive flock on a file for its lifetime.
class LockedFile {
public:
    explicit LockedFile(const std::string& path) : _fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        if (_fd >= 0 && ::flock(_fd, LOCK_EX) != 0) {
            ::close(_fd);
            _fd = -1;
        }
    }
    ~LockedFile()
    {
        if (_fd >= 0) ::close(_fd);  // closing releases the lock
    }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;
    bool locked() const { return _fd >= 0; }

private:
    int _fd;
};

// Makes the cached pair `stem`.markforge / `stem`.pem in `cache` unless it
// is there. The caller holds the cache's lock.
bool EnsureCachedKey(const std::string& cache, const std::string& stem, int bits, std::string& error)
{
    const std::string keyFile = cache + "/" + stem + ".markforge";
    if (FileExists(keyFile)) return true;
    // Made inside the cache, so that the renames below never cross file
    // systems (TMPDIR may be elsewhere).
    TempDir scratch(cache);
    TestRsaKey made;
    if (!MakeRsaKey(scratch.path(), "key", bits, made, error)) return false;
    // The private key file goes last: its presence says the pair is whole.
    if (std::rename(made.publicPem.c_str(), (cache + "/" + stem + ".pem").c_str()) != 0 ||
        std::rename(made.keyFile.c_str(), keyFile.c_str()) != 0) {
        error = "cannot move a new test key into " + cache + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

bool CopyWithMode(const std::string& from, const std::string& to, mode_t mode, std::string& error)
{
    WriteFile(to, ReadFile(from));
    if (::chmod(to.c_str(), mode) != 0) {
        error = "cannot set the mode of " + to + ": " + std::strerror(errno);
        return false;
    }
    return true;
}

}  // namespace

bool CopyCachedKey(const std::string& name, int bits, const std::string& keyFile, const std::string& publicPem,
                   std::string& error)
{
    const std::string cache = TEST_KEY_CACHE_DIR;
    if (::mkdir(cache.c_str(), 0700) != 0 && errno != EEXIST) {
        error = "cannot make " + cache + ": " + std::strerror(errno);
        return false;
    }
    const std::string stem = name + "-" + std::to_string(bits);
    LockedFile lock(cache + "/.lock");
    if (!lock.locked()) {
        error = "cannot lock " + cache + "/.lock: " + std::strerror(errno);
        return false;
    }
    if (!EnsureCachedKey(cache, stem, bits, error)) return false;
    if (!CopyWithMode(cache + "/" + stem + ".markforge", keyFile, 0600, error)) return false;
    return publicPem.empty() || CopyWithMode(cache + "/" + stem + ".pem", publicPem, 0644, error);
}

}  // namespace testsupport
