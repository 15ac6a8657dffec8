// recaster's command line through the built binary: help and version
// screens, option parsing, missing values, format words and the error trail.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <openssl/crypto.h>

#include <sstream>
#include <string>
#include <vector>

#include "testSupport.h"

namespace {

using testsupport::FileExists;
using testsupport::ProcessResult;
using testsupport::RunRecaster;
using testsupport::TempDir;
using Args = std::vector<std::string>;

const std::string HELP_TABLE =
    "+--------------+-------------------------------------------------------+\n"
    "| Argument     | Description                                           |\n"
    "+--------------+-------------------------------------------------------+\n"
    "| --help       | recaster help.                                        |\n"
    "| --version    | recaster version.                                     |\n"
    "| --convertkey | Convert a key file format.                            |\n"
    "| --convertsig | Convert a sig file format.                            |\n"
    "| --input      | Input key path.                                       |\n"
    "| --output     | Output prefix.                                        |\n"
    "| --iformat    | Input file format: raw, markforg, pem (key), der(sig) |\n"
    "| --oformat    | Output file format:: raw or markforge.                |\n"
    "+--------------+-------------------------------------------------------+\n";

const std::string TRAIL_HEADING = "Error trail (innermost failure first):\n";
const std::string RUN = "virtual bool recaster::Main::Run(int, char**)";

std::string VersionScreen()
{
    return std::string("recaster 1.1.0\nmarkforge 2.1.0\nlockbase 1.0.0\n") + OpenSSL_version(OPENSSL_VERSION) + "\n";
}

// The version screen on standard output, `err` on standard error, status 0.
void ExpectVersion(const ProcessResult& result, const std::string& err = "")
{
    EXPECT_FALSE(result.signaled);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, VersionScreen());
    EXPECT_EQ(result.err, err);
}

// The help screen: exactly the message line and the table on standard output,
// nothing on standard error, status 1.
void ExpectHelp(const ProcessResult& result, const std::string& message, const std::string& err = "")
{
    EXPECT_FALSE(result.signaled);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, message + "\n" + HELP_TABLE);
    EXPECT_EQ(result.err, err);
}

// The trail dump with every "at path:line" line's number replaced by <line>,
// after checking that the path is relative and the number positive.
std::string MaskLineNumbers(const std::string& dump)
{
    std::istringstream in(dump);
    std::string masked, line;
    while (std::getline(in, line)) {
        const std::string at = "    at ";
        const size_t colon = line.rfind(':');
        if (line.rfind(at, 0) == 0 && colon != std::string::npos) {
            const std::string path = line.substr(at.size(), colon - at.size());
            const std::string number = line.substr(colon + 1);
            EXPECT_FALSE(path.empty() || path[0] == '/') << "path not relative: " << line;
            EXPECT_TRUE(!number.empty() && number.find_first_not_of("0123456789") == std::string::npos &&
                        std::stol(number) > 0)
                << "bad line number: " << line;
            line = at + path + ":<line>";
        }
        masked += line + "\n";
    }
    return masked;
}

// One numbered step of an expected trail dump.
std::string Step(int number, const std::string& function, const std::string& path, const std::string& message)
{
    return "#" + std::to_string(number) + "  " + function + "\n    at " + path + ":<line>\n    " + message + "\n";
}

// A failed run: status 1, nothing on standard output, the given trail.
void ExpectTrail(const ProcessResult& result, const std::string& steps)
{
    EXPECT_FALSE(result.signaled);
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(MaskLineNumbers(result.err), TRAIL_HEADING + steps);
}

// A complete conversion command line.
Args Command(const std::string& command, const std::string& input, const std::string& output,
             const std::string& iformat, const std::string& oformat)
{
    return {command, "--input", input, "--output", output, "--iformat", iformat, "--oformat", oformat};
}

class CliTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        // A 2048-bit modulus as a raw key: any bytes do, the top bit set.
        std::string modulus(256, '\x5a');
        modulus[0] = '\xc3';
        modulus[255] = '\x01';
        testsupport::WriteFile(rawKey, modulus);
    }

    TempDir dir;
    const std::string rawKey = dir.file("key.bin");
    const std::string output = dir.file("out");
};

std::string NotSupported(const std::string& tag)
{
    return Step(1, tag, "recaster/converter.cpp", "conversion not supported") +
           Step(2, RUN, "recaster/recaster.cpp", "Boolean return value failed.");
}

// ---- Help screen ---------------------------------------------------------

