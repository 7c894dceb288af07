#pragma once

#include <CLI/CLI.hpp>

#include <istream>
#include <string>
#include <vector>

namespace gripperctl {

/// The variable with the address. It has priority over the configuration file.
constexpr const char *hostVariable = "GRIPPERCTL_HOST";

/// Reads the configuration file, in TOML. It checks each entry itself, because the errors of CLI11
/// name neither the file nor the line.
class SettingsFile : public CLI::ConfigBase
{
public:
    explicit SettingsFile(CLI::App &app)
        : m_app(app)
    {
    }

    /// Throws Failure for a wrong entry.
    std::vector<CLI::ConfigItem> from_config(std::istream &input) const override;

    /// The file of a user without --config. Empty without a home.
    static std::string defaultPath();

    /// Throws Failure if `path` exists and is not a file to read or is too large, or if a file that
    /// the user named does not exist. Opening a pipe would wait for its writer.
    static void refuseUnreadable(const std::string &path);

private:
    CLI::App &m_app;
};

} // namespace gripperctl
