#include "clientend.h"

#include <QString>

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

void insist(bool condition, const char *what)
{
    if (!condition)
        qFatal("%s: %s", what, qPrintable(qt_error_string(errno)));
}

sockaddr *genericAddress(sockaddr_in &address)
{
    return reinterpret_cast<sockaddr *>(&address);
}

sockaddr_in loopback(quint16 port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

} // namespace

ClientEnd::ClientEnd(int descriptor)
    : m_descriptor(descriptor)
{
}

ClientEnd::~ClientEnd()
{
    close();
}

int ClientEnd::connectTo(quint16 port)
{
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    insist(descriptor >= 0, "socket");
    sockaddr_in address = loopback(port);
    insist(::connect(descriptor, genericAddress(address), sizeof address) == 0, "connect");
    return descriptor;
}

void ClientEnd::send(const QByteArray &bytes)
{
    const auto size = static_cast<std::size_t>(bytes.size());
    insist(::send(m_descriptor, bytes.constData(), size, MSG_NOSIGNAL) == bytes.size(), "send");
}

int ClientEnd::sendSome(const QByteArray &bytes)
{
    const auto size = static_cast<std::size_t>(bytes.size());
    const ssize_t sent = ::send(m_descriptor, bytes.constData(), size, MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent > 0 ? static_cast<int>(sent) : 0;
}

const QByteArray &ClientEnd::received()
{
    std::array<char, 65536> bytes{};
    ssize_t count = 0;
    while (m_descriptor >= 0 &&
           (count = ::recv(m_descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT)) > 0)
        m_received.append(bytes.data(), static_cast<int>(count));
    const bool nothingYet = count < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    m_ended = m_descriptor < 0 || !nothingYet;
    return m_received;
}

QByteArray ClientEnd::take()
{
    received();
    return std::exchange(m_received, QByteArray());
}

bool ClientEnd::hasEnded()
{
    received();
    return m_ended;
}

void ClientEnd::halfClose()
{
    insist(::shutdown(m_descriptor, SHUT_WR) == 0, "shutdown");
}

void ClientEnd::close()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
    m_descriptor = -1;
}

void ClientEnd::reset()
{
    const linger atOnce{1, 0};
    insist(::setsockopt(m_descriptor, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce) == 0,
           "linger");
    close();
}

DescriptorPair localPair()
{
    std::array<int, 2> ends{};
    insist(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) == 0, "socketpair");
    return {ends[0], ends[1]};
}

DescriptorPair tcpPair()
{
    const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    insist(listener >= 0 && ::bind(listener, genericAddress(address), length) == 0 &&
               ::listen(listener, 1) == 0 &&
               ::getsockname(listener, genericAddress(address), &length) == 0,
           "listen");
    const int clientEnd = ClientEnd::connectTo(ntohs(address.sin_port));
    const int serverEnd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    insist(serverEnd >= 0, "accept");
    ::close(listener);
    return {clientEnd, serverEnd};
}
