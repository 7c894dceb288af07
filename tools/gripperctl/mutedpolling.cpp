#include "mutedpolling.h"

#include "failure.h"
#include "interruption.h"
#include "session.h"

namespace gripperctl {

namespace {

constexpr int silenceMs = 300;
constexpr int answerTimeoutMs = 10'000;

void setMuted(Connection &connection, int value)
{
    // After an interruption between request and answer, the state of MUTE would be unknown.
    connection.set(QStringLiteral("MUTE %1").arg(value), {answerTimeoutMs, false});
}

} // namespace

MutedPolling::MutedPolling(Session &session)
    : m_session(session)
{
    Connection &connection = session.connection();
    try {
        setMuted(connection, 1);
    } catch (const Failure &) {
        // Without an answer, the daemon may have muted polling, or may do so later.
        unmuteOnNewConnection();
        throw;
    }
}

MutedPolling::~MutedPolling()
{
    if (!m_isOver)
        unmuteOnNewConnection();
}

void MutedPolling::waitForSilentLine()
{
    pauseFor(silenceMs);
}

void MutedPolling::unmute()
{
    setMuted(m_session.connection(), 0);
    m_isOver = true;
}

void MutedPolling::leaveMuted()
{
    m_isOver = true;
}

/// The first connection may be waiting for a reply, or be lost.
void MutedPolling::unmuteOnNewConnection()
{
    try {
        const auto connection = m_session.connectAgain();
        // While a flasher has the line, the daemon unmutes when the flasher ends.
        if (connection->get(QStringLiteral("UPG")) != QLatin1String("1"))
            setMuted(*connection, 0);
    } catch (const Failure &) {
        m_session.output().note(
            QStringLiteral("polling may still be muted: unmute it with gripperctl set MUTE 0"));
    }
}

} // namespace gripperctl
