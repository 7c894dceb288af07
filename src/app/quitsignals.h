#pragma once

#include <QVector>

#include <csignal>

/// Lets each of `signalNumbers` end the application's event loop with exit code 0. The handler
/// itself only notes the signal and wakes the event loop; a signal that comes before the loop runs
/// is kept until it does. Needs an application object. Calling it again adds signals.
void quitOnSignals(const QVector<int> &signalNumbers);

/// Whether a quit signal has come. True from the signal's arrival on, also while the thread blocks
/// outside the event loop: operations that block or repeat look here and end early.
bool quitRequested();

/// Holds signals back while it exists; those that came meanwhile are delivered at its end.
class HeldSignals
{
public:
    explicit HeldSignals(const QVector<int> &signalNumbers);
    ~HeldSignals();

    HeldSignals(const HeldSignals &) = delete;
    HeldSignals &operator=(const HeldSignals &) = delete;

private:
    sigset_t m_before;
};
