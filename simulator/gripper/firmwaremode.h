#pragma once

#include "linelistener.h"
#include "modbusslave.h"
#include "modehost.h"
#include "requestframer.h"

namespace sim {

class FaultPlan;

/// A gripper that runs its firmware. It receives Modbus requests at 115200 baud, applies the faults
/// to its answers, and restarts on command.
class FirmwareMode : public LineListener
{
public:
    /// All references must outlive the mode.
    FirmwareMode(ModeHost &gripper, RegisterBank &registers, FaultPlan &faults, quint8 slaveId);

    void receive(const QByteArray &bytes, int baudRate) override;
    void onSilence() override;
    /// Drops a request that has arrived only in part.
    void clear();
    /// The slave id that the firmware answers to.
    quint8 slaveId() const { return m_slaveId; }
    void setSlaveId(quint8 slaveId) { m_slaveId = slaveId; }

private:
    void answerRequests();
    void answer(const QByteArray &request);
    void executeResetCommand();
    bool isForThisGripper(const RequestFramer::Frame &frame) const;

    ModeHost &m_gripper;
    RegisterBank &m_registers;
    FaultPlan &m_faults;
    quint8 m_slaveId;
    ModbusSlave m_slave;
    RequestFramer m_framer;
};

} // namespace sim
