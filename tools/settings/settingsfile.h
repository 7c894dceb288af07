#pragma once

#include <CLI/CLI.hpp>

#include <istream>
#include <stdexcept>
#include <string>
#include <vector>

namespace tools {

/// The configuration file cannot be used. what() is one line, which names the file and, for a wrong
/// entry, its line.
class SettingsError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Reads the configuration file, in TOML: the options of the program, and in sections the options
/// of its commands. It checks each entry itself, because the errors of CLI11 name neither the file
/// nor the line. An environment variable of an option has priority over the file.
class SettingsFile : public CLI::ConfigBase
{
public:
    /// Adds the option --config. The file `defaultPath` need not exist. During the parsing of the
    /// command line, a wrong file throws SettingsError. The first check of an option judges its
    /// entry, with a text such as "takes a number, not x".
    static CLI::Option *addOption(CLI::App &app, const std::string &defaultPath,
                                  const std::string &help);

    explicit SettingsFile(CLI::App &app)
        : m_app(app)
    {
    }

    std::vector<CLI::ConfigItem> from_config(std::istream &input) const override;

private:
    CLI::App &m_app;
};

} // namespace tools
