#pragma once

#include <optional>
#include <string>

namespace gateway {

struct Message
{
    std::string topic;
    std::string payload; ///< an empty one clears a retained topic
    bool isRetained = true;
};

/// The topics of one gateway.
class Topics
{
public:
    explicit Topics(const std::string &node)
        : m_prefix("gripperd/" + node + '/')
    {
    }

    std::string status() const { return m_prefix + "status"; }
    std::string link() const { return m_prefix + "link"; }
    std::string grippers() const { return m_prefix + "grippers"; }
    std::string ofGripper(int id, const char *word) const
    {
        return ofGripper(std::to_string(id), word);
    }
    /// The filter for the commands of all grippers.
    std::string commands() const { return ofGripper("+", "command"); }
    /// The gripper whose commands have this topic. Empty for another topic.
    std::optional<int> gripperOfCommand(const std::string &topic) const;

private:
    std::string ofGripper(const std::string &id, const char *word) const
    {
        return m_prefix + "gripper/" + id + '/' + word;
    }

    std::string m_prefix;
};

/// Whether the name can be one level of a topic.
bool isNodeName(const std::string &name);

} // namespace gateway
