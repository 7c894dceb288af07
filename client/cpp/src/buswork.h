#pragma once

#include "gripper/connection.h"

#include <string>
#include <vector>

namespace gripper {

/// Throws Refused while a flasher has the line.
void refuseDuringUpgrade(Connection &connection, const Deadline &deadline);

/// The ids of the grippers that the daemon has found.
std::vector<int> listedIds(Connection &connection, const Deadline &deadline);

/// Makes the daemon scan, and returns the ids that it found.
std::vector<int> scanNow(Connection &connection, const Deadline &deadline);

/// Scans until it has found all `ids`, at most three times, because a gripper may need time to
/// restart. Returns the missing ids.
std::vector<int> scanForMissing(Connection &connection, const std::vector<int> &ids,
                                const Deadline &deadline);

bool contains(const std::vector<int> &ids, int id);

/// A text such as "2, 9", or "none".
std::string listOfIds(const std::vector<int> &ids);

} // namespace gripper
