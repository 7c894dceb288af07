#include "firmwaremode.h"

#include "devicemap.h"
#include "faultplan.h"
#include "registerbank.h"

namespace sim {

FirmwareMode::FirmwareMode(ModeHost &gripper, RegisterBank &registers, FaultPlan &faults,
                           quint8 slaveId)
    : m_gripper(gripper)
    , m_registers(registers)
    , m_faults(faults)
    , m_slaveId(slaveId)
    , m_slave(registers)
{
}

void FirmwareMode::receive(const QByteArray &bytes, int baudRate)
{
    // At another rate a receiver gets no valid bytes.
    if (baudRate != map::firmwareBaudRate)
        return;
    m_framer.append(bytes);
    answerRequests();
}

void FirmwareMode::onSilence()
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
        if (isForThisGripper(*frame))
            answer(frame->bytes);
    }
}

void FirmwareMode::answer(const QByteArray &request)
{
    const FaultHits hits = m_faults.draw(request);
    if (hits.contains(FaultKind::Deaf))
        return;
    const QByteArray answer =
        hits.contains(FaultKind::Exception)
            ? ModbusSlave::exceptionAnswer(request, hits.value(FaultKind::Exception))
            : m_slave.answer(request);
    if (!hits.contains(FaultKind::Silent)) {
        m_gripper.send(m_faults.mangle(hits, request, answer), map::firmwareBaudRate,
                       hits.value(FaultKind::Late, 0));
    }
    executeResetCommand();
}

/// Runs after the answer, so that the master gets the answer to its reset command.
void FirmwareMode::executeResetCommand()
{
    const std::optional<quint16> command = m_registers.takeResetCommand();
    if (!command)
        return;
    if (*command == map::restartCommand)
        m_gripper.restart();
    else // Both bootloader commands lead here, because a gripper has only one bootloader.
        m_gripper.restartIntoBootloader();
}

bool FirmwareMode::isForThisGripper(const RequestFramer::Frame &frame) const
{
    return frame.isValid && static_cast<quint8>(frame.bytes.at(0)) == m_slaveId;
}

} // namespace sim
