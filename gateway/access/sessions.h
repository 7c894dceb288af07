#pragma once

#include "role.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>

namespace gateway {

struct Session
{
    std::uint64_t number = 0;
    Role role = Role::View;
    std::chrono::steady_clock::time_point end;
};

/// Pairing codes and the sessions that they begin. Everything is in memory only: after a restart
/// nobody is paired.
///
/// A wrong code counts as an attempt at every code that is pending, because it does not show which
/// code was meant.
class Sessions
{
public:
    using Time = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::minutes codeLifetime{5};
    static constexpr std::chrono::hours tokenLifetime{8};
    static constexpr int maxAttempts = 5;
    static constexpr std::size_t maxCodes = 8;
    static constexpr std::size_t maxSessions = 64;

    /// A code for one use, such as "K7QM-3XNA". The oldest code ends if too many are pending.
    std::string newCode(Role role, Time now);

    /// Whether a code is pending.
    bool isPairing(Time now);

    /// The token of a new session. Empty for a code that is unknown, used or expired. The session
    /// that ends first makes room if there are too many.
    std::optional<std::string> redeem(const std::string &code, Time now);

    /// Empty for an unknown or expired token.
    std::optional<Session> find(const std::string &token, Time now);
    std::optional<Session> findByNumber(std::uint64_t number, Time now);
    void close(std::uint64_t number);

private:
    struct Code
    {
        Role role = Role::View;
        Time end;
        int attempts = 0;
    };

    void dropExpired(Time now);
    void countWrongAttempt();

    std::map<std::string, Code> m_codes;       ///< by digest
    std::map<std::string, Session> m_sessions; ///< by the digest of the token
    std::uint64_t m_lastNumber = 0;
};

} // namespace gateway
