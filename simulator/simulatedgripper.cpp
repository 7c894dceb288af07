#include "simulatedgripper.h"

#include "line.h"
#include "timeline.h"

namespace sim {

namespace {
constexpr qint64 kUsPerMs = 1000;
}

SimulatedGripper::SimulatedGripper(quint8 slaveId, const GripperIdentity &identity,
                                   const GripperTiming &timing, Line &line, Timeline &timeline,
                                   RandomSource &random)
    : m_slaveId(slaveId)
    , m_identity(identity)
    , m_timing(timing)
    , m_line(line)
    , m_timeline(timeline)
    , m_registers(identity, slaveId, timing.activationMs * kUsPerMs, timeline)
    , m_faults(random)
    , m_firmwareMode(*this)
    , m_mode(&m_firmwareMode)
{
    m_line.addListener(this);
}

SimulatedGripper::~SimulatedGripper()
{
    m_line.removeListener(this);
}

void SimulatedGripper::restart()
{
    m_mode = &m_silentMode;
    m_firmwareMode.clear();
    m_registers.restart();
    // A restart during a boot begins it anew: only the latest one ends it.
    const int boot = ++m_boots;
    m_timeline.after(this, m_timing.bootMs * kUsPerMs, [this, boot] {
        if (boot == m_boots)
            endBoot();
    });
}

void SimulatedGripper::endBoot()
{
    m_slaveId = m_registers.storedSlaveId();
    m_mode = &m_firmwareMode;
}

void SimulatedGripper::hear(const QByteArray &bytes, int baudRate)
{
    m_mode->hear(bytes, baudRate);
}

void SimulatedGripper::hearSilence()
{
    m_mode->hearSilence();
}

void SimulatedGripper::send(const QByteArray &bytes, int baudRate, int delayMs)
{
    if (delayMs == 0) {
        m_line.transmit(bytes, baudRate);
        return;
    }
    m_timeline.after(this, delayMs * kUsPerMs,
                     [this, bytes, baudRate] { m_line.transmit(bytes, baudRate); });
}

} // namespace sim
