#pragma once

#include <gripper/connection.h>

#include <CLI/CLI.hpp>

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace gripperctl {

/// The help and the completion of a command.
struct CommandText
{
    const char *name;
    const char *summary; ///< one line
    const char *details;
    const char *example; ///< without the program name
};

/// A command that calls `run` when it is given.
CLI::App &addCommand(CLI::App &app, const CommandText &text, std::function<void()> run);

/// Shells offer the words in the option_text() of an option. These replace names that are not
/// known in advance.
constexpr const char *filesOffered = ":files";
constexpr const char *hostsOffered = ":hosts";
constexpr const char *idsOffered = ":ids";

/// CLI11 knows the words of a command by this name, and its messages begin with it.
constexpr const char *argumentsName = "arguments";

/// Required words that are not options. `label` is their text in the help: "OLD NEW".
CLI::Option *addWords(CLI::App &command, const std::string &label, std::vector<std::string> &words,
                      int min, int max);

/// One required word.
CLI::Option *addWord(CLI::App &command, const std::string &label, std::string &word);

/// An option with a number from `min` to `max`.
CLI::Option *addNumber(CLI::App &command, const std::string &name, std::optional<int> &number,
                       int min, int max, const std::string &help);

/// An option with a time from 0.02 s to a day.
CLI::Option *addSeconds(CLI::App &command, const std::string &name,
                        std::optional<gripper::Seconds> &time, const std::string &help);

/// Reads a whole decimal number. Empty if `word` is not one from `min` to `max`.
std::optional<int> numberFrom(const std::string &word, int min, int max);

} // namespace gripperctl
