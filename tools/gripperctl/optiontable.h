#pragma once

#include <QString>
#include <QVector>

namespace gripperctl {

/// One option of the command line.
struct OptionRow
{
    enum class Kind {
        Flag,
        Text,
        Whole,   ///< a whole number of `least` to `most`
        Seconds, ///< seconds of `least` to `most`, fractions allowed
    };

    const char *name;
    const char *shortName; ///< null for none
    Kind kind;
    const char *valueName; ///< null for a flag
    double least;
    double most;
    const char *help;

    QString nameText() const;
};

/// Those that every command takes.
const QVector<OptionRow> &generalOptions();

/// Those that only some take.
const QVector<OptionRow> &commandOptions();

} // namespace gripperctl
