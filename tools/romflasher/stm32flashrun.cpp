#include "stm32flashrun.h"

#include "parentwatch.h"

#include <QCoreApplication>

#include <cstdio>

#include <unistd.h>

namespace flasher {

namespace {
constexpr int noTimeout = -1;

QString hex(quint32 address)
{
    return QStringLiteral("0x%1").arg(address, 8, 16, QLatin1Char('0'));
}
} // namespace

Stm32FlashRun::Stm32FlashRun(const Options &options, const QString &serialMode, int stallLimitMs)
    : m_options(options)
    , m_serialMode(serialMode)
    , m_stallLimitMs(stallLimitMs)
{
}

/// Runs between fork and exec.
void Stm32FlashRun::Child::setupChildProcess()
{
    if (!endWithParent(static_cast<pid_t>(m_parentPid)))
        ::_exit(1);
}

QStringList Stm32FlashRun::writeArguments(const Options &options, const QString &serialMode,
                                          const QString &imagePath)
{
    const QString address = hex(options.target.address);
    QStringList words{QStringLiteral("-b"), QString::number(options.target.baudRate),
                      QStringLiteral("-m"), serialMode,
                      // Without -f, stm32flash unpacks an image that looks like Intel HEX.
                      QStringLiteral("-f"), QStringLiteral("-S"), address, QStringLiteral("-w"),
                      imagePath,
                      // Without -v, a flash that did not keep the bytes counts as success.
                      QStringLiteral("-v")};
    if (options.startsFirmware)
        words << QStringLiteral("-g") << address;
    return words << options.device;
}

QStringList Stm32FlashRun::startArguments(const Options &options, const QString &serialMode)
{
    return {QStringLiteral("-b"), QString::number(options.target.baudRate),
            QStringLiteral("-m"), serialMode,
            QStringLiteral("-g"), hex(options.target.address),
            options.device};
}

void Stm32FlashRun::write(const FirmwareFile &image)
{
    m_output = Stm32FlashOutput(m_options.target.address + static_cast<quint32>(image.size()));
    show({QStringLiteral("%1 goes to %2 over %3, %4 baud, %5")
              .arg(m_options.imagePath, hex(m_options.target.address), m_options.device)
              .arg(m_options.target.baudRate)
              .arg(m_serialMode)});
    execute(writeArguments(m_options, m_serialMode, image.pathOfCopy()), m_options.startsFirmware);
}

void Stm32FlashRun::start()
{
    execute(startArguments(m_options, m_serialMode), true);
}

void Stm32FlashRun::execute(const QStringList &arguments, bool startsFirmware)
{
    m_process.setStandardInputFile(QProcess::nullDevice());
    m_process.start(QStringLiteral("stm32flash"), arguments);
    if (!m_process.waitForStarted(noTimeout)) {
        throw Failure{ExitCode::CannotBegin,
                      QStringLiteral("stm32flash cannot be started (is it installed?): ") +
                          m_process.errorString()};
    }
    waitForEnd();
    const bool hasCrashed = m_process.exitStatus() == QProcess::CrashExit;
    const ExitCode code = m_output.result(hasCrashed ? -1 : m_process.exitCode(), startsFirmware);
    if (code != ExitCode::Done) {
        throw Failure{code,
                      hasCrashed ? QStringLiteral("stm32flash crashed") : m_output.lastError()};
    }
}

/// Throws Failure if it had to kill a stalled child.
void Stm32FlashRun::waitForEnd()
{
    while (m_process.waitForReadyRead(m_stallLimitMs))
        takeOutput();
    const bool isStalled = m_process.state() != QProcess::NotRunning;
    if (isStalled) {
        m_process.kill();
        m_process.waitForFinished(noTimeout);
    }
    takeOutput();
    if (isStalled) {
        throw Failure{ExitCode::Stalled,
                      QStringLiteral("stm32flash printed nothing for %1 s and was killed")
                          .arg(m_stallLimitMs / 1000.0)};
    }
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

} // namespace flasher
