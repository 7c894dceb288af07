#include "stm32flashrun.h"

#include "parentwatch.h"

#include <QCoreApplication>

#include <cstdio>

#include <unistd.h>

namespace {
constexpr int kForEver = -1;

QString hex(quint32 address)
{
    return QStringLiteral("0x%1").arg(address, 8, 16, QLatin1Char('0'));
}
} // namespace

Stm32FlashRun::Stm32FlashRun(const FlasherOptions &options, const QString &serialMode,
                             const FirmwareFile &image)
    : m_options(options)
    , m_serialMode(serialMode)
    , m_imagePath(image.pathOfCopy())
    , m_output(options.target.address + static_cast<quint32>(image.size()))
{
}

/// Between fork and exec.
void Stm32FlashRun::Child::setupChildProcess()
{
    if (!endWithParent(static_cast<pid_t>(m_parentPid)))
        ::_exit(1);
}

QStringList Stm32FlashRun::arguments(const FlasherOptions &options, const QString &serialMode,
                                     const QString &imagePath)
{
    const QString address = hex(options.target.address);
    QStringList words{QStringLiteral("-b"), QString::number(options.target.baudRate),
                      QStringLiteral("-m"), serialMode,
                      // A binary whatever it looks like: text of a certain form would be unpacked.
                      QStringLiteral("-f"), QStringLiteral("-S"), address, QStringLiteral("-w"),
                      imagePath,
                      // Without this a flash that did not keep the bytes counts as success.
                      QStringLiteral("-v")};
    if (options.startsFirmware)
        words << QStringLiteral("-g") << address;
    return words << options.device;
}

FlasherOutcome Stm32FlashRun::execute()
{
    show({QStringLiteral("%1 goes to %2 over %3, %4 baud, %5")
              .arg(m_options.imagePath, hex(m_options.target.address), m_options.device)
              .arg(m_options.target.baudRate)
              .arg(m_serialMode)});
    m_process.setStandardInputFile(QProcess::nullDevice());
    m_process.start(QStringLiteral("stm32flash"), arguments(m_options, m_serialMode, m_imagePath));
    if (!m_process.waitForStarted(kForEver)) {
        m_problem = QStringLiteral("stm32flash cannot be started (is it installed?): ") +
                    m_process.errorString();
        return FlasherOutcome::CannotBegin;
    }
    while (m_process.waitForReadyRead(kForEver))
        takeOutput();
    m_process.waitForFinished(kForEver);
    takeOutput();
    const bool hasCrashed = m_process.exitStatus() == QProcess::CrashExit;
    m_problem = hasCrashed ? QStringLiteral("stm32flash died") : m_output.complaint();
    return m_output.outcome(hasCrashed ? -1 : m_process.exitCode(), m_options.startsFirmware);
}

void Stm32FlashRun::takeOutput()
{
    show(m_output.takeOutput(m_process.readAllStandardOutput()));
    show(m_output.takeErrors(m_process.readAllStandardError()));
}

void Stm32FlashRun::show(const QStringList &lines) const
{
    if (!m_options.isVerbose)
        return;
    for (const QString &line : lines) {
        std::printf("%s\n", line.toLocal8Bit().constData());
        std::fflush(stdout);
    }
}
