#pragma once

#include "json.h"

#include <cstdint>
#include <optional>
#include <string>

namespace gateway {

/// The newest message with changes. When viewers are served one after another, most of them need
/// the same one, and its JSON takes longer than its sending.
class NewestChange
{
public:
    /// The changes since a version of the picture. Two views of the same time must be equal.
    const std::string &text(const View &view, std::uint64_t since);

private:
    std::optional<Clock::time_point> m_time; ///< of the view
    std::uint64_t m_since = 0;
    std::string m_text;
};

/// The position of one viewer in the stream. It is a few numbers and keeps no messages, so a slow
/// viewer costs no memory: when the viewer can take more, it gets what is new then.
class StreamCursor
{
public:
    /// Changes come at most 10 times a second, and at least once a second.
    static constexpr std::chrono::milliseconds shortestPause{100};
    static constexpr std::chrono::milliseconds longestPause{1000};
    /// A viewer that got nothing for so long has missed changes. It gets the whole picture.
    static constexpr std::chrono::milliseconds tooSlow{3000};

    /// The messages for the viewer: empty if there is nothing to say yet.
    std::string next(const View &view, const Viewer &viewer, NewestChange &change);

private:
    void appendNew(std::string &text, const View &view);
    bool isChangeDue(const View &view) const;

    std::optional<Clock::time_point> m_lastChange; ///< empty before the first message
    std::uint64_t m_picture = 0;
    std::uint64_t m_event = 0;
    std::uint64_t m_jobs = 0;
    std::uint64_t m_lease = 0; ///< the number of the lease; 0 while it is free
};

} // namespace gateway
