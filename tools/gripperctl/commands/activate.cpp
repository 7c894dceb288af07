#include "commands.h"

#include "failure.h"
#include "session.h"
#include "statewait.h"

namespace gripperctl {

namespace {

constexpr int activationTimeoutMs = 20'000;

void tell(Session &session, const GripperState &state, const QString &text)
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
    throw Failure{ExitCode::Refused,
                  QStringLiteral("gripper %1 is active, but shows fault %2: see its manual; "
                                 "gripperctl activate --again clears what can be cleared")
                      .arg(state.id())
                      .arg(state.fault())};
}

/// Nothing of what the gripper shows: that is still of before.
void tellStart(Session &session, int id)
{
    const QString text = QStringLiteral("was told to activate");
    session.output().result(QStringLiteral("gripper %1 %2").arg(id).arg(text),
                            {{QStringLiteral("gripper"), id}, {QStringLiteral("text"), text}});
}

/// An active gripper is deactivated first: until that shows, its status is that of before.
GripperState waitForActivation(Session &session, const GripperState &before)
{
    bool hasLeft = before.status() != GripperState::Status::Active;
    const auto isOver = [&hasLeft](const GripperState &state) {
        const bool isActive = state.status() == GripperState::Status::Active;
        hasLeft = hasLeft || !isActive;
        return hasLeft && isActive;
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
        tell(session, before, QStringLiteral("is active already"));
        return;
    }
    // Told once more, a gripper that is on its way would begin anew.
    if (before.status() != GripperState::Status::Activating || isAgain)
        session.connection().set(QStringLiteral("ACT 1"));
    if (!session.options().has("wait")) {
        tellStart(session, id);
        return;
    }
    const GripperState after = waitForActivation(session, before);
    refuseFaulty(after);
    tell(session, after, QStringLiteral("is active"));
}

} // namespace gripperctl
