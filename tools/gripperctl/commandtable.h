#pragma once

#include <QString>
#include <QVector>

#include <set>
#include <string_view>

namespace gripperctl {

class Session;

/// One command: what it takes, what it says of itself, what it does.
struct CommandRow
{
    const char *name;
    const char *arguments; ///< as the help shows them
    int fewestArguments;
    int mostArguments;
    std::set<std::string_view> options; ///< names from commandOptions()
    const char *summary;                ///< one line
    const char *details;
    const char *example; ///< without the program's name
    /// Returns when it is done, throws a Failure otherwise.
    void (*run)(Session &session);

    bool takes(const char *option) const;
    QString nameText() const;
    QString argumentsText() const;
};

const QVector<CommandRow> &commandTable();

/// Null for a name that no command has.
const CommandRow *findCommand(const QString &name);

} // namespace gripperctl
