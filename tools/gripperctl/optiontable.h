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
        Whole,   ///< a whole number from `min` to `max`
        Seconds, ///< seconds from `min` to `max`, fractions allowed
    };

    const char *name;
    const char *shortName; ///< null for none
    Kind kind;
    const char *valueName; ///< null for a flag
    double min;
    double max;
    const char *help;

    QString nameText() const;
};

/// The options that every command takes.
const QVector<OptionRow> &generalOptions();

/// The options that only some commands take.
const QVector<OptionRow> &commandOptions();

} // namespace gripperctl
