#pragma once

#include <QString>
#include <QVector>

#include <set>
#include <string_view>

namespace gripperctl {

class Session;

/// One command: its arguments, its options, its help, and the function that runs it.
struct CommandRow
{
    const char *name;
    const char *arguments; ///< for the help, such as "OLD NEW"
    int minArguments;
    int maxArguments;
    std::set<std::string_view> options; ///< names from commandOptions()
    const char *summary;                ///< one line
    const char *details;
    const char *example; ///< without the program name
    /// Returns when the command has succeeded, and throws Failure otherwise.
    void (*run)(Session &session);

    bool takes(const char *option) const;
    QString nameText() const;
    QString argumentsText() const;
};

const QVector<CommandRow> &commandTable();

/// Null if no command has this name.
const CommandRow *findCommand(const QString &name);

} // namespace gripperctl
