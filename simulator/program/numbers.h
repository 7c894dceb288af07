#pragma once

#include <QString>

#include <optional>

namespace sim {

/// Reads a decimal number, or a hexadecimal number after "0x". Empty when `text` is not a number of
/// `min` to `max`.
std::optional<int> parseNumber(const QString &text, int min, int max);

} // namespace sim
