#pragma once

#include <QString>

#include <optional>

namespace sim {

/// A decimal number, or a hexadecimal one behind "0x", of `min` to `max`; nothing for any other
/// text.
std::optional<int> parseNumber(const QString &text, int min, int max);

} // namespace sim
