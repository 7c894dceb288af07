#include "flashwait.h"

#include "failure.h"
#include "interruption.h"
#include "mutedpolling.h"
#include "session.h"

#include <QElapsedTimer>

namespace gripperctl {

namespace {

constexpr int answerTimeoutMs = 10'000;
constexpr int flashTimeoutMs = 600'000;
constexpr int lookIntervalMs = 100;
// When polling continues, its first read finds the port closed, and the state of the link changes.
// This takes one tick of 50 ms and the run time of fuser.
constexpr int unchangedMs = 1500;
constexpr int unchangedLookMs = 10;

/// Not interruptible: the answer decides whether this process has to unmute polling.
bool isFlashing(Session &session)
{
    const Connection::Wait wait{session.timeoutMs(answerTimeoutMs), false};
    return session.connection().get(QStringLiteral("UPG"), wait) != QLatin1String("0");
}

bool valuesStayUnchanged(Session &session, const Values &before)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < unchangedMs) {
        if (linkValues(session) != before)
            return false;
        pauseFor(unchangedLookMs);
    }
    return true;
}

void failIfLate(qint64 elapsedMs, int timeoutMs)
{
    if (elapsedMs <= timeoutMs)
        return;
    throw Failure{ExitCode::TimedOut,
                  QStringLiteral("the flasher still runs after %1 s: wait until "
                                 "\"gripperctl get UPG\" prints 0")
                      .arg(timeoutMs / 1000.0)};
}

void waitWhileFlashing(Session &session)
{
    const int timeoutMs = session.timeoutMs(flashTimeoutMs);
    session.output().begin(QStringLiteral("writing the firmware"));
    QElapsedTimer timer;
    timer.start();
    while (isFlashing(session)) {
        failIfLate(timer.elapsed(), timeoutMs);
        session.output().tick(timer.elapsed());
        pauseFor(lookIntervalMs);
    }
    session.output().endStage();
}

/// The daemon unmutes when the flasher ends. An earlier unmuting would disturb the flasher.
void leaveUnmutingToDaemon(Session &session, MutedPolling &muted)
{
    muted.leaveMuted();
    try {
        waitWhileFlashing(session);
    } catch (const Failure &failure) {
        if (failure.code != ExitCode::Interrupted)
            throw;
        throw Failure{failure.code,
                      QStringLiteral("interrupted: the flasher continues, so do not switch the "
                                     "gripper off. Polling continues when \"gripperctl get UPG\" "
                                     "prints 0")};
    }
}

} // namespace

Values linkValues(Session &session)
{
    return session.connection().get({QStringLiteral("DRI"), QStringLiteral("SID")});
}

FlasherEnd waitForFlasher(Session &session, MutedPolling &muted, const Values &before)
{
    if (isFlashing(session)) {
        leaveUnmutingToDaemon(session, muted);
        return FlasherEnd::Ended;
    }
    const bool hasNeverStarted = valuesStayUnchanged(session, before);
    muted.unmute();
    return hasNeverStarted ? FlasherEnd::NeverStarted : FlasherEnd::Ended;
}

} // namespace gripperctl
