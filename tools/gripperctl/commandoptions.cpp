#include "commandoptions.h"

#include "text.h"

#include <charconv>
#include <cstdlib>

namespace gripperctl {

namespace {

constexpr double minSeconds = 0.02;
constexpr double maxSeconds = 86400;

std::optional<gripper::Seconds> secondsFrom(const std::string &word)
{
    char *end = nullptr;
    const double seconds = std::strtod(word.c_str(), &end);
    // This form of the comparison also refuses NaN.
    if (word.empty() || *end != '\0' || !(seconds >= minSeconds && seconds <= maxSeconds))
        return std::nullopt;
    return gripper::Seconds(seconds);
}

/// An option whose value `read` takes from one word. The problem of a wrong word is that the option
/// takes `wanted`.
template <typename Value, typename Read>
CLI::Option *addValue(CLI::App &command, const std::string &name, std::optional<Value> &value,
                      const std::string &help, const std::string &wanted, Read read)
{
    const auto take = [&value, wanted, read, name](const CLI::results_t &words) {
        value = read(words.front());
        if (!value) {
            throw CLI::ValidationError(
                concat(name, " takes ", wanted, ", not \"", words.front(), '"'),
                CLI::ExitCodes::ValidationError);
        }
        return true;
    };
    return command.add_option(name, take, help)->expected(1)->type_size(1);
}

} // namespace

CLI::App &addCommand(CLI::App &app, const CommandText &text, std::function<void()> run)
{
    CLI::App *command = app.add_subcommand(text.name, concat(text.summary, '\n', text.details));
    command->footer(text.example);
    command->fallthrough();
    command->callback(std::move(run));
    return *command;
}

CLI::Option *addWords(CLI::App &command, const std::string &label, std::vector<std::string> &words,
                      int min, int max)
{
    return command.add_option(argumentsName, words)
        ->type_name(label)
        ->required()
        ->expected(min, max);
}

CLI::Option *addWord(CLI::App &command, const std::string &label, std::string &word)
{
    return command.add_option(argumentsName, word)->type_name(label)->required();
}

CLI::Option *addNumber(CLI::App &command, const std::string &name, std::optional<int> &number,
                       int min, int max, const std::string &help)
{
    return addValue(command, name, number, help, concat("a number from ", min, " to ", max),
                    [min, max](const std::string &word) { return numberFrom(word, min, max); })
        ->type_name("N");
}

CLI::Option *addSeconds(CLI::App &command, const std::string &name,
                        std::optional<gripper::Seconds> &time, const std::string &help)
{
    return addValue(command, name, time, help,
                    concat("seconds from ", minSeconds, " to ", maxSeconds), secondsFrom)
        ->type_name("SECONDS");
}

std::optional<int> numberFrom(const std::string &word, int min, int max)
{
    const char *end = word.data() + word.size();
    int number = 0;
    const auto [last, error] = std::from_chars(word.data(), end, number);
    if (error != std::errc() || last != end || number < min || number > max)
        return std::nullopt;
    return number;
}

} // namespace gripperctl
