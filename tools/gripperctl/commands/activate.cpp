#include "commands.h"

#include "failure.h"
#include "session.h"
#include "statewait.h"

namespace gripperctl {

namespace {

constexpr int activationTimeoutMs = 20'000;

void printResult(Session &session, const GripperState &state, const QString &text)
{
    session.output().result(QStringLiteral("gripper %1 %2").arg(state.id()).arg(text),
                            {{QStringLiteral("gripper"), state.id()},
                             {QStringLiteral("status"), state.statusText()},
                             {QStringLiteral("fault"), state.fault()},
                             {QStringLiteral("text"), text}});
}

void refuseFaulty(const GripperState &state)
{
    if (state.fault() == 0)
        return;
    throw Failure{
        ExitCode::Refused,
        QStringLiteral("gripper %1 is active, but has fault %2: see its manual; "
                       "gripperctl activate --again clears the faults that can be cleared")
            .arg(state.id())
            .arg(state.fault())};
}

/// Prints no values of the gripper, because they are still old.
void printStart(Session &session, int id)
{
    const QString text = QStringLiteral("was told to activate");
    session.output().result(QStringLiteral("gripper %1 %2").arg(id).arg(text),
                            {{QStringLiteral("gripper"), id}, {QStringLiteral("text"), text}});
}

/// The daemon first deactivates an active gripper. Until the gripper shows this, its status is old.
GripperState waitForActivation(Session &session, const GripperState &before)
{
    bool hasLeftActive = before.status() != GripperState::Status::Active;
    const auto isOver = [&hasLeftActive](const GripperState &state) {
        const bool isActive = state.status() == GripperState::Status::Active;
        hasLeftActive = hasLeftActive || !isActive;
        return hasLeftActive && isActive;
    };
    return waitForState(
        session, before.id(),
        {QStringLiteral("activating"), session.timeoutMs(activationTimeoutMs), isOver});
}

} // namespace

void runActivate(Session &session)
{
    const int id = session.selectGripper();
    const GripperState before = GripperState::read(session.connection(), id);
    const bool isAgain = session.options().has("again");
    if (before.status() == GripperState::Status::Active && !isAgain) {
        refuseFaulty(before);
        printResult(session, before, QStringLiteral("is active already"));
        return;
    }
    // A second request would restart an activation that is under way.
    if (before.status() != GripperState::Status::Activating || isAgain)
        session.connection().set(QStringLiteral("ACT 1"));
    if (!session.options().has("wait")) {
        printStart(session, id);
        return;
    }
    const GripperState after = waitForActivation(session, before);
    refuseFaulty(after);
    printResult(session, after, QStringLiteral("is active"));
}

} // namespace gripperctl
