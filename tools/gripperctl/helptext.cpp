#include "helptext.h"

#include "text.h"

namespace gripperctl {

namespace {

constexpr std::size_t textColumn = 26;

const char *const examples =
    "  gripperctl status\n"
    "  gripperctl activate --wait && gripperctl move 120 --speed 100 --wait\n"
    "  gripperctl --gripper 2 --host robot:63352 watch\n"
    "  gripperctl record grip.csv --seconds 30 && gripperctl plot grip.csv -o grip.png\n";

const char *const exitCodes =
    "  0 done\n"
    "  1 refused by the daemon or the gripper, the gripper has a fault, or doctor found a problem\n"
    "  2 wrong usage\n"
    "  3 cannot connect, or connection lost\n"
    "  4 not done in time\n"
    "  5 the daemon does not list the gripper, or found none\n"
    "  6 a problem with a file or a program on this computer\n"
    "  130 interrupted\n";

std::string entry(const std::string &left, const std::string &right)
{
    const std::size_t gap = left.size() < textColumn ? textColumn - left.size() : 0;
    return "  " + left + std::string(gap + 1, ' ') + right + '\n';
}

std::string firstLine(const std::string &text)
{
    return text.substr(0, text.find('\n'));
}

std::string optionEntry(const CLI::Option &option)
{
    std::string left;
    for (const std::string &name : option.get_snames())
        left += "-" + name + ", ";
    left += "--" + option.get_lnames().front();
    if (option.get_items_expected_max() > 0)
        left += " " + option.get_type_name();
    return entry(left, option.get_description());
}

std::string optionsOf(const CLI::App &app)
{
    std::string text;
    for (const CLI::Option *option : app.get_options()) {
        const bool isInherited = app.get_parent() != nullptr && option == app.get_help_ptr();
        if (option->nonpositional() && !isInherited)
            text += optionEntry(*option);
    }
    return app.get_parent() == nullptr ? text : text + optionsOf(*app.get_parent());
}

std::string commandsOf(const CLI::App &app)
{
    std::string text;
    for (const CLI::App *command : app.get_subcommands({})) {
        const std::string arguments = argumentsOf(*command);
        if (!command->get_group().empty())
            text += entry(command->get_name() + (arguments.empty() ? "" : " " + arguments),
                          firstLine(command->get_description()));
    }
    return text;
}

} // namespace

std::string argumentsOf(const CLI::App &command)
{
    std::vector<std::string> labels;
    for (const CLI::Option *option : command.get_options()) {
        if (option->get_positional())
            labels.push_back(option->get_type_name());
    }
    return join(labels, " ");
}

std::string helpOf(const CLI::App &app)
{
    if (app.get_parent() == nullptr) {
        return concat("Usage: gripperctl [OPTION]... COMMAND [ARGUMENT]...\n",
                      app.get_description(), "\n\nCommands:\n", commandsOf(app), "\nOptions:\n",
                      optionsOf(app), "\nExamples:\n", examples, "\nExit codes:\n", exitCodes,
                      "\ngripperctl COMMAND --help explains one command.\n");
    }
    const std::string arguments = argumentsOf(app);
    return concat("Usage: gripperctl [OPTION]... ", app.get_name(), arguments.empty() ? "" : " ",
                  arguments, '\n', app.get_description(), "\n\nOptions:\n", optionsOf(app),
                  "\nExample:\n  gripperctl ", app.get_footer(), '\n');
}

} // namespace gripperctl
