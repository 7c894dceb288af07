#pragma once

#include "failure.h"

#include <QByteArray>
#include <QStringList>

#include <optional>

namespace flasher {

/// Reads the output of stm32flash 0.7: its progress, its last error, and the lines worth showing.
/// The exit code alone says little: it is 1 for every failure, and 0 when the bootloader refused to
/// start the firmware.
class Stm32FlashOutput
{
public:
    /// For a run that starts the present firmware and writes nothing.
    Stm32FlashOutput() = default;
    /// For a run that writes. `endAddress` is the address after the last byte of the image. Only
    /// this address shows that the image is complete: stm32flash stops without an error at the end
    /// of the flash that it knows.
    explicit Stm32FlashOutput(quint32 endAddress);

    /// Takes the next bytes of standard output. Returns the lines to show.
    QStringList takeOutput(const QByteArray &bytes);
    /// Takes the next bytes of standard error. Returns the lines to show.
    QStringList takeErrors(const QByteArray &bytes);

    /// The result of a run that ended. An `exitCode` below 0 means a crash.
    ExitCode result(int exitCode, bool startsFirmware) const;
    /// The last error in the output; empty without an error.
    const QString &lastError() const { return m_lastError; }

private:
    enum class Stage {
        Opening,    ///< the port is not open yet
        Connecting, ///< the port is open, and no bootloader has answered yet
        Erasing,    ///< the bootloader has answered; from now on the flash changes
        Written,    ///< the last byte is written and verified
        Started,    ///< the complete firmware runs
    };

    QStringList takeLine(const QString &line);
    QStringList takeProgress(const QString &line);

    std::optional<quint32> m_endAddress;
    QByteArray m_output;
    QByteArray m_errors;
    Stage m_stage = Stage::Opening;
    int m_shownTenths = 0;
    QString m_lastError;
};

} // namespace flasher
