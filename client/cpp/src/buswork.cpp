#include "buswork.h"

#include "gripper/errors.h"
#include "gripper/image.h"

#include <algorithm>
#include <iterator>

namespace gripper {

namespace {

constexpr int maxScans = 3;
constexpr Seconds pauseBetweenScans{1};
constexpr int minId = 1;
constexpr int maxId = 9;

} // namespace

void refuseDuringUpgrade(Connection &connection, const Deadline &deadline)
{
    if (connection.get("UPG", deadline) != "0")
        throw Refused("an upgrade is under way and has the line: wait until UPG is 0");
}

std::vector<int> listedIds(Connection &connection, const Deadline &deadline)
{
    const LineImage image =
        decodeLine(connection.exchange(lineRequests(), deadline), ReadingTime::now());
    return image.ids.value_or(std::vector<int>());
}

std::vector<int> scanNow(Connection &connection, const Deadline &deadline)
{
    connection.set({{"SCN_BLOCK", 1}}, deadline);
    return listedIds(connection, deadline);
}

std::vector<int> scanUntil(Connection &connection,
                           const std::function<bool(const std::vector<int> &found)> &isEnough,
                           const Deadline &deadline)
{
    std::vector<int> found = scanNow(connection, deadline);
    for (int scans = 1; scans < maxScans && !isEnough(found); ++scans) {
        connection.pause(pauseBetweenScans, deadline);
        found = scanNow(connection, deadline);
    }
    return found;
}

std::vector<int> scanForMissing(Connection &connection, const std::vector<int> &ids,
                                const Deadline &deadline)
{
    const auto missingFrom = [&ids](const std::vector<int> &found) {
        std::vector<int> missing;
        std::copy_if(ids.begin(), ids.end(), std::back_inserter(missing),
                     [&](int id) { return !contains(found, id); });
        return missing;
    };
    return missingFrom(scanUntil(
        connection, [&](const std::vector<int> &found) { return missingFrom(found).empty(); },
        deadline));
}

int checkedId(int id)
{
    if (id < minId || id > maxId) {
        throw InvalidValue("a slave id is a number from " + std::to_string(minId) + " to " +
                           std::to_string(maxId) + ", not " + std::to_string(id));
    }
    return id;
}

bool contains(const std::vector<int> &ids, int id)
{
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

std::string listOfIds(const std::vector<int> &ids)
{
    std::string text;
    for (const int id : ids)
        text += (text.empty() ? "" : ", ") + std::to_string(id);
    return text.empty() ? "none" : text;
}

} // namespace gripper
