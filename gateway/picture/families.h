#pragma once

#include <optional>
#include <string>

namespace gateway {

struct Family
{
    const char *name;
    char letter; ///< the second character of the firmware version
    bool isVacuum;
};

/// Null for a version of no known family.
const Family *familyOf(const std::optional<std::string> &firmware);

} // namespace gateway
