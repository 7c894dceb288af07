#pragma once

#include <QByteArray>

/// The client's end of a connection. Uses a plain descriptor without a buffer. Tests wait for bytes
/// in their event loop.
class ClientEnd
{
public:
    /// Takes over `descriptor`.
    explicit ClientEnd(int descriptor);
    ~ClientEnd();

    ClientEnd(const ClientEnd &) = delete;
    ClientEnd &operator=(const ClientEnd &) = delete;

    /// A connection to `port` of 127.0.0.1.
    static int connectTo(quint16 port);

    void send(const QByteArray &bytes);
    /// Sends as much as possible without waiting and returns the number of bytes.
    int sendSome(const QByteArray &bytes);
    /// All bytes that have arrived.
    const QByteArray &received();
    /// Returns the bytes that have arrived and clears them.
    QByteArray take();
    /// Whether the other side has closed the connection.
    bool hasEnded();

    /// Ends the sending side. Replies can still be read.
    void halfClose();
    void close();
    /// Resets the connection.
    void reset();

private:
    int m_descriptor;
    QByteArray m_received;
    bool m_ended = false;
};

/// Two ends of one connection. The test must give `serverEnd` to an owner.
struct DescriptorPair
{
    int clientEnd;
    int serverEnd;
};

/// A local connection without a network.
DescriptorPair localPair();
/// A TCP connection over the loopback device.
DescriptorPair tcpPair();
