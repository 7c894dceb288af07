// The flashing program that the daemon starts.
#include "failure.h"
#include "firmwarefile.h"
#include "options.h"
#include "parentwatch.h"
#include "serialdevice.h"
#include "serialportlock.h"
#include "standarddescriptors.h"
#include "stm32flashrun.h"

#include <QCoreApplication>
#include <QThread>

#include <cstdio>

#include <unistd.h>

namespace flasher {

namespace {

// Another program may be about to close the port.
constexpr int lockWaitMs = 3000;
// The daemon gives a gripper the same time to restart its firmware.
constexpr unsigned long bootWaitMs = 3000;

/// Keeps other programs off the port while it exists.
struct HeldPort
{
    /// Throws Failure if the port is missing or another process keeps it.
    explicit HeldPort(const QString &device)
        : serialMode(serialModeOf(device))
        , lock(device)
    {
        lock.take(lockWaitMs);
    }

    QString serialMode;
    SerialPortLock lock;
};

/// Call this while the port is held: a scan during the boot would miss the gripper.
void waitForBoot()
{
    QThread::msleep(bootWaitMs);
}

/// Returns whether the present firmware runs.
bool startPresentFirmware(const Options &options)
{
    try {
        const HeldPort port(options.device);
        Stm32FlashRun(options, port.serialMode).start();
        waitForBoot();
        return true;
    } catch (const Failure &) {
        return false;
    }
}

/// Completes the failure of a -g run that wrote nothing: the user must know which firmware runs.
Failure withFirmwareState(const Failure &failure, bool isStarted)
{
    const char *state = isStarted ? "; nothing was written, and the present firmware was started"
                                  : "; nothing was written: switch the gripper off and on to start "
                                    "the present firmware";
    return {failure.code, failure.cause + QLatin1String(state)};
}

/// With -g, starts the present firmware if the image cannot be used.
FirmwareFile imageFor(const Options &options)
{
    try {
        return FirmwareFile(options.imagePath, options.target.capacity);
    } catch (const Failure &failure) {
        if (!options.startsFirmware)
            throw;
        throw withFirmwareState(failure, startPresentFirmware(options));
    }
}

void write(const Options &options, const FirmwareFile &image)
{
    try {
        const HeldPort port(options.device);
        Stm32FlashRun(options, port.serialMode).write(image);
        if (options.startsFirmware)
            waitForBoot();
    } catch (const Failure &failure) {
        const bool isUntouched =
            failure.code == ExitCode::CannotBegin || failure.code == ExitCode::PortFailed;
        if (!options.startsFirmware || !isUntouched)
            throw;
        throw withFirmwareState(failure, false);
    }
}

void run(const Options &options)
{
    if (options.helpText.isEmpty())
        write(options, imageFor(options));
    else
        std::fputs(options.helpText.toLocal8Bit().constData(), stdout);
}

int exitCodeOf(const QStringList &arguments)
{
    try {
        run(Options::fromArguments(arguments));
        return static_cast<int>(ExitCode::Done);
    } catch (const Failure &failure) {
        std::fprintf(stderr, "romflasher: %s\n", lineFor(failure).toLocal8Bit().constData());
        return static_cast<int>(failure.code);
    }
}

} // namespace

} // namespace flasher

int main(int argc, char *argv[])
{
    // The result is false if the parent ended before the kernel could watch it.
    if (!flasher::endWithParent(::getppid()))
        return static_cast<int>(flasher::ExitCode::CannotBegin);
    tools::occupyStandardDescriptors();
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("romflasher"));
    return flasher::exitCodeOf(QCoreApplication::arguments());
}
