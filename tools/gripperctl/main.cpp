// The command-line client of the daemon.
#include "app.h"
#include "commandoptions.h"
#include "standarddescriptors.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <string_view>

namespace gripperctl {

namespace {

/// Options may precede their command. CLI11 knows them only after it. Returns the reversed words,
/// which CLI11 wants.
std::vector<std::string> commandFirst(CLI::App &app, std::vector<std::string> words)
{
    for (auto word = words.begin(); word != words.end(); ++word) {
        const bool isValue = word != words.begin() && takesValue(app, *(word - 1));
        if (isValue || findCommand(app, *word) == nullptr)
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
        Output::print(app.help());
    } catch (const CLI::CallForVersion &version) {
        Output::print(std::string(version.what()) + '\n');
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
