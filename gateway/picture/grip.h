#pragma once

#include <gripper/image.h>

#include <array>

namespace gateway {

/// The names of the values of gripper::Object.
constexpr std::array<const char *, 4> objectNames{"none", "moving", "met", "reached"};

bool isVacuum(const gripper::Image &image);

/// Whether the gripper holds a part, as far as it shows.
bool holdsObject(const gripper::Image &image);

/// Whether both images show the same position request and the same go-to.
bool haveSameRequest(const gripper::Image &one, const gripper::Image &other);

} // namespace gateway
