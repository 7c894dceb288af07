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

/// A gripper that runs its bootloader. It receives bytes at one baud rate, applies the faults to
/// its answers, and delays them by the transmission time at the configured rate.
class BootloaderMode : public LineListener
{
public:
    /// All references must outlive the mode. `bitsPerSecond` determines the delay of an answer; 0
    /// means no delay.
    BootloaderMode(ModeHost &gripper, const BootloaderKind &kind, FlashMemory &flash,
                   FaultPlan &faults, Timeline &timeline, int bitsPerSecond);

    void receive(const QByteArray &bytes, int baudRate) override;
    void onSilence() override {}
    /// Returns to the state after power-on and cancels all delayed answers.
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
    /// The owner of all delayed actions. Replacing it cancels them.
    std::unique_ptr<QObject> m_session;
    int m_receivedBytes = 0;
    bool m_isOver = false;
};

} // namespace sim
