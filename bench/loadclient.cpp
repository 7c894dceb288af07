#include "loadclient.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <err.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::size_t bytesPerRead = std::size_t(64) * 1024;
constexpr std::int64_t nanosecondsPerSecond = 1'000'000'000;

} // namespace

std::int64_t nowNs()
{
    timespec now{};
    ::clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * nanosecondsPerSecond + now.tv_nsec;
}

LoadClient::LoadClient(std::uint16_t port, std::string_view reply)
    : m_descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
    , m_reply(reply)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (m_descriptor < 0 ||
        ::connect(m_descriptor, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        err(1, "connecting to port %u", unsigned(port));
    const int on = 1;
    ::setsockopt(m_descriptor, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

LoadClient::LoadClient(LoadClient &&other) noexcept
    : m_descriptor(std::exchange(other.m_descriptor, -1))
    , m_reply(other.m_reply)
    , m_offset(other.m_offset)
    , m_isSkipping(other.m_isSkipping)
    , m_wrong(other.m_wrong)
    , m_batches(std::move(other.m_batches))
    , m_pending(other.m_pending)
{
}

LoadClient::~LoadClient()
{
    if (m_descriptor >= 0)
        ::close(m_descriptor);
}

void LoadClient::send(const std::string &bytes, unsigned count, std::int64_t dueAt)
{
    m_batches.push_back({dueAt, nowNs(), count});
    m_pending += count;
    const ssize_t sent =
        ::send(m_descriptor, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (sent != static_cast<ssize_t>(bytes.size()))
        err(1, "sent %zd of %zu bytes", sent, bytes.size());
}

unsigned LoadClient::receive()
{
    static std::array<char, bytesPerRead> buffer;
    const ssize_t received = ::recv(m_descriptor, buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (received == 0)
        errx(1, "the server closed a connection");
    if (received < 0) {
        if (errno == EAGAIN || errno == EINTR)
            return 0;
        err(1, "receiving");
    }
    std::string_view bytes(buffer.data(), static_cast<std::size_t>(received));
    unsigned completed = 0;
    while (!bytes.empty())
        completed += m_isSkipping ? skipToLineFeed(bytes) : compare(bytes);
    return completed;
}

unsigned LoadClient::skipToLineFeed(std::string_view &bytes)
{
    const std::size_t end = bytes.find('\n');
    if (end == std::string_view::npos) {
        bytes = {};
        return 0;
    }
    bytes.remove_prefix(end + 1);
    m_isSkipping = false;
    return 1;
}

unsigned LoadClient::compare(std::string_view &bytes)
{
    const std::size_t size = std::min(bytes.size(), m_reply.size() - m_offset);
    if (std::memcmp(bytes.data(), m_reply.data() + m_offset, size) != 0) {
        ++m_wrong;
        m_offset = 0;
        m_isSkipping = true;
        return 0;
    }
    bytes.remove_prefix(size);
    m_offset += size;
    if (m_offset < m_reply.size())
        return 0;
    m_offset = 0;
    return 1;
}

LoadClient::Batch LoadClient::takeAnswered(unsigned most)
{
    if (m_batches.empty())
        errx(1, "a reply without a request");
    Batch answered = m_batches.front();
    answered.count = std::min(answered.count, most);
    m_pending -= answered.count;
    m_batches.front().count -= answered.count;
    if (m_batches.front().count == 0)
        m_batches.pop_front();
    return answered;
}
