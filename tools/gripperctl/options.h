#pragma once

#include "endpoint.h"

#include <QMap>
#include <QStringList>

#include <optional>

namespace gripperctl {

/// The contents of the command line.
struct Options
{
    Endpoint endpoint;
    QString command; ///< empty if none is given
    QStringList arguments;
    /// The given options with their values; the value of a flag is empty.
    QMap<QString, QString> values;

    bool has(const char *name) const;
    QString text(const char *name) const;
    std::optional<int> whole(const char *name) const;
    std::optional<int> milliseconds(const char *name) const;

    /// `words` are without the program name. Throws Failure for words that no command takes.
    /// checkAgainst() checks the words for the given command.
    static Options fromWords(const QStringList &words);
};

struct CommandRow;

/// Throws Failure if the command does not take these arguments and options.
void checkAgainst(const CommandRow &command, const Options &options);

} // namespace gripperctl
