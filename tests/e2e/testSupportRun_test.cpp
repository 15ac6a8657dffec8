// testsupport::Run as the other end-to-end tests rely on it: a sanitizer
// report from a spawned program fails the test, and host programs run as
// they are in a cross build.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "testSupport.h"

using testsupport::ProcessResult;

namespace {

// Stands in for an instrumented recaster that reported and still exited
// with the status its test expects.
void RunProgramThatReports(const char* report)
{
    testsupport::Run({"sh", "-c", std::string("echo '") + report + "' >&2; exit 1"});
}

}  // namespace

TEST(TestSupportRun, AddressSanitizerReportFailsTheTest)
{
    EXPECT_NONFATAL_FAILURE(RunProgramThatReports("==1==ERROR: AddressSanitizer: heap-buffer-overflow"),
                            "sanitizer report from sh");
}

TEST(TestSupportRun, LeakSanitizerReportFailsTheTest)
{
    EXPECT_NONFATAL_FAILURE(RunProgramThatReports("==1==ERROR: LeakSanitizer: detected memory leaks"),
                            "sanitizer report from sh");
}

TEST(TestSupportRun, UndefinedBehaviourReportFailsTheTest)
{
    EXPECT_NONFATAL_FAILURE(RunProgramThatReports("x.cpp:1:2: runtime error: signed integer overflow"),
                            "sanitizer report from sh");
}

TEST(TestSupportRun, OrdinaryErrorOutputIsNoReport)
{
    const ProcessResult result = testsupport::Run({"sh", "-c", "echo 'Unable to read input file. ' >&2; exit 1"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.err, "Unable to read input file. \n");
}

TEST(TestSupportRun, HostProgramsRunWithoutTheEmulator)
{
    const ProcessResult result = testsupport::Run({"sh", "-c", "echo $0"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "sh\n");
}

TEST(TestSupportRun, BuiltRecasterRuns)
{
    const ProcessResult result = testsupport::RunRecaster({"--version"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out.rfind("recaster 1.1.0\n", 0), 0u) << result.out;
}
