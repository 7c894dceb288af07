#include "gripper/line.h"

#include "buswork.h"
#include "gripper/errors.h"

#include <algorithm>
#include <utility>

namespace gripper {

namespace {

constexpr Seconds runningInterval{0.1};

bool isComplete(const LineImage &image, const std::vector<int> &ids)
{
    const std::vector<int> listed = image.ids.value_or(std::vector<int>());
    return image.state().running && !listed.empty() &&
           std::all_of(ids.begin(), ids.end(), [&](int id) { return contains(listed, id); });
}

std::string describe(const LineImage &image)
{
    return "link " + image.state().text +
           ", listed: " + listOfIds(image.ids.value_or(std::vector<int>()));
}

void refuseWrongIds(int oldId, int newId)
{
    checkedId(oldId);
    const auto &ids = Line::scannedIds;
    if (std::find(ids.begin(), ids.end(), newId) == ids.end()) {
        throw InvalidValue("no scan looks for id " + std::to_string(newId) +
                           ", so the daemon would never find the gripper again: use one of " +
                           listOfIds(std::vector<int>(ids.begin(), ids.end())));
    }
    if (oldId == newId)
        throw InvalidValue("the old and the new id are the same");
}

void refuseInUse(int id, const std::vector<int> &found)
{
    if (contains(found, id)) {
        throw Refused(
            "id " + std::to_string(id) +
            " is in use, and two grippers with one id disturb each other: rename gripper " +
            std::to_string(id) + " first");
    }
}

[[noreturn]] void failUnrenamed(int oldId, int newId, bool hasOldId)
{
    if (hasOldId) {
        throw Refused("gripper " + std::to_string(oldId) +
                      " kept its id. Switch it off and on, then scan: it may have stored " +
                      std::to_string(newId) +
                      ". If not, try again; the cause is in the daemon's log");
    }
    throw GripperMissing("the gripper answers neither as " + std::to_string(oldId) + " nor as " +
                             std::to_string(newId) + ": switch it off and on, then scan",
                         oldId);
}

/// Returns nothing if the daemon does not list the gripper.
std::optional<std::string> serialNumberAt(int id, const Connection &line, const Deadline &deadline)
{
    Connection connection(line.endpoint(), line.options(), id);
    if (!connection.open(deadline))
        return {};
    return connection.get("SNU", deadline);
}

} // namespace

Line::Line(const std::string &host, int port, Options options)
    : Line(Endpoint::fromText(host, port), std::move(options))
{
}

Line::Line(Endpoint endpoint, Options options)
    : m_connection(std::move(endpoint), std::move(options))
{
}

std::vector<int> Line::grippers(std::optional<Seconds> timeout)
{
    return listedIds(m_connection, deadline(timeout));
}

LineState Line::state(std::optional<Seconds> timeout)
{
    return image(timeout).state();
}

LineImage Line::image(std::optional<Seconds> timeout)
{
    const auto &replies = m_connection.exchange(lineRequests(), deadline(timeout));
    return decodeLine(replies, ReadingTime::now());
}

std::vector<int> Line::scan(Seconds timeout)
{
    const Deadline end(timeout);
    refuseDuringUpgrade(m_connection, end);
    return scanNow(m_connection, end);
}

void Line::waitUntilRunning(const std::vector<int> &ids, Seconds timeout)
{
    const Deadline end(timeout);
    std::for_each(ids.begin(), ids.end(), checkedId);
    std::string state;
    while (!end.isOver()) {
        try {
            const auto &replies = m_connection.exchange(lineRequests(), end);
            const LineImage image = decodeLine(replies, ReadingTime::now());
            if (isComplete(image, ids))
                return;
            state = describe(image);
        } catch (const ProtocolError &) {
            throw; // Another server has the port.
        } catch (const CommunicationError &error) {
            state = error.what();
        }
        m_connection.pause(runningInterval, end);
    }
    m_connection.close();
    throw TimedOut("the line did not run in time (" + state + ")");
}

Gripper Line::gripper(int id, std::optional<Seconds> timeout) const
{
    return Gripper(m_connection.endpoint(), id, m_connection.options(), timeout);
}

Watch Line::watch(const std::vector<int> &ids, double rate) const
{
    return Watch(m_connection.endpoint(), m_connection.options(), ids, rate);
}

Maintenance Line::maintenance() const
{
    return Maintenance(m_connection.endpoint(), m_connection.options());
}

void Line::rename(int oldId, int newId, Seconds timeout)
{
    refuseWrongIds(oldId, newId);
    const Deadline end(timeout);
    refuseDuringUpgrade(m_connection, end);
    const std::vector<int> listed = listedIds(m_connection, end);
    refuseInUse(newId, listed);
    Maintenance muted(endpoint(), m_connection.options(), end);
    // A gripper that was plugged in after the last scan is not listed, but uses its id.
    const auto isFound = [&](const std::vector<int> &ids) {
        return contains(ids, oldId) || !contains(listed, oldId);
    };
    const std::vector<int> found = scanUntil(m_connection, isFound, end);
    refuseInUse(newId, found);
    Connection oldAddress(endpoint(), m_connection.options(), oldId);
    if (!oldAddress.open(end)) {
        throw GripperMissing("the daemon does not list gripper " + std::to_string(oldId) +
                                 " (listed: " + listOfIds(found) + ")",
                             oldId);
    }
    const std::string serialNumber = oldAddress.get("SNU", end);
    oldAddress.set({{"NID", newId}}, end);
    muted.end();
    // The daemon acknowledges every NID. Only the gripper at the new id shows whether it succeeded.
    if (serialNumberAt(newId, m_connection, end) == serialNumber)
        return;
    const std::vector<int> foundLater = scanUntil(
        m_connection,
        [&](const std::vector<int> &ids) { return contains(ids, oldId) || contains(ids, newId); },
        end);
    if (contains(foundLater, newId) && serialNumberAt(newId, m_connection, end) == serialNumber)
        return;
    failUnrenamed(oldId, newId, contains(foundLater, oldId));
}

Deadline Line::deadline(std::optional<Seconds> timeout) const
{
    return Deadline(timeout.value_or(m_connection.options().timeout));
}

} // namespace gripper
