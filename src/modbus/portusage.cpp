#include "portusage.h"

#include "quitsignals.h"
#include "servicenotifier.h"

#include <QProcess>

namespace {

constexpr int crashedExitCode = -1;
constexpr int notStartedExitCode = -2;
constexpr int checkIntervalMs = 50;

/// Runs `program` with one argument to its end and returns its exit code. Drops the program's
/// output, because the log contains only the daemon's own lines. Kills the program after a quit
/// signal. A program that hangs does not make the service manager restart the daemon, because the
/// next daemon would run it again.
int exitCodeOf(const QString &program, const QString &argument)
{
    QProcess process;
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(program, {argument});
    if (!process.waitForStarted(-1))
        return notStartedExitCode;
    while (!process.waitForFinished(checkIntervalMs) && process.state() != QProcess::NotRunning) {
        if (quitRequested())
            process.kill();
        ServiceNotifier::notifyWhileBlocking();
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : crashedExitCode;
}

int runFuser(const QString &program, const QString &portName, const CommandReport &report)
{
    const QString device = QLatin1String("/dev/") + portName;
    const int exitCode = exitCodeOf(program, device);
    if (report)
        report(program + QLatin1Char(' ') + device, exitCode);
    return exitCode;
}

} // namespace

bool isUsbSerialPortName(const QString &portName)
{
    return portName.startsWith(QLatin1String("ttyUSB")) ||
           portName.startsWith(QLatin1String("ttyACM"));
}

bool isPortFree(const QString &portName, const CommandReport &report)
{
    if (quitRequested())
        return false;
    // fuser exits with 0 if a process has the file open, otherwise with a positive code.
    const int exitCode = runFuser(QStringLiteral("./fuser"), portName, report);
    if (exitCode >= 0)
        return exitCode > 0;
    return runFuser(QStringLiteral("fuser"), portName, report) > 0;
}
