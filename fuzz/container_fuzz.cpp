// Fuzz target: a container file's bytes through the reader info and verify
// use, then the info document, the verdicts under a fixed key, and both
// reports as text and JSON. Property: whenever verify finds no problem, the
// records tile the payload exactly and a table, when present, lists every
// other record as it is; otherwise the input aborts as a finding.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

#include "containerReader.h"
#include "containerReport.h"
#include "containerVerifier.h"
#include "tableCheck.h"
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

// The tiling worked out again here, plainly: each record at the sum of the
// sizes before it, and the payload exactly that long.
bool RecordsTileThePayload(const markforge::containerContents& contents)
{
    uint64_t next = 0;
    for (const markforge::componentEntry& component : contents.components) {
        if (component.offset != next) return false;
        next += component.size;
    }
    return next == contents.payloadLength;
}

bool TableMatches(const markforge::containerContents& contents, const markforge::tableReport& table)
{
    if (!table.present) return true;
    if (!table.Holds() || table.record + 1 != contents.components.size() ||
        table.entries.size() != contents.components.size() - 1)
        return false;
    for (size_t i = 0; i < table.entries.size(); ++i) {
        const markforge::componentEntry& record = contents.components[i];
        const markforge::tableEntry& entry = table.entries[i];
        if (entry.name != record.name || entry.offset != record.offset || entry.size != record.size) return false;
    }
    return true;
}

void CheckOkMeansAccountedFor(const markforge::containerContents& contents, const markforge::verifyResult& result)
{
    if (result.Problems() == 0 && (!RecordsTileThePayload(contents) || !TableMatches(contents, result.table)))
        std::abort();
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
        const markforge::tableReport table = markforge::tableCheck::Read(reader.Contents(), reader.File());
        out << markforge::containerReport::JsonText(report.InfoDocument(nullptr, table));
        report.WriteInfoText(out, nullptr, table);
        markforge::verifyResult result;
        if (markforge::containerVerifier(reader.Contents(), reader.File(), Key()).Run(result, reason)) {
            out << markforge::containerReport::JsonText(report.VerifyDocument("key", Key(), result));
            report.WriteVerifyText(out, result);
            CheckOkMeansAccountedFor(reader.Contents(), result);
        }
    }
    lbGlobal.Reset();
    return 0;
}
