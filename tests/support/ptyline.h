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

    /// Queues the answer to one request, which is complete after `requestLength` bytes. The pieces
    /// of `answer` follow at intervals of `delayMs`, the first one `delayMs` after the request.
    void queueAnswer(int requestLength, const QList<QByteArray> &answer, int delayMs = 0);

    /// The requests in their order. Bytes without a queued answer are one more request.
    QList<QByteArray> requests() const;

    /// The number of requests that arrived before the end of an earlier answer.
    int overlaps() const { return m_overlaps; }

    /// Sends `bytes` at once, also without a request.
    void send(const QByteArray &bytes);

    /// Blocks without pumping events until the kernel holds `count` bytes for the port's reader.
    /// Returns false after a second.
    bool blockUntilUnread(int count) const;

    /// The number of bytes that the kernel holds for the port's reader.
    int unreadCount() const;

    /// The descriptor of the line end, for a thread that reads the bytes from the port.
    int lineEnd() const { return m_pty.lineEnd(); }

    /// Hangs up the line, as the removal of an adapter does.
    void hangUp();

    /// Stops or restarts the transmission from the port end.
    void setTransmissionStopped(bool stopped);

    /// The settings of the port end, from tcgetattr().
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
    QList<Exchange> m_exchanges;
    int m_piecesDue = 0;
    int m_overlaps = 0;
};
