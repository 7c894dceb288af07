#pragma once

#include "bootloaderkind.h"

#include <QByteArray>

#include <optional>

namespace sim {

class FaultPlan;
class FlashMemory;

/// The bootloader's side of the protocol. It receives bytes, returns answers and changes the flash.
/// It knows neither the time nor the line, so there is no time-out between two bytes.
class BootloaderProtocol
{
public:
    /// The action that the caller must take besides sending the answer.
    enum class Event {
        None,         ///< nothing
        Start,        ///< start the firmware after the answer is sent
        PowerFailure, ///< cut the power; there is no answer
    };

    /// All references must outlive the protocol.
    BootloaderProtocol(const BootloaderKind &kind, FlashMemory &flash, FaultPlan &faults);

    /// Returns to the state after power-on, which waits for the synchronisation byte.
    void reset();
    /// Handles one byte. Returns the answer, which is empty unless the byte completes a request.
    QByteArray receive(quint8 byte);
    /// The event that the latest byte caused.
    Event event() const { return m_event; }

private:
    /// The part of a request that arrives next.
    enum class Step {
        Synchronisation, ///< the byte from which a real bootloader measures the rate
        Command,         ///< the command and its complement
        Address,         ///< four bytes, highest first, and their checksum
        ReadCount,       ///< the count minus one and its complement
        Block,           ///< the count minus one, the bytes, the checksum of all
        Sectors,         ///< the count minus one (0xFF means all), the sectors, the checksum
        WideSectors,     ///< the same in words of 16 bits
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
