#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

/// Nanoseconds on the monotonic clock.
std::int64_t nowNs();

/// One connection of the load program: sends the same request over and over and compares every
/// byte that comes back with the one reply that it expects. Ends the program when the connection
/// cannot be made, breaks, or takes less than a whole batch: nothing could be measured then.
class LoadClient
{
public:
    /// Connects to `port` on loopback. `reply` must outlive this object and end with a line feed.
    LoadClient(std::uint16_t port, std::string_view reply);
    ~LoadClient();
    LoadClient(LoadClient &&other) noexcept;
    LoadClient(const LoadClient &) = delete;
    LoadClient &operator=(const LoadClient &) = delete;
    LoadClient &operator=(LoadClient &&) = delete;

    int descriptor() const { return m_descriptor; }

    /// Requests that were sent in one piece and wait for their replies.
    struct Batch
    {
        std::int64_t dueAt;
        std::int64_t sentAt;
        unsigned count;
    };

    /// Sends `bytes`, which hold `count` requests, in one piece. They were to be sent at `dueAt`.
    void send(const std::string &bytes, unsigned count, std::int64_t dueAt);

    /// Takes what has arrived. Returns how many replies it completed, right or wrong.
    unsigned receive();

    /// Of the batch whose replies come next so many requests as it has, `most` at most; forgets
    /// them.
    Batch takeAnswered(unsigned most);

    /// Requests that wait for their reply.
    std::size_t pending() const { return m_pending; }

    /// Replies that were not, byte for byte, the expected one.
    std::uint64_t wrongReplies() const { return m_wrong; }

    /// Whether the last reply began and did not end.
    bool isInsideReply() const { return m_offset > 0 || m_isSkipping; }

private:
    unsigned skipToLineFeed(std::string_view &bytes);
    unsigned compare(std::string_view &bytes);

    int m_descriptor = -1;
    std::string_view m_reply;
    std::size_t m_offset = 0;  ///< how much of the reply has come
    bool m_isSkipping = false; ///< behind a wrong byte, up to the next line feed
    std::uint64_t m_wrong = 0;
    std::deque<Batch> m_batches;
    std::size_t m_pending = 0; ///< requests in all batches
};
