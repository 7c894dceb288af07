#include "app.h"

#include "commandoptions.h"
#include "commands/commands.h"
#include "commandwords.h"
#include "helptext.h"
#include "settingsfile.h"
#include "text.h"
#include "version.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace gripperctl {

namespace {

/// The file of a user without --config. Empty without a home.
std::string settingsPath()
{
    const char *home = std::getenv("HOME");
    return home == nullptr ? "" : concat(home, "/.config/gripperctl.toml");
}

std::string addressProblem(const std::string &word)
{
    try {
        gripper::Endpoint::fromText(word);
    } catch (const gripper::InvalidValue &error) {
        return error.what();
    }
    return {};
}

void addHost(CLI::App &app, Settings &settings)
{
    const auto take = [&settings](const CLI::results_t &words) {
        settings.endpoints.clear();
        for (const std::string &word : words)
            settings.endpoints.push_back(gripper::Endpoint::fromText(word));
        return true;
    };
    app.add_option("--host", take, "The address of gripperd (default 127.0.0.1:63352).")
        ->type_name("HOST[:PORT]")
        ->option_text(hostsOffered)
        ->check(addressProblem)
        ->expected(1, manyWords)
        ->allow_extra_args(false)
        ->envname("GRIPPERCTL_HOST");
}

void addGeneralOptions(CLI::App &app, Program &program)
{
    Settings &settings = program.settings();
    addHost(app, settings);
    addNumber(app, "--gripper", minId, maxId, "The gripper (default 9).")
        ->each([&settings](const std::string &word) { settings.gripper = std::stoi(word); })
        ->type_name("ID")
        ->option_text(idsOffered);
    app.add_flag_callback(
           "--json", [&program] { program.output().useJson(); }, "Print JSON, for scripts.")
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    addSeconds(app, "--timeout", "Time limit for an answer, or for the end of the action.")
        ->each([&settings](const std::string &word) {
            settings.timeout = gripper::Seconds(std::stod(word));
        });
    tools::SettingsFile::addOption(app, settingsPath(),
                                   "Defaults for options (default ~/.config/gripperctl.toml).")
        ->type_name("FILE")
        ->option_text(filesOffered);
    app.set_version_flag("--version", std::string("gripperctl ") + tools::version,
                         "Print the version of gripperctl.");
}

std::vector<std::string> namesOf(const std::vector<const CLI::App *> &commands)
{
    std::vector<std::string> names;
    names.reserve(commands.size());
    for (const CLI::App *command : commands)
        names.push_back(command->get_name());
    return names;
}

Failure wrongUsage(const std::string &problem, const std::string &page = {})
{
    const char *see = problem.back() == '?' ? " See" : "; see";
    return {ExitCode::WrongUsage, concat(problem, see, " gripperctl ", page, "--help")};
}

/// CLI11 counts in its messages; these name the cause.
std::string problemOf(const CLI::ParseError &error)
{
    std::string text = error.what();
    // "--speed: takes a number"
    if (dynamic_cast<const CLI::ValidationError *>(&error) != nullptr)
        return text.erase(text.find(':'), 1);
    if (dynamic_cast<const CLI::ArgumentMismatch *>(&error) == nullptr)
        return text;
    const bool isRepeated = text.find("received") != std::string::npos;
    return text.substr(0, text.find(':')) + (isRepeated ? " is given twice" : " needs a value");
}

Failure commandMissing(const CLI::App &app)
{
    const std::vector<std::string> words = app.remaining();
    if (words.empty())
        return wrongUsage("no command given");
    const bool isOption = words.front().front() == '-' && words.front() != "-";
    if (isOption) {
        return wrongUsage(concat("there is no option ", words.front(), " before a command",
                                 tools::suggestion(words.front(), tools::optionNames(app))));
    }
    return wrongUsage(concat("there is no command \"", words.front(), '"',
                             tools::suggestion(words.front(), namesOf(app.get_subcommands({})))));
}

/// All commands and options. A command runs within parse(), and throws Failure or gripper::Error if
/// it fails.
std::unique_ptr<CLI::App> makeApp(Program &program)
{
    auto app = std::make_unique<CLI::App>(
        "Shows, moves and maintains the grippers of a running gripperd.", "gripperctl");
    app->formatter_fn([](const CLI::App *shown, const std::string & /*name*/,
                         CLI::AppFormatMode /*mode*/) { return helpOf(*shown); });
    app->set_help_flag("-h,--help", "Explain gripperctl, or the given command.");
    app->require_subcommand(1);
    app->fallthrough();
    addGeneralOptions(*app, program);
    addCommands(*app, program);
    return app;
}

/// The message for a wrong command line.
Failure usageFailure(const CLI::App &app, const CLI::ParseError &error)
{
    const std::vector<CLI::App *> given = app.get_subcommands();
    if (given.empty()) {
        const bool isMissing = dynamic_cast<const CLI::RequiredError *>(&error) != nullptr;
        return isMissing ? commandMissing(app) : wrongUsage(problemOf(error));
    }
    const CLI::App &command = *given.front();
    const std::string &name = command.get_name();
    const std::string page = name + ' ';
    const bool isArgument = std::string_view(error.what()).rfind(argumentsName, 0) == 0;
    if (dynamic_cast<const CLI::RequiredError *>(&error) != nullptr || isArgument)
        return wrongUsage(concat(name, " needs ", argumentsOf(command)), page);
    const std::vector<std::string> extras = app.remaining(true);
    if (dynamic_cast<const CLI::ExtrasError *>(&error) == nullptr || extras.empty())
        return wrongUsage(problemOf(error), page);
    const std::string &word = extras.front();
    if (word.front() == '-') {
        return wrongUsage(concat(name, " does not take ", word,
                                 tools::suggestion(word, tools::optionNames(command))),
                          page);
    }
    return wrongUsage(concat(name, " does not take \"", word, '"'), page);
}

/// Options may precede their command. CLI11 knows them only after it. Returns the reversed words,
/// which CLI11 wants.
std::vector<std::string> commandFirst(CLI::App &app, std::vector<std::string> words)
{
    for (auto word = words.begin(); word != words.end(); ++word) {
        const bool isValue = word != words.begin() && takesValue(app, *(word - 1));
        if (isValue || tools::findCommand(app, *word) == nullptr)
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
    } catch (const tools::SettingsError &error) {
        return {ExitCode::WrongUsage, error.what()};
    } catch (const Failure &failure) {
        return failure;
    }
    return {ExitCode::Done, ""};
}

} // namespace

int runCommandLine(int argc, char *argv[])
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

} // namespace gripperctl
