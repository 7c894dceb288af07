#include "gripper/gripper.h"

#include "buswork.h"
#include "statewait.h"

#include <utility>

namespace gripper {

namespace {

using Clock = Deadline::Clock;
using Renewal = Connection::Renewal;

constexpr Seconds betweenLooks{0.01};
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

bool showsRequest(const Image &image, int position)
{
    return image.goTo == true && image.requestedPosition == position;
}

std::optional<MoveResult> resultIn(const Image &image)
{
    const int position = numberOf(image.position);
    const int effort = numberOf(image.current);
    if (image.object == static_cast<int>(Object::Met))
        return ObjectMet{position, effort};
    if (image.object == static_cast<int>(Object::Reached))
        return Reached{position, effort};
    return {};
}

[[noreturn]] void failByInterference(const Image &image, int position)
{
    throw Interference("another client changed the request of gripper " + std::to_string(image.id) +
                       ": position " + std::to_string(numberOf(image.requestedPosition)) +
                       ", go-to " + (image.goTo == true ? "on" : "off") + " instead of position " +
                       std::to_string(position));
}

/// The object detection belongs to the request that the gripper shows. If the gripper showed the
/// request of this movement before, the object detection may be that of an earlier request for a
/// while.
MoveResult waitForEnd(StateWait &wait, const Image &before, int position)
{
    const bool wasShown = showsRequest(before, position);
    bool isTaken = false;
    while (true) {
        const Image image = wait.next();
        refuseFaulty(image);
        refuseInactive(image);
        if (wasShown && !wait.isSettled(image))
            continue;
        if (showsRequest(image, position)) {
            isTaken = true;
            if (const std::optional<MoveResult> result = resultIn(image))
                return *result;
            continue;
        }
        // The request of before may show for a while, or an earlier one that was not written yet.
        const bool isOld =
            image.requestedPosition == before.requestedPosition && image.goTo == before.goTo;
        if (isTaken || (!isOld && wait.isOverdue(image)))
            failByInterference(image, position);
    }
}

Batch batchOf(const std::vector<Pair> &pairs)
{
    Batch batch;
    batch.set(pairs);
    return batch;
}

} // namespace

Gripper::Gripper(Endpoint endpoint, int id, Options options, std::optional<Seconds> timeout)
    : m_id(checkedId(id))
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
    StateWait wait(m_connection, m_id, end, request.sets(),
                   "moving to " + std::to_string(position));
    return waitForEnd(wait, before, position);
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
    StateWait wait(m_connection, m_id, end, request.sets(), "stopping", StateWait::Before::Unknown);
    // If go-to shows as off at once, an earlier request may still be on its way to the gripper.
    bool wasOn = false;
    while (true) {
        const Image image = wait.next();
        if (image.goTo == true)
            wasOn = true;
        else if (wasOn || wait.isSettled(image))
            return;
    }
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
    setWithoutWait(
        {{"LBP", 1}, {"LRD", red ? 1 : 0}, {"LGN", green ? 1 : 0}, {"LBL", blue ? 1 : 0}},
        deadline(timeout));
}

void Gripper::ledAuto(std::optional<Seconds> timeout)
{
    setWithoutWait({{"LBP", 0}, {"LRD", 0}, {"LGN", 0}, {"LBL", 0}}, deadline(timeout));
}

void Gripper::set(const std::vector<Pair> &pairs, std::optional<Seconds> timeout)
{
    setWithoutWait(pairs, deadline(timeout));
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
    std::optional<Clock::time_point> lastSeen;
    while (true) {
        Image image = readImage(m_connection, m_id, deadline);
        failIfMissing(image, lastSeen);
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

void Gripper::setWithoutWait(const std::vector<Pair> &pairs, const Deadline &deadline)
{
    const Batch request = batchOf(pairs);
    for (const char *name : {" SID ", " NID "}) {
        if (request.sets().find(name) != std::string::npos) {
            throw InvalidValue("\"" + request.sets() +
                               "\" would change the gripper of this object: use Line");
        }
    }
    if (request.needsGripper()) {
        readListed(m_connection, m_id, deadline);
        // The daemon of a new connection may not list it.
        send(request, deadline, Renewal::Refused);
    } else {
        send(request, deadline, Renewal::Allowed);
    }
}

} // namespace gripper
