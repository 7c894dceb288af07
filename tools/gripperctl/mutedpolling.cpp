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
    // An interruption between the request and its answer would leave it open what holds.
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
        // Without an answer it may have come into force, or may yet.
        unmuteWhateverHappened();
        throw;
    }
}

MutedPolling::~MutedPolling()
{
    if (!m_isOver)
        unmuteWhateverHappened();
}

void MutedPolling::letLineFallSilent()
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

/// On a connection of its own: the other one may be waiting for a reply, or be lost.
void MutedPolling::unmuteWhateverHappened()
{
    try {
        const auto connection = m_session.connectAgain();
        // The line belongs to a flasher, ours or another's: the daemon unmutes when that has ended.
        if (connection->get(QStringLiteral("UPG")) != QLatin1String("1"))
            setMuted(*connection, 0);
    } catch (const Failure &) {
        m_session.output().note(
            QStringLiteral("polling may still be muted: gripperctl set MUTE 0"));
    }
}

} // namespace gripperctl
