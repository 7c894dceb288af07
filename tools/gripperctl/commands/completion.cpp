#include "commands.h"
#include "commandwords.h"

#include "text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <sstream>

namespace gripperctl {

namespace {

/// A word that the shell offers. For filesOffered and hostsOffered it offers names instead.
struct Completion
{
    std::string word;
    std::string description = {};
};

using Completions = std::vector<Completion>;
using Words = std::vector<std::string>;

constexpr gripper::Seconds completionTimeout{0.5};
constexpr const char *hostOption = "--host";

bool isOption(const std::string &word)
{
    return !word.empty() && word.front() == '-';
}

/// The option of the command or of the program. The word may have a value: --host=robot. Null for
/// another word.
const CLI::Option *findOption(const CLI::App &app, const CLI::App *command, const std::string &word)
{
    const std::string name = word.substr(0, word.find('='));
    if (!isOption(name))
        return nullptr;
    const CLI::Option *option = command == nullptr ? nullptr : command->get_option_no_throw(name);
    return option == nullptr ? app.get_option_no_throw(name) : option;
}

/// The daemon that the words name, or else `standard`.
gripper::Endpoint endpointIn(const Words &words, const gripper::Endpoint &standard)
{
    const std::string begin = concat(hostOption, '=');
    gripper::Endpoint endpoint = standard;
    for (auto word = words.begin(); word != words.end(); ++word) {
        const bool isValue = word != words.begin() && *(word - 1) == hostOption;
        const bool hasValue = word->rfind(begin, 0) == 0;
        try {
            if (isValue || hasValue)
                endpoint = gripper::Endpoint::fromText(word->substr(hasValue ? begin.size() : 0));
        } catch (const gripper::InvalidValue &) {
            // The user has not finished it.
            continue;
        }
    }
    return endpoint;
}

Completions offerIds(const gripper::Endpoint &endpoint)
{
    Completions offered;
    try {
        for (const int id : gripper::Line(endpoint).grippers(completionTimeout))
            offered.push_back({std::to_string(id)});
    } catch (const gripper::Error &) {
        // Without the daemon, no id is known.
        return {};
    }
    return offered;
}

/// The options of the command and of the program, with their help.
Completions offerOptions(const CLI::App &command)
{
    Completions offered;
    for (const CLI::App *app = &command; app != nullptr; app = app->get_parent()) {
        for (const CLI::Option *option : app->get_options()) {
            const bool isInherited = app != &command && option == app->get_help_ptr();
            if (!option->nonpositional() || isInherited)
                continue;
            for (const std::string &name : option->get_lnames())
                offered.push_back({"--" + name, option->get_description()});
            for (const std::string &name : option->get_snames())
                offered.push_back({"-" + name, option->get_description()});
        }
    }
    return offered;
}

/// The commands, with the first line of their help.
Completions offerCommands(const CLI::App &app)
{
    Completions offered;
    for (const CLI::App *command : app.get_subcommands({})) {
        const std::string help = command->get_description();
        if (!command->get_group().empty())
            offered.push_back({command->get_name(), help.substr(0, help.find('\n'))});
    }
    return offered;
}

Completions offerValues(const CLI::Option &option, const gripper::Endpoint &endpoint)
{
    if (option.get_option_text() == idsOffered)
        return offerIds(endpoint);
    Completions offered;
    std::istringstream words(option.get_option_text());
    for (std::string word; words >> word;)
        offered.push_back({word});
    return offered;
}

/// The completions of `last` after the words before it.
Completions offerNext(CLI::App &app, const gripper::Endpoint &standard, const Words &before,
                      const std::string &last)
{
    const CLI::App *command = &app; // null for a word that is no command
    for (std::size_t word = 0; command == &app && word < before.size(); ++word) {
        const bool isValue = word > 0 && takesValue(app, before[word - 1]);
        if (!isOption(before[word]) && !isValue)
            command = tools::findCommand(app, before[word]);
    }
    const gripper::Endpoint endpoint = endpointIn(before, standard);
    const CLI::Option *option = nullptr;
    if (!before.empty() && takesValue(app, before.back())) {
        option = findOption(app, command, before.back());
        return option == nullptr ? Completions() : offerValues(*option, endpoint);
    }
    const std::size_t equals = last.find('=');
    option = findOption(app, command, last);
    if (option != nullptr && equals != std::string::npos) {
        Completions offered = offerValues(*option, endpoint);
        for (Completion &completion : offered) {
            if (completion.word.front() != ':')
                completion.word.insert(0, last, 0, equals + 1);
        }
        return offered;
    }
    if (isOption(last))
        return offerOptions(command == nullptr ? app : *command);
    if (command == &app)
        return offerCommands(app);
    option = command == nullptr ? nullptr : command->get_option_no_throw(argumentsName);
    return option == nullptr ? Completions() : offerValues(*option, endpoint);
}

/// Prints "WORD" or "WORD<tab>DESCRIPTION" lines.
void printCompletions(CLI::App &app, Program &program, Words words)
{
    const std::string last = words.empty() ? std::string() : words.back();
    if (!words.empty())
        words.pop_back();
    std::string text;
    for (const auto &[word, description] :
         offerNext(app, program.settings().endpoints.front(), words, last)) {
        const bool isKind = word.front() == ':';
        if (isKind || word.compare(0, last.size(), last) == 0)
            text += concat(word, description.empty() ? "" : "\t", description, '\n');
    }
    Output::print(text);
}

} // namespace

void addCompletion(CLI::App &app, Program &program)
{
    CLI::App *command = app.add_subcommand("completion", "Offer words to a shell.");
    command->group(""); // the shells alone call it
    addWords(*command, "WORD...", 0, manyWords);
    command->callback(
        [&app, &program, command] { printCompletions(app, program, wordsOf(*command)); });
}

} // namespace gripperctl
