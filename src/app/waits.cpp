#include "waits.h"

#include <QEventLoop>
#include <QTimer>

void qSleepWhileProcessingEvents(int ms)
{
    QEventLoop loop;
    QTimer timer;
    // A coarse timer may fire early, but devices need the whole pause.
    timer.setTimerType(Qt::PreciseTimer);
    QObject::connect(&timer, &QTimer::timeout, &loop, &QEventLoop::quit);
    timer.start(ms);
    loop.exec();
}

bool qWaitForSignalWhileProcessingEvents(const QObject &sender, const char *signal, int timeoutMs)
{
    QEventLoop loop;
    QObject::connect(&sender, signal, &loop, SLOT(quit()));
    if (timeoutMs <= 0) {
        loop.exec();
        return false;
    }
    QTimer timer;
    timer.setSingleShot(true);
    timer.start(timeoutMs);
    QObject::connect(&timer, SIGNAL(timeout()), &loop, SLOT(quit()));
    loop.exec();
    return !timer.isActive();
}
