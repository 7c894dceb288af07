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

int flash(const FlasherOptions &options)
{
    const FirmwareFile image(options.imagePath, options.target.capacity);
    if (!image.problem().isEmpty())
        return end(FlasherOutcome::CannotBegin, image.problem());
    QString problem;
    const QString serialMode = serialModeOf(options.device, &problem);
    if (!problem.isEmpty())
        return end(FlasherOutcome::PortFailed, problem);
    SerialPortLock lock(options.device);
    if (!lock.take(kLockWaitMs))
        return end(FlasherOutcome::PortFailed, lock.problem());
    Stm32FlashRun run(options, serialMode, image);
    const FlasherOutcome outcome = run.execute();
    // Until the firmware has booted the line stays ours: a scan that came earlier would miss it.
    if (outcome == FlasherOutcome::Done && options.startsFirmware)
        QThread::msleep(kBootWaitMs);
    return end(outcome, run.problem());
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
