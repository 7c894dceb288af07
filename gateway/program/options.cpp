#include "options.h"

#include "commandgate.h"
#include "identity.h"
#include "names.h"
#include "target.h"
#include "topics.h"

#include <settingsfile.h>
#include <version.h>

#include <CLI/CLI.hpp>
#include <gripper/connection.h>
#include <gripper/errors.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <functional>

#include <arpa/inet.h>
#include <netinet/in.h>

namespace gateway {

namespace {

constexpr int usageError = 2;
constexpr int maxPort = 65535;
constexpr int maxGripperId = 9;
constexpr int brokerPort = 1883;
constexpr int brokerTlsPort = 8883;
constexpr const char *about =
    "Serves a page for the commissioning of grippers, as a client of gripperd.\n"
    "This is no safety function and does not replace the emergency stop.";

/// A check of an option, with its problem as "takes WANTED, not WORD".
std::function<std::string(const std::string &)> check(const std::string &wanted,
                                                      bool (*isGood)(const std::string &word))
{
    return [wanted, isGood](const std::string &word) {
        return isGood(word) ? std::string() : "takes " + wanted + ", not " + word;
    };
}

bool isAddress(const std::string &word)
{
    std::array<unsigned char, sizeof(in6_addr)> address{};
    // A link-local address may have a zone.
    const std::string withoutZone = word.substr(0, word.find('%'));
    return inet_pton(AF_INET, word.c_str(), address.data()) == 1 ||
           inet_pton(AF_INET6, withoutZone.c_str(), address.data()) == 1;
}

bool isPort(const std::string &word)
{
    return numberIn(word, 1, maxPort).has_value();
}

bool isEndpoint(const std::string &word)
{
    try {
        gripper::Endpoint::fromText(word);
        return true;
    } catch (const gripper::InvalidValue &) {
        return false;
    }
}

bool isFile(const std::string &word)
{
    return CLI::ExistingFile(word).empty();
}

bool isAddressWithPort(const std::string &word)
{
    const Authority authority = Authority::fromText(word);
    const bool isIpv6 = word.rfind('[', 0) == 0 && word.find("]:") != std::string::npos;
    return (isIpv6 || CLI::ValidIPV4(authority.host).empty()) && isPort(authority.port);
}

bool isGripperId(const std::string &word)
{
    return numberIn(word, 1, maxGripperId).has_value();
}

void addMetricsOptions(CLI::App &app, Options &options)
{
    CLI::Option *none = app.add_flag("--no-metrics", options.noMetrics, "serve no /metrics");
    app.add_option("--metrics-listen", options.metricsListen,
                   "ADDRESS:PORT on which /metrics needs no token")
        ->check(check("ADDRESS:PORT", isAddressWithPort))
        ->excludes(none);
    app.add_option("--expect", options.expected,
                   "ids of the grippers that the line must have, such as 2,9, for the metrics")
        ->delimiter(',')
        ->check(check("ids of grippers", isGripperId))
        ->excludes(none);
}

void addMqttOptions(CLI::App &app, Options &options)
{
    CLI::Option *broker = app.add_option(
        "--mqtt", options.mqttBroker,
        "publish to the MQTT broker HOST or HOST:PORT (port 8883, without TLS 1883)");
    const auto add = [&](const char *name, std::string &value, const char *text) {
        return app.add_option(name, value, text)->needs(broker);
    };
    add("--mqtt-node", options.mqttNode,
        "the name of this gateway in topics, unique at the broker (default: the machine's name)")
        ->check(check("a level of a topic", isNodeName));
    CLI::Option *authority =
        add("--mqtt-ca", options.mqttAuthority, "file with the CA certificates for the broker");
    CLI::Option *certificate = add("--mqtt-cert", options.mqttCertificate,
                                   "file with the certificate of this gateway for the broker");
    CLI::Option *key = add("--mqtt-key", options.mqttKey, "file with its private key");
    certificate->needs(authority)->needs(key);
    key->needs(certificate);
    CLI::Option *user = add("--mqtt-user", options.mqttUser, "user name for the broker");
    add("--mqtt-password-file", options.mqttPasswordFile,
        "file whose first line is the password for the broker")
        ->needs(user);
    app.add_flag("--plain-mqtt", options.plainMqtt,
                 "reach a broker on another machine without TLS");
    std::vector<std::string> actions(commandActions.size());
    std::transform(commandActions.begin(), commandActions.end(), actions.begin(),
                   [](Action action) { return nameOf(action); });
    app.add_option("--allow", options.mqttActions,
                   "actions that MQTT messages may command, for example move,activate,stop")
        ->needs(broker)
        ->delimiter(',')
        ->check(CLI::IsMember(actions));
}

void addOptions(CLI::App &app, Options &options)
{
    tools::SettingsFile::addOption(app, "/etc/gripper-gateway.toml", "read options from this file");
    app.add_option("--listen", options.addresses,
                   "address to listen on; may be repeated (default: 127.0.0.1 and ::1)")
        ->check(check("an IP address", isAddress));
    app.add_option("--port", options.port, "port to listen on")
        ->capture_default_str()
        ->check(check("a number from 1 to 65535", isPort));
    app.add_option("--daemon", options.daemon, "address of gripperd, HOST or HOST:PORT")
        ->capture_default_str()
        ->check(check("HOST or HOST:PORT", isEndpoint));
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
        ->check(check("an origin such as https://robot7.plant", isOrigin));
    app.add_option("--fault-texts", options.faultTexts, "JSON file with the texts of fault codes")
        ->check(check("the path of a file", isFile));
    app.add_option("--pair-socket", options.pairSocket, "socket for pairing")
        ->capture_default_str();
    app.add_option("--pair-group", options.pairGroup, "group whose members may pair, like root");
    app.add_flag("--view-needs-token", options.viewNeedsToken,
                 "viewing needs pairing on this machine too; use it behind a reverse proxy");
    addMetricsOptions(app, options);
    addMqttOptions(app, options);
    app.add_flag("--demo", options.isDemo, "start a simulated line and its daemon, too")
        ->configurable(false);
    app.set_version_flag("--version", std::string("gripper-gateway ") + tools::version);
}

void addPairCommand(CLI::App &app, std::string &role)
{
    CLI::App *pair =
        app.add_subcommand("pair", "Ask the running gateway for a pairing code and show it");
    pair->fallthrough();
    pair->add_option("--role", role, "view, operate or maintain")
        ->required()
        ->configurable(false)
        ->check(CLI::IsMember({"view", "operate", "maintain"}));
}

/// Empty if nothing is wrong.
std::string problemOfMqtt(const Options &options)
{
    if (!options.hasMqtt())
        return {};
    try {
        const std::string host = options.brokerEndpoint().host;
        if (options.mqttAuthority.empty() && !options.plainMqtt && !Names::isLoopback(host)) {
            return "a broker on another machine without TLS lets the network path read the "
                   "password and command grippers: give --mqtt-ca, or say --plain-mqtt";
        }
    } catch (const gripper::InvalidValue &error) {
        return error.what();
    }
    if (options.mqttNode.empty() && !isNodeName(machineName()))
        return "this machine has no name for topics: give --mqtt-node";
    return {};
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

gripper::Endpoint Options::brokerEndpoint() const
{
    return gripper::Endpoint::fromText(mqttBroker,
                                       mqttAuthority.empty() ? brokerPort : brokerTlsPort);
}

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
    } catch (const tools::SettingsError &error) {
        std::fprintf(stderr, "gripper-gateway: %s\n", error.what());
        return usageError;
    }
    options.pairRole = roleOf(role);
    std::string problem = problemOf(options);
    if (problem.empty())
        problem = problemOfMqtt(options);
    if (!problem.empty()) {
        std::fprintf(stderr, "gripper-gateway: %s\n", problem.c_str());
        return usageError;
    }
    return std::nullopt;
}

} // namespace gateway
