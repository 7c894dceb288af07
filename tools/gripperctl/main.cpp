// The command-line client of the daemon.
#include "app.h"
#include "standarddescriptors.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <string_view>

namespace gripperctl {

namespace {

bool takesValue(const CLI::App &command, const std::string &name)
{
    const CLI::Option *option = command.get_option_no_throw(name);
    return option != nullptr && option->nonpositional() && option->get_items_expected_min() > 0;
}

/// Options may precede their command. CLI11 knows them only after it. Returns the reversed words,
/// which CLI11 wants.
std::vector<std::string> commandFirst(const CLI::App &app, std::vector<std::string> words)
{
    const std::vector<const CLI::App *> commands = app.get_subcommands({});
    const auto isCommand = [&](const std::string &word) {
        return std::any_of(commands.begin(), commands.end(),
                           [&](const CLI::App *command) { return command->get_name() == word; });
    };
    const auto isValueOf = [&](const std::string &name) {
        return takesValue(app, name) ||
               std::any_of(commands.begin(), commands.end(),
                           [&](const CLI::App *command) { return takesValue(*command, name); });
    };
    for (auto word = words.begin(); word != words.end(); ++word) {
        if (!isCommand(*word) || (word != words.begin() && isValueOf(*(word - 1))))
            continue;
        std::rotate(words.begin(), word, word + 1);
        break;
    }
    std::reverse(words.begin(), words.end());
    return words;
}

/// CLI11 reports help and version by exceptions.
Failure parsed(CLI::App &app, int argc, char *argv[])
{
    try {
        app.parse(commandFirst(app, std::vector<std::string>(argv + 1, argv + argc)));
    } catch (const CLI::CallForHelp &) {
        writeOut(app.help());
    } catch (const CLI::CallForVersion &version) {
        writeOut(std::string(version.what()) + '\n');
    } catch (const CLI::ParseError &error) {
        return usageFailure(app, error);
    } catch (const gripper::Error &error) {
        return failureOf(error);
    } catch (const Failure &failure) {
        return failure;
    }
    return {ExitCode::Done, ""};
}

int runWith(int argc, char *argv[])
{
    Program program;
    // A wrong command line is reported before its options have an effect.
    if (std::find(argv, argv + argc, std::string_view("--json")) != argv + argc)
        program.output().useJson();
    const auto app = makeApp(program);
    const Failure result = parsed(*app, argc, argv);
    if (result.code() != ExitCode::Done)
        program.output().problem(result);
    return static_cast<int>(result.code());
}

} // namespace

} // namespace gripperctl

int main(int argc, char *argv[])
{
    tools::occupyStandardDescriptors();
    // A reader that closes the pipe is noticed when the next result is written.
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return gripperctl::runWith(argc, argv);
    } catch (const std::exception &exception) {
        std::fprintf(stderr, "gripperctl: %s\n", exception.what());
        return static_cast<int>(gripperctl::ExitCode::LocalProblem);
    }
}
