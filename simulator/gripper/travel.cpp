#include "travel.h"

#include "timeline.h"

namespace sim {

Travel Travel::rest(int position, qint64 nowUs)
{
    return move(position, position, 1, nowUs);
}

Travel Travel::move(int from, int to, int ratePerSecond, qint64 nowUs)
{
    Travel travel;
    travel.m_from = from;
    travel.m_to = to;
    travel.m_startUs = nowUs;
    travel.m_endUs = nowUs + qAbs(to - from) * usPerSecond / ratePerSecond;
    return travel;
}

int Travel::positionAt(qint64 nowUs) const
{
    if (nowUs >= m_endUs)
        return m_to;
    if (nowUs <= m_startUs)
        return m_from;
    const qint64 distance = m_to - m_from;
    return m_from + static_cast<int>(distance * (nowUs - m_startUs) / (m_endUs - m_startUs));
}

} // namespace sim
