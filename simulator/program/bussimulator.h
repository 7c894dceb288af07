#pragma once

#include "framelog.h"
#include "line.h"
#include "ownlink.h"
#include "ptyport.h"
#include "simulatedgripper.h"

#include <QObject>

#include <memory>
#include <vector>

namespace sim {

/// Owns a simulated serial line: the grippers, the pty and the link to it. It runs in the event
/// loop of its thread and never blocks, so the master can run in the same process.
///
/// An operation with a slave id acts on the gripper that answers to this id. If several grippers
/// share the id, it acts on the one that was added first. It returns false or null for an unused
/// id.
class BusSimulator : public QObject
{
    Q_OBJECT

public:
    struct Config
    {
        QString linkPath;      ///< path of the link to the pty; empty means no link
        unsigned portMode = 0; ///< permission bits of the pty; 0 means the system's default
        quint32 seed = 1;      ///< seed of all random decisions
        GripperTiming timing;  ///< timing of every gripper
    };

    /// Makes a line that is not plugged in. A `timeline` must outlive the simulator; without one,
    /// the simulator uses the clock of the machine.
    explicit BusSimulator(const Config &config, Timeline *timeline = nullptr,
                          QObject *parent = nullptr);
    BusSimulator();
    ~BusSimulator() override;

    /// Opens the pty and makes the link. Does nothing while plugged in. Throws Failure when it
    /// cannot, or when the path of the link is taken, and leaves nothing open then.
    void plug();
    /// Removes the link and hangs up, so the port of the master disappears. Does nothing while
    /// unplugged.
    void unplug();
    bool isPlugged() const { return m_port.isOpen(); }
    /// The path of the pty that a master opens. Empty while unplugged. Every plug() changes it.
    const QString &portPath() const { return m_port.path(); }
    /// The configured path of the link. Empty means no link.
    const QString &linkPath() const { return m_link.path(); }

    /// Adds a gripper, which the simulator owns. Returns null when `slaveId` is not 1 to 247, or
    /// is taken.
    SimulatedGripper *addGripper(quint8 slaveId, const GripperIdentity &identity);
    /// Adds a gripper with the identity that GripperIdentity::fromVersion() makes of `version`.
    /// Returns null also when `version` is not a version text.
    SimulatedGripper *addGripper(quint8 slaveId, const QString &version);
    bool removeGripper(quint8 slaveId);
    SimulatedGripper *gripper(quint8 slaveId) const;
    /// All grippers, in the order in which they were added.
    QVector<SimulatedGripper *> grippers() const;

    bool setFault(quint8 slaveId, const Fault &fault);
    bool clearFaults(quint8 slaveId);
    /// Stores `value`, or pins it if the gripper computes the register. Returns false also when
    /// there is no such register.
    bool setRegister(quint8 slaveId, quint16 address, quint16 value);
    /// Makes reads return `value` until releaseRegisters().
    bool pinRegister(quint8 slaveId, quint16 address, quint16 value);
    bool releaseRegisters(quint8 slaveId);
    /// The value that a read of the register returns now. Empty when there is no such register.
    std::optional<quint16> registerValue(quint8 slaveId, quint16 address) const;
    /// Puts an object at `position` (0 to 255), or removes it (GripperBody::noObject).
    bool setObject(quint8 slaveId, int position);
    /// Sets the fault code (0 to 15), which the next deactivation clears.
    bool setFaultCode(quint8 slaveId, quint8 code);
    bool restartGripper(quint8 slaveId);

    /// The latest frames, at most FrameLog::maxFrames, oldest first.
    const QList<FrameRecord> &frames() const { return m_log.frames(); }
    void clearFrames() { m_log.clear(); }

signals:
    /// Emitted for every frame on the line, also for unanswered requests and noise.
    void frameSeen(const sim::FrameRecord &frame);
    /// The simulator has replaced a stuck pty by a new one.
    void portRenewed();

private:
    void onStuck();

    std::unique_ptr<Timeline> m_ownTimeline;
    Timeline &m_timeline;
    Config m_config;
    RandomSource m_random;
    Line m_line;
    PtyPort m_port;
    OwnLink m_link;
    FrameLog m_log;
    std::vector<std::unique_ptr<SimulatedGripper>> m_grippers;
};

} // namespace sim
