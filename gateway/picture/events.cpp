#include "events.h"

#include <utility>

namespace gateway {

void EventLog::add(Event event, const gripper::ReadingTime &time)
{
    event.number = ++m_lastNumber;
    event.time = time;
    m_events.push_back(std::move(event));
    if (m_events.size() > capacity)
        m_events.pop_front();
}

} // namespace gateway
