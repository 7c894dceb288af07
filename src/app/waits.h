#pragma once

class QObject;

/// Pauses the caller for about `ms` milliseconds while the thread's events keep being dispatched:
/// client requests, timers and serial data are handled inside the pause, so whatever they may
/// change has to be looked at again afterwards. 0 passes once through the event loop.
/// Once the application has been told to quit, the pause ends at once.
void qSleepWhileProcessingEvents(int ms);

/// Pumps events until `sender` emits `signal` (a string as SIGNAL() makes it) or until `timeoutMs`
/// milliseconds have passed; 0 or less waits without limit.
/// Returns whether the wait timed out: true after a time-out, false when the signal came first.
bool qWaitForSignalWhileProcessingEvents(const QObject &sender, const char *signal, int timeoutMs);
