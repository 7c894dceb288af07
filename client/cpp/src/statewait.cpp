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
// The daemon takes 50 ms for each read and for each write. In the worst case it writes every
// gripper at each visit, and a request comes just after its gripper could be written. The next
// visit then writes it, and the visit after that reads its effect. A slow adapter needs one more
// step for each read.
constexpr Seconds settling{0.1};
constexpr Seconds settlingPerGripper{0.2};
// Failed accesses are repeated, so a request may show later.
constexpr Seconds requestShows{1.5};

} // namespace

StateWait::StateWait(Connection &connection, int id, const Deadline &deadline, std::string sets,
                     std::string stage, Before before)
    : m_connection(connection)
    , m_id(id)
    , m_deadline(deadline)
    , m_sets(std::move(sets))
    , m_stage(std::move(stage))
{
    if (before == Before::Shown)
        m_lastSeen = m_since;
}

Image StateWait::next()
{
    while (true) {
        if (m_last)
            pause();
        m_last = read();
        failIfMissing(*m_last, m_lastSeen);
        if (!m_last->stale)
            return *m_last;
        m_since = m_last->time.monotonic;
    }
}

bool StateWait::isSettled(const Image &image) const
{
    const auto count = static_cast<double>(image.listed.size());
    return timeUntil(image) >= settling + settlingPerGripper * count;
}

bool StateWait::isOverdue(const Image &image) const
{
    return timeUntil(image) >= requestShows;
}

Seconds StateWait::timeUntil(const Image &image) const
{
    return image.time.monotonic - m_since;
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

void failIfMissing(const Image &image, std::optional<Deadline::Clock::time_point> &lastSeen)
{
    if (image.present)
        lastSeen = image.time.monotonic;
    else if (!lastSeen || image.time.monotonic - *lastSeen > maxAbsence)
        failByMissing(image);
}

Image readImage(Connection &connection, int id, const Deadline &deadline,
                Connection::Renewal renewal)
{
    const auto &replies = connection.exchange(imageRequests(), deadline, renewal);
    return decodeImage(id, replies, ReadingTime::now());
}

Image readListed(Connection &connection, int id, const Deadline &deadline)
{
    Image image = readImage(connection, id, deadline);
    if (!image.present)
        failByMissing(image);
    return image;
}

void failByMissing(const Image &image)
{
    throw GripperMissing("the daemon does not list gripper " + std::to_string(image.id) +
                             " (listed: " + listOfIds(image.listed) + ", link " + image.line.text +
                             "): check its cable and power, then scan",
                         image.id);
}

} // namespace gripper
