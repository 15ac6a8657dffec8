// Fuzz target: a container file's bytes through the reader info and verify
// use, then the info document, the verdicts under a fixed key, and both
// reports as text and JSON.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "containerReader.h"
#include "containerReport.h"
#include "containerVerifier.h"
#include "fuzzSupport.h"

namespace {

// One memory file for the whole run: nothing is left on disk.
const std::string& InputPath()
{
    static const std::string path = [] {
        const int fd = memfd_create("container_fuzz", 0);
        if (fd < 0) std::abort();
        return "/proc/self/fd/" + std::to_string(fd);
    }();
    return path;
}

// The key the seed corpus is signed with (fuzz/make_corpus.py), so that the
// fuzzer starts from containers whose verdicts are ok.
const markforge::publicKey& Key()
{
    static const markforge::publicKey key = [] {
        markforge::publicKey loaded;
        std::string reason;
        if (!loaded.Load(CONTAINER_FUZZ_KEY, reason)) std::abort();
        return loaded;
    }();
    return key;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzzsupport::WriteInput(InputPath(), data, size);
    lbGlobal.Reset();
    markforge::containerReader reader;
    std::string reason;
    std::string libraryText;
    if (reader.Open(InputPath(), reason, libraryText) == markforge::containerReader::failure::none) {
        const markforge::containerReport report("fuzz.bin", reader.Contents());
        std::ostringstream out;
        out << markforge::containerReport::JsonText(report.InfoDocument(nullptr));
        report.WriteInfoText(out, nullptr);
        markforge::verifyResult result;
        if (markforge::containerVerifier(reader.Contents(), reader.File(), Key()).Run(result, reason)) {
            out << markforge::containerReport::JsonText(report.VerifyDocument("key", Key(), result));
            report.WriteVerifyText(out, result);
        }
    }
    lbGlobal.Reset();
    return 0;
}
