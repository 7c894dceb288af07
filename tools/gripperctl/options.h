#pragma once

#include "endpoint.h"

#include <QMap>
#include <QStringList>

#include <optional>

namespace gripperctl {

/// What the command line asks for.
struct Options
{
    Endpoint endpoint;
    QString command; ///< empty without one
    QStringList arguments;
    /// Of the options that were given; a flag has an empty value.
    QMap<QString, QString> values;

    bool has(const char *name) const;
    QString text(const char *name) const;
    std::optional<int> whole(const char *name) const;
    std::optional<int> milliseconds(const char *name) const;

    /// `words` without the program's name. Throws a Failure for what no command would take; whether
    /// this command takes it is checked by checkAgainst().
    static Options fromWords(const QStringList &words);
};

struct CommandRow;

/// Throws a Failure if the command does not take these arguments and options.
void checkAgainst(const CommandRow &command, const Options &options);

} // namespace gripperctl
