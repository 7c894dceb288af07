#pragma once

#include "socketpoller.h"

#include <QTcpSocket>

#include <optional>
#include <string_view>

/// One client's connection. Does its own reading and writing on the descriptor, so that
/// - what the client had sent before it closed or reset the connection is still read to the end;
/// - a client that closed its sending side still gets every reply, also the one to a request that
///   takes seconds; disconnected() comes when all is read, carried out and sent;
/// - replies leave when sendReplies() is called, not on a later turn of the event loop;
/// - nothing more is read while more than __replyLimit bytes of replies wait for the client to
/// read.
///
/// readyRead() may be emitted again inside a slot that pumps events. Has no meta-object of its own
/// on purpose: to everybody, the log included, it is a QTcpSocket.
class ClientSocket : public QTcpSocket, private SocketPoller::Listener
{
public:
    /// Bytes of replies that are kept for a client that does not read, before its requests wait.
    static constexpr int __replyLimit = 256 * 1024;

    /// `poller` must outlive the socket.
    ClientSocket(SocketPoller &poller, QObject *parent);

    /// The one that emits readyRead() or disconnected() just now, null outside. In a slot the same
    /// as sender(), which however looks through all clients.
    static ClientSocket *notifying() { return __notifying; }

    ~ClientSocket() override;

    /// Takes the descriptor over; it is closed with this object.
    bool setSocketDescriptor(qintptr descriptor, SocketState state, OpenMode openMode) override;

    /// Replies written and not yet taken by the kernel.
    qint64 bytesToWrite() const override;

    /// Keeps the reply for sendReplies(). What QIODevice::write() does, without asking for every
    /// reply what kind of device this is.
    void addReply(std::string_view reply);

    /// Sends what has been written, as far as the kernel takes it now; the rest follows by itself.
    void sendReplies();

    /// While paused nothing is read: what the client sends waits in the kernel, and TCP pushes
    /// back.
    void setPaused(bool paused);
    bool isPaused() const { return m_paused; }

    /// Ends the connection when its peer has sent nothing and acknowledged nothing for more than
    /// `limitMs`, no probe either: with replies on their way the kernel would take a quarter of an
    /// hour for that.
    void giveUpIfUnheardFor(int limitMs);

    /// Ends the connection: nothing more is read, and no reply leaves any more.
    void giveUp();

    /// Between hold() and release() disconnected() is not emitted: a request is being carried out.
    void hold();
    void release();

protected:
    /// -1 when nothing is there, or when the client's side has ended.
    qint64 readData(char *data, qint64 maxSize) override;
    /// Keeps the bytes for sendReplies().
    qint64 writeData(const char *data, qint64 size) override;

private:
    void onReadable() override;
    void onWritable() override;
    void sendUnsent();
    void pauseSending();
    void shutDown();
    void endOutput();
    void updateInterests();
    void reportEndIfOver();

    int m_descriptor = -1;
    static ClientSocket *__notifying;

    SocketPoller &m_poller;
    std::optional<SocketPoller::Registration> m_registration;
    QByteArray m_unsent;
    int m_holds = 0;
    bool m_paused = false;
    bool m_sendingPaused = false;
    bool m_inputEnded = false;
    bool m_outputEnded = false;
    bool m_endReported = false;
};
