#include "pacer.h"

#include "failure.h"
#include "interruption.h"

namespace gripperctl {

Pacer::Pacer(int intervalMs)
    : m_intervalMs(intervalMs)
{
    m_sinceStart.start();
}

bool Pacer::waitForNext(qint64 endMs)
{
    // After a look that took too long, the next look comes at once. Later looks do not catch up.
    m_nextMs = qMax(m_nextMs + m_intervalMs, m_sinceStart.elapsed());
    const qint64 untilMs = qMin(m_nextMs, endMs);
    try {
        pauseFor(static_cast<int>(qMax<qint64>(0, untilMs - m_sinceStart.elapsed())));
    } catch (const Failure &) {
        return false;
    }
    return true;
}

} // namespace gripperctl
