#pragma once

#include "gripper/connection.h"

#include <functional>
#include <string>
#include <vector>

namespace gripper {

/// Throws Refused while a flasher has the line.
void refuseDuringUpgrade(Connection &connection, const Deadline &deadline);

/// The ids of the grippers that the daemon has found.
std::vector<int> listedIds(Connection &connection, const Deadline &deadline);

/// Makes the daemon scan, and returns the ids that it found.
std::vector<int> scanNow(Connection &connection, const Deadline &deadline);

/// Scans until `isEnough` accepts the ids that it found, at most three times: a gripper may need
/// time to restart, and a scan on a disturbed line may miss it. Returns the ids of the last scan.
std::vector<int> scanUntil(Connection &connection,
                           const std::function<bool(const std::vector<int> &found)> &isEnough,
                           const Deadline &deadline);

/// Scans until it has found all `ids`, at most three times. Returns the missing ids.
std::vector<int> scanForMissing(Connection &connection, const std::vector<int> &ids,
                                const Deadline &deadline);

/// Returns the slave id. Throws InvalidValue if no gripper can have it.
int checkedId(int id);

bool contains(const std::vector<int> &ids, int id);

/// A text such as "2, 9", or "none".
std::string listOfIds(const std::vector<int> &ids);

} // namespace gripper
