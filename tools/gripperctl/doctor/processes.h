#pragma once

#include "machine.h"

#include <string>
#include <vector>

namespace gripperctl::doctor {

/// A file of the machine, whatever its name is.
struct FileId
{
    dev_t device = 0;
    ino_t inode = 0;
    dev_t special = 0; ///< the number of a device; 0 for other files and for pseudo-terminals

    static FileId of(const struct stat &status);
    bool isSame(const FileId &other) const;
};

/// A process, and the sockets and devices that it has open.
struct Process
{
    int pid = 0;
    int parent = 0;
    std::string name; ///< at most 15 characters
    bool areFilesVisible = false;
    std::vector<std::string> sockets; ///< their inode numbers
    std::vector<FileId> devices;

    bool hasOpen(const FileId &file) const;
    /// A text such as "minicom (process 812)".
    std::string text() const;
};

std::vector<Process> processesOf(const Machine &machine);

/// Null if there is no such process.
const Process *findProcess(const std::vector<Process> &processes, int pid);

/// Whether `pid` is the process `ancestor` or comes from it.
bool descendsFrom(const std::vector<Process> &processes, int pid, int ancestor);

} // namespace gripperctl::doctor
