#pragma once

#include "role.h"

#include <chrono>
#include <optional>
#include <string>

namespace gateway {

enum class Action { Activate, Deactivate, Move, Stop, Release, Led, Mode, Scan, Rename, Upgrade };

const char *nameOf(Action action);

/// A checked command of an engineer. Each action has its own values; the others have no meaning.
struct Command
{
    Action action = Action::Stop;
    std::optional<int> gripper; ///< empty for a scan
    Role role = Role::View;     ///< of the engineer
    std::string peer;           ///< the engineer's address
    /// A job that reaches the daemon later commands nothing. Empty without such a limit.
    std::optional<std::chrono::steady_clock::time_point> latestBegin;

    int position = 0;     ///< of a movement
    int speed = 0;        ///< of a movement
    int force = 0;        ///< of a movement
    bool again = false;   ///< of an activation: also if the gripper is active
    bool closing = false; ///< of a release
    bool ledAuto = false; ///< the LEDs show the state of the gripper
    bool red = false;     ///< of the LEDs
    bool green = false;   ///< of the LEDs
    bool blue = false;    ///< of the LEDs
    int mode = 0;         ///< of a change of the mode
    int newId = 0;        ///< of a renaming
    std::string expected; ///< the version after an upgrade; empty for any other than before
};

} // namespace gateway
