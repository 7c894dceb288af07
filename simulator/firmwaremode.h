#pragma once

#include "linelistener.h"
#include "modbusslave.h"
#include "requestframer.h"

namespace sim {

class SimulatedGripper;

/// The application firmware: hears requests at 115200 baud, answers those for its own slave id
/// as its faults allow, and restarts on command.
class FirmwareMode : public LineListener
{
public:
    /// `gripper` must outlive the mode.
    explicit FirmwareMode(SimulatedGripper &gripper);

    void hear(const QByteArray &bytes, int baudRate) override;
    void hearSilence() override;
    /// Forgets what is half received.
    void clear();

private:
    void answerRequests();
    void answer(const QByteArray &request);
    void obeyResetCommand();
    bool isForUs(const RequestFramer::Frame &frame) const;

    SimulatedGripper &m_gripper;
    ModbusSlave m_slave;
    RequestFramer m_framer;
};

} // namespace sim
