#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace gateway {

/// A request as the HTTP server has read it.
struct Request
{
    std::string method;
    std::string target;
    std::string host; ///< empty unless there is exactly one Host header
    std::optional<std::string> origin;
    std::optional<std::string> contentType;
    std::optional<std::string> authorization;
    std::optional<std::string> ifNoneMatch;
    std::optional<std::string> fetchSite; ///< Sec-Fetch-Site: how the page relates to us
    bool isForwarded = false;             ///< a proxy says that it forwards the request of another
    std::string body;
    std::string peerAddress;
    std::string localAddress; ///< the address that the peer reached
};

struct Response
{
    int status = 200;
    std::string contentType;
    std::string body;
    std::string_view staticBody; ///< instead of `body`: bytes that exist until the end
    std::vector<std::pair<const char *, std::string>> headers;
    bool isStream = false;                ///< server-sent events follow
    std::optional<std::uint64_t> session; ///< of the viewer, for a stream
};

} // namespace gateway
