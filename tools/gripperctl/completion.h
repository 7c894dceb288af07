#pragma once

#include <gripper/connection.h>

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace gripperctl {

/// A word that the shell offers. Two words have a meaning of their own: the shell offers the names
/// of files for ":files" and the names of hosts for ":hosts".
struct Completion
{
    std::string word;
    std::string description;
};

/// The completions of the last of `words`, which follow the name of the program. The commands and
/// options of `app` are the table. May ask the daemon on `endpoint` for its grippers, for at most
/// half a second.
std::vector<Completion> completionsOf(const CLI::App &app, const gripper::Endpoint &endpoint,
                                      std::vector<std::string> words);

} // namespace gripperctl
