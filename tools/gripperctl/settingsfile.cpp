#include "settingsfile.h"

#include "commandoptions.h"
#include "failure.h"
#include "text.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include <unistd.h>

namespace gripperctl {

namespace {

namespace fs = std::filesystem;

// toml++ frees nested tables recursively. The names of a larger file could exhaust the stack.
constexpr std::uintmax_t maxBytes = 16384;

[[noreturn]] void fail(const std::string &text)
{
    throw Failure(ExitCode::WrongUsage, "configuration file " + text);
}

[[noreturn]] void refuse(const toml::key &key, const std::string &problem)
{
    throw toml::parse_error(problem.c_str(), key.source());
}

/// The text of a string, and any other value as in the file.
std::string wordOf(const toml::node &value)
{
    return value.value_or(concat(toml::node_view<const toml::node>(value)));
}

/// The items of an array, or the single value.
std::vector<std::string> wordsOf(const toml::node &value)
{
    if (!value.is_array())
        return {wordOf(value)};
    std::vector<std::string> words;
    for (const toml::node &item : *value.as_array())
        words.push_back(wordOf(item));
    return words;
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

/// Throws for a wrong entry.
CLI::ConfigItem entryOf(CLI::App &app, const toml::key &key, const toml::node &value)
{
    CLI::ConfigItem entry;
    entry.name = key.str();
    entry.inputs = wordsOf(value);
    const std::string name = "--" + entry.name;
    CLI::Option *option = app.get_option_no_throw(name);
    if (option == nullptr || !option->get_configurable())
        refuse(key, concat("there is no option ", name, suggestion(name, optionNames(app))));
    const auto maxCount = static_cast<std::size_t>(std::max(1, option->get_items_expected_max()));
    if (entry.inputs.empty() || entry.inputs.size() > maxCount)
        refuse(key, name + " takes one value");
    for (const std::string &word : entry.inputs) {
        const std::string problem = problemOf(*option, word);
        if (!problem.empty())
            refuse(key, concat(name, ' ', problem));
    }
    return entry;
}

bool isOverridden(const CLI::ConfigItem &entry)
{
    const char *host = std::getenv(hostVariable);
    return entry.name == "host" && host != nullptr && *host != '\0';
}

} // namespace

std::vector<CLI::ConfigItem> SettingsFile::from_config(std::istream &input) const
{
    std::vector<CLI::ConfigItem> entries;
    try {
        const toml::table table = toml::parse(input);
        for (const auto &[key, value] : table) {
            const toml::table *section = value.as_table();
            if (section == nullptr) {
                entries.push_back(entryOf(m_app, key, value));
                continue;
            }
            const std::string name(key);
            CLI::App *command = findCommand(m_app, name);
            if (command == nullptr)
                refuse(key, concat("there is no command ", name));
            for (const auto &[option, setting] : *section) {
                entries.push_back(entryOf(*command, option, setting));
                entries.back().parents = {name};
            }
        }
    } catch (const toml::parse_error &error) {
        fail(concat(m_app.get_config_ptr()->as<std::string>(), ", line ", error.source().begin.line,
                    ": ", error.description()));
    }
    entries.erase(std::remove_if(entries.begin(), entries.end(), isOverridden), entries.end());
    return entries;
}

std::string SettingsFile::defaultPath()
{
    const char *home = std::getenv("HOME");
    return home == nullptr ? "" : concat(home, "/.config/gripperctl.toml");
}

void SettingsFile::refuseUnreadable(const std::string &path)
{
    if (path == "/dev/null")
        return;
    if (::access(path.c_str(), R_OK) != 0) {
        if (errno != ENOENT || path != defaultPath())
            fail(concat(path, " is not readable: ", std::strerror(errno)));
        return;
    }
    std::error_code ignored;
    if (!fs::is_regular_file(path, ignored))
        fail(path + " is not a file, but a folder, a pipe or a device");
    if (fs::file_size(path, ignored) > maxBytes)
        fail(concat(path, " is larger than ", maxBytes, " bytes"));
}

} // namespace gripperctl
