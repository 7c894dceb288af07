#pragma once

#include "message.h"

#include <boost/beast/http/message.hpp>
#include <boost/beast/http/parser.hpp>
#include <boost/beast/http/string_body.hpp>

#include <cstddef>

namespace gateway {

constexpr std::size_t maxHeaderBytes = 8192;
constexpr std::size_t maxBodyBytes = 16384;

using HttpParser = boost::beast::http::request_parser<boost::beast::http::string_body>;
using HttpRequest = boost::beast::http::request<boost::beast::http::string_body>;

/// Sets the limits of a parser.
void limit(HttpParser &parser);

/// Whether the body has an encoding other than chunked. The parser then reads no body, and
/// treats the body as the next request, which no proxy has checked.
bool hasUnknownLength(const HttpRequest &message);

/// The parts of a parsed request that the faces look at. A header that must be unique and is not
/// counts as missing; so does a second Host header.
Request requestOf(const HttpRequest &message);

} // namespace gateway
