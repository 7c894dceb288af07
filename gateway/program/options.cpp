#include "options.h"

#include "identity.h"
#include "names.h"
#include "target.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace gateway {

namespace {

constexpr int usageError = 2;
constexpr int maxPort = 65535;
constexpr int maxGripperId = 9;
constexpr const char *about =
    "Serves a page for the commissioning of grippers, as a client of gripperd.\n"
    "This is no safety function and does not replace the emergency stop.";

std::string problemOfAddress(const std::string &text)
{
    const Authority authority = Authority::fromText(text);
    const bool isIpv4 = CLI::ValidIPV4(authority.host).empty();
    const bool isIpv6 = text.rfind('[', 0) == 0 && text.find("]:") != std::string::npos;
    const bool isValid = (isIpv4 || isIpv6) && numberIn(authority.port, 1, maxPort).has_value();
    return isValid ? std::string() : "not ADDRESS:PORT: " + text;
}

void addMetricsOptions(CLI::App &app, Options &options)
{
    CLI::Option *none = app.add_flag("--no-metrics", options.noMetrics, "serve no /metrics");
    app.add_option("--metrics-listen", options.metricsListen,
                   "ADDRESS:PORT on which /metrics needs no token")
        ->check(problemOfAddress)
        ->excludes(none);
    app.add_option("--expect", options.expected,
                   "ids of the grippers that the line must have, such as 2,9, for the metrics")
        ->delimiter(',')
        ->check(CLI::Range(1, maxGripperId))
        ->excludes(none);
}

void addOptions(CLI::App &app, Options &options)
{
    app.set_config("--config", "/etc/gripper-gateway.toml", "read options from this file");
    app.add_option("--listen", options.addresses,
                   "address to listen on; may be repeated (default: 127.0.0.1 and ::1)")
        ->check(CLI::ValidIPV4 | CLI::Validator(
                                     [](const std::string &text) {
                                         return text.find(':') == std::string::npos
                                                    ? std::string("not an address: " + text)
                                                    : std::string();
                                     },
                                     "IPV6", "ipv6"));
    app.add_option("--port", options.port, "port to listen on")
        ->capture_default_str()
        ->check(CLI::Range(1, maxPort));
    app.add_option("--daemon", options.daemon, "address of gripperd, HOST or HOST:PORT")
        ->capture_default_str();
    CLI::Option *key = app.add_option("--tls-key", options.key, "file with the private key");
    CLI::Option *certificate =
        app.add_option("--tls-cert", options.certificate, "file with the certificate chain");
    certificate->needs(key);
    key->needs(certificate);
    app.add_flag("--plain-http", options.plainHttp,
                 "listen without TLS on other addresses than loopback");
    app.add_option("--name", options.names,
                   "a further name of this machine in browsers; may be repeated");
    app.add_option(
           "--origin", options.origins,
           "the origin that a reverse proxy shows, such as https://robot7.plant; may be repeated")
        ->check([](const std::string &text) {
            return isOrigin(text) ? std::string() : "not an origin: " + text;
        });
    app.add_option("--fault-texts", options.faultTexts, "JSON file with the texts of fault codes")
        ->check(CLI::ExistingFile);
    app.add_option("--pair-socket", options.pairSocket, "socket for pairing")
        ->capture_default_str();
    app.add_option("--pair-group", options.pairGroup, "group whose members may pair, like root");
    app.add_flag("--view-needs-token", options.viewNeedsToken,
                 "viewing needs pairing on this machine too; use it behind a reverse proxy");
    addMetricsOptions(app, options);
    app.add_flag("--demo", options.isDemo, "start a simulated line and its daemon, too");
    app.set_version_flag("--version", programVersion);
}

void addPairCommand(CLI::App &app, std::string &role)
{
    CLI::App *pair =
        app.add_subcommand("pair", "Ask the running gateway for a pairing code and show it");
    pair->fallthrough();
    pair->add_option("--role", role, "view, operate or maintain")
        ->required()
        ->check(CLI::IsMember({"view", "operate", "maintain"}));
}

/// Empty if nothing is wrong.
std::string problemOf(const Options &options)
{
    if (options.hasTls() || options.plainHttp)
        return {};
    const auto foreign =
        std::find_if(options.addresses.begin(), options.addresses.end(),
                     [](const std::string &address) { return !Names::isLoopback(address); });
    if (foreign == options.addresses.end())
        return {};
    return "listening on " + *foreign +
           " without TLS shows every token to the network: give --tls-cert and --tls-key, or say "
           "--plain-http";
}

} // namespace

std::optional<int> readOptions(int argc, char **argv, Options &options)
{
    CLI::App app(about, "gripper-gateway");
    std::string role;
    addOptions(app, options);
    addPairCommand(app, role);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? 0 : usageError;
    }
    options.pairRole = roleOf(role);
    const std::string problem = problemOf(options);
    if (!problem.empty()) {
        std::fprintf(stderr, "gripper-gateway: %s\n", problem.c_str());
        return usageError;
    }
    return std::nullopt;
}

} // namespace gateway
