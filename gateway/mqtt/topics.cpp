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
    const std::string_view end = "/command";
    if (topic.size() < begin.size() + end.size() || topic.rfind(begin, 0) != 0)
        return std::nullopt;
    const std::string_view rest = std::string_view(topic).substr(begin.size());
    const std::string_view id = rest.substr(0, rest.size() - end.size());
    return rest.substr(id.size()) == end ? numberIn(id, 1, maxId) : std::nullopt;
}

bool isNodeName(const std::string &name)
{
    return !name.empty() && name.size() <= maxName &&
           std::all_of(name.begin(), name.end(), [](char c) {
               return c > ' ' && c <= '~' && c != '/' && c != '+' && c != '#';
           });
}

} // namespace gateway
