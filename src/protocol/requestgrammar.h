#pragma once

#include <cstddef>

// The words of a request.

/// The number of characters of a variable name in a SET.
constexpr std::size_t shortestName = 3;
constexpr std::size_t longestName = 9;

/// The number of characters of a value in a SET.
constexpr std::size_t longestValue = 3;

/// Whether a variable name may contain `c`: an ASCII letter, a digit or an underscore.
constexpr bool isNameCharacter(char c)
{
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

/// Whether the value of a SET may contain `c`: a digit or a minus sign, in any order.
constexpr bool isValueCharacter(char c)
{
    return (c >= '0' && c <= '9') || c == '-';
}

/// Whether `c` ends a line.
constexpr bool isLineEnding(char c)
{
    return c == '\r' || c == '\n';
}