TEST_F(CliTest, NoArgumentsShowsMissingTopLevelCommand)
{
    ExpectHelp(RunRecaster({}), "Missing top level command: ");
}

TEST_F(CliTest, OnlyNonOptionWordsShowMissingTopLevelCommand)
{
    ExpectHelp(RunRecaster({"convert", "this"}), "Missing top level command: ");
}

TEST_F(CliTest, ValuesWithoutCommandShowMissingTopLevelCommand)
{
    ExpectHelp(RunRecaster({"-i", rawKey, "-o", output, "-I", "raw", "-O", "pem"}), "Missing top level command: ");
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, HelpStopsParsingAtOnce)
{
    // The unknown option after --help is never looked at: no diagnostic.
    ExpectHelp(RunRecaster({"--help", "--no-such-option", "--version"}), "This is the help screen");
}

TEST_F(CliTest, HelpWinsOverAnEarlierCommand)
{
    ExpectHelp(RunRecaster({"--version", "--help"}), "This is the help screen");
    ExpectHelp(RunRecaster({"--convertkey", "-i", rawKey, "-o", output, "-I", "raw", "-O", "pem", "-h"}),
               "This is the help screen");
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, ShortHelpBeforeACompleteCommandConvertsNothing)
{
    ExpectHelp(RunRecaster({"-h", "--convertkey", "-i", rawKey, "-o", output, "-I", "raw", "-O", "pem"}),
               "This is the help screen");
    EXPECT_FALSE(FileExists(output));
}

// ---- Missing values ------------------------------------------------------

struct MissingCase {
    const char* command;
    const char* leftOut;  // the option given an empty value or left out
    const char* message;
};

void PrintTo(const MissingCase& c, std::ostream* out)
{
    *out << c.command << " without " << c.leftOut;
}

class MissingValue : public CliTest, public ::testing::WithParamInterface<MissingCase> {};

// The command line with every value but the one left out.
Args AllBut(const MissingCase& c, const std::string& input, const std::string& output)
{
    Args args{c.command};
    const std::pair<const char*, std::string> values[] = {
        {"--input", input}, {"--output", output}, {"--iformat", "raw"}, {"--oformat", "pem"}};
    for (const auto& value : values) {
        if (std::string(value.first) == c.leftOut) continue;
        args.push_back(value.first);
        args.push_back(value.second);
    }
    return args;
}

TEST_P(MissingValue, LeftOutShowsItsMessage)
{
    ExpectHelp(RunRecaster(AllBut(GetParam(), rawKey, output)), GetParam().message);
    EXPECT_FALSE(FileExists(output));
}

TEST_P(MissingValue, EmptyValueCountsAsMissing)
{
    Args args = AllBut(GetParam(), rawKey, output);
    args.push_back(GetParam().leftOut);
    args.push_back("");
    ExpectHelp(RunRecaster(args), GetParam().message);
    EXPECT_FALSE(FileExists(output));
}

INSTANTIATE_TEST_SUITE_P(
    Cli, MissingValue,
    ::testing::Values(MissingCase{"--convertkey", "--input", "--convertkey requires --input."},
                      MissingCase{"--convertkey", "--output", "--convertkey requires --output."},
                      MissingCase{"--convertkey", "--iformat", " --convertkey requires --iformat."},
                      MissingCase{"--convertkey", "--oformat", "--convertkey requires --oformat."},
                      MissingCase{"--convertsig", "--input", "--convertsig requires --input."},
                      MissingCase{"--convertsig", "--output", "--convertsig requires --output."},
                      MissingCase{"--convertsig", "--iformat", " --convertsig requires --iformat."},
                      MissingCase{"--convertsig", "--oformat", "--convertsig requires --oformat."}),
    [](const ::testing::TestParamInfo<MissingCase>& info) {
        return std::string(info.param.command + 9) + "_" + (info.param.leftOut + 2);
    });

TEST_F(CliTest, MissingValuesAreReportedInOrderInputFirst)
{
    ExpectHelp(RunRecaster({"--convertkey"}), "--convertkey requires --input.");
    ExpectHelp(RunRecaster({"--convertsig", "-O", "raw", "-I", "raw"}), "--convertsig requires --input.");
    ExpectHelp(RunRecaster({"--convertkey", "-i", rawKey, "-O", "raw"}), "--convertkey requires --output.");
    ExpectHelp(RunRecaster({"--convertsig", "-i", rawKey, "-o", output}), " --convertsig requires --iformat.");
}

