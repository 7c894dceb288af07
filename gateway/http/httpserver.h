#pragma once

#include "message.h"
#include "streamcursor.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace gateway {

class EventLoop;

/// Serves requests over HTTP/1.1, with or without TLS, and streams of server-sent events.
///
/// Limits protect it. A header has 8 KiB and a body 16 KiB. A request must arrive, and an answer
/// must leave, within 10 s. There are 128 streams and 128 other connections. A new connection
/// replaces the one that has waited for its request for the longest time, so that idle connections
/// keep no viewer out.
class HttpServer
{
public:
    struct Settings
    {
        std::vector<std::string> addresses; ///< to listen on
        unsigned short port = 0;
        std::string certificate; ///< file; empty: without TLS
        std::string key;
        bool skipsMissingAddresses = false; ///< such as ::1 on a machine without IPv6
    };

    struct Faces
    {
        std::function<Response(const Request &)> handle;
        /// The next text of a stream. Without a value, the stream ends.
        std::function<std::optional<std::string>(std::optional<std::uint64_t> session,
                                                 StreamCursor &cursor)>
            next;
    };

    /// Listens. Throws std::runtime_error.
    HttpServer(EventLoop &loop, const Settings &settings, Faces faces);
    ~HttpServer();
    HttpServer(const HttpServer &) = delete;
    HttpServer &operator=(const HttpServer &) = delete;

    /// Sends to each stream what is new.
    void pump();
    /// Stops listening and ends all connections.
    void close();

private:
    struct Parts;
    std::shared_ptr<Parts> m_parts;
};

} // namespace gateway
