#include "stm32flashoutput.h"

#include <QRegularExpression>

namespace flasher {

namespace {
constexpr int percentPerTenth = 10;

/// Removes the complete lines from `pending` and returns those that are not empty. A progress line
/// ends in a carriage return.
QStringList takeLines(QByteArray *pending)
{
    pending->replace('\r', '\n');
    const int end = pending->lastIndexOf('\n');
    const QString whole = QString::fromLocal8Bit(pending->left(end + 1));
    pending->remove(0, end + 1);
    return whole.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QString withoutFullStop(const QString &text)
{
    return text.endsWith(QLatin1Char('.')) ? text.chopped(1) : text;
}
} // namespace

Stm32FlashOutput::Stm32FlashOutput(quint32 endAddress)
    : m_endAddress(endAddress)
{
}

QStringList Stm32FlashOutput::takeOutput(const QByteArray &bytes)
{
    m_output += bytes;
    QStringList shown;
    const QStringList lines = takeLines(&m_output);
    for (const QString &line : lines)
        shown += takeLine(line.trimmed());
    return shown;
}

QStringList Stm32FlashOutput::takeErrors(const QByteArray &bytes)
{
    m_errors += bytes;
    QStringList lines = takeLines(&m_errors);
    for (const QString &line : qAsConst(lines)) {
        // Not an error: stm32flash warns if the bootloader has already detected its baud rate.
        if (!line.startsWith(QLatin1String("Warning: ")))
            m_lastError = withoutFullStop(line.trimmed());
    }
    return lines;
}

QStringList Stm32FlashOutput::takeLine(const QString &line)
{
    struct Row
    {
        const char *start; ///< of the line
        Stage stage;       ///< the line shows that this stage is reached
        bool isShown;
    };
    static const Row rows[] = {
        {"Interface ", Stage::Connecting, false},
        {"Version ", Stage::Erasing, true},
        {"Device ID ", Stage::Erasing, true},
        {"Erasing memory", Stage::Erasing, true},
    };
    for (const Row &row : rows) {
        if (!line.startsWith(QLatin1String(row.start)))
            continue;
        m_stage = row.stage;
        return row.isShown ? QStringList{line.simplified()} : QStringList();
    }
    if (line.startsWith(QLatin1String("Wrote ")))
        return takeProgress(line);
    if (!line.startsWith(QLatin1String("Starting execution ")))
        return {};
    if (!line.endsWith(QLatin1String(" done.")))
        m_lastError = QStringLiteral("the bootloader refused to start the firmware");
    else if (m_stage == Stage::Written || !m_endAddress)
        m_stage = Stage::Started;
    return {line};
}

QStringList Stm32FlashOutput::takeProgress(const QString &line)
{
    static const QRegularExpression pattern(
        QStringLiteral("^Wrote and verified address (0x[0-9a-f]+) \\(([0-9]+)\\.[0-9]+%\\)"));
    const QRegularExpressionMatch match = pattern.match(line);
    if (!match.hasMatch())
        return {};
    const int tenths = match.captured(2).toInt() / percentPerTenth;
    if (match.captured(1).toUInt(nullptr, 16) == m_endAddress &&
        line.endsWith(QLatin1String("Done.")))
        m_stage = Stage::Written;
    if (tenths == m_shownTenths)
        return {};
    m_shownTenths = tenths;
    return {QStringLiteral("Wrote and verified %1 % (up to %2)")
                .arg(tenths * percentPerTenth)
                .arg(match.captured(1))};
}

ExitCode Stm32FlashOutput::result(int exitCode, bool startsFirmware) const
{
    switch (m_stage) {
    case Stage::Opening:
        return ExitCode::PortFailed;
    case Stage::Connecting:
        return ExitCode::NoBootloader;
    case Stage::Erasing:
        return ExitCode::WriteFailed;
    case Stage::Written:
        return startsFirmware || exitCode != 0 ? ExitCode::NotStarted : ExitCode::Done;
    case Stage::Started:
        return ExitCode::Done;
    }
    return ExitCode::WriteFailed;
}

} // namespace flasher
