// markforge::Main: CLI11 command line, commands, and how failures are told.
#include "markforgeMain.h"

#include <CLI/CLI.hpp>

#include <iostream>

#include "buildCommand.h"
#include "digestStream.h"
#include "extractCommand.h"
#include "infoCommand.h"
#include "keygenCommand.h"
#include "lbGlobal.h"
#include "lbHashId.h"
#include "lbScoped.h"
#include "lbVersions.h"
#include "markforgeVersion.h"
#include "outputFile.h"
#include "verifyCommand.h"

namespace markforge {
namespace {

constexpr const char* EXIT_STATUS_TEXT =
    "Exit status:\n"
    "  0  success\n"
    "  1  verify found at least one problem\n"
    "  2  usage error\n"
    "  3  an input is unreadable or malformed\n"
    "  4  file system or plug-in error\n"
    "  5  signing failed (key, signing agent, self-verification)\n";

void AddBuildCommand(CLI::App& app, buildOptions& options)
{
    CLI::App* build = app.add_subcommand("build", "Build and sign a container from component files");
    build->add_option("-o,--output", options.output, "Container file to write")->required()->type_name("OUT");
    build->add_option("--key", options.key, "Signing key name")->required()->type_name("NAME");
    build->add_option("--mode", options.mode, "development: a key file found by a plug-in; production: the signing agent")
        ->required()
        ->check(CLI::IsMember({"development", "production"}));
    build->add_option("--hash", options.hash, "Digest of the components (default sha256)")
        ->check(CLI::IsMember({digestStream::WordOf(lbHashId::SHA256), digestStream::WordOf(lbHashId::SHA384),
                               digestStream::WordOf(lbHashId::SHA512)}));
    CLI::Option* keyDir =
        build->add_option("--key-dir", options.keyDir, "Development keys as DIR/NAME.markforge")->type_name("DIR");
    CLI::Option* plugin =
        build->add_option("--plugin", options.plugin, "Key-name plug-in to load")->type_name("FILE.so");
    CLI::Option* pluginArg =
        build->add_option("--plugin-arg", options.pluginArg, "Argument handed to the plug-in")->type_name("TEXT");
    keyDir->excludes(plugin);
    pluginArg->needs(plugin);
    build->add_flag("--header-only", options.headerOnly, "Write only the 4096-byte header block");
    build->add_flag("--table", options.table,
                    "Add a signed table of contents (component .markforge-toc) that binds every name and place");
    build->add_option("--verify-key", options.verifyKey,
                      "Production (required): the release key's public half; every signature is checked with it")
        ->type_name("PUBKEY");
    build->add_option("--agent-timeout", options.agentTimeout,
                      "Production: seconds allowed for each connect, send and answer of the agent")
        ->type_name("SECONDS");
    build->add_flag("--allow-empty", options.allowEmpty, "Allow a container without components");
    build->add_flag("--verbose", options.verbose, "Production: one line per exchange with the agent on standard error");
    build->add_option("components", options.components, "Components, in payload order")->type_name("NAME=FILE");
    build->footer(EXIT_STATUS_TEXT);
    build->callback([&options, pluginArg] { options.pluginArgGiven = pluginArg->count() > 0; });
}

void AddKeygenCommand(CLI::App& app, keygenOptions& options)
{
    CLI::App* keygen = app.add_subcommand("keygen", "Make a development RSA key pair");
    keygen->add_option("--bits", options.bits, "Key size")->required()->check(CLI::IsMember({2048, 3072, 4096}));
    keygen->add_option("-o,--output", options.output, "Private key file to write (markforge key file)")
        ->required()
        ->type_name("FILE.markforge");
    keygen->add_option("--public-out", options.publicOut, "Public key file to write (PEM)")->type_name("FILE.pem");
    keygen->footer(EXIT_STATUS_TEXT);
}

void AddInfoCommand(CLI::App& app, infoOptions& options)
{
    CLI::App* info = app.add_subcommand("info", "Show what a container holds and where");
    info->add_option("file", options.file, "Container file")->required()->type_name("FILE");
    info->add_flag("--json", options.json, "One JSON document on standard output (docs/json.md)");
    info->add_option("--keyring", options.keyring, "Folder of public keys: name the key behind each signature")
        ->type_name("DIR");
    info->footer(EXIT_STATUS_TEXT);
}

void AddVerifyCommand(CLI::App& app, verifyOptions& options)
{
    CLI::App* verify = app.add_subcommand("verify", "Check every component signature and the archive signature");
    verify->add_option("file", options.file, "Container file")->required()->type_name("FILE");
    verify->add_option("--key", options.key, "Public key: PEM (public or private), markforge key file or raw modulus")
        ->required()
        ->type_name("PUBKEY");
    verify->add_flag("--json", options.json, "One JSON document on standard output (docs/json.md)");
    verify->add_flag("--require-table", options.requireTable,
                     "Fail a container without a signed table of contents (build --table)");
    verify->footer(std::string("Verdicts: ok, digest-mismatch (a good signature over other bytes), bad-signature\n"
                               "(not this key's signature), outside-file (the record points past the end).\n"
                               "Layout: the records must cover the payload exactly, in order; every gap,\n"
                               "overlap, out-of-order record, trailing byte or repeated name is a problem.\n"
                               "Table: with a table of contents every record must match it.\n") +
                   EXIT_STATUS_TEXT);
}

void AddExtractCommand(CLI::App& app, extractOptions& options)
{
    CLI::App* extract = app.add_subcommand("extract", "Copy a component, the header signature or the payload out");
    extract->add_option("file", options.file, "Container file")->required()->type_name("FILE");
    CLI::Option* component =
        extract->add_option("--component", options.component, "The component called NAME")->type_name("NAME");
    CLI::Option* signature =
        extract->add_flag("--header-signature", options.headerSignature, "The header block's signature bytes");
    CLI::Option* payload = extract->add_flag("--payload", options.payload, "Everything after the header block");
    component->excludes(signature)->excludes(payload);
    signature->excludes(payload);
    extract->add_option("-o,--output", options.output, "File to write")->required()->type_name("OUT");
    extract->footer(EXIT_STATUS_TEXT);
    extract->callback([&options, component] { options.componentGiven = component->count() > 0; });
}

// CLI11's help goes to standard output with status 0; any other complaint
// goes to standard error as a usage error.
exitStatus ReportParseError(CLI::App& app, const CLI::ParseError& error)
{
    if (error.get_exit_code() == 0) {
        app.exit(error, std::cout, std::cerr);
        return exitStatus::ok;
    }
    std::cerr << "markforge: " << error.what() << "\n";
    std::cerr << "Run 'markforge --help' or 'markforge SUBCOMMAND --help' for the options.\n";
    return exitStatus::usage;
}

}  // namespace

Main::Main()
{
    LB_CONSTRUCTOR();
    lbGlobal.versions->Register("libmarkforge", markforge::VERSION);
}

bool Main::OpenCrypto()
{
    return _api.PreOpen(__FILE__, __LINE__, this) && _api.Open("openssl") && _api.PostOpen(__LINE__);
}

void Main::CloseCrypto()
{
    lbScoped::Close(_api);
}

bool Main::Run(int argc, char** argv)
{
    CLI::App app("Builds, signs and checks signed firmware containers.", "markforge");
    app.footer(EXIT_STATUS_TEXT);
    app.require_subcommand(0, 1);
    bool version = false;
    app.add_flag("-V,--version", version, "Show the versions of markforge and its libraries");
    buildOptions build;
    keygenOptions keygen;
    AddBuildCommand(app, build);
    AddKeygenCommand(app, keygen);
    infoOptions info;
    verifyOptions verify;
    extractOptions extract;
    AddInfoCommand(app, info);
    AddVerifyCommand(app, verify);
    AddExtractCommand(app, extract);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        _status = ReportParseError(app, error);
        return _status == exitStatus::ok;
    }
    if (version) {
        lbGlobal.versions->Display(std::cout);
        return true;
    }
    if (app.get_subcommands().empty()) {
        std::cerr << app.help();
        _status = exitStatus::usage;
        return false;
    }

    outputFile::RemoveTemporariesOnSignals();
    try {
        if (!OpenCrypto()) throw commandFailure(exitStatus::signingFailed, "OpenSSL's default provider cannot be loaded");
        if (app.got_subcommand("build")) buildCommand(build).Run(std::cout);
        if (app.got_subcommand("keygen")) keygenCommand(keygen).Run();
        if (app.got_subcommand("info")) infoCommand(info).Run(std::cout);
        if (app.got_subcommand("verify")) verifyCommand(verify).Run(std::cout);
        if (app.got_subcommand("extract")) extractCommand(extract).Run();
        CloseCrypto();
    } catch (const commandFailure& failure) {
        CloseCrypto();
        std::cerr << "markforge: " << failure.what() << "\n";
        _status = failure.Status();
    } catch (const std::exception& failure) {
        // Whatever else stops a command (memory, a failing OpenSSL digest)
        // ends it the same way, outputs removed by their owners.
        CloseCrypto();
        std::cerr << "markforge: " << failure.what() << "; nothing was written\n";
        _status = exitStatus::fileSystem;
    }
    std::cout.flush();
    return _status == exitStatus::ok;
}

}  // namespace markforge
