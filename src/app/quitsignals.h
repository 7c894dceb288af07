#pragma once

#include <QVector>

#include <csignal>

/// Makes each of `signalNumbers` end the application's event loop with exit code 0. If a signal
/// arrives before the loop runs, the loop ends at its start. Needs an application object. Another
/// call adds signals.
void quitOnSignals(const QVector<int> &signalNumbers);

/// Whether a quit signal has arrived. Does not need the event loop. Operations that block or repeat
/// check this and end early.
bool quitRequested();

/// Blocks signals until its destruction. The process then receives the signals that arrived
/// meanwhile.
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
