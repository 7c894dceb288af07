#pragma once

#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

namespace gateway {

/// The texts of fault codes, which the integrator takes from the manuals of the grippers. The
/// daemon does not know them.
class FaultTexts
{
public:
    FaultTexts() = default;

    /// Reads a JSON object such as {"Pello": {"12": "the supply voltage is low"}}. Throws
    /// std::runtime_error.
    static FaultTexts fromJson(const std::string &text);
    static FaultTexts fromFile(const std::string &path);

    /// Empty if there is no text for the code.
    std::optional<std::string> text(const std::string &family, int code) const;

private:
    std::map<std::pair<std::string, int>, std::string> m_texts;
};

} // namespace gateway
