#pragma once

#include "gripper/protocol.h"

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace gripper {

/// All time spans of this library. A number of milliseconds converts without a cast.
using Seconds = std::chrono::duration<double>;

/// The end of a call.
class Deadline
{
public:
    using Clock = std::chrono::steady_clock;

    /// Throws InvalidValue unless `timeout` is greater than 0. A day is the longest time.
    explicit Deadline(Seconds timeout);

    Clock::time_point at() const noexcept { return m_at; }
    bool isOver() const { return Clock::now() >= m_at; }
    /// The time in the message of TimedOut.
    Seconds timeout() const noexcept { return m_timeout; }

private:
    Seconds m_timeout;
    Clock::time_point m_at;
};

/// The address of a daemon.
struct Endpoint
{
    static constexpr int defaultPort = 63352;

    std::string host = "127.0.0.1"; ///< a name, an IPv4 or an IPv6 address; an IPv6 zone may follow
    int port = defaultPort;

    /// Reads "HOST", "HOST:PORT", "::1", "[::1]:PORT" or "fe80::2%eth0". A text without a port gets
    /// `port`. Throws InvalidValue.
    static Endpoint fromText(const std::string &text, int port = defaultPort);

    /// With brackets around an IPv6 address: "[::1]:63352".
    std::string text() const;
};

/// The way to wait.
struct Options
{
    /// The time of a call without a time of its own and without a movement of a gripper.
    Seconds timeout{5};
    /// Called at least every 50 ms while a call waits, and after each signal that the process
    /// handles. An exception ends the call and closes its connection; this is how to cancel a call.
    std::function<void()> onWaiting = {};
};

/// Owns one socket to the daemon. It opens it with the first exchange. After an error it closes it,
/// so that no later request gets a late reply, and the next exchange opens a new one. Every
/// exchange blocks until its replies have arrived or its deadline is over. Not for several threads
/// at a time.
///
/// The system's resolver looks up host names and does not know the deadline. Addresses need no
/// look-up.
class Connection
{
public:
    /// Does not connect yet. With an id, every new socket first selects this gripper.
    explicit Connection(Endpoint endpoint, Options options = {}, std::optional<int> gripper = {});
    ~Connection();
    Connection(Connection &&other) noexcept;
    Connection &operator=(Connection &&other) noexcept;

    /// Whether an exchange may open a new connection.
    enum class Renewal {
        Allowed, ///< if the old one has ended. A batch of GETs is also sent once more if it ends
                 ///< meanwhile
        Refused  ///< then the exchange throws ConnectionLost
    };

    /// Sends the batch and returns its replies, which are valid until the next exchange. A SET is
    /// never sent twice. Throws ConnectionLost, TimedOut or ProtocolError; unknown() is the SET
    /// whose reply is missing.
    const std::vector<Reply> &exchange(const Batch &batch, const Deadline &deadline,
                                       Renewal renewal = Renewal::Allowed);

    /// The value of one GET, "?" included.
    std::string get(std::string_view name, const Deadline &deadline);

    /// Sends one SET. Returns false for `nak`.
    bool set(const std::vector<Pair> &pairs, const Deadline &deadline);

    /// Opens the connection unless it is open. Returns whether the daemon lists the gripper that
    /// the connection selects; true without one.
    bool open(const Deadline &deadline);

    void close() noexcept;
    bool isOpen() const noexcept { return m_socket >= 0; }

    /// The socket, for a program that reads and writes it itself between two exchanges. Such a
    /// program leaves no reply unread. -1 while the connection is closed.
    int nativeHandle() const noexcept { return m_socket; }

    const Endpoint &endpoint() const noexcept { return m_endpoint; }
    const Options &options() const noexcept { return m_options; }

    /// Waits without traffic, at most until the deadline. Calls Options::onWaiting.
    void pause(Seconds time, const Deadline &deadline) const;

private:
    struct Exchange
    {
        const Batch &batch;
        const Deadline &deadline;
        const std::string &unknown; ///< for the errors
    };

    const std::vector<Reply> &exchangeOnce(const Batch &batch, const Deadline &deadline);
    void connectTo(const Deadline &deadline);
    bool hasEnded();
    void transfer(const Batch &batch, const Deadline &deadline, const std::string &unknown);
    void send(const Exchange &exchange);
    void receive(const Exchange &exchange);
    void waitFor(short events, const Exchange &exchange);
    [[noreturn]] void failByLoss(const Exchange &exchange, int error) const;

    Endpoint m_endpoint;
    Options m_options;
    std::optional<int> m_gripper;
    bool m_isListed = true;
    int m_socket = -1;
    ReplyReader m_reader;
};

} // namespace gripper
