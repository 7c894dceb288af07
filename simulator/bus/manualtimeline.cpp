#include "manualtimeline.h"

namespace sim {

void ManualTimeline::advanceMs(qint64 ms)
{
    const qint64 endUs = m_nowUs + ms * 1000;
    while (hasDue() && nextDueUs() <= endUs) {
        m_nowUs = qMax(m_nowUs, nextDueUs());
        runDue(m_nowUs);
    }
    m_nowUs = endUs;
}

} // namespace sim
