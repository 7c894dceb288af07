#pragma once

#include <QObject>
#include <QSocketNotifier>

namespace sim {

/// Reads lines from standard input without blocking the event loop.
class StandardInput : public QObject
{
    Q_OBJECT

public:
    explicit StandardInput(QObject *parent = nullptr);

signals:
    /// One line without its line ending. The last line may have no line ending.
    void lineRead(const QString &line);
    /// Standard input has ended.
    void ended();

private:
    void onReadable();
    void emitLines();
    void end();

    QSocketNotifier m_notifier;
    QByteArray m_pending;
};

} // namespace sim
