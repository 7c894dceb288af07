#pragma once

#include "json.h"
#include "topics.h"

#include <map>
#include <string>
#include <vector>

namespace gateway {

/// Decides which retained topics are due: those whose content has changed, at most five times a
/// second each. It remembers what it has sent, and queues nothing: a slow broker gets the latest
/// values later.
class StatePublisher
{
public:
    static constexpr std::chrono::milliseconds shortestPause{200};

    explicit StatePublisher(const Topics &topics)
        : m_topics(topics)
    {
    }

    /// After this, everything is due: a new connection may lead to a broker that knows nothing.
    void forget();
    /// Returns what is due and treats it as sent.
    std::vector<Message> due(const View &view);

private:
    struct Sent
    {
        std::string content;
        Clock::time_point time;
    };

    void offer(std::vector<Message> &messages, const std::string &topic, Json content,
               const View &view);
    void clearAbsent(std::vector<Message> &messages, const View &view);
    void clear(std::vector<Message> &messages, int gripper);

    const Topics &m_topics;
    std::map<std::string, Sent> m_sent; ///< by topic
    std::uint64_t m_version = 0;        ///< of the picture that was sent completely
    bool m_isFirst = true;              ///< no look at the line yet
};

} // namespace gateway
