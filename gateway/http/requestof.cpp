#include "requestof.h"

#include <optional>
#include <string>

namespace gateway {

namespace {

namespace http = boost::beast::http;

std::string text(boost::beast::string_view view)
{
    return {view.data(), view.size()};
}

template <typename Name>
std::optional<std::string> unique(const HttpRequest &message, Name name)
{
    if (message.count(name) != 1)
        return std::nullopt;
    return text(message[name]);
}

bool isForwarded(const HttpRequest &message)
{
    return message.count(http::field::forwarded) + message.count(http::field::via) +
               message.count("X-Forwarded-For") + message.count("X-Real-IP") >
           0;
}

} // namespace

void limit(HttpParser &parser)
{
    parser.header_limit(maxHeaderBytes);
    parser.body_limit(maxBodyBytes);
}

bool hasUnknownLength(const HttpRequest &message)
{
    return message.count(http::field::transfer_encoding) > 0 && !message.chunked();
}

Request requestOf(const HttpRequest &message)
{
    Request request;
    request.method = text(message.method_string());
    request.target = text(message.target());
    request.host = unique(message, http::field::host).value_or(std::string());
    request.origin = unique(message, http::field::origin);
    request.contentType = unique(message, http::field::content_type);
    request.authorization = unique(message, http::field::authorization);
    request.ifNoneMatch = unique(message, http::field::if_none_match);
    request.fetchSite = unique(message, "Sec-Fetch-Site");
    request.isForwarded = isForwarded(message);
    request.body = message.body();
    return request;
}

} // namespace gateway
