#pragma once

#include "role.h"

#include <gripper/connection.h>

#include <optional>
#include <string>
#include <vector>

namespace gateway {

constexpr unsigned short defaultPort = 63353;

/// The words of the command line and the lines of the configuration file.
struct Options
{
    std::vector<std::string> addresses; ///< to listen on; the loopback addresses if empty
    unsigned short port = defaultPort;
    std::string daemon = "127.0.0.1";
    std::string certificate;
    std::string key;
    bool plainHttp = false;
    std::vector<std::string> names;
    std::vector<std::string> origins;
    std::string faultTexts;
    std::string pairSocket = "/run/gripper-gateway/pair.sock";
    std::string pairGroup;
    bool viewNeedsToken = false;
    bool noMetrics = false;
    std::string metricsListen; ///< ADDRESS:PORT; empty: the metrics have no port of their own
    std::vector<int> expected; ///< ids of grippers
    std::string mqttBroker;    ///< empty: without MQTT
    std::string mqttNode;      ///< the machine's name if empty
    std::string mqttAuthority;
    std::string mqttCertificate;
    std::string mqttKey;
    std::string mqttUser;
    std::string mqttPasswordFile;
    bool plainMqtt = false;
    std::vector<std::string> mqttActions; ///< that messages may command
    bool isDemo = false;

    std::optional<Role> pairRole; ///< of the command "pair"; empty: the program serves

    bool hasTls() const { return !certificate.empty(); }
    bool hasMqtt() const { return !mqttBroker.empty(); }
    /// Throws gripper::InvalidValue.
    gripper::Endpoint brokerEndpoint() const;
};

/// Reads them. Returns the exit status instead if there is nothing more to do: after --help, or if
/// an option is wrong, which it prints.
std::optional<int> readOptions(int argc, char **argv, Options &options);

} // namespace gateway
