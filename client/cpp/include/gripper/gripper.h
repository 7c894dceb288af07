#pragma once

#include "gripper/connection.h"
#include "gripper/errors.h"
#include "gripper/image.h"
#include "gripper/watch.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace gripper {

/// The values of STA.
enum class Status { Inactive = 0, Activating = 1, Releasing = 2, Active = 3 };

/// The values of OBJ.
enum class Object { NoGoTo = 0, Moving = 1, Met = 2, Reached = 3 };

/// The gripper is at the requested position.
struct Reached
{
    static constexpr bool reached = true;
    static constexpr bool stalled = false;
    int position = 0; ///< POS, 0 to 255
    int effort = 0;   ///< COU, the motor current, 0 to 255
};

/// An object stopped the fingers. A vacuum gripper has a leak.
struct ObjectMet
{
    static constexpr bool reached = false;
    static constexpr bool stalled = true;
    int position = 0; ///< POS, 0 to 255
    int effort = 0;   ///< COU, the motor current, 0 to 255
};

using MoveResult = std::variant<Reached, ObjectMet>;

/// Whether activate() also activates an active gripper, which drops its part.
enum class Again { No, Yes };

/// The steps of Gripper::upgrade(), in this order.
enum class UpgradeStage {
    Jumping,   ///< the gripper enters its bootloader; nothing was sent to it before
    Writing,   ///< the flasher runs: do not switch the gripper off
    Searching, ///< the daemon looks for the gripper
    Done
};

/// One gripper, on a connection of its own. Every call blocks, and ends at the latest 50 ms after
/// its timeout. Every call may throw ConnectionLost, TimedOut, ProtocolError, and InvalidValue for
/// a timeout that is not greater than 0.
///
/// Commands never repeat a SET. Nothing moves when the connection is opened again. A command reads
/// the gripper before it sends, except stop(). It sends nothing and throws GripperMissing if the
/// daemon does not list the gripper. It also throws GripperMissing if the gripper is missing for
/// 3 s during the call. A line that is disturbed for a shorter time does no harm. While the link
/// does not run, values are old. Commands then wait, except stop(), set() and those of the LEDs.
///
/// When a call ends by an exception or by a time-out, the gripper continues what it does.
class Gripper
{
public:
    static constexpr Seconds movementTimeout{30};
    static constexpr Seconds upgradeTimeout{600};
    static constexpr int fullSpeed = 255;
    static constexpr int defaultForce = 100;
    static constexpr int openPosition = 0;
    static constexpr int closedPosition = 255;

    /// Connects and selects the gripper. Throws GripperMissing, and InvalidValue unless `id` is
    /// from 1 to 9. Line::gripper() calls this.
    Gripper(Endpoint endpoint, int id, Options options = {}, std::optional<Seconds> timeout = {});

    int id() const noexcept { return m_id; }

    /// All values, from one packet. A missing gripper is an image without values, not an error.
    Image image(std::optional<Seconds> timeout = {});

    /// Activates the gripper, which opens its fingers or ends its vacuum. Sends nothing if the
    /// gripper is active without a fault, unless `again` says so. Otherwise it deactivates the
    /// gripper first, so that the end of the activation shows without doubt, and switches go-to
    /// off, so that nothing moves afterwards. Throws Fault if a fault remains.
    void activate(Again again = Again::No, Seconds timeout = movementTimeout);

    /// Deactivates the gripper and switches go-to off. Returns when the gripper shows it.
    void deactivate(Seconds timeout = movementTimeout);

    /// Goes to `position` (0 open, 255 closed; the vacuum level of a vacuum gripper) and waits for
    /// the end of the movement. `speed` and `force` are from 0 to 255 in the gripper's own unit;
    /// speed 0 still moves.
    ///
    /// Sends one SET. Sends nothing and throws NotActive or Fault if the gripper is not active or
    /// has a fault. Throws Interference if another client changed the request during the movement.
    ///
    /// If the gripper shows the same position already, no variable shows when it has this request.
    /// The call then waits 0.1 s, and 0.2 s for each listed gripper, before it trusts the object
    /// detection.
    ///
    /// ConnectionLost::unknown() is the SET also after `ack`: a daemon that ends may not have
    /// written the request to the gripper.
    MoveResult move(int position, int speed, int force, Seconds timeout = movementTimeout);

    /// move() to 0.
    MoveResult open(int speed = fullSpeed, int force = defaultForce,
                    Seconds timeout = movementTimeout);

    /// move() to 255.
    MoveResult close(int speed = fullSpeed, int force = defaultForce,
                     Seconds timeout = movementTimeout);

    /// Switches go-to off and waits until the gripper shows it. Sends the SET at once. Fingers stop
    /// where they are. A vacuum gripper loses its vacuum: **its part falls**. If go-to is off
    /// already, an earlier request may be on its way. The call then takes 0.1 s, and 0.2 s for each
    /// listed gripper. Throws GripperMissing at once if the daemon does not list the gripper after
    /// the SET.
    void stop(std::optional<Seconds> timeout = {});

    /// Releases the part slowly (automatic release), to the open or the closed end, and waits until
    /// the gripper has not moved for 0.5 s. Then the gripper needs activate(). Throws NotActive for
    /// an inactive gripper.
    void release(bool closing = false, Seconds timeout = movementTimeout);

    /// The LEDs show these colours instead of the state of the gripper.
    void led(bool red, bool green, bool blue, std::optional<Seconds> timeout = {});

    /// The LEDs show the state of the gripper again.
    void ledAuto(std::optional<Seconds> timeout = {});

    /// Sends one SET with values from 0 to 255. Returns after `ack`, which does not mean done.
    /// Reads the gripper first, unless the daemon alone has all variables, such as MUTE. Throws
    /// Refused for `nak`, and InvalidValue for an unknown name and for SID and NID. SCN_BLOCK, BLD
    /// and UPG need a longer timeout.
    void set(const std::vector<Pair> &pairs, std::optional<Seconds> timeout = {});

    /// The text of one value, without its name. A missing value is "?".
    std::string get(std::string_view name, std::optional<Seconds> timeout = {});

    /// Called at the beginning of each stage.
    using Progress = std::function<void(UpgradeStage stage)>;

    /// Writes the firmware image of the gripper's family into the gripper, and returns the version
    /// that it runs then. Mutes polling, and unmutes it in every case.
    ///
    /// Throws Refused in these cases:
    /// - An upgrade is under way.
    /// - Another listed gripper does not answer. It may be in its bootloader, and would take the
    ///   firmware.
    /// - The gripper does not reach its bootloader, or the flasher does not start.
    /// - The version is not `expected` afterwards. Without `expected`, it must differ from the old
    /// one.
    ///
    /// Throws GripperMissing if no scan finds the gripper afterwards. After a time-out, the flasher
    /// continues, and the daemon unmutes afterwards.
    std::string upgrade(const Progress &progress = {}, const std::string &expected = {},
                        Seconds timeout = upgradeTimeout);

    /// Reports images of this gripper and outages. See Watch.
    Watch watch(double rate = 20) const;

    /// Ends the connection. The next call opens a new one.
    void disconnect() noexcept { m_connection.close(); }

private:
    Deadline deadline(std::optional<Seconds> timeout) const;
    Image readBeforeCommand(const Deadline &deadline);
    void send(const Batch &batch, const Deadline &deadline, Connection::Renewal renewal);
    void setWithoutWait(const std::vector<Pair> &pairs, const Deadline &deadline);
    void deactivate(const Deadline &deadline);
    Seconds flash(const Progress &progress, const Deadline &deadline);

    int m_id;
    Connection m_connection;
};

} // namespace gripper
