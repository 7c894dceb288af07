#pragma once

#include <CLI/CLI.hpp>

#include <string>

namespace gripperctl {

/// Writes the help of the program and of a command.
class HelpText : public CLI::FormatterBase
{
public:
    std::string make_help(const CLI::App *app, std::string name,
                          CLI::AppFormatMode mode) const override;
};

/// The words of a command that are no options, as the help shows them: "POSITION".
std::string argumentsOf(const CLI::App &command);

} // namespace gripperctl
