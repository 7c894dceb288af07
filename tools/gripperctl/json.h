#pragma once

#include <nlohmann/json.hpp>

// Only json.cpp compiles the members of the class. The sanitizers make this worth minutes.
extern template class nlohmann::basic_json<nlohmann::ordered_map>;

namespace gripperctl {

/// Keeps the order of its members.
using Json = nlohmann::ordered_json;

} // namespace gripperctl
