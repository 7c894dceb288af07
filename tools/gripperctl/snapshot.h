#pragma once

#include "gripperstate.h"

#include <QDateTime>

namespace gripperctl {

class Session;

/// The driver and its grippers at about the same time.
struct Snapshot
{
    QDateTime time;
    QString driver;
    QString link;
    QVector<GripperState> grippers; ///< in ascending order of their ids

    /// Reads all grippers, or only the one of --gripper. Leaves out a gripper that disappears
    /// meanwhile.
    static Snapshot take(Session &session);

    QJsonObject toJson() const;
};

} // namespace gripperctl
