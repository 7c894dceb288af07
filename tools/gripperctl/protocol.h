#pragma once

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

namespace gripperctl {

/// Values by the name of their variable.
using Values = QMap<QString, QString>;

/// What a GET is answered for a name that nobody knows, or without a gripper.
QString noValue();

struct Reply
{
    QString name;
    QString value;
};

/// "NAME VALUE" without its line feed; nothing for any other text.
std::optional<Reply> parseReply(const QString &line);

/// "[2, 9]"; nothing for any other text.
std::optional<QVector<int>> parseIds(const QString &text);

/// Three letters, digits or underscores.
bool isGetName(const QString &name);

/// The values that do not depend on a gripper.
bool isDaemonValue(const QString &name);

struct SetName
{
    const char *name;
    bool needsGripper;
    bool takesSeconds; ///< the reply waits for the bus
};

/// Null for a name that a SET would acknowledge and ignore.
const SetName *findSetName(const QString &name);

/// What is wrong with the words of a SET, which are names, each with a number of 0 to 255 behind it
/// or none; empty if nothing is.
QString problemInPairs(const QStringList &words);

/// The ids that a scan asks for. A gripper with any other is never found again.
const QVector<int> &scannedIds();

} // namespace gripperctl
