#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <optional>
#include <set>
#include <string>

namespace gateway {

/// The JSON object in the body of a request. Every member must be asked for, with its type and
/// range. All functions throw a Problem for another body.
class Body
{
public:
    explicit Body(const std::string &text);

    bool has(const char *name) const { return m_object.contains(name); }
    std::optional<std::string> text(const char *name);
    std::optional<int> number(const char *name, int least, int greatest);
    std::optional<bool> flag(const char *name);
    /// A time in milliseconds since 1970, UTC.
    std::optional<std::int64_t> milliseconds(const char *name);

    std::string requiredText(const char *name);
    int requiredNumber(const char *name, int least, int greatest);
    bool requiredFlag(const char *name);

    /// Refuses members that the caller has not asked for: a misspelt one must not be without
    /// effect.
    void finish() const;

private:
    const nlohmann::json *find(const char *name);

    nlohmann::json m_object;
    std::set<std::string> m_known;
};

} // namespace gateway
