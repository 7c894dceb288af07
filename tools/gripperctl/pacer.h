#pragma once

#include <QElapsedTimer>

namespace gripperctl {

/// Keeps a steady interval from one look to the next, whatever time a look takes.
class Pacer
{
public:
    explicit Pacer(int intervalMs);

    qint64 elapsedMs() const { return m_sinceStart.elapsed(); }

    /// Blocks until the next look, at most until `endMs` after the start. Returns false if
    /// interrupted.
    bool waitForNext(qint64 endMs);

private:
    int m_intervalMs;
    qint64 m_nextMs = 0;
    QElapsedTimer m_sinceStart;
};

} // namespace gripperctl
