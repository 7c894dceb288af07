#pragma once

#include <nlohmann/json.hpp>

namespace gripperctl {

/// Keeps the order of its members.
using Json = nlohmann::ordered_json;

} // namespace gripperctl
