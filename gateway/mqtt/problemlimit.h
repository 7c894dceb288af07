#pragma once

#include "picture.h"

#include <chrono>
#include <cstddef>
#include <map>
#include <string>

namespace gateway {

/// Decides which problems with the broker the gateway reports. A broker that fails again and again,
/// also with several problems in turn, fills neither the journal nor the list of events.
class ProblemLimit
{
public:
    static constexpr std::chrono::minutes repeatedPause{1}; ///< for a problem after a connection
    static constexpr std::chrono::hours lastingPause{1};    ///< without a connection in between
    static constexpr std::size_t maxTexts = 64;             ///< the broker words some of them

    void connected(Clock::time_point now) { m_connectedAt = now; }
    /// Whether a report of this problem is due. The caller then reports it.
    bool isDue(const std::string &problem, Clock::time_point now);

private:
    std::map<std::string, Clock::time_point> m_reported; ///< the last time, by problem
    Clock::time_point m_connectedAt;
};

} // namespace gateway
