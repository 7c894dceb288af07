#pragma once

#include <QVector>

#include <csignal>

/// Lets each of `signalNumbers` end the application's event loop with exit code 0. A signal that
/// arrives before the loop runs ends it at its start. Needs an application object. Another call
/// adds signals.
void quitOnSignals(const QVector<int> &signalNumbers);

/// Whether a quit signal has arrived, also while the thread blocks outside of the event loop.
/// Operations that block or repeat check this and end early.
bool quitRequested();

/// Blocks signals while it exists. The process receives the signals that arrived when it ends.
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
