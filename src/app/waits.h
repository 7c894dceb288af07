#pragma once

class QObject;

/// Pauses the caller for about `ms` milliseconds and runs the event loop meanwhile. Client
/// requests, timers and serial data are processed during the pause, so the caller must check
/// afterwards everything that they may change. 0 runs the event loop once. After
/// QCoreApplication::quit() every pause ends at once.
void qSleepWhileProcessingEvents(int ms);

/// Runs the event loop until `sender` emits `signal` (a string made by SIGNAL()) or until
/// `timeoutMs` milliseconds have passed. With 0 or less it waits without a limit.
/// Returns true after a time-out, false if the signal arrived first.
bool qWaitForSignalWhileProcessingEvents(const QObject &sender, const char *signal, int timeoutMs);
