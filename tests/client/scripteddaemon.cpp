#include "scripteddaemon.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <stdexcept>
#include <vector>

namespace {

void check(bool succeeded)
{
    if (!succeeded)
        throw std::runtime_error("the scripted daemon cannot use the network");
}

int numberAfter(const std::string &request, const std::string &name)
{
    const auto position = request.find(' ' + name + ' ');
    return position == std::string::npos ? 0
                                         : std::atoi(request.c_str() + position + name.size() + 2);
}

} // namespace

ScriptedDaemon::ScriptedDaemon(unsigned seed, std::chrono::milliseconds latest)
    : m_random(seed)
    , m_latest(latest)
    , m_listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0))
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto *const generic = reinterpret_cast<sockaddr *>(&address);
    check(m_listener >= 0 && ::bind(m_listener, generic, length) == 0 &&
          ::listen(m_listener, 64) == 0 && ::getsockname(m_listener, generic, &length) == 0 &&
          ::pipe(m_wake) == 0);
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { run(); });
}

ScriptedDaemon::~ScriptedDaemon()
{
    m_ends = true;
    ::close(m_wake[1]);
    m_thread.join();
    for (const Client &client : m_clients)
        ::close(client.socket);
    ::close(m_wake[0]);
    ::close(m_listener);
}

std::string ScriptedDaemon::valueOf(std::string_view name)
{
    unsigned value = 0;
    for (const char c : name)
        value = value * 131 + static_cast<unsigned char>(c);
    return std::to_string(value);
}

void ScriptedDaemon::run()
{
    while (!m_ends) {
        poll();
        for (Client &client : m_clients)
            sendDue(client);
        m_clients.remove_if([](const Client &client) {
            if (client.hasEnded)
                ::close(client.socket);
            return client.hasEnded;
        });
    }
}

void ScriptedDaemon::poll()
{
    std::vector<pollfd> sockets{{m_listener, POLLIN, 0}, {m_wake[0], POLLIN, 0}};
    std::vector<Client *> clients;
    auto next = Clock::now() + std::chrono::seconds(1);
    for (Client &client : m_clients) {
        sockets.push_back({client.socket, POLLIN, 0});
        clients.push_back(&client);
        if (!client.pieces.empty())
            next = std::min(next, client.pieces.front().due);
    }
    const auto wait = std::max(next - Clock::now(), Clock::duration::zero());
    const timespec time{0, static_cast<long>(std::chrono::nanoseconds(wait).count() % 1000000000)};
    if (::ppoll(sockets.data(), sockets.size(), &time, nullptr) <= 0)
        return;
    for (std::size_t i = 0; i < clients.size(); ++i) {
        if (sockets[i + 2].revents != 0)
            read(*clients[i]);
    }
    if (sockets[0].revents != 0)
        accept();
}

