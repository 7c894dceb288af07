#include "statewait.h"

#include "buswork.h"
#include "gripper/errors.h"

#include <utility>

namespace gripper {

namespace {

constexpr Seconds lookInterval{0.01};
// On a disturbed line, a gripper is missing for a shorter time.
constexpr Seconds maxAbsence{3};
// A daemon that answers needs less time for an image.
constexpr Seconds shortSilence{0.5};

} // namespace

StateWait::StateWait(Connection &connection, int id, const Deadline &deadline, std::string sets,
                     std::string stage)
    : m_connection(connection)
    , m_id(id)
    , m_deadline(deadline)
    , m_sets(std::move(sets))
    , m_stage(std::move(stage))
{
}

Image StateWait::next()
{
    while (true) {
        if (m_last)
            pause();
        const bool isFirst = !m_last;
        m_last = read();
        failIfMissing(isFirst);
        if (!m_last->stale)
            return *m_last;
    }
}

/// A time-out between two exchanges: no reply is missing, but the state.
void StateWait::pause()
{
    m_connection.pause(lookInterval, m_deadline);
    if (m_deadline.isOver())
        failByTime(*m_last);
}

Image StateWait::read()
{
    try {
        return readImage(m_connection, m_id, m_deadline, Connection::Renewal::Refused);
    } catch (const ConnectionLost &error) {
        throw ConnectionLost(error.what(), m_sets);
    } catch (const TimedOut &) {
        // The daemon answered until now: the state is missing, not the reply.
        if (m_last && Deadline::Clock::now() - m_last->time.monotonic < shortSilence)
            failByTime(*m_last);
        throw;
    }
}

void StateWait::failIfMissing(bool isFirst)
{
    if (m_last->present)
        m_seen = m_last->time.monotonic;
    else if (isFirst || m_last->time.monotonic - m_seen > maxAbsence)
        failByMissing(*m_last);
}

/// Closes the connection like every time-out.
void StateWait::failByTime(const Image &last)
{
    m_connection.close();
    throw TimedOut("gripper " + std::to_string(m_id) + " did not finish " + m_stage +
                   " in time (link " + last.line.text + ", status " +
                   std::to_string(last.status.value_or(-1)) + ", position " +
                   std::to_string(last.position.value_or(-1)) + ", fault " +
                   std::to_string(last.fault.value_or(-1)) +
                   "); if its values never change, polling may be muted");
}

Image readImage(Connection &connection, int id, const Deadline &deadline,
                Connection::Renewal renewal)
{
    const auto &replies = connection.exchange(imageRequests(), deadline, renewal);
    return decodeImage(id, replies, ReadingTime::now());
}

void failByMissing(const Image &image)
{
    throw GripperMissing("the daemon does not list gripper " + std::to_string(image.id) +
                             " (listed: " + listOfIds(image.listed) + ", link " + image.line.text +
                             "): check its cable and power, then scan",
                         image.id);
}

} // namespace gripper
