#pragma once

#include <optional>
#include <string>

namespace gateway {

/// Each role includes those before it.
enum class Role { View, Operate, Maintain };

const char *nameOf(Role role);
std::optional<Role> roleOf(const std::string &name);

} // namespace gateway