// ---- The short forms -k and -s take an argument -----------------------------

TEST_F(CliTest, ShortKTakesTheNextWordAsItsArgument)
{
    // "-i" is swallowed by -k, the file name is a stray word, so no input.
    ExpectHelp(RunRecaster({"-k", "-i", rawKey, "-o", output, "-I", "raw", "-O", "pem"}),
               "--convertkey requires --input.");
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, ShortSTakesTheNextWordAsItsArgument)
{
    ExpectHelp(RunRecaster({"-s", "-i", rawKey, "-o", output, "-I", "raw", "-O", "raw"}),
               "--convertsig requires --input.");
}

TEST_F(CliTest, ShortKAsTheLastWordSetsNoCommand)
{
    const ProcessResult result = RunRecaster({"-i", rawKey, "-o", output, "-I", "raw", "-O", "pem", "-k"});
    ExpectHelp(result, "Missing top level command: ",
               testsupport::RecasterPath() + ": option requires an argument -- 'k'\n");
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, ShortKWithASwallowedWordRunsTheKeyCommand)
{
    // "raw" is -k's argument and never looked at; -I der then reaches the
    // key dispatcher, which refuses it.
    ExpectTrail(RunRecaster({"-k", "raw", "-i", rawKey, "-o", output, "-I", "der", "-O", "raw"}),
                NotSupported("ConvertKey"));
}

TEST_F(CliTest, ShortSWithASwallowedWordRunsTheSignatureCommand)
{
    ExpectTrail(RunRecaster({"-s", "x", "-i", rawKey, "-o", output, "-I", "pem", "-O", "raw"}),
                NotSupported("ConvertSig"));
}

// ---- Other parsing rules ---------------------------------------------------

TEST_F(CliTest, RepeatedOptionKeepsTheLastValue)
{
    ExpectTrail(RunRecaster({"--convertkey", "-i", rawKey, "-o", output, "-I", "raw", "-I", "der", "-O", "raw"}),
                NotSupported("ConvertKey"));
}

TEST_F(CliTest, StrayWordsAreIgnored)
{
    ExpectTrail(RunRecaster({"stray", "--convertkey", "-i", rawKey, "another", "-o", output, "-I", "der", "-O",
                             "raw", "last"}),
                NotSupported("ConvertKey"));
}

TEST_F(CliTest, UnknownLongOptionBesideVersionIsReportedAndIgnored)
{
    ExpectVersion(RunRecaster({"--no-such-option", "--version"}),
                  testsupport::RecasterPath() + ": unrecognized option '--no-such-option'\n");
}

TEST_F(CliTest, UnknownLongOptionBesideAConversionIsReportedAndTheConversionRuns)
{
    Args args = Command("--convertkey", rawKey, output, "raw", "pem");
    args.insert(args.begin() + 1, "--no-such-option");
    const ProcessResult result = RunRecaster(args);
    EXPECT_FALSE(result.signaled);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.out, "");
    EXPECT_EQ(result.err, testsupport::RecasterPath() + ": unrecognized option '--no-such-option'\n");
    EXPECT_EQ(testsupport::ReadFile(output).rfind("-----BEGIN PUBLIC KEY-----\n", 0), 0u);
}

TEST_F(CliTest, UnknownShortOptionIsReportedAndIgnored)
{
    ExpectVersion(RunRecaster({"-x", "-V"}), testsupport::RecasterPath() + ": invalid option -- 'x'\n");
}

// ---- Version screen --------------------------------------------------------

TEST_F(CliTest, VersionScreen)
{
    for (const char* option : {"--version", "-V"}) {
        SCOPED_TRACE(option);
        ExpectVersion(RunRecaster({option}));
    }
}

TEST_F(CliTest, VersionWinsOverAConversion)
{
    Args args = Command("--convertkey", rawKey, output, "raw", "pem");
    args.insert(args.begin(), "--version");
    ExpectVersion(RunRecaster(args));
    EXPECT_FALSE(FileExists(output));

    // The order on the command line does not matter.
    args = Command("--convertsig", rawKey, output, "raw", "markforge");
    args.push_back("--version");
    ExpectVersion(RunRecaster(args));
    EXPECT_FALSE(FileExists(output));
}

// ---- Key command before signature command ----------------------------------

