#pragma once

#include "gripper/connection.h"
#include "gripper/image.h"

#include <optional>
#include <string>

namespace gripper {

/// Reads the images of one gripper after a command, until the caller has seen what it waits for.
class StateWait
{
public:
    /// Begins when the daemon has acknowledged the command. `sets` is the command, for
    /// ConnectionLost::unknown(). `stage` is for the messages, such as "moving to 120".
    StateWait(Connection &connection, int id, const Deadline &deadline, std::string sets,
              std::string stage);

    /// Waits for the next image whose values are not old. Throws GripperMissing if the first image
    /// shows no gripper, or if it is missing for 3 s later. Throws TimedOut after the deadline.
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
    void failIfMissing(bool isFirst);
    [[noreturn]] void failByTime(const Image &last);

    Connection &m_connection;
    int m_id;
    const Deadline &m_deadline;
    std::string m_sets;
    std::string m_stage;
    std::optional<Image> m_last;
    Deadline::Clock::time_point m_seen;
    /// The daemon has had the command since then. It writes the command when the link runs again.
    Deadline::Clock::time_point m_since = Deadline::Clock::now();
};

/// Reads an image.
Image readImage(Connection &connection, int id, const Deadline &deadline,
                Connection::Renewal renewal = Connection::Renewal::Allowed);

[[noreturn]] void failByMissing(const Image &image);

} // namespace gripper
