#pragma once

#include <QObject>
#include <QSocketNotifier>

namespace sim {

/// Standard input as lines, without ever blocking the event loop.
class StandardInput : public QObject
{
    Q_OBJECT

public:
    explicit StandardInput(QObject *parent = nullptr);

signals:
    /// One line, without its ending. A last line without one counts too.
    void lineRead(const QString &line);
    /// There will be no more lines.
    void ended();

private:
    void onReadable();
    void emitLines();
    void end();

    QSocketNotifier m_notifier;
    QByteArray m_pending;
};

} // namespace sim
