#pragma once

#include "failure.h"

#include <gripper/gripper.h>

#include <optional>
#include <string>

namespace gripperctl {

/// The text of the link while polling runs.
constexpr const char *linkRuns = "RUNNING";

/// The family of a gripper by its firmware version. Empty if no family is known.
std::string familyOf(const gripper::Image &image);

/// Whether the gripper sucks. False if its family is not known.
bool isVacuum(const gripper::Image &image);

bool hasStatus(const gripper::Image &image, gripper::Status status);

/// Throws Failure if the gripper has a fault.
void refuseFaulty(const gripper::Image &image);

/// inactive, activating, active or released; "?" without a value.
std::string statusText(const gripper::Image &image);

/// moving, reached, object or leak; "-" if there is no request for a position.
std::string objectText(const gripper::Image &image);

/// The number, or "?" without a value.
template <typename Number>
std::string numberText(const std::optional<Number> &number)
{
    return number ? std::to_string(*number) : "?";
}

/// In two digits, as the protocol shows it.
std::string faultText(const gripper::Image &image);

/// The member of a JSON object: null without a value.
template <typename Value>
Json jsonOf(const std::optional<Value> &value)
{
    return value ? Json(*value) : Json();
}

/// The object of one gripper, for status and watch.
Json jsonOf(const gripper::Image &image);

} // namespace gripperctl
