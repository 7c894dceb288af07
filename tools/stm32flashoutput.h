#pragma once

#include "flasheroutcome.h"

#include <QByteArray>
#include <QStringList>

#include <optional>

/// Reads what stm32flash 0.7 prints: how far it has come, what went wrong, and the lines that
/// are worth showing. Its exit code alone tells little: it is 1 for every failure, and 0 when
/// the start of the firmware was refused.
class Stm32FlashOutput
{
public:
    /// The run writes nothing and starts the firmware that is there.
    Stm32FlashOutput() = default;
    /// The run writes. `endAddress` is the one after the image's last byte: stm32flash stops
    /// without a word where the flash of the device that it has found ends.
    explicit Stm32FlashOutput(quint32 endAddress);

    /// The next piece of its standard output; gives what there is to show of it, a line each.
    QStringList takeOutput(const QByteArray &bytes);
    /// The same of its standard error.
    QStringList takeErrors(const QByteArray &bytes);

    /// What its end means. `exitCode` below 0 stands for a crash.
    FlasherOutcome outcome(int exitCode, bool startsFirmware) const;
    /// The last thing that it complained of, empty for none.
    const QString &complaint() const { return m_complaint; }

private:
    enum class Stage {
        Opening,    ///< the port is not open yet
        Connecting, ///< the port is open, nobody has answered yet
        Erasing,    ///< the bootloader has answered, its flash is touched from now on
        Written,    ///< the last byte is written and verified
        Started,    ///< the firmware runs, complete
    };

    QStringList takeLine(const QString &line);
    QStringList takeProgress(const QString &line);

    std::optional<quint32> m_endAddress;
    QByteArray m_output;
    QByteArray m_errors;
    Stage m_stage = Stage::Opening;
    int m_shownTenths = 0;
    QString m_complaint;
};
