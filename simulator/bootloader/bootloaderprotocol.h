#pragma once

#include "bootloaderkind.h"

#include <QByteArray>

#include <optional>

namespace sim {

class FaultPlan;
class FlashMemory;

/// The bootloader's side of the protocol: bytes in, answers out, the flash changed on the way.
/// Knows nothing of time and lines. Every byte that it waits for may take for ever.
class BootloaderProtocol
{
public:
    /// What is to happen beside the answer.
    enum class Event {
        None,         ///< it listens on
        Start,        ///< the firmware is to be started once the answer has gone out
        PowerFailure, ///< the power fails: no answer, nothing more
    };

    /// Everything referred to must outlive the protocol.
    BootloaderProtocol(const BootloaderKind &kind, FlashMemory &flash, FaultPlan &faults);

    /// As after power-on: waits for the synchronisation byte.
    void reset();
    /// Takes one byte and gives the answer to it, nothing for most.
    QByteArray receive(quint8 byte);
    /// What the last byte has brought about.
    Event event() const { return m_event; }

private:
    enum class Step {
        Synchronisation, ///< the byte from which the real one learns the rate
        Command,         ///< the command and its complement
        Address,         ///< four bytes, highest first, and their checksum
        ReadCount,       ///< the count less one and its complement
        Block,           ///< the count less one, the bytes, the checksum of all
        Sectors,         ///< the count less one, or 0xFF for all, the sectors, the checksum
        WideSectors,     ///< the same in words, 0xFFFF for all
    };
    struct Command
    {
        quint8 code;
        Step next;
        QByteArray (BootloaderProtocol::*answer)() const;
    };
    static const Command commands[];

    int expectedLength() const;
    QByteArray handleRequest(const QByteArray &bytes);
    QByteArray handleCommand(const QByteArray &bytes);
    QByteArray handleAddress(const QByteArray &bytes);
    QByteArray handleReadCount(const QByteArray &bytes);
    QByteArray handleBlock(const QByteArray &bytes);
    QByteArray handleSectors(const QByteArray &bytes, int width);
    QByteArray acceptAddress(Step next, bool isAllowed);
    QByteArray go();
    QByteArray eraseSectors(const QByteArray &sectors, int width);
    bool isPowerFailing();

    QByteArray acceptCommand() const;
    QByteArray describeCommands() const;
    QByteArray describeVersion() const;
    QByteArray describeProductId() const;

    const BootloaderKind &m_kind;
    FlashMemory &m_flash;
    FaultPlan &m_faults;
    Step m_step = Step::Synchronisation;
    Event m_event = Event::None;
    QByteArray m_pending;
    quint8 m_command = 0;
    quint32 m_address = 0;
    int m_blocks = 0;
};

} // namespace sim
