#include "simulatedgripper.h"

#include "line.h"
#include "timeline.h"

namespace sim {

SimulatedGripper::SimulatedGripper(quint8 slaveId, const GripperIdentity &identity,
                                   const GripperTiming &timing, Line &line, Timeline &timeline,
                                   RandomSource &random)
    : m_identity(identity)
    , m_timing(timing)
    , m_bootloader(bootloaderOf(identity))
    , m_line(line)
    , m_timeline(timeline)
    , m_registers(identity, slaveId, timing.activationMs * usPerMs, timeline)
    , m_faults(random)
    , m_flash(m_bootloader.firmwareStart)
    , m_firmwareMode(*this, m_registers, m_faults, slaveId)
    , m_bootloaderMode(*this, m_bootloader, m_flash, m_faults, timeline,
                       timing.bootloaderBitsPerSecond)
    , m_mode(&m_firmwareMode)
{
    m_flash.write(m_bootloader.firmwareStart, FirmwareImage::make(identity.versionText()));
    m_line.addListener(this);
}

SimulatedGripper::~SimulatedGripper()
{
    m_line.removeListener(this);
}

void SimulatedGripper::restart()
{
    if (FirmwareImage::versionIn(m_flash.from(m_bootloader.firmwareStart)).isEmpty())
        restartIntoBootloader();
    else
        boot(m_timing.bootMs, [this] { startFirmware(); });
}

void SimulatedGripper::restartIntoBootloader()
{
    boot(m_timing.bootloaderBootMs, [this] { startBootloader(); });
}

void SimulatedGripper::cutPower()
{
    stop(State::Dead);
}

void SimulatedGripper::boot(int durationMs, const std::function<void()> &end)
{
    stop(State::Booting);
    // A restart during a boot starts the boot again, so only the latest action may end it.
    const int boot = m_stops;
    m_timeline.after(this, durationMs * usPerMs, [this, boot, end] {
        if (boot == m_stops)
            end();
    });
}

void SimulatedGripper::stop(State state)
{
    ++m_stops;
    m_state = state;
    m_mode = &m_silentMode;
    m_firmwareMode.clear();
    m_bootloaderMode.clear();
    m_registers.restart();
}

void SimulatedGripper::startFirmware()
{
    const QString version = FirmwareImage::versionIn(m_flash.from(m_bootloader.firmwareStart));
    // The same firmware does not overwrite version registers that a command has set.
    if (version != m_identity.versionText() && m_identity.setVersion(version))
        m_registers.setVersion(m_identity);
    m_firmwareMode.setSlaveId(m_registers.storedSlaveId());
    m_mode = &m_firmwareMode;
    m_state = State::Firmware;
}

void SimulatedGripper::startBootloader()
{
    m_mode = &m_bootloaderMode;
    m_state = State::Bootloader;
}

void SimulatedGripper::receive(const QByteArray &bytes, int baudRate)
{
    m_mode->receive(bytes, baudRate);
}

void SimulatedGripper::onSilence()
{
    m_mode->onSilence();
}

void SimulatedGripper::send(const QByteArray &bytes, int baudRate, int delayMs)
{
    if (delayMs == 0) {
        m_line.transmit(bytes, baudRate, true);
        return;
    }
    m_timeline.after(this, delayMs * usPerMs,
                     [this, bytes, baudRate] { m_line.transmit(bytes, baudRate, true); });
}

void SimulatedGripper::sendFromBootloader(const QByteArray &bytes, int baudRate)
{
    m_line.transmit(bytes, baudRate, false);
}

} // namespace sim
