#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace gripperctl {

/// The help of the program or of a command.
std::string helpOf(const CLI::App &app);

/// The words of a command that are no options, as the help shows them: "POSITION".
std::string argumentsOf(const CLI::App &command);

} // namespace gripperctl
