#pragma once

#include "bootloaderprotocol.h"
#include "linelistener.h"
#include "modehost.h"

#include <QObject>

#include <functional>
#include <memory>

namespace sim {

class FaultPlan;
class Timeline;

/// The bootloader: hears one baud rate, answers as its faults allow, and takes the time of the
/// configured rate.
class BootloaderMode : public LineListener
{
public:
    /// All references must outlive the mode. Bytes pass at `bitsPerSecond`; 0 means without
    /// delay.
    BootloaderMode(ModeHost &gripper, const BootloaderKind &kind, FlashMemory &flash,
                   FaultPlan &faults, Timeline &timeline, int bitsPerSecond);

    void receive(const QByteArray &bytes, int baudRate) override;
    void onSilence() override {}
    /// Returns to the state after power-on and drops everything that is pending.
    void clear();

private:
    void receiveByte(quint8 byte);
    void answer(QByteArray bytes);
    void afterTransmission(int byteCount, const std::function<void()> &action);

    ModeHost &m_gripper;
    const BootloaderKind &m_kind;
    FaultPlan &m_faults;
    Timeline &m_timeline;
    int m_bitsPerSecond;
    BootloaderProtocol m_protocol;
    /// Owner of all pending actions: replacing it cancels them.
    std::unique_ptr<QObject> m_session;
    int m_receivedBytes = 0;
    bool m_isOver = false;
};

} // namespace sim
