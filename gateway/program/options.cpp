#include "options.h"

#include "commandgate.h"
#include "identity.h"
#include "names.h"
#include "topics.h"

#include <gripper/errors.h>

#include <CLI/CLI.hpp>

#include <algorithm>

namespace gateway {

namespace {

constexpr int usageError = 2;
constexpr int brokerPort = 1883;
constexpr int brokerTlsPort = 8883;
constexpr const char *about =
    "Serves a page for the commissioning of grippers, as a client of gripperd.\n"
    "This is no safety function and does not replace the emergency stop.";

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
        ->check([](const std::string &text) {
            return isNodeName(text) ? std::string() : "not a level of a topic: " + text;
        });
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
        ->check(CLI::Range(1, 65535));
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
    addMqttOptions(app, options);
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
