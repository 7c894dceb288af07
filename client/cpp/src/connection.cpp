#include "gripper/connection.h"

#include "gripper/errors.h"

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <memory>
#include <system_error>
#include <utility>

namespace gripper {

namespace {

using Clock = Deadline::Clock;

constexpr Seconds longestTimeout{86400};
// Between two calls of Options::onWaiting.
constexpr Clock::duration slice = std::chrono::milliseconds(50);

struct AddressListDeleter
{
    void operator()(addrinfo *list) const { ::freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddressListDeleter>;

std::string systemText(int error)
{
    return std::generic_category().message(error);
}

std::string secondsText(Seconds time)
{
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "%g s", time.count());
    return text.data();
}

timespec timespecOf(Clock::duration time)
{
    const auto positive = std::max(time, Clock::duration::zero());
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(positive);
    const auto rest = std::chrono::duration_cast<std::chrono::nanoseconds>(positive - seconds);
    timespec result{};
    result.tv_sec = static_cast<time_t>(seconds.count());
    result.tv_nsec = static_cast<long>(rest.count());
    return result;
}

/// Waits until the descriptor is ready, until a signal arrives, or until `end`. With
/// Options::onWaiting, it waits at most 50 ms and then calls it. Returns whether the descriptor is
/// ready.
bool waitOnce(pollfd *descriptor, Clock::time_point end, const Options &options)
{
    const Clock::duration left = end - Clock::now();
    const timespec time = timespecOf(options.onWaiting ? std::min(slice, left) : left);
    if (::ppoll(descriptor, descriptor == nullptr ? 0 : 1, &time, nullptr) > 0)
        return true;
    if (options.onWaiting)
        options.onWaiting();
    return false;
}

/// Returns false if the socket is not ready at `end`.
bool waitUntilReady(int socket, short events, Clock::time_point end, const Options &options)
{
    pollfd descriptor{socket, events, 0};
    // A socket that is ready when the time is over has won.
    while (!waitOnce(&descriptor, end, options)) {
        if (Clock::now() >= end)
            return false;
    }
    return true;
}

AddressList addressesOf(const Endpoint &endpoint)
{
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo *list = nullptr;
    const int result =
        ::getaddrinfo(endpoint.host.c_str(), std::to_string(endpoint.port).c_str(), &hints, &list);
    if (result != 0) {
        throw ConnectionLost("there is no host \"" + endpoint.host + "\" (" +
                             ::gai_strerror(result) + "): check the address");
    }
    return AddressList(list);
}

int countOf(const addrinfo *list)
{
    int count = 0;
    for (; list != nullptr; list = list->ai_next)
        ++count;
    return count;
}

/// Connects a non-blocking socket. Returns 0 or the error.
int finishConnecting(int socket, const addrinfo &address, Clock::time_point end,
                     const Options &options)
{
    if (::connect(socket, address.ai_addr, address.ai_addrlen) == 0)
        return 0;
    if (errno != EINPROGRESS && errno != EINTR)
        return errno;
    if (!waitUntilReady(socket, POLLOUT, end, options))
        return ETIMEDOUT;
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length) != 0)
        return errno;
    return error;
}

std::string firstRequest(const Batch &batch)
{
    return batch.bytes().substr(0, batch.bytes().find('\n'));
}

bool isTemporary(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

} // namespace

Deadline::Deadline(Seconds timeout)
    : m_timeout(timeout)
{
    // This also refuses NaN.
    if (!(timeout > Seconds::zero()))
        throw InvalidValue("a timeout is greater than 0 s, unlike " + secondsText(timeout));
    m_at = Clock::now() +
           std::chrono::duration_cast<Clock::duration>(std::min(timeout, longestTimeout));
}

Connection::Connection(Endpoint endpoint, Options options, std::optional<int> gripper)
    : m_endpoint(std::move(endpoint))
    , m_options(std::move(options))
    , m_gripper(gripper)
{
}

Connection::~Connection()
{
    close();
}

Connection::Connection(Connection &&other) noexcept
    : m_endpoint(std::move(other.m_endpoint))
    , m_options(std::move(other.m_options))
    , m_gripper(other.m_gripper)
    , m_isListed(other.m_isListed)
    , m_socket(std::exchange(other.m_socket, -1))
{
}

Connection &Connection::operator=(Connection &&other) noexcept
{
    close();
    m_endpoint = std::move(other.m_endpoint);
    m_options = std::move(other.m_options);
    m_gripper = other.m_gripper;
    m_isListed = other.m_isListed;
    m_socket = std::exchange(other.m_socket, -1);
    return *this;
}

const std::vector<Reply> &Connection::exchange(const Batch &batch, const Deadline &deadline,
                                               Renewal renewal)
{
    if (isOpen() && hasEnded())
        close();
    const bool isFirst = !isOpen();
    if (isFirst && renewal == Renewal::Refused)
        throw ConnectionLost("lost the connection to " + m_endpoint.text() +
                             ": has gripperd ended?");
    try {
        return exchangeOnce(batch, deadline);
    } catch (const ConnectionLost &) {
        if (isFirst || renewal == Renewal::Refused || !batch.sets().empty())
            throw;
    }
    return exchangeOnce(batch, deadline);
}

std::string Connection::get(std::string_view name, const Deadline &deadline)
{
    Batch batch;
    batch.get(name);
    return std::string(exchange(batch, deadline).front().value);
}

bool Connection::set(const std::vector<Pair> &pairs, const Deadline &deadline)
{
    Batch batch;
    batch.set(pairs);
    return exchange(batch, deadline).front().isAcknowledged();
}

bool Connection::open(const Deadline &deadline)
{
    if (isOpen())
        return m_isListed;
    try {
        connectTo(deadline);
        if (m_gripper) {
            Batch selection;
            selection.set({{"SID", *m_gripper}});
            transfer(selection, deadline, {});
            m_isListed = m_reader.replies().front().isAcknowledged();
        }
    } catch (...) {
        close();
        throw;
    }
    return m_isListed;
}

void Connection::close() noexcept
{
    if (m_socket >= 0)
        ::close(std::exchange(m_socket, -1));
}

void Connection::pause(Seconds time, const Deadline &deadline) const
{
    const auto end =
        std::min(deadline.at(), Clock::now() + std::chrono::duration_cast<Clock::duration>(time));
    while (Clock::now() < end)
        waitOnce(nullptr, end, m_options);
}

const std::vector<Reply> &Connection::exchangeOnce(const Batch &batch, const Deadline &deadline)
{
    open(deadline);
    try {
        transfer(batch, deadline, batch.sets());
    } catch (...) {
        close();
        throw;
    }
    return m_reader.replies();
}

void Connection::connectTo(const Deadline &deadline)
{
    const AddressList addresses = addressesOf(m_endpoint);
    int left = countOf(addresses.get());
    int error = 0;
    for (const addrinfo *address = addresses.get(); address != nullptr;
         address = address->ai_next) {
        // An address that does not answer leaves time for the others.
        const auto now = Clock::now();
        const auto end = now + (deadline.at() - now) / left--;
        m_socket = ::socket(address->ai_family, address->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC,
                            address->ai_protocol);
        error = m_socket < 0 ? errno : finishConnecting(m_socket, *address, end, m_options);
        if (error == 0) {
            const int on = 1;
            ::setsockopt(m_socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            return;
        }
        close();
    }
    if (deadline.isOver()) {
        throw TimedOut("no connection to " + m_endpoint.text() + " within " +
                       secondsText(deadline.timeout()) + ": check the address and the network");
    }
    if (error == ECONNREFUSED)
        throw ConnectionLost("nothing listens on " + m_endpoint.text() + ": is gripperd running?");
    throw ConnectionLost("cannot connect to " + m_endpoint.text() + " (" + systemText(error) +
                         "): check the address and the network");
}

/// Also true if bytes have arrived that belong to no request: later replies would be misread.
bool Connection::hasEnded()
{
    char byte = 0;
    return ::recv(m_socket, &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0 || !isTemporary(errno);
}

/// Sends the batch and reads its replies into m_reader. On an error the caller closes the
/// connection.
void Connection::transfer(const Batch &batch, const Deadline &deadline, const std::string &unknown)
{
    m_reader.expect(batch);
    const Exchange exchange{batch, deadline, unknown};
    send(exchange);
    try {
        while (!m_reader.isComplete())
            receive(exchange);
    } catch (const ProtocolError &error) {
        throw ProtocolError(error.what(), unknown);
    }
}

void Connection::send(const Exchange &exchange)
{
    std::string_view rest = exchange.batch.bytes();
    while (!rest.empty()) {
        const ssize_t count = ::send(m_socket, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (count >= 0)
            rest.remove_prefix(static_cast<std::size_t>(count));
        else if (!isTemporary(errno))
            failByLoss(exchange, errno);
        else
            waitFor(POLLOUT, exchange);
    }
}

void Connection::receive(const Exchange &exchange)
{
    std::array<char, 4096> bytes{};
    waitFor(POLLIN, exchange);
    const ssize_t count = ::recv(m_socket, bytes.data(), bytes.size(), 0);
    if (count > 0)
        m_reader.append({bytes.data(), static_cast<std::size_t>(count)});
    else if (count == 0)
        failByLoss(exchange, 0);
    else if (!isTemporary(errno))
        failByLoss(exchange, errno);
}

void Connection::waitFor(short events, const Exchange &exchange)
{
    // A peer that sends byte by byte must not prolong the call either.
    if (!exchange.deadline.isOver() &&
        waitUntilReady(m_socket, events, exchange.deadline.at(), m_options))
        return;
    throw TimedOut("no answer to \"" + firstRequest(exchange.batch) + "\" within " +
                       secondsText(exchange.deadline.timeout()) +
                       ": gripperd may be busy with the line",
                   exchange.unknown);
}

void Connection::failByLoss(const Exchange &exchange, int error) const
{
    const std::string cause = error == 0 ? "" : " (" + systemText(error) + ")";
    throw ConnectionLost("lost the connection to " + m_endpoint.text() +
                             " while waiting for the answer to \"" + firstRequest(exchange.batch) +
                             "\"" + cause + ": has gripperd ended?",
                         exchange.unknown);
}

} // namespace gripper
