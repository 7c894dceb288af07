#pragma once

#include "faultplan.h"
#include "firmwaremode.h"
#include "gripperidentity.h"
#include "linelistener.h"
#include "registerbank.h"
#include "silentmode.h"

#include <QObject>

namespace sim {

class Line;
class Timeline;

/// How long a gripper takes for what takes long, in milliseconds.
struct GripperTiming
{
    int bootMs = 800;        ///< from the restart command until it answers again
    int activationMs = 1500; ///< from the activation bit until status 3
};

/// One gripper on the line: its registers, its misbehaviours, and the program that it runs at
/// present. A mode is a listener of its own, so a new program of the gripper is a new mode.
class SimulatedGripper : public QObject, public LineListener
{
    Q_OBJECT

public:
    /// Everything referred to must outlive the gripper. It joins `line` until it is destroyed.
    SimulatedGripper(quint8 slaveId, const GripperIdentity &identity, const GripperTiming &timing,
                     Line &line, Timeline &timeline, RandomSource &random);
    ~SimulatedGripper() override;

    /// The id under which it answers, or answered before the restart that is under way.
    quint8 slaveId() const { return m_slaveId; }
    const GripperIdentity &identity() const { return m_identity; }
    RegisterBank &registers() { return m_registers; }
    FaultPlan &faults() { return m_faults; }
    bool isBooting() const { return m_mode == &m_silentMode; }

    /// Loses power for a moment: silent for the boot time, then answers under the stored id.
    void restart();

    void hear(const QByteArray &bytes, int baudRate) override;
    void hearSilence() override;

    /// Sends `bytes` at `baudRate`, `delayMs` from now.
    void send(const QByteArray &bytes, int baudRate, int delayMs);

private:
    void endBoot();

    quint8 m_slaveId;
    GripperIdentity m_identity;
    GripperTiming m_timing;
    Line &m_line;
    Timeline &m_timeline;
    RegisterBank m_registers;
    FaultPlan m_faults;
    FirmwareMode m_firmwareMode;
    SilentMode m_silentMode;
    LineListener *m_mode;
    int m_boots = 0;
};

} // namespace sim
