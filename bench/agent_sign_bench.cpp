// What one agent signature costs without any network: AgentKey::Sign (the
// private-key operation and the check with the public half) on a key of a
// key folder, in one thread, each iteration a different SHA-256 digest.
// scripts/bench.sh sets it beside the agent's CPU time per request, so the
// part that the connections cost can be told apart from the signing.
//   agent_sign_bench [benchmark options]   key folder from
//                                          MARKFORGE_BENCH_KEY_DIR, key name
//                                          from MARKFORGE_BENCH_KEY (default
//                                          "bench")
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "keyDirectory.h"
#include "keyStore.h"

namespace {

std::string Environment(const char* name, const char* fallback)
{
    const char* value = std::getenv(name);
    return value && *value ? value : fallback;
}

void BM_AgentKeySign(benchmark::State& state)
{
    agent::KeyStore store;
    std::vector<std::string> skipped;
    std::string error;
    if (!agent::KeyDirectory::Load(Environment("MARKFORGE_BENCH_KEY_DIR", "."), store, skipped, error)) {
        state.SkipWithError(error.c_str());
        return;
    }
    const agent::AgentKey* key = store.Find(Environment("MARKFORGE_BENCH_KEY", "bench"));
    if (!key) {
        state.SkipWithError("no such key in the key folder");
        return;
    }
    std::vector<uint8_t> digest(32, 0x5a), signature;
    uint64_t number = 0;
    for (auto _ : state) {
        std::memcpy(digest.data(), &++number, sizeof number);
        if (!key->Sign(digest, signature, error)) {
            state.SkipWithError(error.c_str());
            break;
        }
        benchmark::DoNotOptimize(signature.data());
    }
}
BENCHMARK(BM_AgentKeySign)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();
