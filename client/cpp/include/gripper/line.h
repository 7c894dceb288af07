#pragma once

#include "gripper/connection.h"
#include "gripper/gripper.h"
#include "gripper/image.h"
#include "gripper/watch.h"

#include <array>
#include <optional>
#include <vector>

namespace gripper {

/// Mutes polling as long as it exists. While it exists, the values of the grippers do not change,
/// and the daemon writes nothing to them. Muting holds for all clients.
class Maintenance
{
public:
    /// Mutes polling and waits until the line is silent: about 0.3 s, or 2 s if the link does not
    /// run. If this takes longer than Options::timeout or fails, it unmutes.
    explicit Maintenance(const Endpoint &endpoint, const Options &options = {});

    /// As above, as a part of a call that has a deadline.
    Maintenance(const Endpoint &endpoint, const Options &options, const Deadline &deadline);

    /// Unmutes unless end() or leaveMuted() did, on a new connection if its own is lost. While a
    /// flasher has the line, the daemon unmutes at its end instead. Waits at most Options::timeout.
    ~Maintenance();
    Maintenance(Maintenance &&other) noexcept;
    Maintenance &operator=(Maintenance &&other) = delete;

    /// Unmutes now. Throws ConnectionLost, TimedOut or ProtocolError; then the destructor tries
    /// again.
    void end();

    /// Leaves the unmuting to the caller, or to the daemon while a flasher runs.
    void leaveMuted() noexcept { m_isOver = true; }

private:
    void unmute(Connection &connection);
    void unmuteWithoutException() noexcept;

    Connection m_connection;
    bool m_isOver = false;
};

/// The serial line with its grippers, as the daemon shows it. It connects with the first call.
/// Every call blocks, and ends at the latest 50 ms after its timeout; without one, after
/// Options::timeout. A call that mutes polling may need Options::timeout twice more to unmute after
/// a failure. Every call may throw ConnectionLost, TimedOut, ProtocolError, and InvalidValue
/// for a timeout that is not greater than 0, and for a slave id that is not from 1 to 9.
///
///     gripper::Line line("127.0.0.1");
///     gripper::Gripper gripper = line.gripper(9);
///     gripper.activate();
///     const auto result = gripper.close();
///     const bool isHeld = std::holds_alternative<gripper::ObjectMet>(result);
class Line
{
public:
    static constexpr Seconds scanTimeout{30};
    static constexpr Seconds renameTimeout{60};
    static constexpr Seconds runningTimeout{30};
    /// The ids that a scan looks for. No scan finds a gripper with another id.
    static constexpr std::array<int, 4> scannedIds{9, 2, 3, 4};

    /// `host` is a text as in Endpoint::fromText(). Throws InvalidValue.
    explicit Line(const std::string &host = "127.0.0.1", int port = Endpoint::defaultPort,
                  Options options = {});
    explicit Line(Endpoint endpoint, Options options = {});

    /// The ids of the grippers that the daemon has found, in ascending order.
    std::vector<int> grippers(std::optional<Seconds> timeout = {});

    LineState state(std::optional<Seconds> timeout = {});

    /// All values of the line, from one packet.
    LineImage image(std::optional<Seconds> timeout = {});

    /// Makes the daemon look for grippers, and returns the ids that it found. Takes about 1.2 s.
    /// **A scan sets speed, force, mode and LEDs of all grippers to 0.** Throws Refused during an
    /// upgrade.
    std::vector<int> scan(Seconds timeout = scanTimeout);

    /// Waits until the link runs and the daemon lists all `ids`, or at least one gripper if `ids`
    /// is empty. Connects again and again: the daemon need not run yet. Throws TimedOut, and
    /// ProtocolError if another server answers. It does not scan: while one gripper answers, the
    /// daemon does not look for others.
    void waitUntilRunning(const std::vector<int> &ids = {}, Seconds timeout = runningTimeout);

    /// A gripper, with a connection of its own. Throws GripperMissing if the daemon does not list
    /// it.
    Gripper gripper(int id, std::optional<Seconds> timeout = {}) const;

    /// Reports images and outages of `ids`, or of all grippers if `ids` is empty. See Watch.
    Watch watch(const std::vector<int> &ids = {}, double rate = 20) const;

    /// Mutes polling until the returned object ends.
    Maintenance maintenance() const;

    /// Gives gripper `oldId` the id `newId`, which takes about 10 s with its scans. After a
    /// time-out, the daemon continues.
    ///
    /// Throws InvalidValue if newId is oldId or not one of scannedIds. Throws Refused if newId is
    /// in use, an upgrade is under way, or the gripper kept its id. Throws GripperMissing if the
    /// daemon does not list oldId, or the gripper answers at neither id afterwards.
    void rename(int oldId, int newId, Seconds timeout = renameTimeout);

    /// Ends the connection. The next call opens a new one.
    void close() noexcept { m_connection.close(); }

    const Endpoint &endpoint() const noexcept { return m_connection.endpoint(); }

private:
    Deadline deadline(std::optional<Seconds> timeout) const;

    Connection m_connection;
};

} // namespace gripper
