#include "sessions.h"

#include "secrets.h"

#include <algorithm>

namespace gateway {

namespace {

constexpr std::size_t halfCodeLength = 4;
constexpr std::size_t tokenLength = 52; // 260 bits

template <typename Map>
void eraseEarliestEnd(Map &map)
{
    map.erase(std::min_element(map.begin(), map.end(), [](const auto &one, const auto &other) {
        return one.second.end < other.second.end;
    }));
}

template <typename Map, typename Condition>
void eraseIf(Map &map, Condition condition)
{
    for (auto entry = map.begin(); entry != map.end();)
        entry = condition(entry->second) ? map.erase(entry) : std::next(entry);
}

} // namespace

std::string Sessions::newCode(Role role, Time now)
{
    dropExpired(now);
    if (m_codes.size() == maxCodes)
        eraseEarliestEnd(m_codes);
    std::string code = randomText(halfCodeLength) + '-' + randomText(halfCodeLength);
    m_codes[digestOf(normalizedCode(code))] = {role, now + codeLifetime, 0};
    return code;
}

bool Sessions::isPairing(Time now)
{
    dropExpired(now);
    return !m_codes.empty();
}

std::optional<std::string> Sessions::redeem(const std::string &code, Time now)
{
    dropExpired(now);
    const auto found = m_codes.find(digestOf(normalizedCode(code)));
    if (found == m_codes.end()) {
        countWrongAttempt();
        return std::nullopt;
    }
    if (m_sessions.size() == maxSessions)
        eraseEarliestEnd(m_sessions);
    std::string token = randomText(tokenLength);
    m_sessions[digestOf(token)] = {++m_lastNumber, found->second.role, now + tokenLifetime};
    m_codes.erase(found);
    return token;
}

std::optional<Session> Sessions::find(const std::string &token, Time now)
{
    dropExpired(now);
    const auto found = m_sessions.find(digestOf(token));
    return found == m_sessions.end() ? std::nullopt : std::optional(found->second);
}

std::optional<Session> Sessions::findByNumber(std::uint64_t number, Time now)
{
    dropExpired(now);
    const auto found = std::find_if(m_sessions.begin(), m_sessions.end(), [&](const auto &entry) {
        return entry.second.number == number;
    });
    return found == m_sessions.end() ? std::nullopt : std::optional(found->second);
}

void Sessions::close(std::uint64_t number)
{
    eraseIf(m_sessions, [&](const Session &session) { return session.number == number; });
}

void Sessions::dropExpired(Time now)
{
    const auto isOver = [&](const auto &entry) { return entry.end <= now; };
    eraseIf(m_codes, isOver);
    eraseIf(m_sessions, isOver);
}

void Sessions::countWrongAttempt()
{
    eraseIf(m_codes, [](Code &code) { return ++code.attempts == maxAttempts; });
}

} // namespace gateway
