#include "facts.h"

#include "text.h"

#include <gripper/errors.h>
#include <gripper/line.h>

#include <algorithm>
#include <iomanip>

namespace gripperctl::doctor {

namespace {

constexpr const char *listening = "0A"; // in /proc/net/tcp

// The properties of the unit that the checks need.
constexpr const char *properties =
    "--property=LoadState,ActiveState,SubState,Result,UnitFileState,NRestarts,MainPID,User,Group,"
    "SupplementaryGroups,DevicePolicy,DeviceAllow,IPAddressAllow,IPAddressDeny,WorkingDirectory,"
    "FragmentPath,DropInPaths,NeedDaemonReload";

bool isStandardPort(const gripper::Endpoint &endpoint)
{
    return endpoint.port == gripper::Endpoint::defaultPort;
}

/// The service, and for an instance also the socket that accepts its clients.
std::vector<std::string> unitNamesFor(const gripper::Endpoint &endpoint)
{
    if (isStandardPort(endpoint))
        return {"gripperd.service"};
    return {concat("gripperd@", endpoint.port, ".service"),
            concat("gripperd-forward@", endpoint.port, ".socket")};
}

/// Asks systemd for all units at once, because systemd may not answer.
std::vector<Unit> unitsOf(const std::vector<std::string> &names)
{
    std::vector<std::string> words{"systemctl", "show", "--no-pager", properties};
    words.insert(words.end(), names.begin(), names.end());
    const Run run = Machine::run(words);
    std::vector<Unit> units(names.size());
    for (std::size_t i = 0; i < names.size(); ++i) {
        units[i].name = names[i];
        if (!run.hasSucceeded())
            units[i].problem = concat("systemctl shows no units here: ", run.problem());
    }
    std::size_t i = 0;
    for (const std::string &line : linesOf(run.hasSucceeded() ? run.output : "")) {
        // An empty line separates the units.
        i += line.empty() ? 1 : 0;
        const std::size_t equals = line.find('=');
        if (equals != std::string::npos && i < units.size())
            units[i].properties.emplace(line.substr(0, equals), line.substr(equals + 1));
    }
    return units;
}

/// The last four digits of a local address such as 0100007F:F778 are the port.
std::string suffixFor(int port)
{
    std::ostringstream text;
    text << ':' << std::uppercase << std::hex << std::setw(4) << std::setfill('0') << port;
    return text.str();
}

bool endsWith(const std::string &text, const std::string &end)
{
    return text.size() >= end.size() &&
           text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::vector<Listener> listenersOf(const Machine &machine, const std::vector<Process> &processes,
                                  int port)
{
    constexpr std::size_t state = 3;
    constexpr std::size_t user = 7;
    constexpr std::size_t inode = 9;
    std::vector<Listener> listeners;
    for (const char *table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        for (const std::string &line : linesOf(machine.read(table).value_or(""))) {
            const std::vector<std::string> fields = wordsOf(line);
            if (fields.size() <= inode || fields[state] != listening ||
                !endsWith(fields[1], suffixFor(port)))
                continue;
            Listener listener;
            listener.user = decimal(fields[user]).value_or(0);
            for (const Process &process : processes) {
                const auto &sockets = process.sockets;
                if (std::find(sockets.begin(), sockets.end(), fields[inode]) != sockets.end()) {
                    listener.pid = process.pid;
                    break;
                }
            }
            listeners.push_back(listener);
        }
    }
    return listeners;
}

/// The gripperd that listens, whoever has started it; otherwise the process of the unit.
int daemonOf(const Facts &facts)
{
    for (const Listener &listener : facts.listeners) {
        const Process *process = findProcess(facts.processes, listener.pid);
        if (process != nullptr && process->name == daemonName)
            return process->pid;
    }
    const int main = facts.unit.mainProcess();
    return findProcess(facts.processes, main) == nullptr ? 0 : main;
}

std::optional<Credentials> credentialsOfDaemon(const Facts &facts)
{
    if (facts.daemon != 0)
        return credentialsOf(facts.machine, facts.daemon);
    if (!facts.unit.isLoaded())
        return std::nullopt;
    std::vector<std::string> groups = facts.unit.words("SupplementaryGroups");
    groups.push_back(facts.unit.value("Group"));
    const std::string user = facts.unit.value("User");
    return credentialsOf(facts.machine, user.empty() ? "root" : user, groups);
}

} // namespace

std::string Unit::value(const std::string &property) const
{
    const auto found = properties.find(property);
    return found == properties.end() ? "" : found->second;
}

std::vector<std::string> Unit::words(const std::string &property) const
{
    std::vector<std::string> all;
    const auto [begin, end] = properties.equal_range(property);
    for (auto entry = begin; entry != end; ++entry) {
        const std::vector<std::string> words = wordsOf(entry->second);
        all.insert(all.end(), words.begin(), words.end());
    }
    return all;
}

std::string Unit::dropIns() const
{
    const std::vector<std::string> paths = words("DropInPaths");
    return paths.empty() ? "no drop-in" : join(paths);
}

int Unit::mainProcess() const
{
    return static_cast<int>(decimal(value("MainPID")).value_or(0));
}

bool Facts::seesAllFiles() const
{
    return std::all_of(processes.begin(), processes.end(),
                       [](const Process &process) { return process.areFilesVisible; });
}

bool Facts::listensForDaemon(const Process &process) const
{
    constexpr int systemd = 1;
    return process.name == daemonName || (process.pid == systemd && !isStandardPort(endpoint));
}

bool Facts::isOfDaemon(int pid) const
{
    return daemon != 0 && descendsFrom(processes, pid, daemon);
}

std::string Facts::toolLink() const
{
    return isStandardPort(endpoint) ? "ttyTool" : concat("gripper-", endpoint.port);
}

std::string Facts::workingDirectory() const
{
    const std::string ofProcess =
        daemon == 0 ? "" : machine.canonical(concat("/proc/", daemon, "/cwd"));
    return ofProcess.empty() ? unit.value("WorkingDirectory") : ofProcess;
}

bool isLoopback(const std::string &host)
{
    return host == "localhost" || host == "::1" || startsWith(host, "127.");
}

Reply ask(const gripper::Endpoint &endpoint, const gripper::Options &options)
{
    Reply reply;
    const gripper::Deadline deadline(options.timeout);
    try {
        gripper::Connection line(endpoint, options);
        const gripper::LineImage image = gripper::decodeLine(
            line.exchange(gripper::lineRequests(), deadline), gripper::ReadingTime::now());
        if (!image.driver || !image.link)
            throw gripper::ProtocolError("it knows no version of the driver");
        reply.driver = *image.driver;
        reply.link = *image.link;
        reply.ids = image.ids.value_or(std::vector<int>());
        reply.end = Reply::End::Answered;
        for (const int id : reply.ids)
            reply.firmware[id] = gripper::Connection(endpoint, options, id).get("FWV", deadline);
    } catch (const gripper::TimedOut &error) {
        reply.problem = error.what();
        if (!reply.isAnswered())
            reply.end = Reply::End::Silent;
    } catch (const gripper::ProtocolError &error) {
        reply.problem = error.what();
        reply.end = Reply::End::Foreign;
    } catch (const gripper::ConnectionLost &error) {
        reply.problem = error.what();
        if (!reply.isAnswered())
            reply.end = Reply::End::NoConnection;
    }
    return reply;
}

Facts gather(const Machine &machine, const gripper::Endpoint &endpoint, const Reply &reply,
             const std::vector<int> &expected)
{
    Facts facts{machine, endpoint, expected, isLoopback(endpoint.host), reply, {}, {}, {}, {},
                {},      0,        {}};
    if (!facts.isHere)
        return facts;
    const std::vector<Unit> units = unitsOf(unitNamesFor(endpoint));
    facts.unit = units.front();
    facts.filter = units.back();
    facts.processes = processesOf(machine);
    facts.listeners = listenersOf(machine, facts.processes, endpoint.port);
    facts.ports = serialPortsOf(machine, facts.toolLink());
    facts.daemon = daemonOf(facts);
    facts.credentials = credentialsOfDaemon(facts);
    return facts;
}

} // namespace gripperctl::doctor
