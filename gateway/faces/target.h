#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace gateway {

/// The parts of a request target such as "/api/v1/history?gripper=9".
struct Target
{
    explicit Target(std::string_view text);

    /// The value of a parameter that is an integer in the range. Throws a Problem for another
    /// value.
    std::optional<int> number(std::string_view name, int least, int greatest) const;

    std::string path;
    std::vector<std::string> words; ///< of the path, after "/api/v1"; empty for other paths
    std::string query;
};

/// Empty unless the whole text is a decimal integer in the range.
std::optional<int> numberIn(std::string_view text, int least, int greatest);

} // namespace gateway
