#include "bussimulator.h"

#include "devicemap.h"
#include "failure.h"
#include "realtimeline.h"

#include <algorithm>

namespace sim {

BusSimulator::BusSimulator(const Config &config, Timeline *timeline, QObject *parent)
    : QObject(parent)
    , m_ownTimeline(timeline == nullptr ? std::make_unique<RealTimeline>() : nullptr)
    , m_timeline(timeline == nullptr ? *m_ownTimeline : *timeline)
    , m_config(config)
    , m_random(config.seed)
    , m_line(m_timeline)
    , m_port(config.portMode)
{
    m_link.setPath(config.linkPath);
    connect(&m_port, &PtyPort::received, &m_line, &Line::receive);
    connect(&m_port, &PtyPort::masterLeft, &m_line, &Line::reset);
    connect(&m_port, &PtyPort::stuck, this, &BusSimulator::onStuck);
    connect(&m_line, &Line::bytesToMaster, &m_port, &PtyPort::write);
    connect(&m_line, &Line::frameSeen, this, [this](const FrameRecord &frame) {
        m_log.append(frame);
        emit frameSeen(frame);
    });
}

BusSimulator::BusSimulator()
    : BusSimulator(Config())
{
}

BusSimulator::~BusSimulator() = default;

void BusSimulator::plug()
{
    if (isPlugged())
        return;
    m_link.removeStale();
    m_port.open();
    try {
        m_link.create(m_port.path());
    } catch (const Failure &) {
        m_port.close();
        throw;
    }
}

void BusSimulator::unplug()
{
    m_link.remove();
    m_port.close();
    m_line.reset();
}

void BusSimulator::onStuck()
{
    unplug();
    try {
        plug();
    } catch (const Failure &) {
        return; // The line stays unplugged, which the command "show" reports.
    }
    emit portRenewed();
}

SimulatedGripper *BusSimulator::addGripper(quint8 slaveId, const GripperIdentity &identity)
{
    const bool isInRange = slaveId >= map::minSlaveId && slaveId <= map::maxSlaveId;
    if (!isInRange || gripper(slaveId) != nullptr)
        return nullptr;
    m_grippers.push_back(std::make_unique<SimulatedGripper>(slaveId, identity, m_config.timing,
                                                            m_line, m_timeline, m_random));
    return m_grippers.back().get();
}

SimulatedGripper *BusSimulator::addGripper(quint8 slaveId, const QString &version)
{
    const auto identity = GripperIdentity::fromVersion(slaveId, version);
    return identity ? addGripper(slaveId, *identity) : nullptr;
}

bool BusSimulator::removeGripper(quint8 slaveId)
{
    const auto found = std::find_if(m_grippers.begin(), m_grippers.end(),
                                    [&](const auto &each) { return each->slaveId() == slaveId; });
    if (found == m_grippers.end())
        return false;
    m_grippers.erase(found);
    return true;
}

SimulatedGripper *BusSimulator::gripper(quint8 slaveId) const
{
    for (const auto &each : m_grippers) {
        if (each->slaveId() == slaveId)
            return each.get();
    }
    return nullptr;
}

QVector<SimulatedGripper *> BusSimulator::grippers() const
{
    QVector<SimulatedGripper *> all;
    for (const auto &each : m_grippers)
        all.append(each.get());
    return all;
}

bool BusSimulator::setFault(quint8 slaveId, const Fault &fault)
{
    SimulatedGripper *target = gripper(slaveId);
    if (target != nullptr)
        target->faults().set(fault);
    return target != nullptr;
}

bool BusSimulator::clearFaults(quint8 slaveId)
{
    SimulatedGripper *target = gripper(slaveId);
    if (target != nullptr)
        target->faults().clear();
    return target != nullptr;
}

bool BusSimulator::setRegister(quint8 slaveId, quint16 address, quint16 value)
{
    SimulatedGripper *target = gripper(slaveId);
    return target != nullptr && target->registers().set(address, value);
}

bool BusSimulator::pinRegister(quint8 slaveId, quint16 address, quint16 value)
{
    SimulatedGripper *target = gripper(slaveId);
    return target != nullptr && target->registers().pin(address, value);
}

bool BusSimulator::releaseRegisters(quint8 slaveId)
{
    SimulatedGripper *target = gripper(slaveId);
    if (target != nullptr)
        target->registers().releaseAll();
    return target != nullptr;
}

std::optional<quint16> BusSimulator::registerValue(quint8 slaveId, quint16 address) const
{
    SimulatedGripper *target = gripper(slaveId);
    if (target == nullptr || !target->registers().exists(address, 1))
        return std::nullopt;
    return target->registers().read(address, 1).first();
}

bool BusSimulator::setObject(quint8 slaveId, int position)
{
    SimulatedGripper *target = gripper(slaveId);
    if (target != nullptr)
        target->registers().body().setObject(position, m_timeline.nowUs());
    return target != nullptr;
}

bool BusSimulator::setFaultCode(quint8 slaveId, quint8 code)
{
    SimulatedGripper *target = gripper(slaveId);
    if (target != nullptr)
        target->registers().body().setFaultCode(code);
    return target != nullptr;
}

bool BusSimulator::restartGripper(quint8 slaveId)
{
    SimulatedGripper *target = gripper(slaveId);
    if (target != nullptr)
        target->restart();
    return target != nullptr;
}

} // namespace sim
