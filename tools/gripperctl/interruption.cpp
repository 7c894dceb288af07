#include "interruption.h"

#include "failure.h"

#include <QElapsedTimer>
#include <QThread>

#include <csignal>

namespace gripperctl {

namespace {

volatile std::sig_atomic_t signalSeen = 0;

constexpr qint64 sliceMs = 50;

} // namespace

extern "C" {
static void noteSignal(int /*number*/)
{
    signalSeen = 1;
}
}

void catchInterruptions()
{
    struct sigaction action = {};
    action.sa_handler = noteSignal;
    // Without SA_RESTART, the signal also ends a read from the terminal.
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    sigemptyset(&action.sa_mask);
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT})
        sigaction(number, &action, nullptr);
}

bool isInterrupted()
{
    return signalSeen != 0;
}

void throwIfInterrupted()
{
    if (isInterrupted())
        throw Failure{ExitCode::Interrupted, QStringLiteral("interrupted")};
}

void pauseFor(int milliseconds)
{
    QElapsedTimer timer;
    timer.start();
    throwIfInterrupted();
    while (timer.elapsed() < milliseconds) {
        const qint64 left = milliseconds - timer.elapsed();
        QThread::msleep(static_cast<unsigned long>(qBound<qint64>(1, left, sliceMs)));
        throwIfInterrupted();
    }
}

} // namespace gripperctl
