#include "problemlimit.h"

namespace gateway {

bool ProblemLimit::isDue(const std::string &problem, Clock::time_point now)
{
    const auto known = m_reported.find(problem);
    if (known != m_reported.end()) {
        const bool lasts = known->second > m_connectedAt;
        if (now - known->second < (lasts ? lastingPause : repeatedPause))
            return false;
    }
    if (m_reported.size() >= maxTexts)
        m_reported.clear();
    m_reported[problem] = now;
    return true;
}

} // namespace gateway
