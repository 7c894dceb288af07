#include "commandoptions.h"

#include "failure.h"
#include "text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <limits>

namespace gripperctl {

namespace {

constexpr double minSeconds = 0.02;
constexpr double maxSeconds = 86400;

static_assert(manyWords == CLI::detail::expected_max_vector_size);

bool isTime(const std::string &word)
{
    char *end = nullptr;
    const double seconds = std::strtod(word.c_str(), &end);
    // This form of the comparison also refuses NaN.
    return !word.empty() && *end == '\0' && seconds >= minSeconds && seconds <= maxSeconds;
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

CLI::App &addCommand(CLI::App &app, Program &program, const CommandText &text,
                     void (*run)(Program &program, const CLI::App &command))
{
    CLI::App &command = addCommand(app, text, {});
    command.callback([&program, &command, run] { run(program, command); });
    return command;
}

bool takesValue(const CLI::App &app, const std::string &name)
{
    const CLI::Option *option = app.get_option_no_throw(name);
    if (option != nullptr)
        return option->nonpositional() && option->get_items_expected_min() > 0;
    const std::vector<const CLI::App *> commands = app.get_subcommands({});
    return std::any_of(commands.begin(), commands.end(),
                       [&](const CLI::App *command) { return takesValue(*command, name); });
}

void addWords(CLI::App &command, const std::string &label, int min, int max,
              const std::string &offered)
{
    command.add_option(argumentsName)
        ->type_name(label)
        ->option_text(offered)
        ->required(min > 0)
        ->expected(std::max(1, min), max)
        ->allow_extra_args(max > 1);
}

const std::vector<std::string> &wordsOf(const CLI::App &command)
{
    return command[argumentsName]->results();
}

void addFlag(CLI::App &command, const std::string &name, const std::string &help)
{
    command.add_flag(name, help)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

CLI::Option *addText(CLI::App &command, const std::string &name, const std::string &label,
                     const std::string &help, const std::string &offered)
{
    return command.add_option(name, help)->type_name(label)->option_text(offered);
}

CLI::Option *addNumber(CLI::App &command, const std::string &name, int min, int max,
                       const std::string &help)
{
    return addText(command, name, "N", help)->check([min, max](const std::string &word) {
        return numberFrom(word, min, max)
                   ? ""
                   : concat("takes a number from ", min, " to ", max, ", not \"", word, '"');
    });
}

CLI::Option *addSeconds(CLI::App &command, const std::string &name, const std::string &help)
{
    return addText(command, name, "SECONDS", help)->check([](const std::string &word) {
        return isTime(word) ? ""
                            : concat("takes seconds from ", minSeconds, " to ", maxSeconds,
                                     ", not \"", word, '"');
    });
}

bool isGiven(const CLI::App &command, const std::string &flag)
{
    const CLI::Option *option = command[flag];
    return !option->empty() && option->as<bool>();
}

std::string textOf(const CLI::App &command, const std::string &name)
{
    const CLI::Option *option = command[name];
    return option->empty() ? std::string() : option->results().front();
}

std::optional<int> numberOf(const CLI::App &command, const std::string &name)
{
    // CLI11 reads 010 as an octal number.
    return numberFrom(textOf(command, name), 0, std::numeric_limits<int>::max());
}

std::optional<gripper::Seconds> secondsOf(const CLI::App &command, const std::string &name)
{
    const std::string word = textOf(command, name);
    if (word.empty())
        return std::nullopt;
    return gripper::Seconds(std::strtod(word.c_str(), nullptr));
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

std::vector<int> idsFrom(const std::string &list)
{
    std::vector<int> ids;
    if (list.empty())
        return ids;
    for (const std::string &word : CLI::detail::split(list, ',')) {
        const std::optional<int> id = numberFrom(word, minId, maxId);
        if (!id)
            throw Failure(ExitCode::WrongUsage,
                          concat("--expect takes ids such as 2,9, not \"", list, '"'));
        ids.push_back(*id);
    }
    return ids;
}

} // namespace gripperctl
