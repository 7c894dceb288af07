#include "statewait.h"

#include "failure.h"
#include "interruption.h"
#include "session.h"

#include <QElapsedTimer>

namespace gripperctl {

namespace {

constexpr int lookIntervalMs = 30;
constexpr qint64 maxAbsenceMs = 3000;

Failure lateFailure(const GripperState &last, const Goal &goal)
{
    QString text = QStringLiteral("gripper %1 did not finish %2 within %3 s (link %4, %5, "
                                  "position %6, fault %7)")
                       .arg(last.id())
                       .arg(goal.stage)
                       .arg(goal.timeoutMs / 1000.0)
                       .arg(last.link(), last.statusText())
                       .arg(last.position())
                       .arg(last.fault());
    text += QStringLiteral("; if its values never change, polling may be muted: unmute it with "
                           "gripperctl set MUTE 0");
    return {ExitCode::TimedOut, text};
}

Failure goneFailure(const GripperState &last)
{
    return {ExitCode::NoGripper,
            QStringLiteral("gripper %1 has disappeared from the line (link: %2): check its cable "
                           "and power, then run gripperctl scan")
                .arg(last.id())
                .arg(last.link())};
}

} // namespace

GripperState waitForState(Session &session, int id, const Goal &goal)
{
    session.output().begin(QStringLiteral("gripper %1: %2").arg(id).arg(goal.stage));
    QElapsedTimer sinceStart;
    QElapsedTimer sinceSeen;
    sinceStart.start();
    sinceSeen.start();
    while (true) {
        GripperState state = GripperState::read(session.connection(), id);
        if (state.isThere())
            sinceSeen.start();
        if (state.isLive() && goal.isReached(state)) {
            session.output().endStage();
            return state;
        }
        if (sinceSeen.elapsed() > maxAbsenceMs)
            throw goneFailure(state);
        if (sinceStart.elapsed() > goal.timeoutMs)
            throw lateFailure(state, goal);
        session.output().tick(sinceStart.elapsed());
        pauseFor(lookIntervalMs);
    }
}

} // namespace gripperctl
