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

/// A serial line with grippers on it, at the far end of a pty. Runs in the event loop of its
/// thread and never blocks it, so it can stand in the same process as the master.
///
/// Operations that take a slave id act on the gripper that answers under it (the one added
/// first, should two have come to share it), and return false or null when there is none.
class BusSimulator : public QObject
{
    Q_OBJECT

public:
    struct Config
    {
        QString linkPath;      ///< link to make to the pty, empty for none
        unsigned portMode = 0; ///< permission bits of the pty, 0 for the system's own
        quint32 seed = 1;      ///< of everything that happens by chance
        GripperTiming timing;  ///< of every gripper that is added
    };

    /// A line that is not plugged in. Without a `timeline` of its own it follows the machine's
    /// clock; one that is given must outlive the simulator.
    explicit BusSimulator(const Config &config, Timeline *timeline = nullptr,
                          QObject *parent = nullptr);
    BusSimulator();
    ~BusSimulator() override;

    /// Opens the pty and makes the link. Throws Failure when it cannot, or when the path of the
    /// link is taken, and leaves nothing open then. Does nothing when plugged in.
    void plug();
    /// Removes the link and hangs up: the master's port vanishes. Harmless when unplugged.
    void unplug();
    bool isPlugged() const { return m_port.isOpen(); }
    /// The pty that a master opens, empty while unplugged. Another one after every plug().
    const QString &portPath() const { return m_port.path(); }
    /// The configured link, empty for none.
    const QString &linkPath() const { return m_link.path(); }

    /// Null when `slaveId` is not 1 to 247 or is taken. Owned by the simulator.
    SimulatedGripper *addGripper(quint8 slaveId, const GripperIdentity &identity);
    /// The same with a version text such as "TA3-1.6.14"; null too when it is not one. The serial
    /// number is "SIM-" and 1000 + `slaveId`.
    SimulatedGripper *addGripper(quint8 slaveId, const QString &version);
    bool removeGripper(quint8 slaveId);
    SimulatedGripper *gripper(quint8 slaveId) const;
    /// In the order in which they were added.
    QVector<SimulatedGripper *> grippers() const;

    bool setFault(quint8 slaveId, const Fault &fault);
    bool clearFaults(quint8 slaveId);
    /// Stores `value`, or pins it in a register that the gripper works out itself. False also
    /// when there is no such register.
    bool setRegister(quint8 slaveId, quint16 address, quint16 value);
    /// Makes reads give `value` until released, whatever the register holds.
    bool pinRegister(quint8 slaveId, quint16 address, quint16 value);
    bool releaseRegisters(quint8 slaveId);
    /// What a read of one register gives at this moment; nothing when it does not exist.
    std::optional<quint16> registerValue(quint8 slaveId, quint16 address) const;
    /// Puts an object at `position` (0 to 255), or takes it away (GripperBody::noObject).
    bool setObject(quint8 slaveId, int position);
    /// Shows a fault code of 0 to 15 until the next deactivation.
    bool setFaultCode(quint8 slaveId, quint8 code);
    bool restartGripper(quint8 slaveId);

    /// The latest frames seen, FrameLog::maxFrames at most, oldest first.
    const QList<FrameRecord> &frames() const { return m_log.frames(); }
    void clearFrames() { m_log.clear(); }

signals:
    /// Every frame, those that nobody answers included, in the order of the line.
    void frameSeen(const sim::FrameRecord &frame);
    /// The port was hung up on its own account and is back, on another pty.
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
