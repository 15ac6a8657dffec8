// Command-line parsing with CLI11.
#include "agentOptions.h"

#include <CLI/CLI.hpp>

#include "pkcs11Uri.h"



namespace agent {

int AgentOptions::Parse(int argc, char** argv)
{
    CLI::App app{"markforge-agent: signs digests for markforge build jobs on 127.0.0.1"};
    app.set_version_flag("-V,--version", std::string("markforge-agent ") + MARKFORGE_AGENT_VERSION);
    app.add_option("--key-dir", keyDir, "Folder of NAME.markforge / NAME.pem private keys")
        ->check(CLI::ExistingDirectory);
    app.add_option("--pkcs11-uri", pkcs11Uris,
                   "Serve the key this PKCS#11 URI (RFC 7512) names (repeatable), e.g. "
                   "'pkcs11:token=release;object=fw-key;type=private?module-path=/usr/lib/x86_64-linux-gnu/pkcs11/"
                   "p11-kit-client.so&pin-source=file:/etc/markforge/pin'; the object's label is the key name "
                   "clients ask for; without module-path, --pkcs11-module's module, or else p11-kit's proxy")
        ->type_name("URI");
    auto* module = app.add_option("--pkcs11-module", pkcs11Module,
                                  "PKCS#11 module holding the keys (for --token, and for URIs without module-path)")
                       ->check(CLI::ExistingFile);
    auto* tokenOption = app.add_option("--token", token, "Serve every labelled private key of the token of this label");
    auto* pin = app.add_option("--pin-file", pinFile,
                               "File holding the token PIN (mode o-rwx), or - for standard input; for --token, and "
                               "for URIs without pin-source");
    tokenOption->needs(module)->needs(pin);
    app.add_option("--allow-key", allowKeys, "Serve only this key name (repeatable)");
    app.add_option("--allow-user", allowUsers, "Serve only clients of this user name or uid (repeatable)");
    app.add_option("--port", port, "TCP port on 127.0.0.1 (0: any free port)")->capture_default_str();
    app.add_option("--port-file", portFile, "Write the port listened on to this file");
    app.add_option("--workers", workers, "Serving threads, each accepting, reading, signing and answering (default: one per core)")->check(CLI::Range(0, 1024));
    app.add_option("--max-connections", maxConnections, "Open connections at most")
        ->check(CLI::Range(1, 65536))
        ->capture_default_str();
    app.add_option("--max-connections-per-user", maxConnectionsPerUser,
                   "Open connections one user may hold, so that none can starve the others (default: half of "
                   "--max-connections)")
        ->check(CLI::Range(1, 65536));
    app.add_option("--read-timeout", readTimeout, "Seconds a client has to send its request")
        ->check(CLI::Range(0.001, 3600.0))
        ->capture_default_str();
    app.add_option("--allow-key-user", allowKeyUsers,
                   "Serve key KEY only to USER (name or uid; repeatable); keys named nowhere stay open to every "
                   "user let in")
        ->type_name("KEY:USER");
    app.add_option("--rate-limit", rateLimit, "Signatures per minute one user may have (default: no limit)")
        ->type_name("N")
        ->check(CLI::Range(size_t(1), size_t(1000000000)));
    app.add_option("--audit-log", auditLog, "Append the audit log to this file (default: standard error)");
    app.add_option("--metrics-file", metricsFile,
                   "Keep the monitoring counts in this file, rewritten whole every --metrics-interval seconds, in "
                   "the Prometheus text format (for node_exporter's textfile collector: name it *.prom)")
        ->type_name("FILE");
    app.add_option("--metrics-interval", metricsInterval, "Seconds between rewrites of --metrics-file")
        ->check(CLI::Range(0.1, 3600.0))
        ->capture_default_str();
    app.add_flag("--check", check, "Load the keys, print their names and fingerprints, and exit");
    app.add_option("--verify-audit", verifyAudit,
                   "Check the hash chain of these audit log files (oldest first), print the count of lines and "
                   "signatures, and exit (1 at the first line that breaks it)")
        ->type_name("FILE");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;
    }
    if (!verifyAudit.empty()) return -1;
    if (keyDir.empty() && token.empty() && pkcs11Uris.empty()) {
        std::cerr << "markforge-agent: give --key-dir, --pkcs11-uri, or --pkcs11-module with --token (see --help)\n";
        return 2;
    }
    // A URI that cannot name one private key is a usage error, found before
    // any module is loaded.
    for (const std::string& text : pkcs11Uris) {
        Pkcs11Uri uri;
        std::string error;
        if (!uri.Parse(text, error)) {
            std::cerr << "markforge-agent: " << error << '\n';
            return 2;
        }
    }
    if (!pkcs11Module.empty() && token.empty() && pkcs11Uris.empty()) {
        std::cerr << "markforge-agent: --pkcs11-module needs --token or --pkcs11-uri\n";
        return 2;
    }
    return -1;
}

}  // namespace agent
