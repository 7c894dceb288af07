#pragma once

#include <QByteArray>

/// The client's end of a connection, on a plain descriptor: nothing is buffered here, and a wait
/// for something to arrive runs the event loop of the test.
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
    /// As much as can be sent without waiting; returns how much that was.
    int sendSome(const QByteArray &bytes);
    /// Everything that has arrived so far.
    const QByteArray &received();
    /// The same, and forgets it.
    QByteArray take();
    /// Whether the other side has closed the connection.
    bool hasEnded();

    /// Nothing more will be sent; replies are still read.
    void halfClose();
    void close();
    /// Breaks the connection off without a word.
    void reset();

private:
    int m_descriptor;
    QByteArray m_received;
    bool m_ended = false;
};

/// Two ends of one connection; the second one is nobody's yet.
struct DescriptorPair
{
    int clientEnd;
    int serverEnd;
};

/// A local connection without a network.
DescriptorPair localPair();
/// A TCP connection over the loopback device.
DescriptorPair tcpPair();
