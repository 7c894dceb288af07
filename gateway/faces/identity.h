#pragma once

#include <string>

namespace gateway {

/// The host name of this machine.
const std::string &machineName();

/// A random text, new at each start of the program.
const std::string &instanceName();

} // namespace gateway
