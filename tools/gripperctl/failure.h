#pragma once

#include "json.h"

#include <gripper/errors.h>

#include <stdexcept>
#include <string>
#include <utility>

namespace gripperctl {

/// How a run ends. Scripts compare these numbers, so they never change.
enum class ExitCode {
    Done = 0,
    Refused = 1,      ///< by the daemon or the gripper; or there is a fault or a problem
    WrongUsage = 2,   ///< nothing was changed: fix the command line
    NoConnection = 3, ///< nothing listens there, or the connection was lost
    TimedOut = 4,     ///< the action may still succeed: check the status
    NoGripper = 5,    ///< the daemon does not list the gripper, or no longer lists it
    LocalProblem = 6, ///< with a file or a program on this computer
    Interrupted = 130 ///< by Ctrl-C; the number that shells use
};

/// Thrown by a command that cannot do its work. main() prints it. what() is one line: what
/// happened, why, and what to do next.
class Failure : public std::runtime_error
{
public:
    Failure(ExitCode code, const std::string &text, Json known = Json::object())
        : std::runtime_error(text)
        , m_code(code)
        , m_known(std::move(known))
    {
    }

    ExitCode code() const noexcept { return m_code; }
    /// Results that are known nevertheless.
    const Json &known() const noexcept { return m_known; }

private:
    ExitCode m_code;
    Json m_known;
};

/// Ends a wait after Ctrl-C. The library handles it like one of its own errors.
class Interrupted : public gripper::Error
{
public:
    explicit Interrupted(const std::string &text = "interrupted")
        : Error(text)
    {
    }
};

/// The exit code and the text for an error of the library.
Failure failureOf(const gripper::Error &error);

} // namespace gripperctl
