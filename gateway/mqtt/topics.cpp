#include "topics.h"

#include "target.h"

#include <algorithm>
#include <string_view>

namespace gateway {

namespace {

constexpr int maxId = 247;
constexpr std::size_t maxName = 64;

} // namespace

std::optional<int> Topics::gripperOfCommand(const std::string &topic) const
{
    const std::string begin = m_prefix + "gripper/";
    if (topic.rfind(begin, 0) != 0)
        return std::nullopt;
    const std::string_view rest = std::string_view(topic).substr(begin.size());
    const auto id = numberIn(rest.substr(0, rest.find('/')), 1, maxId);
    // A gripper has one topic: the rights at the broker may depend on it.
    return id && topic == ofGripper(*id, "command") ? id : std::nullopt;
}

bool isNodeName(const std::string &name)
{
    return !name.empty() && name.size() <= maxName &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return c > ' ' && c <= '~' && c != '/' && c != '+' && c != '#';
           });
}

} // namespace gateway
