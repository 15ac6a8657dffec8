// recaster: process entry, command-line parsing and the run driver.
#include "recaster.h"

#include <getopt.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

#include "converter.h"
#include "gvTable.h"
#include "lbSteps.h"
#include "lbVersions.h"
#include "version.h"

namespace recaster {
namespace {

// The help screen's rows: option and what it does.
constexpr const char* HELP_ROWS[][2] = {
    {"--help", "recaster help."},
    {"--version", "recaster version."},
    {"--convertkey", "Convert a key file format."},
    {"--convertsig", "Convert a sig file format."},
    {"--input", "Input key path."},
    {"--output", "Output prefix."},
    {"--iformat", "Input file format: raw, markforg, pem (key), der(sig)"},
    {"--oformat", "Output file format:: raw or markforge."},
};

// -k and -s take an argument in their short form only; the argument is never
// used, and the asymmetry is part of the command line.
constexpr const char* SHORT_OPTIONS = "hVi:o:I:O:s:k:";
const option LONG_OPTIONS[] = {
    {"help", no_argument, nullptr, 'h'},
    {"version", no_argument, nullptr, 'V'},
    {"convertkey", no_argument, nullptr, 'k'},
    {"convertsig", no_argument, nullptr, 's'},
    {"input", required_argument, nullptr, 'i'},
    {"output", required_argument, nullptr, 'o'},
    {"iformat", required_argument, nullptr, 'I'},
    {"oformat", required_argument, nullptr, 'O'},
    {nullptr, 0, nullptr, 0},
};

struct Options {
    std::string input, output, iformat, oformat;
    bool convertkey = false;
    bool convertsig = false;
    bool version = false;
};

// The messages for a conversion command missing one of its four values.
struct MissingValueMessages {
    const char* input;
    const char* output;
    const char* iformat;
    const char* oformat;
};
constexpr MissingValueMessages CONVERTKEY_MISSING = {
    "--convertkey requires --input.", "--convertkey requires --output.", " --convertkey requires --iformat.",
    "--convertkey requires --oformat."};
constexpr MissingValueMessages CONVERTSIG_MISSING = {
    "--convertsig requires --input.", "--convertsig requires --output.", " --convertsig requires --iformat.",
    "--convertsig requires --oformat."};

}  // namespace

Main::Main()
{
    LB_CONSTRUCTOR();
    lbGlobal.versions->Register("markforge", markforge::VERSION);
}

void Main::Help(const char* format, ...)
{
    char message[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(message, 1023, format, args);
    va_end(args);
    std::cout << message << std::endl;

    gvTable table;
    const gvColumnId argument = table.createColumn("Argument");
    const gvColumnId description = table.createColumn("Description");
    for (const auto& row : HELP_ROWS) {
        gvRow& line = table.createRow();
        line.Insert(argument, row[0]);
        line.Insert(description, row[1]);
    }
    table.Display(std::cout);
    std::cout.flush();
    std::exit(1);
}

bool Main::Run(int argc, char** argv)
{
    LB_FUNCTION("virtual bool recaster::Main::Run(int, char**)");
    Options options;
    for (;;) {
        const int c = getopt_long(argc, argv, SHORT_OPTIONS, LONG_OPTIONS, nullptr);
        if (c == -1) break;
        switch (c) {
        case 'h': Help("This is the help screen");
        case 'V': options.version = true; break;
        case 'k': options.convertkey = true; break;
        case 's': options.convertsig = true; break;
        case 'i': options.input = optarg; break;
        case 'o': options.output = optarg; break;
        case 'I': options.iformat = optarg; break;
        case 'O': options.oformat = optarg; break;
        default: break;  // getopt_long has already said what was wrong
        }
    }
    if (!options.version && !options.convertkey && !options.convertsig) Help("Missing top level command: ");

    LB_OPEN_WITH(_api, _api.Open("openssl"));

    if (options.version) {
        lbVersions& versions = *lbGlobal.versions;
        LB_OPEN(versions);
        LB_CONTINUE_CHECK();
        versions.Display(std::cout);
        LB_CLOSE(versions);
        LB_CLOSE_WITH(_api, _api.Close());
        return true;
    }

    const bool isKey = options.convertkey;
    if (!isKey && !options.convertsig) Help("Unknown error -- at catchall.");
    const MissingValueMessages& missing = isKey ? CONVERTKEY_MISSING : CONVERTSIG_MISSING;
    if (options.input.empty()) Help("%s", missing.input);
    if (options.output.empty()) Help("%s", missing.output);
    if (options.iformat.empty()) Help("%s", missing.iformat);
    if (options.oformat.empty()) Help("%s", missing.oformat);

    converter conversion;
    LB_OPEN(conversion);
    LB_CHECK(conversion.SetIFormat(options.iformat));
    LB_CHECK(conversion.SetOFormat(options.oformat));
    if (isKey)
        LB_CHECK(conversion.ConvertKey(options.input, options.output));
    else
        LB_CHECK(conversion.ConvertSig(options.input, options.output));
    LB_CLOSE(conversion);
    return true;
}

}  // namespace recaster

// Test programs that drive recaster::Main themselves build this file without
// its entry point.
#ifndef RECASTER_NO_MAIN
int main(int argc, char** argv)
{
    recaster::Main application;
    if (application.InitAndRun("recaster", recaster::VERSION, argc, argv)) std::exit(0);
    if (application.HaveStackTrace()) application.DumpStackTrace(std::cerr);
    std::exit(1);
}
#endif
