#pragma once

#include <QMap>
#include <QString>
#include <QStringList>
#include <QVector>

#include <optional>

namespace gripperctl {

/// Values by the name of their variable.
using Values = QMap<QString, QString>;

/// The value in the reply to a GET of an unknown name, or of a gripper's variable if the daemon has
/// found no gripper at the selected id.
QString noValue();

struct Reply
{
    QString name;
    QString value;
};

/// Reads "NAME VALUE", without the line feed. Empty for any other text.
std::optional<Reply> parseReply(const QString &line);

/// Reads a list such as "[2, 9]". Empty for any other text.
std::optional<QVector<int>> parseIds(const QString &text);

/// Whether the name has three letters, digits or underscores.
bool isGetName(const QString &name);

/// Whether the value does not depend on a gripper.
bool isDaemonValue(const QString &name);

struct SetName
{
    const char *name;
    bool needsGripper;
    bool takesSeconds; ///< the reply waits for the bus
};

/// Null for a name that the daemon acknowledges and ignores.
const SetName *findSetName(const QString &name);

/// Throws Failure unless the words are names of SET variables, each followed by at most one number
/// from 0 to 255.
void checkPairs(const QStringList &words);

/// The ids that a scan looks for. No scan finds a gripper with another id.
const QVector<int> &scannedIds();

} // namespace gripperctl
