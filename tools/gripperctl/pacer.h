#pragma once

#include <QElapsedTimer>

namespace gripperctl {

/// Looks at a steady pace: the time that a look takes does not add up.
class Pacer
{
public:
    explicit Pacer(int intervalMs);

    qint64 elapsedMs() const { return m_sinceStart.elapsed(); }

    /// Waits for the next look, or until `endMs` if that comes first. False when interrupted.
    bool waitForNext(qint64 endMs);

private:
    int m_intervalMs;
    qint64 m_nextMs = 0;
    QElapsedTimer m_sinceStart;
};

} // namespace gripperctl
