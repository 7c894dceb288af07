#pragma once

#include "filedescriptor.h"
#include "socketpoller.h"

#include <QByteArray>
#include <QObject>

#include <cstddef>
#include <string_view>

/// One client's connection. Owns the descriptor and pumps no events.
///
/// All bytes that the client sent before it closed or reset the connection can still be read. A
/// client that closes only its sending side still gets every reply. While more than `replyLimit`
/// bytes of replies are unsent, the connection does not emit readable().
class ClientConnection : public QObject, private SocketPoller::Listener
{
    Q_OBJECT

public:
    /// In bytes.
    static constexpr int replyLimit = 256 * 1024;

    /// Takes ownership of the connected socket `descriptor`. `poller` must outlive this object.
    ClientConnection(SocketPoller &poller, int descriptor, QObject *parent);

    /// Reads at most `maxSize` bytes and returns their number. Returns 0 if nothing has arrived or
    /// if the client's side has ended.
    std::size_t read(char *bytes, std::size_t maxSize);

    /// Stores a reply until sendReplies(). Drops the reply if the connection can no longer send:
    /// the owner may still process the client's last requests.
    void addReply(std::string_view reply);

    /// Sends the stored replies as far as the kernel accepts them. The rest follows without another
    /// call.
    void sendReplies();

    /// Bytes of replies that the kernel has not accepted yet.
    int unsentBytes() const { return m_unsent.size(); }

    /// Stops readable() until resume(). The client's bytes wait in the kernel. When its buffer is
    /// full, TCP makes the client wait.
    void pause();
    void resume();
    bool isPaused() const { return m_paused; }

    /// Between hold() and release() the connection does not emit ended(). The connection and its
    /// owner's data for it therefore outlive a request. Calls may nest.
    void hold();
    void release();

    /// Shuts the connection down if the peer has neither sent nor acknowledged anything, not even a
    /// keep-alive probe, for more than `limitMs`. If replies are unsent, the kernel itself would
    /// wait a quarter of an hour. Bytes that have arrived can still be read.
    void shutDownIfSilentFor(int limitMs);

    /// Ends the connection: reads nothing more and drops all replies.
    void drop();

signals:
    /// Bytes, or the end of the client's side, can be read. Emitted again and again until read()
    /// takes them, also inside a slot that pumps events.
    void readable();

    /// The client's side has ended, no reply is left to send and nothing holds the connection.
    /// Emitted once, from the event loop. A slot may delete the connection with deleteLater().
    void ended();

private:
    void onReadable() override;
    void onWritable() override;
    void sendUnsent();
    void pauseSending();
    void shutDown();
    void endOutput();
    void updateInterests();
    void emitEndedIfOver();

    FileDescriptor m_descriptor;
    SocketPoller::Registration m_registration;
    QByteArray m_unsent;
    int m_holds = 0;
    bool m_paused = false;
    bool m_sendingPaused = false;
    bool m_inputEnded = false;
    bool m_outputEnded = false;
    bool m_endReported = false;
};

/// Prints "QTcpSocket(0x...)". Log readers identify a connection by this text.
QDebug operator<<(QDebug debug, const ClientConnection *connection);
