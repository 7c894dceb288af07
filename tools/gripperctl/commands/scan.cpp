#include "commands.h"

#include "buswork.h"
#include "session.h"
#include "snapshot.h"

namespace gripperctl {

namespace {

QString lineOf(const GripperState &gripper)
{
    return QStringLiteral("%1  %2  %3  serial %4")
        .arg(gripper.id())
        .arg(gripper.family(), -6)
        .arg(gripper.firmware(), gripper.serialNumber());
}

QString textOf(const Snapshot &snapshot)
{
    if (snapshot.grippers.isEmpty()) {
        return QStringLiteral("no grippers found (link %1): are they switched on, and is the line "
                              "plugged in?")
            .arg(snapshot.link);
    }
    QStringList lines;
    for (const GripperState &gripper : snapshot.grippers)
        lines.append(lineOf(gripper));
    return lines.join(QLatin1Char('\n'));
}

} // namespace

void runScan(Session &session)
{
    refuseDuringUpgrade(session);
    scanNow(session);
    const Snapshot snapshot = Snapshot::take(session);
    session.output().result(textOf(snapshot), snapshot.toJson());
}

} // namespace gripperctl
