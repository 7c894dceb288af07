#include "commands.h"

#include "failure.h"
#include "motion.h"
#include "session.h"
#include "statewait.h"

#include <QElapsedTimer>

namespace gripperctl {

namespace {

constexpr int openPosition = 0;
constexpr int closedPosition = 255;
// At the lowest speed, the full travel takes a few seconds.
constexpr int motionTimeoutMs = 30'000;
// The daemon reads or writes one gripper in this time.
constexpr qint64 pollingStepMs = 50;

/// The greatest age of a value that the daemon shows. A scan finds at most one gripper per id; in
/// the worst case the daemon writes each of them between two reads.
qint64 maxValueAgeMs()
{
    return 2 * pollingStepMs * scannedIds().size();
}

QString requestFor(const Options &options, int position)
{
    QString pairs = QStringLiteral("POS %1").arg(position);
    if (const auto speed = options.whole("speed"))
        pairs += QStringLiteral(" SPE %1").arg(*speed);
    if (const auto force = options.whole("force"))
        pairs += QStringLiteral(" FOR %1").arg(*force);
    return pairs + QStringLiteral(" GTO 1");
}

void refuseInactive(const GripperState &state)
{
    if (state.status() == GripperState::Status::Active)
        return;
    throw Failure{ExitCode::Refused,
                  QStringLiteral("gripper %1 is %2 and cannot move: run gripperctl activate --wait")
                      .arg(state.id())
                      .arg(state.statusText())};
}

[[noreturn]] void failByFault(const GripperState &state)
{
    throw Failure{
        ExitCode::Refused,
        QStringLiteral("gripper %1 has fault %2 at position %3: see its manual; "
                       "gripperctl activate --again clears the faults that can be cleared")
            .arg(state.id())
            .arg(state.fault())
            .arg(state.position())};
}

GripperState waitForEnd(Session &session, const GripperState &before, int position)
{
    // If the gripper already showed this request, it may have accepted another one since, which it
    // does not show yet.
    const bool wasShownBefore = before.goesTo() && before.requestedPosition() == position;
    QElapsedTimer sinceRequest;
    sinceRequest.start();
    const auto isOver = [=](const GripperState &state) {
        const Motion motion = judgeMotion(state, position);
        const bool isFresh = !wasShownBefore || sinceRequest.elapsed() > maxValueAgeMs();
        return isFresh && motion != Motion::NotTaken && motion != Motion::UnderWay;
    };
    const Goal goal{QStringLiteral("moving to %1").arg(position),
                    session.timeoutMs(motionTimeoutMs), isOver};
    try {
        return waitForState(session, before.id(), goal);
    } catch (const Failure &failure) {
        if (failure.code != ExitCode::Interrupted)
            throw;
        throw Failure{
            failure.code,
            QStringLiteral("interrupted: gripper %1 continues to %2. gripperctl --gripper %1 "
                           "set GTO 0 stops it")
                .arg(before.id())
                .arg(position)};
    }
}

void printResult(Session &session, const GripperState &state, int wanted, const QString &text)
{
    session.output().result(QStringLiteral("gripper %1 %2").arg(state.id()).arg(text),
                            {{QStringLiteral("gripper"), state.id()},
                             {QStringLiteral("requestedPosition"), wanted},
                             {QStringLiteral("position"), state.position()},
                             {QStringLiteral("object"), state.objectText()},
                             {QStringLiteral("current"), state.current()},
                             {QStringLiteral("text"), text}});
}

/// Prints no values of the gripper, because they are still old.
void printStart(Session &session, int id, int wanted)
{
    const QString text = QStringLiteral("was told to go to %1").arg(wanted);
    session.output().result(QStringLiteral("gripper %1 %2").arg(id).arg(text),
                            {{QStringLiteral("gripper"), id},
                             {QStringLiteral("requestedPosition"), wanted},
                             {QStringLiteral("text"), text}});
}

void printEnd(Session &session, const GripperState &state, int wanted)
{
    if (state.object() == GripperState::Object::Reached) {
        printResult(session, state, wanted, QStringLiteral("reached %1").arg(state.position()));
        return;
    }
    const QString text = state.isVacuum() ? QStringLiteral("leaks: level %1 instead of %2")
                                          : QStringLiteral("met an object at %1, on its way to %2");
    printResult(session, state, wanted, text.arg(state.position()).arg(wanted));
}

void moveTo(Session &session, int position)
{
    const int id = session.selectGripper();
    const GripperState before = GripperState::read(session.connection(), id);
    refuseInactive(before);
    session.connection().set(requestFor(session.options(), position));
    if (!session.options().has("wait")) {
        printStart(session, id, position);
        return;
    }
    const GripperState after = waitForEnd(session, before, position);
    if (after.fault() != 0)
        failByFault(after);
    refuseInactive(after);
    printEnd(session, after, position);
}

} // namespace

void runMove(Session &session)
{
    const QString word = session.options().arguments.first();
    bool isNumber = false;
    const int position = word.toInt(&isNumber);
    if (!isNumber || position < openPosition || position > closedPosition) {
        throw Failure{
            ExitCode::WrongUsage,
            QStringLiteral("a position is a number from 0 (open) to 255 (closed), not \"%1\"")
                .arg(word)};
    }
    moveTo(session, position);
}

void runOpen(Session &session)
{
    moveTo(session, openPosition);
}

void runClose(Session &session)
{
    moveTo(session, closedPosition);
}

} // namespace gripperctl
