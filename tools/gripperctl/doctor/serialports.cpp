#include "serialports.h"

#include "text.h"

#include <algorithm>
#include <cstdlib>
#include <sstream>

namespace gripperctl::doctor {

namespace {

// The kernel follows at most this many links.
constexpr int maxLinks = 40;
constexpr unsigned overrideCapability = 1;   // CAP_DAC_OVERRIDE
constexpr unsigned readSearchCapability = 2; // CAP_DAC_READ_SEARCH
const std::string devices = "/dev/";

bool isAdapterName(const std::string &name)
{
    return startsWith(name, "ttyUSB") || startsWith(name, "ttyACM");
}

/// The name and the names that it leads to, below /dev.
std::vector<std::string> chainOf(const Machine &machine, const std::string &first)
{
    std::vector<std::string> names{first};
    while (names.size() <= maxLinks) {
        const auto target = machine.link(devices + names.back());
        if (!target)
            break;
        const bool isAbsolute = startsWith(*target, devices);
        names.push_back(isAbsolute ? target->substr(devices.size()) : *target);
    }
    return names;
}

std::string folderAbove(const std::string &folder)
{
    return folder.substr(0, folder.rfind('/'));
}

void findAdapter(const Machine &machine, SerialPort &port)
{
    for (const std::string &name : port.names) {
        if (port.adapter.empty())
            port.adapter = machine.canonical(concat("/sys/class/tty/", name, "/device"));
    }
    port.usb = port.adapter;
    while (!port.usb.empty() && machine.line(port.usb + "/idVendor").empty())
        port.usb = folderAbove(port.usb);
}

/// A link such as pts/3 ends at a name without a name of an adapter; the name before it is better.
void dropPty(SerialPort &port)
{
    if (port.names.size() > 1 && startsWith(port.names.back(), "pts/"))
        port.names.pop_back();
}

bool isIn(const std::vector<unsigned long> &numbers, unsigned long number)
{
    return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
}

/// The lines of /etc/passwd and /etc/group have fields between colons.
std::vector<std::vector<std::string>> tableOf(const Machine &machine, const std::string &path)
{
    std::vector<std::vector<std::string>> rows;
    for (const std::string &line : linesOf(machine.read(path).value_or(""))) {
        std::vector<std::string> fields;
        std::istringstream stream(line);
        for (std::string field; std::getline(stream, field, ':');)
            fields.push_back(field);
        rows.push_back(fields);
    }
    return rows;
}

/// The value of a line such as "CapEff:\t0000000000000004".
std::string fieldOf(const std::string &status, const std::string &name)
{
    for (const std::string &line : linesOf(status)) {
        if (startsWith(line, name + ':'))
            return trimmed(line.substr(name.size() + 1));
    }
    return {};
}

} // namespace

std::string SerialPort::text() const
{
    return join(names, " -> ");
}

std::vector<SerialPort> serialPortsOf(const Machine &machine, const std::string &toolLink)
{
    std::vector<std::string> starts{toolLink};
    for (const std::string &name :
         machine.list("/sys/class/tty").value_or(std::vector<std::string>())) {
        if (isAdapterName(name))
            starts.push_back(name);
    }
    std::vector<SerialPort> ports;
    for (const std::string &start : starts) {
        SerialPort port;
        port.names = chainOf(machine, start);
        port.isTool = start == toolLink;
        port.node = machine.status(devices + start);
        const bool isDangling = port.names.size() > 1;
        if (!port.node && !isDangling)
            continue;
        const auto isSame = [&](const SerialPort &other) {
            return other.node && port.node &&
                   FileId::of(*other.node).isSame(FileId::of(*port.node));
        };
        if (std::any_of(ports.begin(), ports.end(), isSame))
            continue;
        dropPty(port);
        findAdapter(machine, port);
        ports.push_back(port);
    }
    return ports;
}

std::string udevProperty(const Machine &machine, const std::string &folder, const std::string &type,
                         const std::string &name)
{
    const std::string number = machine.line(folder + "/dev");
    const std::string begin = concat("E:", name, '=');
    for (const std::string &line :
         linesOf(machine.read(concat("/run/udev/data/", type, number)).value_or(""))) {
        if (startsWith(line, begin))
            return line.substr(begin.size());
    }
    return {};
}

bool Credentials::may(unsigned wanted, const struct stat &file) const
{
    constexpr unsigned reading = 4;
    constexpr unsigned executing = 1;
    constexpr unsigned anyExecution = S_IXUSR | S_IXGRP | S_IXOTH;
    if (mayOverride)
        return (wanted & executing) == 0 || (file.st_mode & anyExecution) != 0;
    if (mayReadAll)
        wanted &= ~reading;
    const unsigned shift = file.st_uid == user ? 6 : isIn(groups, file.st_gid) ? 3 : 0;
    return (file.st_mode >> shift & wanted) == wanted;
}

std::optional<Credentials> credentialsOf(const Machine &machine, int pid)
{
    const auto status = machine.read(concat("/proc/", pid, "/status"));
    if (!status)
        return std::nullopt;
    const std::vector<std::string> users = wordsOf(fieldOf(*status, "Uid"));
    const std::vector<std::string> groups = wordsOf(fieldOf(*status, "Gid"));
    if (users.size() < 2 || groups.size() < 2)
        return std::nullopt;
    Credentials credentials;
    credentials.user = decimal(users[1]).value_or(0);
    credentials.groups.push_back(decimal(groups[1]).value_or(0));
    for (const std::string &group : wordsOf(fieldOf(*status, "Groups")))
        credentials.groups.push_back(decimal(group).value_or(0));
    const auto capabilities = std::strtoull(fieldOf(*status, "CapEff").c_str(), nullptr, 16);
    credentials.mayOverride = (capabilities >> overrideCapability & 1) != 0;
    credentials.mayReadAll = (capabilities >> readSearchCapability & 1) != 0;
    return credentials;
}

std::optional<Credentials> credentialsOf(const Machine &machine, const std::string &user,
                                         const std::vector<std::string> &groups)
{
    Credentials credentials;
    bool isKnown = false;
    for (const auto &row : tableOf(machine, "/etc/passwd")) {
        if (row.size() < 4 || (row[0] != user && row[2] != user))
            continue;
        isKnown = true;
        credentials.user = decimal(row[2]).value_or(0);
        credentials.groups.push_back(decimal(row[3]).value_or(0));
        credentials.mayOverride = credentials.user == 0;
        credentials.mayReadAll = credentials.mayOverride;
    }
    for (const auto &row : tableOf(machine, "/etc/group")) {
        if (row.size() < 3)
            continue;
        const std::string members = concat(',', row.size() > 3 ? row[3] : "", ',');
        const bool isNamed = std::find(groups.begin(), groups.end(), row[0]) != groups.end();
        if (isNamed || members.find(concat(',', user, ',')) != std::string::npos)
            credentials.groups.push_back(decimal(row[2]).value_or(0));
    }
    return isKnown ? std::optional(credentials) : std::nullopt;
}

} // namespace gripperctl::doctor
