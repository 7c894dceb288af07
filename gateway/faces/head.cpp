#include "head.h"

#include "problem.h"

namespace gateway {

namespace {

const char *reasonOf(int code)
{
    switch (code) {
    case status::ok:
        return "OK";
    case status::created:
        return "Created";
    case status::accepted:
        return "Accepted";
    case status::noContent:
        return "No Content";
    case status::notModified:
        return "Not Modified";
    case status::badRequest:
        return "Bad Request";
    case status::unauthorized:
        return "Unauthorized";
    case status::forbidden:
        return "Forbidden";
    case status::notFound:
        return "Not Found";
    case status::methodNotAllowed:
        return "Method Not Allowed";
    case status::conflict:
        return "Conflict";
    case status::payloadTooLarge:
        return "Payload Too Large";
    case status::unsupportedMediaType:
        return "Unsupported Media Type";
    case status::misdirected:
        return "Misdirected Request";
    case status::tooManyRequests:
        return "Too Many Requests";
    case status::headersTooLarge:
        return "Request Header Fields Too Large";
    case status::unavailable:
        return "Service Unavailable";
    default:
        return "Internal Server Error";
    }
}

/// The page loads only its own files, runs no text as a script, and is shown in no frame. Pages of
/// other sites cannot use its files or answers.
constexpr const char *protection =
    "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
    "img-src 'self'; connect-src 'self'; manifest-src 'self'; base-uri 'none'; form-action 'none'; "
    "frame-ancestors 'none'\r\n"
    "X-Content-Type-Options: nosniff\r\n"
    "X-Frame-Options: DENY\r\n"
    "Referrer-Policy: no-referrer\r\n"
    "Cross-Origin-Opener-Policy: same-origin\r\n"
    "Cross-Origin-Resource-Policy: same-origin\r\n";

bool mayBeKept(const Response &response)
{
    return !response.staticBody.empty() || response.status == status::notModified;
}

} // namespace

std::string headOf(const Response &response, std::optional<std::size_t> length, ConnectionEnd end)
{
    std::string head =
        "HTTP/1.1 " + std::to_string(response.status) + ' ' + reasonOf(response.status) + "\r\n";
    head += protection;
    // A browser may keep the files of the page, but asks each time whether they have changed.
    head +=
        std::string("Cache-Control: ") + (mayBeKept(response) ? "no-cache" : "no-store") + "\r\n";
    if (!response.contentType.empty())
        head += "Content-Type: " + response.contentType + "\r\n";
    for (const auto &[name, value] : response.headers)
        head += std::string(name) + ": " + value + "\r\n";
    const bool hasNoBody =
        response.status == status::noContent || response.status == status::notModified;
    if (length && !hasNoBody)
        head += "Content-Length: " + std::to_string(*length) + "\r\n";
    head +=
        end == ConnectionEnd::KeepAlive ? "Connection: keep-alive\r\n" : "Connection: close\r\n";
    return head + "\r\n";
}

} // namespace gateway
