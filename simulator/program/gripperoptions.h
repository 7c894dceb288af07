#pragma once

#include "gripperidentity.h"

#include <QStringList>

#include <optional>

namespace sim {

/// A gripper as a user describes it: "9=TA3-1.6.14", and optionally "serial=ABC-0042" and
/// "year=2023".
struct GripperOptions
{
    quint8 slaveId = 0;
    GripperIdentity identity;

    /// Throws Failure for other words.
    static GripperOptions fromWords(const QStringList &words);
    /// Takes one of the optional words. False when it is not one.
    bool applyWord(const QString &word);
};

/// Text such as "9=something", taken apart.
struct PerGripperText
{
    quint8 slaveId = 0; ///< 1 to 247
    QString text;

    /// Nothing when `word` is not of that form.
    static std::optional<PerGripperText> fromWord(const QString &word);
};

} // namespace sim
