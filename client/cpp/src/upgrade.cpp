#include "buswork.h"
#include "gripper/errors.h"
#include "gripper/gripper.h"
#include "gripper/line.h"
#include "statewait.h"

namespace gripper {

namespace {

constexpr Seconds flasherLookInterval{0.1};
// When polling continues, its first read finds the port closed, and the state of the link changes.
// This takes one tick of 50 ms and the run time of fuser.
constexpr Seconds unchangedTime{1.5};
constexpr Seconds unchangedLookInterval{0.01};
// A flasher that writes firmware runs for several seconds.
constexpr Seconds tooShortToWrite{1};

void report(const Gripper::Progress &progress, UpgradeStage stage)
{
    if (progress)
        progress(stage);
}

std::string name(int id)
{
    return "gripper " + std::to_string(id);
}

/// Another gripper in its bootloader would take the firmware of gripper `id`. The daemon lists it
/// until the next scan. If gripper `id` is the only one listed, no scan is needed; a scan might
/// lose it.
void refuseBesideBootloader(Connection &connection, int id, const Deadline &deadline)
{
    const std::vector<int> listed = listedIds(connection, deadline);
    if (listed == std::vector<int>{id})
        return;
    const std::vector<int> missing = scanForMissing(connection, listed, deadline);
    if (!missing.empty()) {
        throw Refused(
            "nothing was written, because gripper " + listOfIds(missing) +
            " does not answer: if it is in its bootloader, it would take the firmware of " +
            name(id) + ". Switch it off and on, or unplug it, then scan");
    }
}

/// The values of the link. They change when polling continues after an upgrade, and not before.
std::string linkValues(Connection &connection, const Deadline &deadline)
{
    Batch batch;
    batch.get("DRI").get("SID");
    std::string values;
    for (const Reply &reply : connection.exchange(batch, deadline))
        values += std::string(reply.value) + '\n';
    return values;
}

bool valuesStayUnchanged(Connection &connection, const std::string &before,
                         const Deadline &deadline)
{
    const Deadline end(unchangedTime);
    while (!end.isOver()) {
        if (linkValues(connection, deadline) != before)
            return false;
        connection.pause(unchangedLookInterval, end);
    }
    return true;
}

bool isFlashing(Connection &connection, const Deadline &deadline)
{
    return connection.get("UPG", deadline) != "0";
}

void waitWhileFlashing(Connection &connection, const Deadline &deadline)
{
    while (isFlashing(connection, deadline)) {
        if (deadline.isOver()) {
            connection.close();
            throw TimedOut("the flasher still runs: do not switch the gripper off, and wait until "
                           "UPG is 0");
        }
        connection.pause(flasherLookInterval, deadline);
    }
}

[[noreturn]] void failUnfound(int id, bool hasWritten)
{
    if (hasWritten) {
        throw GripperMissing(name(id) + " does not answer after the upgrade: its firmware may be "
                                        "incomplete. Switch it off and on, and flash it by hand",
                             id);
    }
    throw GripperMissing("the flasher ended at once, most likely before it wrote anything, and " +
                             name(id) + " waits in its bootloader: switch it off and on, then scan",
                         id);
}

/// The daemon does not report the exit code of the flasher. After an unchanged version, either the
/// same firmware was written again, or the flasher failed before it wrote.
void refuseVersion(int id, const std::string &before, const std::string &after,
                   const std::string &expected)
{
    const bool isExpected = expected.empty() ? before != after : expected == after;
    if (!isExpected) {
        throw Refused(name(id) + " runs firmware " + after + " after the upgrade, and " + before +
                      " before: see the messages of the flasher in the daemon's log");
    }
}

} // namespace

std::string Gripper::upgrade(const Progress &progress, const std::string &expected, Seconds timeout)
{
    const Deadline end(timeout);
    const Image before = readListed(m_connection, m_id, end);
    refuseDuringUpgrade(m_connection, end);
    const bool hasWritten = flash(progress, end) >= tooShortToWrite;
    report(progress, UpgradeStage::Searching);
    if (!scanForMissing(m_connection, {m_id}, end).empty())
        failUnfound(m_id, hasWritten);
    std::string after = m_connection.get("FWV", end);
    refuseVersion(m_id, before.firmware.value_or(""), after, expected);
    report(progress, UpgradeStage::Done);
    return after;
}

/// Returns when the flasher has ended and polling is unmuted: the time for which the flasher ran, 0
/// if it ended unseen.
Seconds Gripper::flash(const Progress &progress, const Deadline &deadline)
{
    Maintenance muted(m_connection.endpoint(), m_connection.options(), deadline);
    refuseBesideBootloader(m_connection, m_id, deadline);
    const std::string before = linkValues(m_connection, deadline);
    report(progress, UpgradeStage::Jumping);
    if (!m_connection.set({{"UPG", 1}}, deadline)) {
        // The daemon also refuses while another client's upgrade runs.
        refuseDuringUpgrade(m_connection, deadline);
        muted.end();
        throw Refused(name(m_id) + " was not found in its bootloader: nothing was written. If it "
                                   "does not answer, switch it off and on, then scan");
    }
    if (isFlashing(m_connection, deadline)) {
        // The daemon unmutes when the flasher ends. An earlier unmuting would disturb the flasher.
        muted.leaveMuted();
        report(progress, UpgradeStage::Writing);
        const auto began = Deadline::Clock::now();
        waitWhileFlashing(m_connection, deadline);
        return Deadline::Clock::now() - began;
    }
    const bool hasNeverStarted = valuesStayUnchanged(m_connection, before, deadline);
    muted.end();
    if (hasNeverStarted) {
        throw Refused("the flasher did not start: nothing was written. " + name(m_id) +
                      " is in its bootloader: switch it off and on, then scan. Are romflasher and "
                      "the firmware image installed?");
    }
    return Seconds(0);
}

} // namespace gripper
