#include "names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <string_view>
#include <utility>

namespace gateway {

namespace {

std::string lowered(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char character) {
        return static_cast<char>(std::tolower(character));
    });
    return text;
}

std::string authorityOf(const std::string &origin)
{
    const std::size_t end = origin.find("://");
    return end == std::string::npos ? std::string() : origin.substr(end + 3);
}

bool contains(const std::vector<std::string> &texts, const std::string &text)
{
    return std::find(texts.begin(), texts.end(), text) != texts.end();
}

} // namespace

Authority Authority::fromText(const std::string &text)
{
    // An IPv6 address contains colons, so its brackets end the host.
    const std::size_t bracket = text.rfind(']');
    const std::size_t colon = text.find(':', bracket == std::string::npos ? 0 : bracket);
    Authority authority;
    authority.host = lowered(text.substr(0, colon));
    if (colon != std::string::npos)
        authority.port = text.substr(colon + 1);
    if (authority.host.size() > 1 && authority.host.front() == '[' && authority.host.back() == ']')
        authority.host = authority.host.substr(1, authority.host.size() - 2);
    return authority;
}

bool isOrigin(const std::string &text)
{
    const std::string authority = authorityOf(text);
    const bool hasScheme = text.rfind("https://", 0) == 0 || text.rfind("http://", 0) == 0;
    return hasScheme && !authority.empty() && authority.find_first_of("/?#@ ") == std::string::npos;
}

Names::Names(Settings settings)
    : m_settings(std::move(settings))
{
    m_settings.machine = lowered(m_settings.machine);
    for (std::string &name : m_settings.names)
        name = lowered(name);
    for (std::string &origin : m_settings.origins)
        origin = lowered(origin);
}

bool Names::isOwnHost(const std::string &host, const std::string &localAddress) const
{
    const auto isOfProxy = [&](const std::string &origin) {
        return authorityOf(origin) == lowered(host);
    };
    if (std::any_of(m_settings.origins.begin(), m_settings.origins.end(), isOfProxy))
        return true;
    const Authority authority = Authority::fromText(host);
    const std::string port = std::to_string(m_settings.port);
    const std::string defaultPort = m_settings.hasTls ? "443" : "80";
    if (authority.port != port && !(authority.port.empty() && port == defaultPort))
        return false;
    // Only the machine itself resolves "localhost" to an address of this gateway.
    return authority.host == localAddress ||
           (authority.host == "localhost" && isLoopback(localAddress)) ||
           authority.host == m_settings.machine || contains(m_settings.names, authority.host);
}

bool Names::isOwnOrigin(const std::string &origin, const std::string &host) const
{
    const std::string own = (m_settings.hasTls ? "https://" : "http://") + lowered(host);
    if (origin == own)
        return true;
    return contains(m_settings.origins, origin) && authorityOf(origin) == lowered(host);
}

bool Names::isLoopback(const std::string &host)
{
    const std::string name = Authority::fromText(host).host;
    constexpr std::array<std::string_view, 3> names{"localhost", "127.0.0.1", "::1"};
    // A host without a port may be an IPv6 address without brackets.
    return std::find(names.begin(), names.end(), name) != names.end() || host == "::1";
}

} // namespace gateway
