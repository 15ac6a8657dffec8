// Throughput of markforge::hash over a file, plus a one-shot mode that hashes
// one file and prints the digest, for whole-process timing and peak memory
// (scripts/bench.sh):
//   hash_bench [benchmark options]        file from MARKFORGE_BENCH_FILE, or a
//                                         64 MiB file made in the temp folder
//   hash_bench --hash-once sha256|sha512 FILE
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "hash.h"
#include "lbScoped.h"
#include "lbGlobal.h"
#include "lbHashId.h"

namespace {

constexpr size_t DEFAULT_FILE_SIZE = 64u << 20;

struct Digest {
    bool ok = false;
    std::string text;
    uint32_t size = 0;
};

// Hashes the whole file the way the container builder does: an opened
// markforge::hash over an input file stream.
Digest HashFile(const std::string& path, uint32_t hashId)
{
    lbGlobal.Reset();
    Digest digest;
    markforge::hash hash;
    std::vector<char> readAhead(64 * 1024);  // as archive::AddComponent does
    std::ifstream in;
    in.rdbuf()->pubsetbuf(readAhead.data(), static_cast<std::streamsize>(readAhead.size()));
    in.open(path, std::ios::binary);
    if (lbScoped::Open(hash, __FILE__, __LINE__, [&] { return hash.Open(); })) {
        const bool generated = hashId == lbHashId::SHA512 ? hash.Generate_SHA512(in) : hash.Generate(in);
        digest.ok = generated && hash.GetHashString(digest.text) && hash.GetHashedSize(digest.size);
        hash.PreClose();
        hash.Close();
        hash.PostClose();
    }
    return digest;
}

// A file made by this process, removed at exit.
std::string g_madeFile;

// Writes DEFAULT_FILE_SIZE bytes of fixed, incompressible-looking content.
std::string MakeBenchFile()
{
    g_madeFile = "/tmp/markforge-hash-bench-" + std::to_string(getpid());
    std::ofstream out(g_madeFile, std::ios::binary | std::ios::trunc);
    std::vector<char> block(1 << 20);
    uint32_t x = 2463534242u;  // xorshift32
    for (size_t written = 0; written < DEFAULT_FILE_SIZE; written += block.size()) {
        for (char& c : block) {
            x ^= x << 13;
            x ^= x >> 17;
            x ^= x << 5;
            c = static_cast<char>(x);
        }
        out.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
    std::atexit([] { std::remove(g_madeFile.c_str()); });
    return g_madeFile;
}

// The file to hash: MARKFORGE_BENCH_FILE, or one made once per process.
const std::string& BenchFile()
{
    static const std::string path = [] {
        const char* given = std::getenv("MARKFORGE_BENCH_FILE");
        return given ? std::string(given) : MakeBenchFile();
    }();
    return path;
}

void BM_HashFile(benchmark::State& state)
{
    const uint32_t hashId = static_cast<uint32_t>(state.range(0));
    const std::string& path = BenchFile();
    uint64_t bytes = 0;
    for (auto _ : state) {
        const Digest digest = HashFile(path, hashId);
        if (!digest.ok) {
            state.SkipWithError("hashing failed");
            break;
        }
        bytes += digest.size;
        benchmark::DoNotOptimize(digest.text.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(bytes));
    state.SetLabel(hashId == lbHashId::SHA512 ? "sha512" : "sha256");
}
BENCHMARK(BM_HashFile)->Arg(lbHashId::SHA256)->Arg(lbHashId::SHA512)->Unit(benchmark::kMillisecond)->UseRealTime();

int HashOnce(const std::string& algorithm, const std::string& path)
{
    if (algorithm != "sha256" && algorithm != "sha512") {
        std::cerr << "algorithm must be sha256 or sha512\n";
        return 2;
    }
    const Digest digest = HashFile(path, algorithm == "sha512" ? lbHashId::SHA512 : lbHashId::SHA256);
    if (!digest.ok) {
        std::cerr << "hashing " << path << " failed\n";
        return 1;
    }
    std::cout << digest.text << "  " << path << "\n";
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--hash-once") == 0) return HashOnce(argv[2], argv[3]);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
