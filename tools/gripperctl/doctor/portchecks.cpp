// The serial ports: their names, rights, locks and users. No check opens a port.
#include "checks.h"

#include "text.h"

#include <algorithm>
#include <set>

#include <fnmatch.h>
#include <sys/sysmacros.h>

namespace gripperctl::doctor {

namespace {

const std::string seeAsRoot = "Run sudo gripperctl doctor.";
const std::string lockFolder = "/run/lock";

bool isCharacterDevice(const SerialPort &port)
{
    return port.node && S_ISCHR(port.node->st_mode);
}

std::vector<const SerialPort *> openablePorts(const Facts &facts)
{
    std::vector<const SerialPort *> ports;
    for (const SerialPort &port : facts.ports) {
        if (isCharacterDevice(port))
            ports.push_back(&port);
    }
    return ports;
}

std::string namesOf(const std::vector<SerialPort> &ports)
{
    std::vector<std::string> names;
    names.reserve(ports.size());
    for (const SerialPort &port : ports)
        names.push_back(port.text());
    return names.empty() ? "none" : join(names);
}

// DeviceAllow

/// The names of the kinds of a device in /proc/devices: "ttyUSB".
std::vector<std::string> kindsOf(const Machine &machine, dev_t number)
{
    std::vector<std::string> kinds;
    for (const std::string &line : linesOf(machine.read("/proc/devices").value_or(""))) {
        if (startsWith(line, "Block"))
            break;
        const std::vector<std::string> words = wordsOf(line);
        if (words.size() == 2 && decimal(words[0]) == major(number))
            kinds.push_back(words[1]);
    }
    return kinds;
}

/// Whether a line of DeviceAllow ("char-ttyUSB rw", "/dev/ttyUSB0 rw") gives the port.
bool allows(const Facts &facts, const std::string &line, const SerialPort &port)
{
    const std::vector<std::string> words = wordsOf(line);
    if (words.empty())
        return false;
    const std::string rights = words.size() > 1 ? words[1] : "rwm";
    if (rights.find('r') == std::string::npos || rights.find('w') == std::string::npos)
        return false;
    const std::string kind = "char-";
    if (!startsWith(words[0], kind)) {
        const auto named = facts.machine.status(words[0]);
        return named && FileId::of(*named).isSame(FileId::of(*port.node));
    }
    const std::string pattern = words[0].substr(kind.size());
    const std::vector<std::string> kinds = kindsOf(facts.machine, port.node->st_rdev);
    return std::any_of(kinds.begin(), kinds.end(), [&](const std::string &name) {
        return ::fnmatch(pattern.c_str(), name.c_str(), 0) == 0;
    });
}

bool isAllowed(const Facts &facts, const SerialPort &port)
{
    const Unit &unit = facts.unit;
    const auto [begin, end] = unit.properties.equal_range("DeviceAllow");
    const std::string policy = unit.value("DevicePolicy");
    // systemd shows no line, or an empty one, if there is no entry.
    const bool isListed = begin != end && !begin->second.empty();
    if (policy.empty() || (policy == "auto" && !isListed))
        return true;
    // Every policy but "strict" allows pseudo-terminals.
    const std::vector<std::string> kinds = kindsOf(facts.machine, port.node->st_rdev);
    if (policy != "strict" && std::find(kinds.begin(), kinds.end(), "pts") != kinds.end())
        return true;
    return std::any_of(begin, end,
                       [&](const auto &entry) { return allows(facts, entry.second, port); });
}

// Lock files

/// A lock file of QSerialPort has the lines process id, program and host; others only have the id.
struct Lock
{
    std::string path;
    int pid = 0; ///< 0 if the file has no id
    std::string program;
    std::string host;
    std::optional<struct stat> file;
};

std::vector<Lock> locksOf(const Facts &facts)
{
    std::set<std::string> names;
    for (const SerialPort &port : facts.ports)
        names.insert(port.names.begin(), port.names.end());
    names.insert(facts.toolLink());
    std::vector<Lock> locks;
    for (std::string name : names) {
        std::replace(name.begin(), name.end(), '/', '_');
        Lock lock;
        lock.path = concat(lockFolder, "/LCK..", name);
        lock.file = facts.machine.status(lock.path);
        if (!lock.file)
            continue;
        std::vector<std::string> lines =
            linesOf(facts.machine.read(lock.path).value_or(std::string()));
        lines.resize(3);
        lock.pid = static_cast<int>(decimal(trimmed(lines[0])).value_or(0));
        lock.program = trimmed(lines[1]);
        lock.host = trimmed(lines[2]);
        locks.push_back(lock);
    }
    return locks;
}

/// Whether the process that the file names still runs. Its id may belong to another program now.
bool isHeld(const Facts &facts, const Lock &lock)
{
    const Process *process = findProcess(facts.processes, lock.pid);
    if (process == nullptr || lock.program.empty())
        return process != nullptr;
    const std::string exe = facts.machine.link(concat("/proc/", lock.pid, "/exe")).value_or("");
    const std::string name = exe.substr(exe.rfind('/') + 1);
    return exe.empty() || name == lock.program || startsWith(lock.program, process->name);
}

/// Whether the daemon can remove the file: /run/lock lets only the owner of a file remove it.
bool canRemove(const Facts &facts, const Lock &lock)
{
    return facts.credentials &&
           (facts.credentials->mayOverride || facts.credentials->user == lock.file->st_uid);
}

Finding staleLock(const Facts &facts, const Lock &lock)
{
    const bool isHarmless = canRemove(facts, lock);
    return {isHarmless ? Level::Note : Level::Problem,
            lock.pid == 0 ? concat(lock.path, " is stale: it names no process")
                          : concat(lock.path, " is stale: process ", lock.pid, " has ended"),
            isHarmless ? "The daemon replaces it when it opens the port."
                       : "The daemon cannot remove it, so it cannot open the port.",
            concat("Run: sudo rm ", lock.path)};
}

void judge(const Facts &facts, const Lock &lock, Findings &findings)
{
    const std::string ownHost = facts.machine.line("/proc/sys/kernel/hostname");
    const Process *holder = findProcess(facts.processes, lock.pid);
    // An ordinary user may not see which gripperd has the port.
    const bool isPerhapsDaemon =
        facts.daemon == 0 && holder != nullptr && holder->name == daemonName;
    if (facts.isOfDaemon(lock.pid) || isPerhapsDaemon)
        return;
    if (!lock.host.empty() && !ownHost.empty() && lock.host != ownHost)
        findings.push_back(
            {Level::Problem,
             concat(lock.path, " is of process ", lock.pid, " on the host ", lock.host),
             "The daemon treats the port as locked. The host may be a container, or "
             "this machine before it was renamed.",
             concat("If no program there uses the port: sudo rm ", lock.path)});
    else if (isHeld(facts, lock))
        findings.push_back({Level::Problem, concat(lock.path, " is of ", holder->text()),
                            "The daemon does not open a port that another program has locked.",
                            "End that program."});
    else
        findings.push_back(staleLock(facts, lock));
}

// Holders

void judge(const Facts &facts, const SerialPort &port, const Process &process, Findings &findings)
{
    const std::string result = concat(process.text(), " has ", port.path(), " open");
    const std::string action =
        concat("End that program, or give it another port: sudo kill ", process.pid);
    if (port.isTool)
        findings.push_back({Level::Problem, result,
                            concat("The daemon opens ", port.names.front(),
                                   " nevertheless, so both programs send on one line."),
                            action});
    else
        findings.push_back({facts.reply.link == "RUNNING" ? Level::Note : Level::Problem, result,
                            "The daemon does not use this port meanwhile.", action});
}

} // namespace

Findings checkToolLink(const Facts &facts)
{
    Findings findings;
    for (const SerialPort &port : facts.ports) {
        if (!port.isTool)
            continue;
        if (!port.node)
            findings.push_back(
                {Level::Problem, concat(port.text(), ": the link leads to nothing"),
                 "The daemon cannot open its first port.",
                 "Plug the adapter in, or correct the udev rule that makes the link."});
        else if (!isCharacterDevice(port))
            findings.push_back({Level::Problem, concat(port.text(), ": this is no serial port"),
                                "The daemon cannot open its first port.",
                                "Remove it, and correct the program that made it."});
        else if (startsWith(port.name(), "ttyACM"))
            findings.push_back({Level::Problem, concat(port.text(), ": an adapter of class modem"),
                                "The daemon uses time-outs that are too short for this adapter.",
                                "Remove the link: the daemon finds the adapter by its own name."});
    }
    return orOk(findings, concat("ports for grippers: ", namesOf(facts.ports)));
}

Findings checkPermissions(const Facts &facts)
{
    if (!facts.credentials)
        return one(Level::Unseen, "the user of the daemon is unknown",
                   "Whether it may open the ports is unknown.",
                   "Run sudo gripperctl doctor while the daemon runs.");
    Findings findings;
    for (const SerialPort *port : openablePorts(facts)) {
        if (facts.credentials->may(06, *port->node))
            continue;
        findings.push_back(
            {Level::Problem,
             concat("the daemon's user ", facts.credentials->user, " may not open ", port->path()),
             concat("The port belongs to user ", port->node->st_uid, " and group ",
                    port->node->st_gid, ". The daemon needs the right to read and to write."),
             "Add the user to the group of the port (sudo usermod -aG dialout gripperd), restart "
             "the "
             "service, and look for a udev rule that changes the rights."});
    }
    return orOk(findings, "the daemon may open all ports");
}

Findings checkDevicePolicy(const Facts &facts)
{
    Findings findings;
    if (!facts.unit.isShown())
        return unseenUnit(facts);
    for (const SerialPort *port : openablePorts(facts)) {
        if (!facts.unit.isLoaded() || isAllowed(facts, *port))
            continue;
        std::vector<std::string> kinds = kindsOf(facts.machine, port->node->st_rdev);
        kinds.push_back("NAME");
        findings.push_back({Level::Problem,
                            concat("DeviceAllow= of ", facts.unit.name, " excludes ", port->path()),
                            "The kernel refuses the port to the daemon, whatever its rights are.",
                            concat("Add DeviceAllow=char-", kinds.front(),
                                   " rw with systemctl edit (now: ", facts.unit.dropIns(),
                                   "), and restart the service.")});
    }
    return orOk(findings, "the unit allows all ports");
}

Findings checkLocks(const Facts &facts)
{
    Findings findings;
    for (const Lock &lock : locksOf(facts))
        judge(facts, lock, findings);
    return orOk(findings, concat("no foreign lock file in ", lockFolder));
}

Findings checkHolders(const Facts &facts)
{
    Findings findings;
    for (const SerialPort *port : openablePorts(facts)) {
        for (const Process &process : facts.processes) {
            if (process.hasOpen(FileId::of(*port->node)) && !facts.isOfDaemon(process.pid))
                judge(facts, *port, process, findings);
        }
    }
    if (!facts.seesAllFiles())
        findings.push_back({Level::Unseen, "the open files of other users are not visible",
                            "Another program may have a port open.", seeAsRoot});
    return orOk(findings, "no other program has a port open");
}

} // namespace gripperctl::doctor
