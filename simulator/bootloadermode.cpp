#include "bootloadermode.h"

#include "simulatedgripper.h"
#include "timeline.h"

namespace sim {

namespace {
/// Start bit, eight data bits, parity, stop bit.
constexpr qint64 kBitsPerByte = 11;
constexpr qint64 kUsPerSecond = 1000000;
} // namespace

BootloaderMode::BootloaderMode(SimulatedGripper &gripper, const BootloaderKind &kind,
                               FlashMemory &flash, Timeline &timeline, int bitsPerSecond)
    : m_gripper(gripper)
    , m_kind(kind)
    , m_timeline(timeline)
    , m_bitsPerSecond(bitsPerSecond)
    , m_protocol(kind, flash, gripper.faults())
    , m_session(std::make_unique<QObject>())
{
}

void BootloaderMode::clear()
{
    m_protocol.reset();
    m_session = std::make_unique<QObject>();
    m_heardBytes = 0;
    m_isOver = false;
}

void BootloaderMode::hear(const QByteArray &bytes, int baudRate)
{
    if (baudRate != m_kind.baudRate)
        return;
    for (const char byte : bytes) {
        // What follows a start of the firmware reaches nobody.
        if (m_isOver)
            return;
        ++m_heardBytes;
        take(static_cast<quint8>(byte));
    }
}

void BootloaderMode::take(quint8 byte)
{
    const QByteArray bytes = m_protocol.take(byte);
    switch (m_protocol.event()) {
    case BootloaderProtocol::Event::None:
        break;
    case BootloaderProtocol::Event::Start:
        m_isOver = true;
        break;
    case BootloaderProtocol::Event::Die:
        m_isOver = true;
        m_gripper.die();
        return;
    }
    if (!bytes.isEmpty())
        answer(bytes);
}

void BootloaderMode::answer(QByteArray bytes)
{
    FaultPlan &faults = m_gripper.faults();
    if (bytes.size() == 1 && faults.strike(FaultKind::DoubleAck))
        bytes += bytes;
    const bool isSilent = faults.strike(FaultKind::SilentBootloader).has_value();
    const bool isStarting = m_isOver;
    const int byteCount = m_heardBytes + bytes.size();
    m_heardBytes = 0;
    afterItsTime(byteCount, [this, bytes, isSilent, isStarting] {
        if (!isSilent)
            m_gripper.sendFromBootloader(bytes, m_kind.baudRate);
        if (isStarting)
            m_gripper.restart();
    });
}

void BootloaderMode::afterItsTime(int byteCount, const std::function<void()> &action)
{
    if (m_bitsPerSecond == 0) {
        action();
        return;
    }
    m_timeline.after(m_session.get(), byteCount * kBitsPerByte * kUsPerSecond / m_bitsPerSecond,
                     action);
}

} // namespace sim
