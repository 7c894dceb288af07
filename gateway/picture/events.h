#pragma once

#include <gripper/image.h>

#include <cstdint>
#include <deque>
#include <optional>
#include <string>

namespace gateway {

enum class EventKind {
    Fault,
    FaultCleared,
    Arrived,
    ObjectMet,
    ObjectLost,
    Found,
    Missing,
    OtherCommand, ///< another client of the daemon commanded the gripper
    Link,         ///< the state of the line changed
    Control,      ///< the lease was taken, taken over, returned, or has ended
    Broker        ///< the connection to the MQTT broker
};

struct Event
{
    EventKind kind = EventKind::Link;
    std::optional<int> gripper;
    std::optional<int> code; ///< of a fault
    std::optional<std::string> detail;
    std::string text; ///< a sentence for people
    std::uint64_t number = 0;
    gripper::ReadingTime time;
};

/// The latest events, with ascending numbers.
class EventLog
{
public:
    static constexpr std::size_t capacity = 50;

    void add(Event event, const gripper::ReadingTime &time);
    const std::deque<Event> &events() const { return m_events; }
    std::uint64_t lastNumber() const { return m_lastNumber; }

private:
    std::deque<Event> m_events;
    std::uint64_t m_lastNumber = 0;
};

} // namespace gateway
