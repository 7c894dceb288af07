#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <sys/types.h>

namespace gateway {

class EventLoop;

/// A socket of the machine on which `gripper-gateway pair` asks for pairing codes. The kernel says
/// who asks: root, the user of the gateway, or a member of the group get an answer.
class PairSocket
{
public:
    /// Gets one line, returns one line.
    using Answer = std::function<std::string(const std::string &line)>;

    /// Replaces an older socket at this path. Throws std::runtime_error.
    PairSocket(EventLoop &loop, const std::string &path, std::optional<gid_t> group, Answer answer);
    ~PairSocket();
    PairSocket(const PairSocket &) = delete;
    PairSocket &operator=(const PairSocket &) = delete;

    void close();

private:
    struct Parts;
    std::shared_ptr<Parts> m_parts;
};

} // namespace gateway
