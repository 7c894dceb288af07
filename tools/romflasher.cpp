// The flashing program that the daemon starts.
#include "firmwarefile.h"
#include "flasheroptions.h"
#include "flasheroutcome.h"
#include "parentwatch.h"
#include "serialdevice.h"
#include "serialportlock.h"
#include "stm32flashrun.h"

#include <QCoreApplication>
#include <QThread>

#include <cstdio>

#include <unistd.h>

namespace {
/// A scan that is under way when the line is wanted holds it for less than this.
constexpr int kLockWaitMs = 3000;
/// The time that the daemon, too, gives a gripper to restart its firmware.
constexpr unsigned long kBootWaitMs = 3000;

/// The one line that tells what happened, why and what to do next, on standard error.
int end(FlasherOutcome outcome, const QString &problem)
{
    if (outcome != FlasherOutcome::Done) {
        std::fprintf(stderr, "romflasher: %s\n",
                     lineFor(outcome, problem).toLocal8Bit().constData());
    }
    return static_cast<int>(outcome);
}

/// The port, kept from others for as long as this lives.
struct HeldPort
{
    explicit HeldPort(const QString &device)
        : lock(device)
    {
        serialMode = serialModeOf(device, &problem);
        if (problem.isEmpty() && !lock.take(kLockWaitMs))
            problem = lock.problem();
    }

    QString problem;
    QString serialMode;
    SerialPortLock lock;
};

/// Until the firmware has booted the line stays ours: a scan that came earlier would miss it.
void waitForBoot()
{
    QThread::msleep(kBootWaitMs);
}

/// The end of a run that wrote nothing. A gripper that -g should have started is in its bootloader
/// unless `isStarted`.
int endUnwritten(const FlasherOptions &options, FlasherOutcome outcome, const QString &problem,
                 bool isStarted = false)
{
    if (!options.startsFirmware)
        return end(outcome, problem);
    const char *fate = isStarted
                           ? "; nothing was written, and the firmware that is there was started"
                           : "; nothing was written: switch the gripper off and on to start "
                             "the firmware that is there";
    return end(outcome, problem + QLatin1String(fate));
}

int write(const FlasherOptions &options, const FirmwareFile &image)
{
    const HeldPort port(options.device);
    if (!port.problem.isEmpty())
        return endUnwritten(options, FlasherOutcome::PortFailed, port.problem);
    Stm32FlashRun run(options, port.serialMode);
    const FlasherOutcome outcome = run.write(image);
    if (outcome == FlasherOutcome::CannotBegin || outcome == FlasherOutcome::PortFailed)
        return endUnwritten(options, outcome, run.problem());
    if (outcome == FlasherOutcome::Done && options.startsFirmware)
        waitForBoot();
    return end(outcome, run.problem());
}

bool startPresentFirmware(const FlasherOptions &options)
{
    const HeldPort port(options.device);
    if (!port.problem.isEmpty() ||
        Stm32FlashRun(options, port.serialMode).start() != FlasherOutcome::Done)
        return false;
    waitForBoot();
    return true;
}

int flash(const FlasherOptions &options)
{
    const FirmwareFile image(options.imagePath, options.target.capacity);
    if (image.problem().isEmpty())
        return write(options, image);
    return endUnwritten(options, FlasherOutcome::CannotBegin, image.problem(),
                        options.startsFirmware && startPresentFirmware(options));
}
} // namespace

int main(int argc, char *argv[])
{
    // Whoever started us is gone, should we have another parent already.
    if (!endWithParent(::getppid()))
        return static_cast<int>(FlasherOutcome::CannotBegin);
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("romflasher"));
    const auto options = FlasherOptions::fromArguments(QCoreApplication::arguments());
    switch (options.outcome) {
    case FlasherOptions::Outcome::Explain:
        std::fputs(options.text.toLocal8Bit().constData(), stdout);
        return static_cast<int>(FlasherOutcome::Done);
    case FlasherOptions::Outcome::Refuse:
        return end(FlasherOutcome::CannotBegin, options.text);
    case FlasherOptions::Outcome::Run:
        break;
    }
    return flash(options);
}
