#pragma once

#include "serialports.h"

#include <gripper/connection.h>

#include <map>
#include <optional>
#include <string>
#include <vector>

namespace gripperctl::doctor {

/// The name of the daemon's process.
constexpr const char *daemonName = "gripperd";

/// The service, as systemd shows it.
struct Unit
{
    std::string name;
    /// Why systemd shows nothing; empty if it does.
    std::string problem;
    std::multimap<std::string, std::string> properties;

    bool isShown() const { return problem.empty(); }
    bool isLoaded() const { return isShown() && value("LoadState") == "loaded"; }
    /// One value, or "".
    std::string value(const std::string &property) const;
    /// All values, each split at blanks.
    std::vector<std::string> words(const std::string &property) const;
    /// The files that change the installed unit, for a message.
    std::string dropIns() const;
    /// 0 without a process.
    int mainProcess() const;
};

/// A process that accepts connections on the port.
struct Listener
{
    int pid = 0; ///< 0 if this user does not see it
    unsigned long user = 0;
};

/// The answers of the daemon over TCP.
struct Reply
{
    enum class End {
        Answered,
        NoConnection,
        Silent,  ///< no answer in time
        Foreign, ///< the peer does not answer like the daemon
    };

    End end = End::NoConnection;
    std::string problem;
    std::string driver;
    std::string link;
    std::vector<int> ids;
    std::map<int, std::string> firmware; ///< by the id of the gripper

    bool isAnswered() const { return end == End::Answered; }
};

/// The facts that several checks need. Gathering takes at most 3 s, plus the time for the name of
/// another machine.
struct Facts
{
    Machine machine;
    gripper::Endpoint endpoint;
    std::vector<int> expected; ///< the ids of --expect
    bool isHere = true;        ///< the daemon is on this machine
    Reply reply;
    Unit unit;
    /// The unit whose address filter the clients meet: the socket of an instance, or `unit`.
    Unit filter;
    std::vector<Process> processes;
    std::vector<Listener> listeners;
    std::vector<SerialPort> ports;
    /// The process of the daemon, or 0.
    int daemon = 0;
    /// Empty if neither the daemon's process nor its unit shows them.
    std::optional<Credentials> credentials;

    /// Whether this user sees the open files of all processes.
    bool seesAllFiles() const;
    /// Whether the process listens for the daemon. For an instance, systemd does.
    bool listensForDaemon(const Process &process) const;
    /// A process of the daemon, such as its flasher.
    bool isOfDaemon(int pid) const;
    /// The name that the daemon tries first: ttyTool.
    std::string toolLink() const;
    /// The daemon's working directory; empty if this user does not see it.
    std::string workingDirectory() const;
};

/// Whether the address is one of this machine, by its text.
bool isLoopback(const std::string &host);

/// Asks the daemon. `options` has the time for all answers.
Reply ask(const gripper::Endpoint &endpoint, const gripper::Options &options);

/// Gathers the facts of the machine around `reply`. It leaves them out for another machine.
Facts gather(const Machine &machine, const gripper::Endpoint &endpoint, const Reply &reply,
             const std::vector<int> &expected);

} // namespace gripperctl::doctor
