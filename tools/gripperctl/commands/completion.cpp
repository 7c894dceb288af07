#include "commands.h"

#include "commandoptions.h"

#include <algorithm>
#include <memory>
#include <sstream>
#include <utility>

namespace gripperctl {

namespace {

/// A word that the shell offers. For filesOffered and hostsOffered it offers names instead.
struct Completion
{
    std::string word;
    std::string description;
};

using Completions = std::vector<Completion>;

constexpr gripper::Seconds answerTimeout{0.5};

Completions offerIds(const gripper::Endpoint &endpoint)
{
    Completions offered;
    try {
        for (const int id : gripper::Line(endpoint).grippers(answerTimeout))
            offered.push_back({std::to_string(id), {}});
    } catch (const gripper::Error &) {
        // Without the daemon, no id is known.
        return {};
    }
    return offered;
}

/// The options and the commands by their names, with the first line of their help.
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

/// A command line before the word that is completed.
class Words
{
public:
    Words(const CLI::App &app, const gripper::Endpoint &endpoint)
        : m_app(app)
        , m_command(&app)
        , m_endpoint(endpoint)
    {
    }

    void append(const std::string &word)
    {
        const CLI::Option *awaiting = std::exchange(m_awaiting, nullptr);
        const CLI::Option *option = awaiting == nullptr ? findOption(word) : nullptr;
        const std::size_t equals = word.find('=');
        if (awaiting != nullptr)
            takeValue(*awaiting, word);
        else if (option != nullptr && equals != std::string::npos)
            takeValue(*option, word.substr(equals + 1));
        else if (option != nullptr)
            m_awaiting = option->get_items_expected_max() > 0 ? option : nullptr;
        else if (m_command == &m_app)
            takeCommand(word);
    }

    Completions offerNext(const std::string &word) const
    {
        const std::size_t equals = word.find('=');
        const CLI::Option *option = findOption(word);
        if (m_awaiting != nullptr)
            return offerValues(*m_awaiting);
        if (option != nullptr && equals != std::string::npos) {
            Completions offered = offerValues(*option);
            for (Completion &completion : offered) {
                if (completion.word.front() != ':')
                    completion.word.insert(0, word, 0, equals + 1);
            }
            return offered;
        }
        if (!word.empty() && word.front() == '-')
            return offerOptions(m_command == nullptr ? m_app : *m_command);
        if (m_command == &m_app)
            return offerCommands(m_app);
        return m_command == nullptr ? Completions() : offerArguments();
    }

private:
    /// The word may have a value: --host=robot. Null for a word that is no option.
    const CLI::Option *findOption(const std::string &word) const
    {
        if (word.size() < 2 || word.front() != '-')
            return nullptr;
        const std::string name = word.substr(0, word.find('='));
        const CLI::Option *option =
            m_command == nullptr ? nullptr : m_command->get_option_no_throw(name);
        return option == nullptr ? m_app.get_option_no_throw(name) : option;
    }

    void takeValue(const CLI::Option &option, const std::string &value)
    {
        if (!option.check_name("--host"))
            return;
        try {
            m_endpoint = gripper::Endpoint::fromText(value);
        } catch (const gripper::Error &) {
            // The user has not finished it.
            return;
        }
    }

    void takeCommand(const std::string &name)
    {
        m_command = nullptr;
        for (const CLI::App *command : m_app.get_subcommands({})) {
            if (command->get_name() == name)
                m_command = command;
        }
    }

    Completions offerValues(const CLI::Option &option) const
    {
        if (option.get_option_text() == idsOffered)
            return offerIds(m_endpoint);
        Completions offered;
        std::istringstream words(option.get_option_text());
        for (std::string word; words >> word;)
            offered.push_back({word, {}});
        return offered;
    }

    Completions offerArguments() const
    {
        for (const CLI::Option *option : m_command->get_options()) {
            if (option->get_positional())
                return offerValues(*option);
        }
        return {};
    }

    const CLI::App &m_app;
    const CLI::App *m_command;               ///< null for a word that is no command
    const CLI::Option *m_awaiting = nullptr; ///< the option whose value comes next
    gripper::Endpoint m_endpoint;
};

/// The completions of the last word.
Completions completionsOf(const CLI::App &app, const gripper::Endpoint &endpoint,
                          const std::vector<std::string> &words)
{
    Words before(app, endpoint);
    for (std::size_t word = 0; word + 1 < words.size(); ++word)
        before.append(words[word]);
    const std::string last = words.empty() ? std::string() : words.back();
    Completions offered = before.offerNext(last);
    const auto differs = [&](const Completion &completion) {
        return completion.word.front() != ':' && completion.word.compare(0, last.size(), last) != 0;
    };
    offered.erase(std::remove_if(offered.begin(), offered.end(), differs), offered.end());
    return offered;
}

/// "WORD" or "WORD<tab>DESCRIPTION" lines.
void printCompletions(const CLI::App &app, Program &program, const std::vector<std::string> &words)
{
    std::string text;
    for (const Completion &offered :
         completionsOf(app, program.settings().endpoints.front(), words)) {
        text += offered.word;
        text += (offered.description.empty() ? "" : '\t' + offered.description) + '\n';
    }
    writeOut(text);
}

} // namespace

void addCompletion(CLI::App &app, Program &program)
{
    const auto words = std::make_shared<std::vector<std::string>>();
    CLI::App *command = app.add_subcommand("completion", "Offer words to a shell.");
    command->group(""); // the shells alone call it
    command->add_option("words", *words);
    command->callback([&app, &program, words] { printCompletions(app, program, *words); });
}

} // namespace gripperctl
