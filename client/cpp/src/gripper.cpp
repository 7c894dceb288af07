#include "gripper/gripper.h"

#include "buswork.h"
#include "statewait.h"

#include <algorithm>
#include <utility>

namespace gripper {

namespace {

using Clock = Deadline::Clock;
using Renewal = Connection::Renewal;

constexpr Seconds betweenLooks{0.01};
// The daemon reads or writes one gripper in this time. It may write each gripper between two reads.
constexpr Seconds pollingStep{0.05};
constexpr Seconds pollingMargin{0.1};
// A gripper shows a request in less time, also with four grippers on the line.
constexpr Seconds requestShows{1.5};
// The gripper does not report the end of a release.
constexpr Seconds standstill{0.5};

int numberOf(const std::optional<int> &value)
{
    return value.value_or(-1);
}

bool hasStatus(const Image &image, Status status)
{
    return image.status == static_cast<int>(status);
}

void refuseFaulty(const Image &image)
{
    const int code = image.fault.value_or(0);
    if (code != 0) {
        throw Fault("gripper " + std::to_string(image.id) + " has fault " + std::to_string(code) +
                        " at position " + std::to_string(numberOf(image.position)) +
                        ": see its manual; a new activation clears the faults that can be cleared",
                    code);
    }
}

void refuseInactive(const Image &image)
{
    if (!hasStatus(image, Status::Active)) {
        const int status = numberOf(image.status);
        throw NotActive("gripper " + std::to_string(image.id) + " is not active (status " +
                            std::to_string(status) + "): activate it",
                        status);
    }
}

/// The longest time between two reads of a gripper.
Seconds roundTime(const Image &image)
{
    const auto count = static_cast<double>(std::max<std::size_t>(1, image.listed.size()));
    return 2 * pollingStep * count;
}

/// Judges the images after a request for a position. The gripper has the request when it shows it.
/// If it showed the same request before, only time shows whether the object detection is that of
/// the new request: a write of other values may still be under way.
class MoveJudge
{
public:
    MoveJudge(const Image &before, int position, bool hasNewValues)
        : m_before(before)
        , m_position(position)
        , m_mustSeeChange(!shows(before))
        , m_trustedFrom(Clock::now())
    {
        const Seconds round = roundTime(before);
        const Seconds delay = (hasNewValues ? 2 * round : round) + pollingMargin;
        m_trustedFrom += std::chrono::duration_cast<Clock::duration>(delay);
    }

    /// The result, or nothing while the movement lasts.
    std::optional<MoveResult> judge(const Image &image)
    {
        refuseFaulty(image);
        refuseInactive(image);
        if (!shows(image)) {
            judgeOtherRequest(image);
            return {};
        }
        m_otherSince.reset();
        if (!m_mustSeeChange && image.time.monotonic < m_trustedFrom)
            return {};
        m_isTaken = true;
        const int position = numberOf(image.position);
        const int effort = numberOf(image.current);
        if (image.object == static_cast<int>(Object::Met))
            return ObjectMet{position, effort};
        if (image.object == static_cast<int>(Object::Reached))
            return Reached{position, effort};
        return {};
    }

private:
    bool shows(const Image &image) const
    {
        return image.goTo == true && image.requestedPosition == m_position;
    }

    void judgeOtherRequest(const Image &image)
    {
        m_mustSeeChange = true;
        // The request of before may still show, or an earlier one that the daemon had not written
        // yet.
        const bool isOld =
            image.requestedPosition == m_before.requestedPosition && image.goTo == m_before.goTo;
        if (!m_otherSince)
            m_otherSince = image.time.monotonic;
        const bool isLong = image.time.monotonic - *m_otherSince > requestShows;
        if (m_isTaken || (!isOld && isLong)) {
            throw Interference("another client changed the request of gripper " +
                               std::to_string(image.id) + ": position " +
                               std::to_string(numberOf(image.requestedPosition)) + ", go-to " +
                               (image.goTo == true ? "on" : "off") + " instead of position " +
                               std::to_string(m_position));
        }
    }

