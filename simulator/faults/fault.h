#pragma once

#include <QByteArray>
#include <QObject>

namespace sim {
Q_NAMESPACE

/// The ways in which a gripper misbehaves, in the order in which they are applied.
enum class FaultKind {
    Deaf,          ///< does not hear the request: not carried out, not answered
    Silent,        ///< carries it out and does not answer
    Late,          ///< answers after a delay
    Exception,     ///< answers an exception instead of carrying it out
    WrongId,       ///< answers under another slave id
    WrongFunction, ///< answers with another function code
    BadCrc,        ///< answers with a wrong CRC
    Truncated,     ///< the end of the answer is missing
    Trailing,      ///< bytes follow the answer
    Noise,         ///< bytes come before the answer
    Echo,          ///< the request comes back before the answer

    // Of the bootloader, each with its own occasions.
    SilentBootloader, ///< an answer does not come
    NackWrite,        ///< a block is refused and not written
    BadVerify,        ///< the last byte of a block is stored inverted
    RefuseGo,         ///< the start of the firmware is refused
    DiesDuringWrite,  ///< half of a block is written, then the power fails
    DoubleAck,        ///< an answer of a single byte comes twice
};
Q_ENUM_NS(FaultKind)

/// Whether the bootloader has this fault, and not the firmware.
constexpr bool isOfBootloader(FaultKind kind)
{
    return kind >= FaultKind::SilentBootloader;
}

/// One fault and the requests that it strikes.
struct Fault
{
    enum class Scope { AnyRequest, Reads, Writes, StartAddress };
    static constexpr int unlimited = -1;

    FaultKind kind = FaultKind::Silent;
    int remaining = unlimited; ///< requests that it still strikes
    int sharePercent = 100;    ///< how many of a hundred requests it strikes, by chance
    int value = 0;             ///< milliseconds, bytes or code, as the kind says
    Scope scope = Scope::AnyRequest;
    quint16 address = 0; ///< the first register, for Scope::StartAddress

    /// Whether `request` (with CRC) is within the scope.
    bool concerns(const QByteArray &request) const;
};

} // namespace sim
