#include "firmwaremode.h"

#include "devicemap.h"
#include "simulatedgripper.h"

namespace sim {

FirmwareMode::FirmwareMode(SimulatedGripper &gripper)
    : m_gripper(gripper)
    , m_slave(gripper.registers())
{
}

void FirmwareMode::hear(const QByteArray &bytes, int baudRate)
{
    // At another rate the receiver makes nothing of it.
    if (baudRate != map::kBaudRate)
        return;
    m_framer.append(bytes);
    answerRequests();
}

void FirmwareMode::hearSilence()
{
    m_framer.endFrame();
    answerRequests();
}

void FirmwareMode::clear()
{
    m_framer.clear();
}

void FirmwareMode::answerRequests()
{
    while (const auto frame = m_framer.take()) {
        if (isForUs(*frame))
            answer(frame->bytes);
    }
}

void FirmwareMode::answer(const QByteArray &request)
{
    FaultPlan &faults = m_gripper.faults();
    const FaultHits hits = faults.draw(request);
    if (hits.contains(FaultKind::Deaf))
        return;
    const QByteArray answer =
        hits.contains(FaultKind::Exception)
            ? ModbusSlave::exceptionAnswer(request, hits.value(FaultKind::Exception))
            : m_slave.answer(request);
    if (!hits.contains(FaultKind::Silent)) {
        m_gripper.send(faults.mangle(hits, request, answer), map::kBaudRate,
                       hits.value(FaultKind::Late, 0));
    }
    obeyResetCommand();
}

/// After the answer: the master is to hear that the command was taken.
void FirmwareMode::obeyResetCommand()
{
    const std::optional<quint16> command = m_gripper.registers().takeResetCommand();
    if (!command)
        return;
    if (*command == map::kRestartFirmware)
        m_gripper.restart();
    else // Either of the two words: there is only the one bootloader that the gripper has.
        m_gripper.restartIntoBootloader();
}

bool FirmwareMode::isForUs(const RequestFramer::Frame &frame) const
{
    return frame.isValid && static_cast<quint8>(frame.bytes.at(0)) == m_gripper.slaveId();
}

} // namespace sim
