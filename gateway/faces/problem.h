#pragma once

#include <exception>
#include <string>
#include <utility>

namespace gateway {

/// The answer to a request that is refused. The API throws it, and answers with it.
class Problem : public std::exception
{
public:
    Problem(int status, const char *code, std::string text)
        : m_status(status)
        , m_code(code)
        , m_text(std::move(text))
    {
    }

    const char *what() const noexcept override { return m_text.c_str(); }
    int status() const { return m_status; }
    const char *code() const { return m_code; }

private:
    int m_status;
    const char *m_code; ///< for programs
    std::string m_text; ///< a sentence for people
};

namespace status {
constexpr int ok = 200;
constexpr int created = 201;
constexpr int accepted = 202;
constexpr int noContent = 204;
constexpr int notModified = 304;
constexpr int badRequest = 400;
constexpr int unauthorized = 401;
constexpr int forbidden = 403;
constexpr int notFound = 404;
constexpr int methodNotAllowed = 405;
constexpr int requestTimeout = 408;
constexpr int conflict = 409;
constexpr int payloadTooLarge = 413;
constexpr int unsupportedMediaType = 415;
constexpr int misdirected = 421;
constexpr int tooManyRequests = 429;
constexpr int headersTooLarge = 431;
constexpr int internalError = 500;
constexpr int unavailable = 503;
} // namespace status

} // namespace gateway
