#include "simulatedline.h"

#include <sys/resource.h>

namespace {

constexpr char readHoldingRegisters = 0x03;
constexpr quint16 resetAddress = 400;

quint8 byteAt(const QByteArray &bytes, int offset)
{
    return static_cast<quint8>(bytes[offset]);
}

QString textOf(const sim::FrameRecord &frame)
{
    if (frame.direction == sim::FrameRecord::Direction::Answer)
        return QStringLiteral("answer");
    return QStringLiteral("%1 %2 %3")
        .arg(byteAt(frame.bytes, 0))
        .arg(frame.bytes[1] == readHoldingRegisters ? QLatin1String("read")
                                                    : QLatin1String("write"))
        .arg(byteAt(frame.bytes, 2) << 8 | byteAt(frame.bytes, 3));
}

sim::Fault faultAt(quint16 startAddress, sim::FaultKind kind)
{
    sim::Fault fault;
    fault.kind = kind;
    fault.scope = sim::Fault::Scope::StartAddress;
    fault.address = startAddress;
    return fault;
}

} // namespace

SimulatedLine::SimulatedLine(std::initializer_list<Gripper> grippers)
{
    // Answers have a time limit, so this process asks for priority over parallel tests.
    ::setpriority(PRIO_PROCESS, 0, -10);
    for (const Gripper &gripper : grippers) {
        if (m_bus.addGripper(gripper.slaveId, QString::fromLatin1(gripper.version)) == nullptr)
            qFatal("no gripper %u of version %s", gripper.slaveId, gripper.version);
    }
    m_bus.plug();
}

void SimulatedLine::silence(quint8 slaveId, quint16 startAddress, int times)
{
    sim::Fault fault = faultAt(startAddress, sim::FaultKind::Silent);
    fault.remaining = times;
    m_bus.setFault(slaveId, fault);
}

void SimulatedLine::ignoreResets(quint8 slaveId, int times)
{
    sim::Fault fault = faultAt(resetAddress, sim::FaultKind::Deaf);
    fault.remaining = times;
    m_bus.setFault(slaveId, fault);
}

void SimulatedLine::delay(quint8 slaveId, quint16 startAddress, int delayMs)
{
    sim::Fault fault = faultAt(startAddress, sim::FaultKind::Late);
    fault.value = delayMs;
    m_bus.setFault(slaveId, fault);
}

QStringList SimulatedLine::requests() const
{
    QStringList requests = traffic();
    requests.removeAll(QStringLiteral("answer"));
    return requests;
}

QStringList SimulatedLine::traffic() const
{
    QStringList traffic;
    for (const sim::FrameRecord &frame : m_bus.frames())
        traffic.append(textOf(frame));
    return traffic;
}
