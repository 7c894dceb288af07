#pragma once

#include "ptypair.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>

class QSocketNotifier;

/// The far end of a serial line, made of a raw pseudo-terminal. It takes part in the caller's event
/// loop: requests are recorded and answered while the caller pumps events.
class PtyLine : public QObject
{
    Q_OBJECT

public:
    explicit PtyLine(QObject *parent = nullptr);
    ~PtyLine() override;

    /// The full path of the end that a serial port opens.
    QString portName() const { return m_pty.portName(); }

    /// The next request is complete with its `requestLength`-th byte and gets `answer`, in pieces
    /// that are `delayMs` apart, the first one `delayMs` after the request. Calls queue up.
    void script(int requestLength, const QList<QByteArray> &answer, int delayMs = 0);

    /// Requests that were complete, in their order. What came without a script is one more.
    QList<QByteArray> requests() const;

    /// Requests that came while an answer to an earlier one was still due.
    int overlaps() const { return m_overlaps; }

    /// Puts `bytes` on the line at once, whether or not somebody asked.
    void send(const QByteArray &bytes);

    /// Blocks, without pumping events, until `count` bytes wait in the kernel for the port's
    /// reader. False after a second.
    bool blockUntilUnread(int count) const;

    /// How many bytes wait in the kernel for the port's reader.
    int unreadCount() const;

    /// The descriptor of the line's own end, for a thread that reads what the port's end writes.
    int lineEnd() const { return m_pty.lineEnd(); }

    /// Pulls the plug: the port's end sees a line that is hung up.
    void hangUp();

    /// Stops and restarts the line's taking of what the port's end writes.
    void setTransmissionStopped(bool stopped);

    /// The settings that the port's end has chosen, as tcgetattr() tells them.
    struct termios settings() const;

private:
    struct Exchange
    {
        int requestLength;
        QList<QByteArray> answer;
        int delayMs;
    };

    void onReadyRead();
    void sendPieces(const QList<QByteArray> &pieces, int delayMs);

    PtyPair m_pty;
    QSocketNotifier *m_notifier = nullptr;
    QByteArray m_received;
    QList<QByteArray> m_requests;
    QList<Exchange> m_script;
    int m_piecesDue = 0;
    int m_overlaps = 0;
};
