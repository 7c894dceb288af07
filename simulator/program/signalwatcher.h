#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <memory>

namespace sim {

/// Turns SIGINT, SIGTERM, SIGHUP and SIGQUIT into a signal of the event loop. One at a time in
/// a process.
class SignalWatcher : public QObject
{
    Q_OBJECT

public:
    explicit SignalWatcher(QObject *parent = nullptr);
    ~SignalWatcher() override;

signals:
    void quitRequested();

private:
    std::unique_ptr<QSocketNotifier> m_notifier;
};

} // namespace sim
