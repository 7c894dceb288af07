#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>

/// Nanoseconds on the monotonic clock.
std::int64_t nowNs();

/// One connection of the load program. It repeats one request and compares every received byte with
/// the expected reply. It ends the program if the connection fails, breaks, or takes only part of a
/// batch.
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

    /// Requests of one send that wait for their replies.
    struct Batch
    {
        std::int64_t dueAt;
        std::int64_t sentAt;
        unsigned count;
    };

    /// Sends `bytes` with `count` requests in one piece. They were due at `dueAt`.
    void send(const std::string &bytes, unsigned count, std::int64_t dueAt);

    /// Takes all input. Returns the number of replies that it completed, right or wrong.
    unsigned receive();

    /// Removes up to `most` requests of the oldest batch, and returns them.
    Batch takeAnswered(unsigned most);

    /// Requests that wait for their reply.
    std::size_t pending() const { return m_pending; }

    /// Replies that differ from the expected one.
    std::uint64_t wrongReplies() const { return m_wrong; }

    /// Whether the last reply is incomplete.
    bool isInsideReply() const { return m_offset > 0 || m_isSkipping; }

private:
    unsigned skipToLineFeed(std::string_view &bytes);
    unsigned compare(std::string_view &bytes);

    int m_descriptor = -1;
    std::string_view m_reply;
    std::size_t m_offset = 0;  ///< bytes received of the current reply
    bool m_isSkipping = false; ///< after a wrong byte, up to the next line feed
    std::uint64_t m_wrong = 0;
    std::deque<Batch> m_batches;
    std::size_t m_pending = 0; ///< requests in all batches
};
