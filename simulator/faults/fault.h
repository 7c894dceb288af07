#pragma once

#include <QByteArray>
#include <QObject>

namespace sim {
Q_NAMESPACE

/// The ways in which a gripper misbehaves.
enum class FaultKind {
    // Faults of the firmware.
    Deaf,          ///< neither carries the request out nor answers it
    Silent,        ///< carries the request out and does not answer it
    Late,          ///< answers after a delay
    Exception,     ///< answers with an exception and does not carry the request out
    WrongId,       ///< answers under another slave id
    WrongFunction, ///< answers with another function code
    BadCrc,        ///< answers with a wrong CRC
    Truncated,     ///< omits the end of the answer
    Trailing,      ///< sends random bytes after the answer
    Noise,         ///< sends random bytes before the answer
    Echo,          ///< sends the request back before the answer

    // Faults of the bootloader, which have no scope. isOfBootloader() needs them last.
    SilentBootloader, ///< omits an answer
    NackWrite,        ///< refuses a block and does not write it
    BadVerify,        ///< stores the last byte of a block inverted
    RefuseGo,         ///< refuses to start the firmware
    DiesDuringWrite,  ///< loses power after half of a block is written
    DoubleAck,        ///< sends an answer of one byte twice
};
Q_ENUM_NS(FaultKind)

/// Whether this is a fault of the bootloader. Otherwise it is a fault of the firmware.
constexpr bool isOfBootloader(FaultKind kind)
{
    return kind >= FaultKind::SilentBootloader;
}

/// One fault and the requests that it applies to.
struct Fault
{
    enum class Scope { AnyRequest, Reads, Writes, StartAddress };
    static constexpr int unlimited = -1;

    FaultKind kind = FaultKind::Silent;
    int remaining = unlimited; ///< number of requests that it will still strike
    int sharePercent = 100;    ///< probability that it strikes a request
    int value = 0;             ///< milliseconds, bytes or a code, as the kind requires
    Scope scope = Scope::AnyRequest;
    quint16 address = 0; ///< first register of the request, for Scope::StartAddress

    /// Whether `request`, which includes its CRC, is within the scope.
    bool concerns(const QByteArray &request) const;
};

} // namespace sim
