// The signing agent's benchmark programs against a real agent and key
// folder: agent_load's counts and exit status for answered and refused
// requests, and agent_sign_bench signing with a folder's key.
#include <gtest/gtest.h>

#include <string>

#include "keyFolderTest.h"
#include "testSupport.h"

namespace {

using agenttest::KeyFolderTest;
using testsupport::ProcessResult;

// The number after `name=` in agent_load's output line, or -1.
long Count(const std::string& out, const std::string& name)
{
    const size_t at = out.find(name + "=");
    return at == std::string::npos ? -1 : std::stol(out.substr(at + name.size() + 1));
}

class BenchTools : public KeyFolderTest {
protected:
    // Starts the agent on the fixture's key folder and runs agent_load
    // against it briefly.
    ProcessResult Load(const std::string& key, bool expectRefusal)
    {
        std::string error;
        EXPECT_TRUE(agent.Start({"--key-dir", Folder()}, error)) << error;
        std::vector<std::string> argv = {AGENT_LOAD_BINARY, "--port", std::to_string(agent.Port()), "--clients", "4",
                                         "--seconds", "0.3", "--key", key};
        if (expectRefusal) argv.push_back("--expect-refusal");
        return testsupport::Run(argv);
    }
};

TEST_F(BenchTools, LoadCountsAnsweredRequests)
{
    const ProcessResult result = Load("dev", false);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_GT(Count(result.out, "signatures"), 0) << result.out;
    EXPECT_EQ(Count(result.out, "refused"), 0) << result.out;
    EXPECT_EQ(Count(result.out, "failed"), 0) << result.out;
    EXPECT_GE(Count(result.out, "client_cpu_us"), 0) << result.out;
}

TEST_F(BenchTools, LoadCountsRefusalsWhenItExpectsThem)
{
    const ProcessResult result = Load("absent", true);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(Count(result.out, "signatures"), 0) << result.out;
    EXPECT_GT(Count(result.out, "refused"), 0) << result.out;
    EXPECT_EQ(Count(result.out, "failed"), 0) << result.out;
}

TEST_F(BenchTools, LoadFailsOnRefusalsItDidNotExpect)
{
    const ProcessResult result = Load("absent", false);
    EXPECT_EQ(result.status, 1) << result.out;
    EXPECT_GT(Count(result.out, "refused"), 0) << result.out;
}

TEST_F(BenchTools, LoadFailsOnAnswersWhenItExpectsRefusals)
{
    const ProcessResult result = Load("dev", true);
    EXPECT_EQ(result.status, 1) << result.out;
    EXPECT_GT(Count(result.out, "signatures"), 0) << result.out;
}

TEST_F(BenchTools, LoadRejectsUnknownArguments)
{
    const ProcessResult result = testsupport::Run({AGENT_LOAD_BINARY, "--clients"});
    EXPECT_EQ(result.status, 2);
    EXPECT_NE(result.err.find("usage: agent_load"), std::string::npos) << result.err;
}

// A digest length the request layout has no room for is a usage error, not
// a write past the request.
TEST_F(BenchTools, LoadRejectsDigestLengthsWithoutALayout)
{
    for (const char* length : {"0", "31", "65", "200"}) {
        const ProcessResult result = testsupport::Run({AGENT_LOAD_BINARY, "--digest-length", length});
        EXPECT_EQ(result.status, 2) << length;
        EXPECT_FALSE(result.signaled) << length;
        EXPECT_NE(result.err.find("usage: agent_load"), std::string::npos) << result.err;
    }
}

ProcessResult SignBench(const std::string& folder, const std::string& key)
{
    return testsupport::Run({"env", "MARKFORGE_BENCH_KEY_DIR=" + folder, "MARKFORGE_BENCH_KEY=" + key, AGENT_SIGN_BENCH_BINARY,
                "--benchmark_min_time=0.01", "--benchmark_format=csv"});
}

TEST_F(BenchTools, SignBenchSignsWithTheFolderKey)
{
    const ProcessResult result = SignBench(Folder(), "dev");
    EXPECT_EQ(result.status, 0) << result.err;
    // The row of the benchmark: its error_occurred column stays empty.
    const size_t row = result.out.find("\"BM_AgentKeySign\",");
    ASSERT_NE(row, std::string::npos) << result.out;
    const std::string line = result.out.substr(row, result.out.find('\n', row) - row);
    EXPECT_EQ(line.find("true"), std::string::npos) << line;
    EXPECT_EQ(line.find("no such key"), std::string::npos) << line;
}

TEST_F(BenchTools, SignBenchSaysWhenTheKeyIsMissing)
{
    const ProcessResult result = SignBench(Folder(), "absent");
    EXPECT_NE(result.out.find("no such key in the key folder"), std::string::npos) << result.out << result.err;
}

}  // namespace
