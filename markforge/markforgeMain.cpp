// markforge::Main: CLI11 command line, commands, and how failures are told.
#include "markforgeMain.h"

#include <CLI/CLI.hpp>
#include <openssl/crypto.h>

#include <iostream>

#include "attachCommand.h"
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
#include "signAgentProtocol.h"
#include "resignCommand.h"
#include "verifyCommand.h"

namespace markforge {
namespace {

using status = exitStatus;
// What each subcommand can end with.
const std::string BUILD_STATUSES =
    ExitStatusText({status::ok, status::usage, status::badInput, status::fileSystem, status::signingFailed});
const std::string READING_STATUSES = ExitStatusText({status::ok, status::usage, status::badInput, status::fileSystem});

// The signer options build and resign share.
void AddSignerOptions(CLI::App& command, signerOptions& options)
{
    command.add_option("--key", options.key, "Signing key name")->required()->type_name("NAME");
    CLI::Option* mode =
        command
            .add_option("--mode", options.mode,
                        "development: a key file found by a plug-in; production: the signing agent at " +
                            std::string(SIGN_AGENT_ADDRESS) + ":" + std::to_string(SIGN_AGENT_PORT) +
                            "; offline: unsigned output and --requests for signing elsewhere (see attach)")
            ->check(CLI::IsMember({"development", "production", "offline"}));
    CLI::Option* keyDir =
        command.add_option("--key-dir", options.keyDir, "Development keys as DIR/NAME.markforge")->type_name("DIR");
    CLI::Option* plugin =
        command.add_option("--plugin", options.plugin, "Key-name plug-in to load")->type_name("FILE.so");
    CLI::Option* pluginArg =
        command.add_option("--plugin-arg", options.pluginArg, "Argument handed to the plug-in")->type_name("TEXT");
    keyDir->excludes(plugin);
    pluginArg->needs(plugin);
    command
        .add_option("--verify-key,--public-key", options.publicKey,
                    "The signing key's public half; every signature is checked with it (production, offline and "
                    "--signing-helper need it)")
        ->type_name("PUBKEY");
    command
        .add_option("--agent-timeout", options.agentTimeout,
                    "Production: seconds allowed for each connect, send and answer of the agent")
        ->type_name("SECONDS")
        ->capture_default_str();
    CLI::Option* helper =
        command
            .add_option("--signing-helper", options.helper,
                        "Sign by running CMD for each signature: value to sign on its standard input, raw signature "
                        "on its standard output (signing-outside.md in /usr/share/doc/markforge-tools)")
            ->type_name("CMD");
    helper->excludes(mode);
    command.add_option("--helper-timeout", options.helperTimeout, "Seconds each signing helper run may take")
        ->type_name("SECONDS")
        ->capture_default_str();
    command.add_option("--requests", options.requests, "Offline: the signing requests file to write")
        ->type_name("REQ.json");
    command.add_flag("--verbose", options.verbose,
                     "On a failure, the library's error trail too; in production mode, one line per exchange with "
                     "the agent on standard error");
    command.callback([&options, pluginArg] { options.pluginArgGiven = pluginArg->count() > 0; });
}

void AddBuildCommand(CLI::App& app, buildOptions& options)
{
    CLI::App* build = app.add_subcommand("build", "Build and sign a container from component files");
    build->add_option("-o,--output", options.output, "Container file to write")->required()->type_name("OUT");
    AddSignerOptions(*build, options.signing);
    build->add_option("--hash", options.hash, "Digest of the components")
        ->capture_default_str()
        ->check(CLI::IsMember({digestStream::WordOf(lbHashId::SHA256), digestStream::WordOf(lbHashId::SHA384),
                               digestStream::WordOf(lbHashId::SHA512)}));
    build->add_flag("--header-only", options.headerOnly, "Write only the 4096-byte header block");
    build->add_flag("--table", options.table,
                    "Add a signed table of contents (component .markforge-toc) that binds every name and place");
    build->add_flag("--allow-empty", options.allowEmpty, "Allow a container without components");
    build->add_option("components", options.components, "Components, in payload order")->type_name("NAME=FILE");
    build->footer(BUILD_STATUSES);
}

void AddResignCommand(CLI::App& app, resignOptions& options)
{
    CLI::App* resign = app.add_subcommand(
        "resign", "Sign an existing container anew with another key; payload, names, places and table kept");
    resign->add_option("file", options.file, "Container file")->required()->type_name("FILE");
    resign->add_option("-o,--output", options.output, "Container file to write (may be FILE itself)")
        ->required()
        ->type_name("OUT");
    AddSignerOptions(*resign, options.signing);
    resign->footer(BUILD_STATUSES);
}

void AddAttachCommand(CLI::App& app, attachOptions& options)
{
    CLI::App* attach = app.add_subcommand(
        "attach", "Put the signatures made elsewhere for an offline build's requests into its container");
    attach->add_option("file", options.file, "The unsigned container (build --mode offline)")
        ->required()
        ->type_name("IMG.unsigned");
    attach->add_option("--requests", options.requests, "The requests file the offline build wrote")
        ->required()
        ->type_name("REQ.json");
    attach->add_option("--signatures", options.signatures, "Folder of raw signatures NAME.sig, archive.sig")
        ->required()
        ->type_name("DIR");
    attach->add_option("-o,--output", options.output, "Signed container file to write")->required()->type_name("OUT");
    attach->add_option("--public-key", options.publicKey,
                       "The key the requests must be for (refused, status 8, when they name another)")
        ->type_name("PUB");
    attach->footer(ExitStatusText({status::ok, status::usage, status::badInput, status::fileSystem,
                                   status::signingFailed, status::signatureMissing, status::signatureExtra,
                                   status::signatureNotForRequest, status::imageNotRequested}));
}

void AddKeygenCommand(CLI::App& app, keygenOptions& options)
{
    CLI::App* keygen = app.add_subcommand("keygen", "Make a development RSA key pair");
    keygen->add_option("--bits", options.bits, "Key size")->required()->check(CLI::IsMember({2048, 3072, 4096}));
    keygen->add_option("-o,--output", options.output, "Private key file to write (markforge key file)")
        ->required()
        ->type_name("FILE.markforge");
    keygen->add_option("--public-out", options.publicOut, "Public key file to write (PEM)")->type_name("FILE.pem");
    keygen->footer(ExitStatusText({status::ok, status::usage, status::fileSystem, status::signingFailed}));
}

void AddInfoCommand(CLI::App& app, infoOptions& options)
{
    CLI::App* info = app.add_subcommand("info", "Show what a container holds and where");
    info->add_option("file", options.file, "Container file")->required()->type_name("FILE");
    info->add_flag("--json", options.json, "One JSON document on standard output (json.md in /usr/share/doc/markforge-tools)");
    info->add_option("--keyring", options.keyring, "Folder of public keys: name the key behind each signature")
        ->type_name("DIR");
    info->footer(READING_STATUSES);
}

void AddVerifyCommand(CLI::App& app, verifyOptions& options)
{
    CLI::App* verify = app.add_subcommand("verify", "Check every component signature and the archive signature");
    verify->add_option("file", options.file, "Container file")->required()->type_name("FILE");
    CLI::Option* key =
        verify->add_option("--key", options.key, "Public key: PEM (public or private), markforge key file or raw modulus")
            ->type_name("PUBKEY");
    verify
        ->add_option("--keyring", options.keyring,
                     "Folder of public keys (as info --keyring): verify under the one that made the signatures")
        ->type_name("DIR")
        ->excludes(key);
    verify->add_flag("--json", options.json, "One JSON document on standard output (json.md in /usr/share/doc/markforge-tools)");
    verify->add_flag("--require-table", options.requireTable,
                     "Fail a container without a signed table of contents (build --table)");
    verify->footer(std::string("Verdicts: ok, digest-mismatch (a good signature over other bytes), bad-signature\n"
                               "(not this key's signature), outside-file (the record points past the end).\n"
                               "Layout: the records must cover the payload exactly, in order; every gap,\n"
                               "overlap, out-of-order record, trailing byte or repeated name is a problem.\n"
                               "Table: with a table of contents every record must match it.\n") +
                   ExitStatusText({status::ok, status::problemsFound, status::usage, status::badInput,
                                   status::fileSystem}));
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
    extract->footer(READING_STATUSES);
    extract->callback([&options, component] { options.componentGiven = component->count() > 0; });
}

// The version screen. A library's own version word (fixed by its sources)
// is not the number apt and ldd show, so each library line gives its
// SONAME and package too.
void WriteVersions(std::ostream& out)
{
    const std::string package = std::string(" ") + MARKFORGE_PROGRAM_VERSION + ")\n";
    out << "markforge " << MARKFORGE_PROGRAM_VERSION << "\n";
    out << "libmarkforge " << markforge::VERSION << " (libmarkforge.so." << MARKFORGE_SOVERSION
        << ", Debian package libmarkforge" << MARKFORGE_SOVERSION << package;
    out << "lockbase " << LOCKBASE_VERSION << " (liblockbase.so." << MARKFORGE_SOVERSION
        << ", Debian package liblockbase" << MARKFORGE_SOVERSION << package;
    out << OpenSSL_version(OPENSSL_VERSION) << "\n";
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
    app.footer(ExitStatusText({status::ok, status::problemsFound, status::usage, status::badInput,
                               status::fileSystem, status::signingFailed, status::signatureMissing,
                               status::signatureExtra, status::signatureNotForRequest, status::imageNotRequested}));
    app.require_subcommand(0, 1);
    bool version = false;
    app.add_flag("-V,--version", version, "Show the versions of markforge and its libraries");
    buildOptions build;
    keygenOptions keygen;
    resignOptions resign;
    attachOptions attach;
    AddBuildCommand(app, build);
    AddResignCommand(app, resign);
    AddAttachCommand(app, attach);
    AddKeygenCommand(app, keygen);
    infoOptions info;
    verifyOptions verify;
    extractOptions extract;
    AddInfoCommand(app, info);
    AddVerifyCommand(app, verify);
    AddExtractCommand(app, extract);
    // The library's error trail (source files and lines) is for whoever
    // asks; the one-line message and the library's own text are for all.
    bool verbose = false;
    for (const char* name : {"attach", "keygen", "info", "verify", "extract"})
        app.get_subcommand(name)->add_flag("--verbose", verbose, "On a failure, the library's error trail too");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        _status = ReportParseError(app, error);
        return _status == exitStatus::ok;
    }
    _verbose = verbose || build.signing.verbose || resign.signing.verbose;
    if (version) {
        WriteVersions(std::cout);
        return true;
    }
    if (app.get_subcommands().empty()) {
        std::cerr << "markforge: a subcommand is needed\n"
                     "Usage: markforge SUBCOMMAND [OPTIONS]...   (build, resign, attach, keygen, info, verify, "
                     "extract)\n"
                     "Run 'markforge --help' for what each does, 'markforge SUBCOMMAND --help' for its options.\n";
        _status = exitStatus::usage;
        return false;
    }

    outputFile::RemoveTemporariesOnSignals();
    try {
        if (!OpenCrypto()) throw commandFailure(exitStatus::signingFailed, "OpenSSL's default provider cannot be loaded");
        if (app.got_subcommand("build")) buildCommand(build).Run(std::cout);
        if (app.got_subcommand("resign")) resignCommand(resign).Run(std::cout);
        if (app.got_subcommand("attach")) attachCommand(attach).Run(std::cout);
        if (app.got_subcommand("keygen")) keygenCommand(keygen).Run(std::cout);
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