TEST_F(CliTest, KeyCommandWinsOverSignatureCommand)
{
    // "der" is a signature input only: the key dispatcher refuses it.
    Args args = Command("--convertsig", rawKey, output, "der", "raw");
    args.insert(args.begin() + 1, "--convertkey");
    ExpectTrail(RunRecaster(args), NotSupported("ConvertKey"));
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, KeyCommandWinsOverSignatureCommandAndConverts)
{
    // A raw key to pem gives a PUBLIC KEY block; the signature command
    // would have written a 4096-byte header block instead.
    Args args = Command("--convertsig", rawKey, output, "raw", "pem");
    args.push_back("--convertkey");
    const ProcessResult result = RunRecaster(args);
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(result.err, "");
    EXPECT_EQ(testsupport::ReadFile(output).rfind("-----BEGIN PUBLIC KEY-----\n", 0), 0u);
}

// ---- Format words ------------------------------------------------------------

std::string BadInputFormat()
{
    return Step(1, "bool recaster::converter::SetIFormat(const string&)", "recaster/converter.cpp",
                "Input format should be : raw, markforge, pem (key) or der (sig)") +
           Step(2, RUN, "recaster/recaster.cpp", "Boolean return value failed.");
}

std::string BadOutputFormat()
{
    return Step(1, "bool recaster::converter::SetOFormat(const string&)", "recaster/converter.cpp",
                "Output format should be : raw, pem, markforge") +
           Step(2, RUN, "recaster/recaster.cpp", "Boolean return value failed.");
}

TEST_F(CliTest, InputFormatWordsAreCaseSensitive)
{
    ExpectTrail(RunRecaster(Command("--convertkey", rawKey, output, "RAW", "pem")), BadInputFormat());
    EXPECT_FALSE(FileExists(output));
    ExpectTrail(RunRecaster(Command("--convertsig", rawKey, output, "Raw", "markforge")), BadInputFormat());
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, UnknownInputFormatWordIsRefused)
{
    for (const char* word : {"bin", "raw ", "markforg", "PEM"}) {
        ExpectTrail(RunRecaster(Command("--convertkey", rawKey, output, word, "pem")), BadInputFormat());
    }
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, DerIsNoOutputFormatForKeys)
{
    ExpectTrail(RunRecaster(Command("--convertkey", rawKey, output, "raw", "der")), BadOutputFormat());
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, DerIsNoOutputFormatForSignatures)
{
    ExpectTrail(RunRecaster(Command("--convertsig", rawKey, output, "raw", "der")), BadOutputFormat());
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, OutputFormatWordsAreCaseSensitive)
{
    ExpectTrail(RunRecaster(Command("--convertkey", rawKey, output, "raw", "Markforge")), BadOutputFormat());
}

TEST_F(CliTest, DerKeyConversionIsNotSupported)
{
    ExpectTrail(RunRecaster(Command("--convertkey", rawKey, output, "der", "raw")), NotSupported("ConvertKey"));
    EXPECT_FALSE(FileExists(output));
}

TEST_F(CliTest, PemSignatureConversionIsNotSupported)
{
    ExpectTrail(RunRecaster(Command("--convertsig", rawKey, output, "pem", "raw")), NotSupported("ConvertSig"));
    EXPECT_FALSE(FileExists(output));
}

// ---- A failure deep inside a conversion ----------------------------------

TEST_F(CliTest, TrailRunsFromTheFailingConversionOutToRun)
{
    ExpectTrail(RunRecaster(Command("--convertsig", dir.file("missing.bin"), output, "raw", "markforge")),
                Step(1, "bool recaster::converter::ConvertSigFromBin(const string&, const string&)",
                     "recaster/converter.cpp", "Unable to read input signature file") +
                    Step(2, "bool recaster::converter::ConvertSig(const string&, const string&)",
                         "recaster/converter.cpp", "Boolean return value failed.") +
                    Step(3, RUN, "recaster/recaster.cpp", "Boolean return value failed."));
    EXPECT_FALSE(FileExists(output));
}

TEST(CliTrailMask, ChecksPathsAndNumbers)
{
    EXPECT_EQ(MaskLineNumbers("#1  f\n    at a/b.cpp:12\n    m\n"), "#1  f\n    at a/b.cpp:<line>\n    m\n");
    EXPECT_NONFATAL_FAILURE(MaskLineNumbers("    at /abs/b.cpp:3\n"), "path not relative");
    EXPECT_NONFATAL_FAILURE(MaskLineNumbers("    at b.cpp:0\n"), "bad line number");
    EXPECT_NONFATAL_FAILURE(MaskLineNumbers("    at b.cpp:x1\n"), "bad line number");
}

}  // namespace
