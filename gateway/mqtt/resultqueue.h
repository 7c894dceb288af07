#pragma once

#include "topics.h"

#include <cstddef>
#include <deque>
#include <optional>
#include <utility>

namespace gateway {

/// The results that the broker does not have yet. Outcomes come first. A flood of messages that are
/// refused takes no more memory, and no outcome its place.
class ResultQueue
{
public:
    static constexpr std::size_t maxRefusals = 1024; ///< a new one replaces the oldest
    static constexpr std::size_t maxOutcomes = 256;

    /// Whether every outcome has a place if this many jobs run and one more begins.
    bool hasRoom(std::size_t running) const { return m_outcomes.size() + running < maxOutcomes; }
    void addOutcome(Message message) { m_outcomes.push_back(std::move(message)); }
    void addRefusal(Message message);
    /// Returns the same result until remove(). Null without one.
    const Message *next();
    /// Removes the result that next() returned.
    void remove() { m_next.reset(); }

private:
    std::deque<Message> m_outcomes;
    std::deque<Message> m_refusals;
    std::optional<Message> m_next;
};

} // namespace gateway
