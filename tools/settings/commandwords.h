#pragma once

#include <string>
#include <vector>

// A file that includes CLI11 takes seconds to compile.
namespace CLI {
class App;
} // namespace CLI

namespace tools {

/// Null if there is no such command.
CLI::App *findCommand(CLI::App &app, const std::string &name);

/// The long options of the command and of the program, such as "--host".
std::vector<std::string> optionNames(const CLI::App &command);

/// The words of `known` that differ from `word` by a typing error, as "; did you mean move?".
/// Empty without such a word.
std::string suggestion(const std::string &word, const std::vector<std::string> &known);

} // namespace tools