    Image m_before;
    int m_position;
    bool m_mustSeeChange;
    bool m_isTaken = false;
    Clock::time_point m_trustedFrom;
    std::optional<Clock::time_point> m_otherSince;
};

Batch batchOf(const std::vector<Pair> &pairs)
{
    Batch batch;
    batch.set(pairs);
    return batch;
}

} // namespace

Gripper::Gripper(Endpoint endpoint, int id, Options options, std::optional<Seconds> timeout)
    : m_id(id)
    , m_connection(std::move(endpoint), std::move(options), id)
{
    const Deadline end = deadline(timeout);
    if (!m_connection.open(end))
        failByMissing(readImage(m_connection, m_id, end));
}

Image Gripper::image(std::optional<Seconds> timeout)
{
    return readImage(m_connection, m_id, deadline(timeout));
}

void Gripper::activate(Again again, Seconds timeout)
{
    const Deadline end(timeout);
    const Image before = readBeforeCommand(end);
    const bool isReady = hasStatus(before, Status::Active) && before.fault == 0;
    if (isReady && again == Again::No)
        return;
    if (!hasStatus(before, Status::Inactive))
        deactivate(end);
    // Without go-to, the gripper does not carry out an old request after the activation.
    const Batch request = batchOf({{"GTO", 0}, {"ACT", 1}});
    send(request, end, Renewal::Refused);
    StateWait wait(m_connection, m_id, end, request.sets(), "activating");
    Image image = wait.next();
    while (!hasStatus(image, Status::Active))
        image = wait.next();
    refuseFaulty(image);
}

void Gripper::deactivate(Seconds timeout)
{
    const Deadline end(timeout);
    readBeforeCommand(end);
    deactivate(end);
}

void Gripper::deactivate(const Deadline &deadline)
{
    const Batch request = batchOf({{"ACT", 0}, {"GTO", 0}});
    send(request, deadline, Renewal::Refused);
    StateWait wait(m_connection, m_id, deadline, request.sets(), "deactivating");
    while (!hasStatus(wait.next(), Status::Inactive)) {
    }
}

MoveResult Gripper::move(int position, int speed, int force, Seconds timeout)
{
    const Deadline end(timeout);
    const Batch request = batchOf({{"POS", position}, {"SPE", speed}, {"FOR", force}, {"GTO", 1}});
    const Image before = readBeforeCommand(end);
    refuseFaulty(before);
    refuseInactive(before);
    send(request, end, Renewal::Refused);
    MoveJudge judge(before, position, before.speed != speed || before.force != force);
    StateWait wait(m_connection, m_id, end, request.sets(),
                   "moving to " + std::to_string(position));
    std::optional<MoveResult> result;
    while (!result)
        result = judge.judge(wait.next());
    return *result;
}

MoveResult Gripper::open(int speed, int force, Seconds timeout)
{
    return move(openPosition, speed, force, timeout);
}

MoveResult Gripper::close(int speed, int force, Seconds timeout)
{
    return move(closedPosition, speed, force, timeout);
}

void Gripper::stop(std::optional<Seconds> timeout)
{
    const Deadline end = deadline(timeout);
    // It does not read first: a stop is urgent.
    const Batch request = batchOf({{"GTO", 0}});
    send(request, end, Renewal::Allowed);
    StateWait wait(m_connection, m_id, end, request.sets(), "stopping");
    Image image = wait.next();
    // If go-to shows as off at once, an earlier request may be on its way to the gripper.
    const auto trustedFrom = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                                roundTime(image) + pollingMargin);
    const bool wasOff = image.goTo == false;
    while (image.goTo != false || (wasOff && image.time.monotonic < trustedFrom))
        image = wait.next();
}

void Gripper::release(bool closing, Seconds timeout)
{
    const Deadline end(timeout);
    const Image before = readBeforeCommand(end);
    if (hasStatus(before, Status::Inactive))
        refuseInactive(before);
    const Batch request = batchOf({{"ARD", closing ? 1 : 0}, {"ATR", 1}});
    send(request, end, Renewal::Refused);
    StateWait wait(m_connection, m_id, end, request.sets(), "releasing");
    std::optional<int> position;
    Clock::time_point since;
    while (true) {
        const Image image = wait.next();
        const bool isReleasing = hasStatus(image, Status::Releasing);
        if (!isReleasing || image.position != position) {
            position = isReleasing ? image.position : std::nullopt;
            since = image.time.monotonic;
        } else if (image.time.monotonic - since >= standstill) {
            return;
        }
    }
}

void Gripper::led(bool red, bool green, bool blue, std::optional<Seconds> timeout)
{
    setAtOnce({{"LBP", 1}, {"LRD", red ? 1 : 0}, {"LGN", green ? 1 : 0}, {"LBL", blue ? 1 : 0}},
              deadline(timeout));
}

void Gripper::ledAuto(std::optional<Seconds> timeout)
{
    setAtOnce({{"LBP", 0}, {"LRD", 0}, {"LGN", 0}, {"LBL", 0}}, deadline(timeout));
}

void Gripper::set(const std::vector<Pair> &pairs, std::optional<Seconds> timeout)
{
    setAtOnce(pairs, deadline(timeout));
}

std::string Gripper::get(std::string_view name, std::optional<Seconds> timeout)
{
    return m_connection.get(name, deadline(timeout));
}

Watch Gripper::watch(double rate) const
{
    return Watch(m_connection.endpoint(), m_connection.options(), {m_id}, rate);
}

Deadline Gripper::deadline(std::optional<Seconds> timeout) const
{
    return Deadline(timeout.value_or(m_connection.options().timeout));
}

/// Waits while the link does not run, because values are old then.
Image Gripper::readBeforeCommand(const Deadline &deadline)
{
    while (true) {
        Image image = readImage(m_connection, m_id, deadline);
        if (!image.present)
            failByMissing(image);
        if (!image.stale)
            return image;
        m_connection.pause(betweenLooks, deadline);
        if (deadline.isOver()) {
            m_connection.close();
            throw TimedOut("the line did not run in time (link " + image.line.text +
                           "): nothing was sent");
        }
    }
}

void Gripper::send(const Batch &batch, const Deadline &deadline, Renewal renewal)
{
    if (!m_connection.exchange(batch, deadline, renewal).front().isAcknowledged())
        throw Refused("the daemon refused \"" + batch.sets() + "\"");
}

void Gripper::setAtOnce(const std::vector<Pair> &pairs, const Deadline &deadline)
{
    const Batch request = batchOf(pairs);
    for (const char *name : {" SID ", " NID "}) {
        if (request.sets().find(name) != std::string::npos) {
            throw InvalidValue("\"" + request.sets() +
                               "\" would change the gripper of this object: use Line");
        }
    }
    send(request, deadline, Renewal::Allowed);
    const Image image = readImage(m_connection, m_id, deadline);
    if (!image.present && request.needsGripper())
        failByMissing(image);
}

} // namespace gripper
