#include "processes.h"

#include "text.h"

#include <algorithm>

#include <sys/sysmacros.h>

namespace gripperctl::doctor {

namespace {

constexpr unsigned firstPtyMajor = 136;
constexpr unsigned lastPtyMajor = 143;

/// Every instance of devpts counts from 0, so two pseudo-terminals may have the same number.
bool isPty(dev_t number)
{
    return major(number) >= firstPtyMajor && major(number) <= lastPtyMajor;
}

void readFiles(const Machine &machine, Process &process)
{
    const std::string folder = concat("/proc/", process.pid, "/fd/");
    const auto names = machine.list(folder);
    process.areFilesVisible = names.has_value();
    for (const std::string &name : names.value_or(std::vector<std::string>())) {
        const std::string target = machine.link(folder + name).value_or("");
        const std::string socket = "socket:[";
        if (startsWith(target, socket)) {
            process.sockets.push_back(
                target.substr(socket.size(), target.size() - socket.size() - 1));
        } else if (target.find("/dev/") != std::string::npos) {
            // Other files may be on a server that does not answer.
            if (const auto status = machine.status(folder + name))
                process.devices.push_back(FileId::of(*status));
        }
    }
}

/// The parent is the second word after the name, which is in brackets and may contain blanks.
int parentFrom(const std::string &stat)
{
    const std::size_t end = stat.rfind(')');
    const auto words = wordsOf(end == std::string::npos ? "" : stat.substr(end + 1));
    return words.size() < 2 ? 0 : static_cast<int>(decimal(words[1]).value_or(0));
}

} // namespace

FileId FileId::of(const struct stat &status)
{
    const bool isDevice = S_ISCHR(status.st_mode) && !isPty(status.st_rdev);
    return {status.st_dev, status.st_ino, isDevice ? status.st_rdev : 0};
}

bool FileId::isSame(const FileId &other) const
{
    return (special != 0 && special == other.special) ||
           (device == other.device && inode == other.inode);
}

bool Process::hasOpen(const FileId &file) const
{
    return std::any_of(devices.begin(), devices.end(),
                       [&](const FileId &device) { return device.isSame(file); });
}

std::string Process::text() const
{
    return concat(name, " (process ", pid, ')');
}

std::vector<Process> processesOf(const Machine &machine)
{
    std::vector<Process> processes;
    for (const std::string &entry : machine.list("/proc").value_or(std::vector<std::string>())) {
        const auto pid = decimal(entry);
        if (!pid)
            continue;
        Process process;
        process.pid = static_cast<int>(*pid);
        process.parent = parentFrom(machine.read(concat("/proc/", entry, "/stat")).value_or(""));
        readFiles(machine, process);
        process.name = machine.line(concat("/proc/", entry, "/comm"));
        // Without a name, the process has just ended.
        if (!process.name.empty())
            processes.push_back(process);
    }
    return processes;
}

const Process *findProcess(const std::vector<Process> &processes, int pid)
{
    const auto found = std::find_if(processes.begin(), processes.end(),
                                    [&](const Process &process) { return process.pid == pid; });
    return found == processes.end() ? nullptr : &*found;
}

bool descendsFrom(const std::vector<Process> &processes, int pid, int ancestor)
{
    // The list is not of one moment, so it may have a cycle.
    for (std::size_t steps = 0; pid > 0 && steps <= processes.size(); ++steps) {
        if (pid == ancestor)
            return true;
        const Process *process = findProcess(processes, pid);
        pid = process == nullptr ? 0 : process->parent;
    }
    return false;
}

} // namespace gripperctl::doctor
