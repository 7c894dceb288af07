#include "commands.h"

#include "failure.h"
#include "session.h"
#include "snapshot.h"
#include "texttable.h"

namespace gripperctl {

namespace {

QStringList rowOf(const GripperState &gripper)
{
    return {QString::number(gripper.id()),
            gripper.family(),
            gripper.firmware(),
            gripper.serialNumber(),
            gripper.text("PYE"),
            gripper.statusText(),
            gripper.text("POS"),
            gripper.objectText(),
            gripper.text("FLT"),
            gripper.text("NCY")};
}

QString tableOf(const Snapshot &snapshot)
{
    if (snapshot.grippers.isEmpty())
        return QStringLiteral("no grippers found");
    TextTable table(
        QStringLiteral("ID FAMILY FIRMWARE SERIAL YEAR STATUS POSITION OBJECT FAULT CYCLES")
            .split(QLatin1Char(' ')));
    for (const GripperState &gripper : snapshot.grippers)
        table.addRow(rowOf(gripper));
    return table.lines().join(QLatin1Char('\n'));
}

} // namespace

void runStatus(Session &session)
{
    if (session.options().has("gripper"))
        session.selectGripper();
    const Snapshot snapshot = Snapshot::take(session);
    session.output().result(QStringLiteral("driver %1, link %2\n%3")
                                .arg(snapshot.driver, snapshot.link, tableOf(snapshot)),
                            snapshot.toJson());
}

} // namespace gripperctl
