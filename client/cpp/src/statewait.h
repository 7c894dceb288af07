#pragma once

#include "gripper/connection.h"
#include "gripper/image.h"

#include <optional>
#include <string>

namespace gripper {

/// Throws GripperMissing for an image without the gripper, unless an earlier one showed it at most
/// 3 s before. `lastSeen` is the time of the last image that showed it.
void failIfMissing(const Image &image, std::optional<Deadline::Clock::time_point> &lastSeen);

/// Reads the images of one gripper after a command, until the caller has seen what it waits for.
class StateWait
{
public:
    /// Whether an image before the command showed the gripper.
    enum class Before { Shown, Unknown };

    /// Begins when the daemon has acknowledged the command. `sets` is the command, for
    /// ConnectionLost::unknown(). `stage` is for the messages, such as "moving to 120".
    StateWait(Connection &connection, int id, const Deadline &deadline, std::string sets,
              std::string stage, Before before = Before::Shown);

    /// Waits for the next image whose values are not old. Throws GripperMissing if the gripper is
    /// missing for 3 s, or at once if no image has shown it. Throws TimedOut after the deadline.
    /// Throws ConnectionLost also if a new connection would be needed: another daemon does not know
    /// the command.
    Image next();

    /// Whether the values of `image` are from after the write of the command.
    bool isSettled(const Image &image) const;
    /// Whether the values of `image` should show the command.
    bool isOverdue(const Image &image) const;

private:
    Seconds timeUntil(const Image &image) const;
    Image read();
    void pause();
    [[noreturn]] void failByTime(const Image &last);

    Connection &m_connection;
    int m_id;
    const Deadline &m_deadline;
    std::string m_sets;
    std::string m_stage;
    std::optional<Image> m_last;
    /// The daemon has had the command since then. It writes the command when the link runs again.
    Deadline::Clock::time_point m_since = Deadline::Clock::now();
    std::optional<Deadline::Clock::time_point> m_lastSeen;
};

/// Reads an image.
Image readImage(Connection &connection, int id, const Deadline &deadline,
                Connection::Renewal renewal = Connection::Renewal::Allowed);

/// Reads an image. Throws GripperMissing if it does not show the gripper.
Image readListed(Connection &connection, int id, const Deadline &deadline);

[[noreturn]] void failByMissing(const Image &image);

} // namespace gripper
