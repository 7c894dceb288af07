#include "commands.h"

#include "failure.h"
#include "session.h"
#include "statewait.h"

#include <QElapsedTimer>

namespace gripperctl {

namespace {

constexpr int releaseTimeoutMs = 30'000;
// The gripper does not report the end of a release. The end is assumed when it has not moved for
// this time.
constexpr qint64 standstillMs = 500;

/// Whether the gripper shows the release and has not moved for long enough.
class StandsStill
{
public:
    bool operator()(const GripperState &state)
    {
        const bool isReleasing = state.status() == GripperState::Status::Releasing;
        if (!isReleasing || state.position() != m_position) {
            m_position = state.position();
            m_sinceMove.start();
            return false;
        }
        return m_sinceMove.elapsed() >= standstillMs;
    }

private:
    int m_position = -1;
    QElapsedTimer m_sinceMove;
};

} // namespace

void runRelease(Session &session)
{
    const int id = session.selectGripper();
    const GripperState before = GripperState::read(session.connection(), id);
    if (before.status() == GripperState::Status::Inactive) {
        throw Failure{
            ExitCode::Refused,
            QStringLiteral("gripper %1 is inactive and cannot let go: gripperctl activate "
                           "--wait opens it")
                .arg(id)};
    }
    const int direction = session.options().has("closing") ? 1 : 0;
    session.connection().set(QStringLiteral("ARD %1 ATR 1").arg(direction));
    QString text = QStringLiteral("was told to let go");
    if (session.options().has("wait")) {
        const auto end = waitForState(
            session, id,
            {QStringLiteral("letting go"), session.timeoutMs(releaseTimeoutMs), StandsStill()});
        text = QStringLiteral("has let go and stands at %1").arg(end.position());
    }
    session.output().result(QStringLiteral("gripper %1 %2; it takes no movement until gripperctl "
                                           "activate")
                                .arg(id)
                                .arg(text),
                            {{QStringLiteral("gripper"), id}, {QStringLiteral("text"), text}});
}

} // namespace gripperctl
