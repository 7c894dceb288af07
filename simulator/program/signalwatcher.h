#pragma once

#include <QObject>
#include <QSocketNotifier>

#include <memory>

namespace sim {

/// Emits quitRequested() from the event loop on SIGINT, SIGTERM, SIGHUP and SIGQUIT. A process must
/// have only one instance at a time.
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
