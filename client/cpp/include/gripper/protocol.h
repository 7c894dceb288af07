#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gripper {

/// A variable of SET and its value, such as {"POS", 120}.
using Pair = std::pair<std::string, int>;

/// Requests that travel in one packet, and the forms of their replies. It does no input or output.
class Batch
{
public:
    /// Adds a GET. Throws InvalidValue unless the name has three letters, digits or underscores.
    Batch &get(std::string_view name);

    /// Adds a SET. Throws InvalidValue if there is no pair, if a name is not in setVariables, or if
    /// a value is not from 0 to 255.
    Batch &set(const std::vector<Pair> &pairs);

    const std::string &bytes() const noexcept { return m_bytes; }
    std::size_t size() const noexcept { return m_names.size(); }
    /// All SETs without their line endings, such as "SET POS 10 GTO 1". Empty for a batch of GETs.
    const std::string &sets() const noexcept { return m_sets; }
    /// Whether a SET of the batch has no effect without a gripper.
    bool needsGripper() const noexcept { return m_needsGripper; }

private:
    friend class ReplyReader;
    using Name = std::array<char, 3>;
    static constexpr Name setName{};

    std::string m_bytes;
    std::string m_sets;
    std::vector<Name> m_names; ///< setName for a SET
    bool m_needsGripper = false;
};

/// The reply to one request.
struct Reply
{
    std::string_view name;  ///< in upper case; empty in the reply to a SET
    std::string_view value; ///< "ack" or "nak" in the reply to a SET

    bool isAcknowledged() const noexcept { return name.empty() && value == "ack"; }
    /// Whether there is a value: the daemon replies "?" for a gripper that it does not list.
    bool hasValue() const noexcept { return value != "?"; }
};

/// Cuts the replies to one batch from a stream of bytes. It does no input or output and reads no
/// clock. Its memory is bounded: a longer reply than maxReplyLength is an error.
class ReplyReader
{
public:
    static constexpr std::size_t maxReplyLength = 4096;

    /// Drops all earlier bytes and expects the replies to `batch`, which must exist until the end.
    void expect(const Batch &batch);

    /// Takes the next bytes of the stream, in pieces of any length. Throws ProtocolError if they
    /// are not the replies to the batch, or if bytes follow the last reply. Call expect() after
    /// that.
    void append(std::string_view bytes);

    bool isComplete() const noexcept;

    /// The replies so far, in the order of the batch. They are valid until the next call of
    /// expect() or append().
    const std::vector<Reply> &replies() const noexcept { return m_replies; }

private:
    bool cutReply();
    bool cutAcknowledgement();
    bool cutLine(const Batch::Name &name);
    void endReplyAt(std::size_t position);
    void listReplies();

    const Batch *m_batch = nullptr;
    std::string m_buffer;
    std::size_t m_position = 0;      ///< of the first byte that belongs to no reply yet
    std::size_t m_searched = 0;      ///< no line ending lies between m_position and here
    std::vector<std::size_t> m_ends; ///< of the replies in the buffer
    std::vector<Reply> m_replies;
};

} // namespace gripper
