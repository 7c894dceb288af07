#pragma once

#include "gripperstate.h"

#include <QDateTime>

namespace gripperctl {

class Session;

/// The driver and its grippers at about one moment.
struct Snapshot
{
    QDateTime time;
    QString driver;
    QString link;
    QVector<GripperState> grippers; ///< in ascending order of their ids

    /// All grippers, or only the one that --gripper names. One that goes meanwhile is left out.
    static Snapshot take(Session &session);

    QJsonObject toJson() const;
};

} // namespace gripperctl
