#pragma once

#include "processes.h"

#include <optional>
#include <string>
#include <vector>

namespace gripperctl::doctor {

/// A port on which grippers may be.
struct SerialPort
{
    std::vector<std::string> names;  ///< "ttyTool", and the names that it leads to: "ttyUSB0"
    bool isTool = false;             ///< the first name is the one that the daemon tries first
    std::optional<struct stat> node; ///< empty if the name leads to nothing
    std::string adapter;             ///< its folder in /sys; empty if it is no adapter
    std::string usb;                 ///< the folder of the USB device; empty without one

    /// "ttyTool -> ttyUSB0"
    std::string text() const;
    /// The name of the adapter, such as ttyUSB0.
    const std::string &name() const { return names.back(); }
    std::string path() const { return "/dev/" + name(); }
};

/// The ports that the daemon tries: `toolLink` ("ttyTool"), and all USB adapters.
std::vector<SerialPort> serialPortsOf(const Machine &machine, const std::string &toolLink);

/// A value of the udev database for the device whose number is in `folder`/dev.
std::string udevProperty(const Machine &machine, const std::string &folder, const std::string &type,
                         const std::string &name);

/// The user and the rights of a process.
struct Credentials
{
    unsigned long user = 0;
    std::vector<unsigned long> groups;
    bool mayOverride = false; ///< it opens every file
    bool mayReadAll = false;

    /// `wanted` is a sum of 4 (read), 2 (write) and 1 (execute).
    bool may(unsigned wanted, const struct stat &file) const;
};

/// Empty if there is no such process.
std::optional<Credentials> credentialsOf(const Machine &machine, int pid);

/// The user and the rights of a program that starts as `user` with the given groups, by the files
/// in /etc. Empty if they do not contain the user.
std::optional<Credentials> credentialsOf(const Machine &machine, const std::string &user,
                                         const std::vector<std::string> &groups);

} // namespace gripperctl::doctor
