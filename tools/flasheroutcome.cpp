#include "flasheroutcome.h"

namespace {
struct Row
{
    FlasherOutcome outcome;
    const char *summary;
    const char *nextStep;
};

constexpr Row kRows[] = {
    {FlasherOutcome::CannotBegin, "cannot begin", "fix that and try again"},
    {FlasherOutcome::PortFailed, "port not available", "free the port and try again"},
    {FlasherOutcome::NoBootloader, "no bootloader answered",
     "nothing was written: switch the gripper off and on, send it into its bootloader, and try "
     "again"},
    {FlasherOutcome::WriteFailed, "firmware not written",
     "switch the gripper off and on, and flash it again"},
    {FlasherOutcome::NotStarted, "firmware written but not started",
     "switch the gripper off and on to start it"},
    {FlasherOutcome::Stalled, "no progress", "switch the gripper off and on, and flash it again"},
};
} // namespace

QString lineFor(FlasherOutcome outcome, const QString &problem)
{
    for (const Row &row : kRows) {
        if (row.outcome != outcome)
            continue;
        const QString cause = problem.isEmpty() ? QStringLiteral("stm32flash gave up") : problem;
        return QStringLiteral("%1: %2; %3")
            .arg(QLatin1String(row.summary), cause, QLatin1String(row.nextStep));
    }
    return QString();
}
