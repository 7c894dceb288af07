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
constexpr int lookEveryMs = 100;
// Where polling goes on, the first read finds the port closed and the link's state changes: within
// one tick of 50 ms and the time that fuser takes.
constexpr int standstillMs = 1500;
constexpr int standstillLookMs = 10;

/// Not interruptible: only the answer tells who has to unmute polling.
bool isFlashing(Session &session)
{
    const Connection::Wait wait{session.timeoutMs(answerTimeoutMs), false};
    return session.connection().get(QStringLiteral("UPG"), wait) != QLatin1String("0");
}

bool valuesStandStill(Session &session, const Values &atFirst)
{
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < standstillMs) {
        if (linkValues(session) != atFirst)
            return false;
        pauseFor(standstillLookMs);
    }
    return true;
}

void failIfLate(qint64 elapsedMs, int timeoutMs)
{
    if (elapsedMs <= timeoutMs)
        return;
    throw Failure{ExitCode::TimedOut,
                  QStringLiteral("the flasher still runs after %1 s: wait until "
                                 "gripperctl get UPG prints 0")
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
        pauseFor(lookEveryMs);
    }
    session.output().endStage();
}

/// The daemon unmutes when the flasher ends, and nobody should before.
void leaveItToTheDaemon(Session &session, MutedPolling &muted)
{
    muted.leaveMuted();
    try {
        waitWhileFlashing(session);
    } catch (const Failure &failure) {
        if (failure.code != ExitCode::Interrupted)
            throw;
        throw Failure{failure.code,
                      QStringLiteral("interrupted: the flasher goes on without us, do not switch "
                                     "the gripper off. Polling goes on when gripperctl get UPG "
                                     "prints 0")};
    }
}

} // namespace

Values linkValues(Session &session)
{
    return session.connection().get({QStringLiteral("DRI"), QStringLiteral("SID")});
}

FlasherEnd waitForFlasher(Session &session, MutedPolling &muted, const Values &atFirst)
{
    if (isFlashing(session)) {
        leaveItToTheDaemon(session, muted);
        return FlasherEnd::Ended;
    }
    const bool hasNeverStarted = valuesStandStill(session, atFirst);
    muted.unmute();
    return hasNeverStarted ? FlasherEnd::NeverStarted : FlasherEnd::Ended;
}

} // namespace gripperctl
