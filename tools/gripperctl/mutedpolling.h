#pragma once

class Session;

/// Polling is muted as long as this lives, however it ends, unless a flasher has the line by then:
/// no poll delays a request that takes the line.
class MutedPolling
{
public:
    explicit MutedPolling(Session &session);
    ~MutedPolling();
    MutedPolling(const MutedPolling &) = delete;
    MutedPolling &operator=(const MutedPolling &) = delete;

    /// Returns when no poll can be under way any more.
    void letLineFallSilent();

    /// Polls again, before the end of this.
    void unmute();

    /// The daemon unmutes by itself; nothing happens at the end of this.
    void leaveMuted();

private:
    void unmuteWhateverHappened();

    Session &m_session;
    bool m_isOver = false;
};
