#include "failure.h"

namespace flasher {

namespace {

struct Row
{
    ExitCode code;
    const char *summary;
    const char *nextStep;
};

constexpr Row rows[] = {
    {ExitCode::CannotBegin, "cannot begin", "fix this and try again"},
    {ExitCode::PortFailed, "port not available", "free the port and try again"},
    {ExitCode::NoBootloader, "no bootloader answered",
     "nothing was written: switch the gripper off and on, send it into its bootloader, and try "
     "again"},
    {ExitCode::WriteFailed, "firmware not written",
     "switch the gripper off and on, and flash it again"},
    {ExitCode::NotStarted, "firmware written but not started",
     "switch the gripper off and on to start it"},
    {ExitCode::Stalled, "no progress", "switch the gripper off and on, and flash it again"},
};

} // namespace

QString lineFor(const Failure &failure)
{
    QString cause =
        failure.cause.isEmpty() ? QStringLiteral("stm32flash gave no reason") : failure.cause;
    for (const Row &row : rows) {
        if (row.code == failure.code) {
            return QStringLiteral("%1: %2; %3")
                .arg(QLatin1String(row.summary), cause, QLatin1String(row.nextStep));
        }
    }
    return cause;
}

} // namespace flasher
