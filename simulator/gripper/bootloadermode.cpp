#include "bootloadermode.h"

#include "faultplan.h"
#include "timeline.h"

namespace sim {

namespace {
/// Start bit, eight data bits, parity bit, stop bit.
constexpr qint64 bitsPerByte = 11;
} // namespace

BootloaderMode::BootloaderMode(ModeHost &gripper, const BootloaderKind &kind, FlashMemory &flash,
                               FaultPlan &faults, Timeline &timeline, int bitsPerSecond)
    : m_gripper(gripper)
    , m_kind(kind)
    , m_faults(faults)
    , m_timeline(timeline)
    , m_bitsPerSecond(bitsPerSecond)
    , m_protocol(kind, flash, faults)
    , m_session(std::make_unique<QObject>())
{
}

void BootloaderMode::clear()
{
    m_protocol.reset();
    m_session = std::make_unique<QObject>();
    m_receivedBytes = 0;
    m_isOver = false;
}

void BootloaderMode::receive(const QByteArray &bytes, int baudRate)
{
    if (baudRate != m_kind.baudRate)
        return;
    for (const char byte : bytes) {
        // Bytes after the start of the firmware are lost.
        if (m_isOver)
            return;
        ++m_receivedBytes;
        receiveByte(static_cast<quint8>(byte));
    }
}

void BootloaderMode::receiveByte(quint8 byte)
{
    const QByteArray bytes = m_protocol.receive(byte);
    switch (m_protocol.event()) {
    case BootloaderProtocol::Event::None:
        break;
    case BootloaderProtocol::Event::Start:
        m_isOver = true;
        break;
    case BootloaderProtocol::Event::PowerFailure:
        m_isOver = true;
        m_gripper.cutPower();
        return;
    }
    if (!bytes.isEmpty())
        answer(bytes);
}

void BootloaderMode::answer(QByteArray bytes)
{
    if (bytes.size() == 1 && m_faults.strike(FaultKind::DoubleAck))
        bytes += bytes;
    const bool isSilent = m_faults.strike(FaultKind::SilentBootloader).has_value();
    const bool isStarting = m_isOver;
    const int byteCount = m_receivedBytes + bytes.size();
    m_receivedBytes = 0;
    afterTransmission(byteCount, [this, bytes, isSilent, isStarting] {
        if (!isSilent)
            m_gripper.sendFromBootloader(bytes, m_kind.baudRate);
        if (isStarting)
            m_gripper.restart();
    });
}

void BootloaderMode::afterTransmission(int byteCount, const std::function<void()> &action)
{
    if (m_bitsPerSecond == 0) {
        action();
        return;
    }
    m_timeline.after(m_session.get(), byteCount * bitsPerByte * usPerSecond / m_bitsPerSecond,
                     action);
}

} // namespace sim
