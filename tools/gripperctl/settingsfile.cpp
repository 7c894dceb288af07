#include "settingsfile.h"

#include "commandoptions.h"
#include "failure.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include <unistd.h>

namespace gripperctl {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string &text)
{
    throw Failure(ExitCode::WrongUsage, "configuration file " + text);
}

/// Appends the next line without its comment. Returns false at the end of the file.
bool appendLine(std::istream &input, std::string &text)
{
    std::string line;
    if (!std::getline(input, line))
        return false;
    text += line.substr(0, line.find('#'));
    CLI::detail::trim(text);
    return true;
}

auto count(const std::string &text, char letter)
{
    return std::count(text.begin(), text.end(), letter);
}

bool hasOpenBracket(const std::string &text)
{
    return count(text, '[') > count(text, ']');
}

/// The problem of a value. Empty for a good one.
std::string problemOf(CLI::Option &option, std::string value)
{
    if (option.get_items_expected_max() == 0)
        return value == "true" || value == "false" ? "" : "takes true or false, not " + value;
    try {
        return (*option.get_validator())(value);
    } catch (const CLI::OptionNotFound &) {
        // The option takes any text.
        return {};
    }
}

/// The problem of an entry. Empty for a good one.
std::string problemOf(CLI::App &app, const CLI::ConfigItem &item)
{
    CLI::App *command =
        item.parents.empty() ? &app : findCommand(app, CLI::detail::join(item.parents, "."));
    if (command == nullptr)
        return concat("there is no command ", CLI::detail::join(item.parents, "."));
    const std::string name = "--" + item.name;
    CLI::Option *option = command->get_option_no_throw(name);
    if (option == nullptr || !option->get_configurable())
        return concat("there is no option ", name, suggestion(name, optionNames(*command)));
    const auto maxCount = static_cast<std::size_t>(std::max(1, option->get_items_expected_max()));
    if (item.inputs.empty() || item.inputs.size() > maxCount)
        return name + " takes one value";
    for (const std::string &value : item.inputs) {
        const std::string problem = problemOf(*option, value);
        if (!problem.empty())
            return concat(name, ' ', problem);
    }
    return {};
}

} // namespace

std::vector<CLI::ConfigItem> SettingsFile::from_config(std::istream &input) const
{
    const char *host = std::getenv(hostVariable);
    const bool hasHost = host != nullptr && *host != '\0';
    const std::string path = m_app.get_config_ptr()->as<std::string>();
    std::vector<CLI::ConfigItem> read;
    std::string section;
    int lines = 0;
    for (std::string entry; appendLine(input, entry); entry.clear()) {
        const std::string place = concat(path, ", line ", ++lines, ": ");
        for (; hasOpenBracket(entry) && appendLine(input, entry); ++lines) {
        }
        if (hasOpenBracket(entry))
            fail(place + "a bracket is not closed");
        if (count(entry, '"') % 2 != 0)
            fail(place + "a quote is not closed");
        if (entry.empty())
            continue;
        if (entry.front() == '[') {
            section = entry + '\n';
            if (findCommand(m_app, entry.substr(1, entry.size() - 2)) == nullptr)
                fail(concat(place, "there is no command ", entry));
            continue;
        }
        std::istringstream text(section + entry);
        std::vector<CLI::ConfigItem> entries = CLI::ConfigTOML::from_config(text);
        // CLI11 marks the begin and the end of a section.
        const auto isMark = [](const auto &item) { return item.name == "++" || item.name == "--"; };
        entries.erase(std::remove_if(entries.begin(), entries.end(), isMark), entries.end());
        if (entries.size() != 1 || count(entry, '=') == 0)
            fail(place + "expected NAME = VALUE");
        const std::string problem = problemOf(m_app, entries.front());
        if (!problem.empty())
            fail(place + problem);
        if (!hasHost || entries.front().fullname() != "host")
            read.push_back(entries.front());
    }
    return read;
}

std::string SettingsFile::defaultPath()
{
    const char *home = std::getenv("HOME");
    return home == nullptr ? "" : concat(home, "/.config/gripperctl.toml");
}

void SettingsFile::refuseUnreadable(const std::string &path)
{
    if (::access(path.c_str(), R_OK) != 0) {
        if (errno != ENOENT || path != defaultPath())
            fail(concat(path, " is not readable: ", std::strerror(errno)));
        return;
    }
    std::error_code ignored;
    if (!fs::is_regular_file(path, ignored) && path != "/dev/null")
        fail(path + " is not a file, but a folder, a pipe or a device");
}

} // namespace gripperctl