void ScriptedDaemon::accept()
{
    const int socket = ::accept4(m_listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (socket < 0)
        return;
    const int on = 1;
    ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    static constexpr int shares[] = {0, 20, 300};
    m_clients.push_back({socket, shares[random(static_cast<int>(std::size(shares)))], {}, {}});
}

void ScriptedDaemon::read(Client &client)
{
    std::array<char, 4096> bytes{};
    const ssize_t count = ::recv(client.socket, bytes.data(), bytes.size(), 0);
    if (count == 0 || (count < 0 && errno != EAGAIN))
        client.hasEnded = true;
    if (count <= 0)
        return;
    client.received.append(bytes.data(), static_cast<std::size_t>(count));
    std::size_t end = 0;
    while ((end = client.received.find('\n')) != std::string::npos) {
        answer(client, client.received.substr(0, end));
        client.received.erase(0, end + 1);
    }
}

void ScriptedDaemon::answer(Client &client, const std::string &request)
{
    const std::string reply = replyTo(request);
    const auto late = std::chrono::microseconds(
        random(static_cast<int>(std::chrono::microseconds(m_latest).count())));
    if (random(1000) >= client.badOf1000) {
        schedule(client, reply, Clock::duration::zero());
        return;
    }
    // Without a name, a reply to a SET that comes twice looks right. So a SET has fewer cases.
    const bool isSet = request[0] == 'S';
    switch (random(isSet ? 8 : 9)) {
    case 0: // late
        schedule(client, reply, late);
        break;
    case 1: // missing
        break;
    case 2: { // in pieces, down to single bytes
        std::string rest = reply;
        while (!rest.empty()) {
            const auto length = static_cast<std::size_t>(1 + random(3));
            schedule(client, rest.substr(0, length), late / 8);
            rest.erase(0, std::min(rest.size(), length));
        }
        break;
    }
    case 3: // closed, within the reply too
        schedule(client, reply.substr(0, static_cast<std::size_t>(random(4))), late / 4);
        client.pieces.push_back({Clock::now() + late, {}, random(2) == 0});
        break;
    case 4: // something else
        schedule(client, garbage(), late / 4);
        break;
    case 5: // the reply of another request first
        schedule(client, isSet ? "POS 3\n" : "ack", late / 4);
        schedule(client, reply, late / 4);
        break;
    case 6: // more than the reply
        schedule(client, reply + (random(2) == 0 ? reply : garbage()), late / 4);
        break;
    case 7: // refused
        schedule(client, isSet ? "nak" : request.substr(4, 3) + " ?\n", late / 8);
        break;
    case 8: // unexpected bytes after the reply
        schedule(client, reply, Clock::duration::zero());
        schedule(client, reply, late);
        break;
    }
}

/// Pieces keep their order: TCP does so, too.
void ScriptedDaemon::schedule(Client &client, const std::string &reply, Clock::duration delay)
{
    if (reply.empty())
        return;
    auto due = Clock::now() + delay;
    if (!client.pieces.empty())
        due = std::max(due, client.pieces.back().due + delay / 16);
    client.pieces.push_back({due, reply});
}

void ScriptedDaemon::sendDue(Client &client)
{
    while (!client.hasEnded && !client.pieces.empty() &&
           client.pieces.front().due <= Clock::now()) {
        const Piece piece = client.pieces.front();
        client.pieces.pop_front();
        if (piece.bytes.empty()) {
            const linger reset{1, 0};
            if (piece.resets)
                ::setsockopt(client.socket, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            client.hasEnded = true;
        } else if (::send(client.socket, piece.bytes.data(), piece.bytes.size(), MSG_NOSIGNAL) <
                   0) {
            client.hasEnded = true;
        }
    }
}

std::string ScriptedDaemon::replyTo(const std::string &request)
{
    if (request.compare(0, 4, "SET ") == 0)
        return numberAfter(request, "POS") % 2 == 0 ? "ack" : "nak";
    const std::string name = request.substr(4, 3);
    static const std::string fixed[][2] = {
        {"DRI", "RUNNING"}, {"SID", "[2, 9]"}, {"UPG", "0"}, {"PRE", "100"}, {"POS", "100"}};
    for (const auto &row : fixed) {
        if (row[0] == name)
            return name + ' ' + row[1] + '\n';
    }
    static const std::string states[][3] = {
        {"STA", "3", "0"}, {"GTO", "1", "0"}, {"FLT", "00", "12"}, {"OBJ", "3", "2"}};
    for (const auto &row : states) {
        if (row[0] == name)
            return name + ' ' + row[random(8) == 0 ? 2 : 1] + '\n';
    }
    const bool isFlag = name == "ACT" || name[0] == 'L';
    return name + ' ' + (isFlag ? "0" : valueOf(name)) + '\n';
}

std::string ScriptedDaemon::garbage()
{
    static const std::string texts[] = {
        "HTTP/1.1 400 Bad Request\r\n\r\n", "ac", "ackack", "?\n", "POS ", "\n", "SID [\n"};
    if (random(2) == 0)
        return texts[static_cast<std::size_t>(random(static_cast<int>(std::size(texts))))];
    std::string bytes(static_cast<std::size_t>(1 + random(2000)), ' ');
    std::generate(bytes.begin(), bytes.end(), [this] { return static_cast<char>(random(256)); });
    return bytes;
}

int ScriptedDaemon::random(int below)
{
    return std::uniform_int_distribution<int>(0, std::max(0, below - 1))(m_random);
}
