// The programs' own outputs: never a device node, FIFO, socket or folder
// replaced by a regular file; no temporary file left behind by a signal
// (here SIGXFSZ of a file-size limit); a plug-in named without a slash loaded
// from the file that was checked; error paths that close what they opened.
#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "containerFixture.h"

namespace {

using testsupport::ContainerTest;
using testsupport::ProcessResult;

// The names in `folder` that start with a dot: temporary outputs.
std::vector<std::string> HiddenFiles(const std::string& folder)
{
    std::vector<std::string> names;
    DIR* listing = opendir(folder.c_str());
    if (!listing) return names;
    while (const dirent* entry = readdir(listing)) {
        const std::string name = entry->d_name;
        if (name != "." && name != ".." && name[0] == '.') names.push_back(name);
    }
    closedir(listing);
    return names;
}

mode_t TypeOf(const std::string& path)
{
    struct stat info;
    return lstat(path.c_str(), &info) == 0 ? (info.st_mode & S_IFMT) : 0;
}

// A Unix socket bound at `path`; the descriptor stays open with the test.
int BindSocket(const std::string& path)
{
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (fd >= 0 && bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

class OutputSafety : public ContainerTest {
protected:
    void SetUp() override
    {
        component = MakeComponent("a.bin", 3000, 1);
        container = dir.file("container.img");
        ASSERT_EQ(BuildDevelopment(container, {"a=" + component}).status, 0);
    }

    // `make` creates a node at the returned path; build and extract are
    // pointed at it and must leave it as it is.
    void ExpectNodeKept(const std::string& kind, const std::function<std::string()>& make)
    {
        const std::string node = make();
        if (node.empty()) GTEST_SKIP() << "cannot make " << kind << " here";
        const mode_t type = TypeOf(node);
        const std::string message = "markforge: " + node + " is " + kind + "; only a regular file is written or " +
                                    "replaced\n";
        const ProcessResult built = BuildDevelopment(node, {"a=" + component});
        EXPECT_EQ(built.status, 4);
        EXPECT_EQ(built.err, message);
        const ProcessResult extracted =
            testsupport::RunMarkforge({"extract", container, "--component", "a", "-o", node});
        EXPECT_EQ(extracted.status, 4);
        EXPECT_EQ(extracted.err, message);
        EXPECT_EQ(TypeOf(node), type);
        EXPECT_TRUE(HiddenFiles(dir.path()).empty());
    }

    std::string component;
    std::string container;
};

TEST_F(OutputSafety, AFifoIsNeverReplaced)
{
    ExpectNodeKept("a FIFO", [this] {
        const std::string path = dir.file("fifo");
        return mkfifo(path.c_str(), 0600) == 0 ? path : std::string();
    });
}

TEST_F(OutputSafety, ASocketIsNeverReplaced)
{
    int fd = -1;
    ExpectNodeKept("a socket", [this, &fd] {
        const std::string path = dir.file("sock");
        fd = BindSocket(path);
        return fd >= 0 ? path : std::string();
    });
    if (fd >= 0) close(fd);
}

TEST_F(OutputSafety, ADeviceNodeIsNeverReplaced)
{
    // A node of its own (the null device's numbers), never /dev/null itself:
    // the test must not be able to break the machine if it fails. Making
    // one takes root.
    ExpectNodeKept("a character device", [this] {
        const std::string path = dir.file("null");
        return mknod(path.c_str(), S_IFCHR | 0600, makedev(1, 3)) == 0 ? path : std::string();
    });
}

TEST_F(OutputSafety, AFileSizeLimitLeavesNoTemporaryFile)
{
    // 16 KiB allowed, 300 KiB to write: SIGXFSZ ends the build mid-payload.
    const std::string big = MakeComponent("big.bin", 300 * 1024, 2);
    std::vector<std::string> command{testsupport::MarkforgePath(), "build", "-o", dir.file("out.img"), "--key", "dev",
                                     "--mode", "development", "--key-dir", keyDir(), "big=" + big};
    command = testsupport::WithEmulator(command);
    std::vector<std::string> shell{"bash", "-c", "ulimit -f 16; exec \"$@\"", "bash"};
    shell.insert(shell.end(), command.begin(), command.end());
    const ProcessResult r = testsupport::Run(shell);
    EXPECT_TRUE(r.signaled) << r.status << " " << r.err;
    EXPECT_EQ(r.status, 128 + SIGXFSZ);
    EXPECT_FALSE(testsupport::FileExists(dir.file("out.img")));
    EXPECT_TRUE(HiddenFiles(dir.path()).empty());
}

TEST_F(OutputSafety, APluginNamedWithoutASlashIsTheFileInTheCurrentFolder)
{
    // dlopen would look for "keydir.so" on the library path, where there is
    // none; the file in the current folder is the one checked and loaded.
    const std::string folder = dir.file("plugins");
    ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
    testsupport::WriteFile(folder + "/keydir.so", testsupport::ReadFile(KEYDIR_PLUGIN));
    std::vector<std::string> command{testsupport::MarkforgePath(), "build", "-o", dir.file("out.img"), "--key", "dev",
                                     "--mode", "development", "--plugin", "keydir.so", "--plugin-arg", keyDir(),
                                     "a=" + component};
    command = testsupport::WithEmulator(command);
    std::vector<std::string> shell{"bash", "-c", "cd \"$0\" && exec \"$@\"", folder};
    shell.insert(shell.end(), command.begin(), command.end());
    const ProcessResult r = testsupport::Run(shell);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(testsupport::RunMarkforge({"verify", dir.file("out.img"), "--key", publicPem()}).status, 0);
}

TEST_F(OutputSafety, KeygenIntoAMissingFolderSaysOneThing)
{
    const std::string out = dir.file("missing/dir/key.markforge");
    const ProcessResult r = testsupport::RunMarkforge({"keygen", "--bits", "2048", "-o", out});
    EXPECT_EQ(r.status, 4);
    EXPECT_EQ(r.err, "markforge: cannot create a file in " + dir.file("missing/dir") + ": No such file or directory\n");
}

}  // namespace
