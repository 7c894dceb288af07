#pragma once

#include <string>
#include <vector>

namespace gateway {

/// The names under which browsers may address the gateway. A page of another site can make a
/// browser send requests to any address, also under a name of its own that it points to this
/// machine. Such requests show a foreign name or origin.
class Names
{
public:
    struct Settings
    {
        bool hasTls = false;
        unsigned short port = 0;
        std::string machine;              ///< the name of the machine
        std::vector<std::string> names;   ///< further names
        std::vector<std::string> origins; ///< of reverse proxies, such as "https://robot7.plant"
    };

    explicit Names(Settings settings);

    /// Whether the value of a Host header names this gateway. `localAddress` is the address that
    /// the connection reached, without brackets.
    bool isOwnHost(const std::string &host, const std::string &localAddress) const;
    /// Whether the origin is that of a page which this gateway served under this host.
    bool isOwnOrigin(const std::string &origin, const std::string &host) const;
    /// Whether the host is a name of the loopback interface, which no other machine can reach.
    static bool isLoopback(const std::string &host);

private:
    Settings m_settings;
};

/// The host and the port of an authority such as "[::1]:63353". The port may be empty.
struct Authority
{
    std::string host; ///< in lower case, without brackets
    std::string port;

    static Authority fromText(const std::string &text);
};

/// Whether the text is an origin such as "https://robot7.plant", without a path.
bool isOrigin(const std::string &text);

} // namespace gateway
