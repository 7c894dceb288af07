#include "settingsfile.h"

#include "commandwords.h"

#include <toml++/toml.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <sstream>

#include <unistd.h>

namespace tools {

namespace {

namespace fs = std::filesystem;

// toml++ frees nested tables recursively. The names of a larger file could exhaust the stack.
constexpr std::uintmax_t maxBytes = 16384;

[[noreturn]] void fail(const std::string &text)
{
    throw SettingsError("configuration file " + text);
}

[[noreturn]] void refuse(const toml::key &key, const std::string &subject,
                         const std::string &problem)
{
    const std::string text = subject + ' ' + problem;
    throw toml::parse_error(text.c_str(), key.source());
}

/// The text of a string, and any other value as in the file.
std::string wordOf(const toml::node &value)
{
    std::ostringstream text;
    text << toml::node_view<const toml::node>(value);
    return value.value_or(text.str());
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

bool isOverridden(const CLI::Option &option)
{
    const std::string variable = option.get_envname();
    const char *value = variable.empty() ? nullptr : std::getenv(variable.c_str());
    return value != nullptr && *value != '\0';
}

/// Adds the entry of an option of `app`. Throws for a wrong one.
void addEntry(std::vector<CLI::ConfigItem> &entries, CLI::App &app, const toml::key &key,
              const toml::node &value)
{
    CLI::ConfigItem entry;
    entry.name = key.str();
    entry.inputs = wordsOf(value);
    if (app.get_parent() != nullptr)
        entry.parents = {app.get_name()};
    const std::string name = "--" + entry.name;
    CLI::Option *option = app.get_option_no_throw(name);
    if (option == nullptr)
        refuse(key, "there is no option", name + suggestion(name, optionNames(app)));
    if (!option->get_configurable())
        refuse(key, name, "works only on the command line");
    const auto maxCount = static_cast<std::size_t>(std::max(1, option->get_items_expected_max()));
    if (entry.inputs.empty() || entry.inputs.size() > maxCount)
        refuse(key, name, "takes one value");
    for (const std::string &word : entry.inputs) {
        const std::string problem = problemOf(*option, word);
        if (!problem.empty())
            refuse(key, name, problem);
    }
    if (!isOverridden(*option))
        entries.push_back(entry);
}

/// Opening a pipe would wait for its writer.
void refuseUnreadable(const std::string &path, bool isRequired)
{
    if (path == "/dev/null")
        return;
    if (::access(path.c_str(), R_OK) != 0) {
        if (errno != ENOENT || isRequired)
            fail(path + " is not readable: " + std::strerror(errno));
        return;
    }
    std::error_code ignored;
    if (!fs::is_regular_file(path, ignored))
        fail(path + " is not a file, but a folder, a pipe or a device");
    if (fs::file_size(path, ignored) > maxBytes)
        fail(path + " is larger than " + std::to_string(maxBytes) + " bytes");
}

} // namespace

CLI::Option *SettingsFile::addOption(CLI::App &app, const std::string &defaultPath,
                                     const std::string &help)
{
    app.config_formatter(std::make_shared<SettingsFile>(app));
    return app.set_config("--config", defaultPath, help)
        ->each([defaultPath](const std::string &path) {
            refuseUnreadable(path, path != defaultPath);
        });
}

std::vector<CLI::ConfigItem> SettingsFile::from_config(std::istream &input) const
{
    std::vector<CLI::ConfigItem> entries;
    try {
        const toml::table table = toml::parse(input);
        for (const auto &[key, value] : table) {
            const toml::table *section = value.as_table();
            if (section == nullptr) {
                addEntry(entries, m_app, key, value);
                continue;
            }
            const std::string name(key);
            CLI::App *command = findCommand(m_app, name);
            if (command == nullptr)
                refuse(key, "there is no command", name);
            for (const auto &[option, setting] : *section)
                addEntry(entries, *command, option, setting);
        }
    } catch (const toml::parse_error &error) {
        fail(m_app.get_config_ptr()->as<std::string>() + ", line " +
             std::to_string(error.source().begin.line) + ": " + std::string(error.description()));
    }
    return entries;
}

} // namespace tools
