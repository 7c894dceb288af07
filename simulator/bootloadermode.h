#pragma once

#include "bootloaderprotocol.h"
#include "linelistener.h"

#include <QObject>

#include <functional>
#include <memory>

namespace sim {

class SimulatedGripper;
class Timeline;

/// The bootloader: hears one rate, answers as its faults allow, and as slowly as it is told.
class BootloaderMode : public LineListener
{
public:
    /// Everything referred to must outlive the mode. Bytes pass at `bitsPerSecond`, 0 for as
    /// fast as they come.
    BootloaderMode(SimulatedGripper &gripper, const BootloaderKind &kind, FlashMemory &flash,
                   Timeline &timeline, int bitsPerSecond);

    void hear(const QByteArray &bytes, int baudRate) override;
    void hearSilence() override {}
    /// As after power-on; what was under way never happens.
    void clear();

private:
    void take(quint8 byte);
    void answer(QByteArray bytes);
    void afterItsTime(int byteCount, const std::function<void()> &action);

    SimulatedGripper &m_gripper;
    const BootloaderKind &m_kind;
    Timeline &m_timeline;
    int m_bitsPerSecond;
    BootloaderProtocol m_protocol;
    /// Owns what is still to happen.
    std::unique_ptr<QObject> m_session;
    int m_heardBytes = 0;
    bool m_isOver = false;
};

} // namespace sim
