#pragma once

#include <optional>
#include <string>

namespace gateway {

struct Family
{
    char letter; ///< the second character of the firmware version
    const char *name;
    bool isVacuum;
};

/// Null for a version of no known family.
const Family *familyOf(const std::optional<std::string> &firmware);

} // namespace gateway
