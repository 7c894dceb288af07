#include "gripper/connection.h"

#include "gripper/errors.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <charconv>
#include <cstddef>

namespace gripper {

namespace {

constexpr int maxPort = 65535;

[[noreturn]] void failByText(const std::string &text)
{
    throw InvalidValue("\"" + text +
                       "\" is no address: use HOST, HOST:PORT, an IPv6 address or [ADDRESS]:PORT");
}

int portIn(std::string_view digits, const std::string &text)
{
    int port = 0;
    const char *const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, port);
    if (error != std::errc() || stop != end || port < 1 || port > maxPort)
        failByText(text);
    return port;
}

/// Several colons without brackets: an address. A zone may follow.
bool isIpv6(std::string_view host)
{
    in6_addr address{};
    return ::inet_pton(AF_INET6, std::string(host.substr(0, host.find('%'))).c_str(), &address) ==
           1;
}

bool isHostCharacter(char c)
{
    return c > ' ' && c <= '~' && c != '[' && c != ']';
}

} // namespace

Endpoint Endpoint::fromText(const std::string &text, int port)
{
    const std::string_view view(text);
    std::string_view host = view;
    std::string_view portText;
    const std::size_t colon = view.rfind(':');
    if (!view.empty() && view.front() == '[') {
        const std::size_t bracket = std::min(view.find(']'), view.size());
        host = view.substr(1, bracket - 1);
        portText = view.substr(std::min(bracket + 1, view.size()));
        if (bracket == view.size() || (!portText.empty() && portText.front() != ':'))
            failByText(text);
    } else if (colon != std::string_view::npos && view.find(':') == colon) {
        host = view.substr(0, colon);
        portText = view.substr(colon);
    } else if (colon != std::string_view::npos && !isIpv6(view)) {
        failByText(text);
    }
    if (host.empty() || !std::all_of(host.begin(), host.end(), isHostCharacter))
        failByText(text);
    if (!portText.empty())
        port = portIn(portText.substr(1), text);
    if (port < 1 || port > maxPort)
        throw InvalidValue("a port is a number from 1 to 65535, not " + std::to_string(port));
    return {std::string(host), port};
}

std::string Endpoint::text() const
{
    const bool isIpv6 = host.find(':') != std::string::npos;
    return (isIpv6 ? '[' + host + ']' : host) + ':' + std::to_string(port);
}

} // namespace gripper
