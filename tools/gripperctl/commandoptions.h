#pragma once

#include <gripper/connection.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

// A file that includes CLI11 takes seconds to compile. Commands only need these names.
namespace CLI {
class App;
class Option;
} // namespace CLI

namespace gripperctl {

class Program;

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

/// The same, for a command that reads its own options.
CLI::App &addCommand(CLI::App &app, Program &program, const CommandText &text,
                     void (*run)(Program &program, const CLI::App &command));

/// Whether `name` is an option, of the program or of any command, that the next word is a value of.
bool takesValue(const CLI::App &app, const std::string &name);

/// Shells offer the words in the option_text() of an option. These replace names that are not
/// known in advance.
constexpr const char *filesOffered = ":files";
constexpr const char *hostsOffered = ":hosts";
constexpr const char *idsOffered = ":ids";

/// CLI11 knows the words of a command by this name, and its messages begin with it.
constexpr const char *argumentsName = "arguments";

/// The number of words of a command that takes any number of them.
constexpr int manyWords = 1 << 29;

/// Words that are not options; required unless `min` is 0. `label` is their text in the help: "OLD
/// NEW". Shells offer `offered`.
void addWords(CLI::App &command, const std::string &label, int min, int max,
              const std::string &offered = {});

/// The words that were given.
const std::vector<std::string> &wordsOf(const CLI::App &command);

void addFlag(CLI::App &command, const std::string &name, const std::string &help);

/// An option with any text. Shells offer `offered`.
CLI::Option *addText(CLI::App &command, const std::string &name, const std::string &label,
                     const std::string &help, const std::string &offered = {});

/// An option with a number from `min` to `max`.
CLI::Option *addNumber(CLI::App &command, const std::string &name, int min, int max,
                       const std::string &help);

/// An option with a time from 0.02 s to a day.
CLI::Option *addSeconds(CLI::App &command, const std::string &name, const std::string &help);

bool isGiven(const CLI::App &command, const std::string &flag);
/// Empty if the option is not given.
std::string textOf(const CLI::App &command, const std::string &name);
std::optional<int> numberOf(const CLI::App &command, const std::string &name);
std::optional<gripper::Seconds> secondsOf(const CLI::App &command, const std::string &name);

/// The ids of grippers.
constexpr int minId = 1;
constexpr int maxId = 9;
/// The largest value of a register of one byte.
constexpr int maxValue = 255;

/// Reads a whole decimal number. Empty if `word` is not one from `min` to `max`.
std::optional<int> numberFrom(const std::string &word, int min, int max);

/// Reads the value of --expect: "2,9". An empty list has no ids. Throws Failure.
std::vector<int> idsFrom(const std::string &list);

} // namespace gripperctl
