#pragma once

#include "gripperidentity.h"

#include <QStringList>

#include <optional>

namespace sim {

/// A gripper that a user has described, such as "9=TA3-1.6.14 serial=ABC-0042 year=2023".
struct GripperOptions
{
    quint8 slaveId = 0;
    GripperIdentity identity;

    /// Reads ID=VERSION and the optional words serial=TEXT and year=YEAR. Throws Failure for other
    /// words.
    static GripperOptions fromWords(const QStringList &words);
    /// Applies one of the optional words. Returns false for any other word.
    bool applyWord(const QString &word);
};

/// A slave id and the text for it, from a word such as "9=text".
struct PerGripperText
{
    quint8 slaveId = 0; ///< 1 to 247
    QString text;

    /// Empty when `word` does not have this form.
    static std::optional<PerGripperText> fromWord(const QString &word);
};

} // namespace sim
