// Monitoring counts: the Prometheus text (counts by key and kind of
// refusal, cumulative buckets, escaped labels, no series for made-up key
// names), and the real agent keeping --metrics-file up to date, replaced
// whole and parseable, with nothing left beside it.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

#include "agentClient.h"
#include "agentMetrics.h"
#include "keyFolderTest.h"

using agenttest::Bytes;
using agenttest::Pattern;

namespace {

agent::RequestRecord Signed(const std::string& key, long long microseconds)
{
    agent::RequestRecord record;
    record.keyName = key;
    record.signedIt = true;
    record.signingMicroseconds = microseconds;
    return record;
}

agent::RequestRecord Refused(const std::string& key, const char* kind)
{
    agent::RequestRecord record;
    record.keyName = key;
    record.refusal = kind;
    record.reason = "whatever was said";
    return record;
}

// Sample lines of the text format: name, labels, value; false for a line
// that is neither a sample nor a comment.
bool ParseMetrics(const std::string& text, std::map<std::string, double>& samples)
{
    static const std::regex sample(R"(^([a-z_]+(\{[^}]*\})?) ([0-9.e+-]+)$)");
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("# HELP ", 0) == 0 || line.rfind("# TYPE ", 0) == 0) continue;
        std::smatch match;
        if (!std::regex_match(line, match, sample)) return false;
        samples[match[1]] = std::stod(match[3]);
    }
    return true;
}

TEST(AgentMetrics, CountsByKeyAndKindWithCumulativeBuckets)
{
    agent::AgentMetrics metrics;
    metrics.Count(Signed("release", 300), true);
    metrics.Count(Signed("release", 2000), true);
    metrics.Count(Signed("dev", 60'000'000), true);
    metrics.Count(Refused("release", agent::refusals::RATE_LIMIT), true);
    metrics.Count(Refused("made-up", agent::refusals::UNKNOWN_KEY), false);
    metrics.Count(Refused("other-made-up", agent::refusals::UNKNOWN_KEY), false);
    std::map<std::string, double> samples;
    const std::string text = metrics.Text(3, 1);
    ASSERT_TRUE(ParseMetrics(text, samples)) << text;
    EXPECT_EQ(samples["markforge_agent_requests_total"], 6);
    EXPECT_EQ(samples["markforge_agent_signatures_total{key=\"release\"}"], 2);
    EXPECT_EQ(samples["markforge_agent_signatures_total{key=\"dev\"}"], 1);
    EXPECT_EQ(samples["markforge_agent_refusals_total{reason=\"rate-limit\",key=\"release\"}"], 1);
    // Made-up names share one series.
    EXPECT_EQ(samples["markforge_agent_refusals_total{reason=\"unknown-key\",key=\"\"}"], 2);
    EXPECT_EQ(text.find("made-up"), std::string::npos);
    EXPECT_EQ(samples["markforge_agent_signing_seconds_bucket{le=\"0.0005\"}"], 1);
    EXPECT_EQ(samples["markforge_agent_signing_seconds_bucket{le=\"0.0025\"}"], 2);
    EXPECT_EQ(samples["markforge_agent_signing_seconds_bucket{le=\"2.5\"}"], 2);
    EXPECT_EQ(samples["markforge_agent_signing_seconds_bucket{le=\"+Inf\"}"], 3);
    EXPECT_EQ(samples["markforge_agent_signing_seconds_count"], 3);
    EXPECT_NEAR(samples["markforge_agent_signing_seconds_sum"], 60.0023, 1e-9);
    EXPECT_EQ(samples["markforge_agent_open_connections"], 3);
    EXPECT_EQ(samples["markforge_agent_token_errors_total"], 1);
}

TEST(AgentMetrics, LabelValuesAreEscaped)
{
    agent::AgentMetrics metrics;
    metrics.Count(Signed("a\"b\\c\nd", 10), true);
    EXPECT_NE(metrics.Text(0, 0).find("markforge_agent_signatures_total{key=\"a\\\"b\\\\c\\nd\"} 1\n"),
              std::string::npos);
}

class AgentMetricsFile : public agenttest::KeyFolderTest {
protected:
    // Waits up to 20 s for the file to count `requests`.
    std::map<std::string, double> WaitForRequests(const std::string& file, double requests)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        std::map<std::string, double> samples;
        while (std::chrono::steady_clock::now() < deadline) {
            samples.clear();
            const std::string text = testsupport::FileExists(file) ? testsupport::ReadFile(file) : "";
            EXPECT_TRUE(ParseMetrics(text, samples)) << text;
            if (samples["markforge_agent_requests_total"] == requests) break;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return samples;
    }
};

TEST_F(AgentMetricsFile, TheAgentKeepsTheFileUpToDate)
{
    const std::string folder = dir.file("metrics");
    ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
    const std::string file = folder + "/markforge-agent.prom";
    std::string error;
    ASSERT_TRUE(agent.Start({"--key-dir", Folder(), "--metrics-file", file, "--metrics-interval", "0.1"}, error))
        << error;
    // Written once at the start already.
    EXPECT_EQ(WaitForRequests(file, 0)["markforge_agent_requests_total"], 0);
    for (uint8_t i = 0; i < 3; ++i)
        EXPECT_FALSE(agenttest::Exchange(agent.Port(), agenttest::MakeRequest("dev", Pattern(32, i), agenttest::Arguments(32)))
                         .empty());
    EXPECT_TRUE(agenttest::Exchange(agent.Port(), agenttest::MakeRequest("absent", Pattern(32), agenttest::Arguments(32)))
                    .empty());
    EXPECT_TRUE(agenttest::Exchange(agent.Port(), Bytes(200, 0x41)).empty());

    auto samples = WaitForRequests(file, 5);
    EXPECT_EQ(samples["markforge_agent_requests_total"], 5);
    EXPECT_EQ(samples["markforge_agent_signatures_total{key=\"dev\"}"], 3);
    EXPECT_EQ(samples["markforge_agent_refusals_total{reason=\"unknown-key\",key=\"\"}"], 1);
    EXPECT_EQ(samples["markforge_agent_refusals_total{reason=\"malformed\",key=\"\"}"], 1);
    EXPECT_EQ(samples["markforge_agent_signing_seconds_count"], 3);
    EXPECT_EQ(samples["markforge_agent_open_connections"], 0);
    EXPECT_EQ(samples["markforge_agent_token_errors_total"], 0);
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);

    EXPECT_EQ(agent.Stop(), 0);
    // Only the file itself: no temporary file left beside it.
    size_t entries = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        EXPECT_EQ(entry.path().string(), file);
        ++entries;
    }
    EXPECT_EQ(entries, 1u);
}

TEST_F(AgentMetricsFile, AFileThatCannotBeWrittenIsLoggedAndServingGoesOn)
{
    const std::string file = dir.file("no-such-folder/agent.prom");
    std::string error;
    ASSERT_TRUE(agent.Start({"--key-dir", Folder(), "--metrics-file", file, "--metrics-interval", "0.1"}, error))
        << error;
    EXPECT_FALSE(
        agenttest::Exchange(agent.Port(), agenttest::MakeRequest("dev", Pattern(32), agenttest::Arguments(32))).empty());
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    EXPECT_EQ(agent.Stop(), 0);
    // Said once, not at every rewrite.
    size_t notices = 0;
    for (const auto& notice : agent.Events("notice"))
        if (notice.value("reason", "").find("cannot write the metrics file " + file) == 0) ++notices;
    EXPECT_EQ(notices, 1u);
}

}  // namespace
