#pragma once

#include "message.h"

#include <cstddef>
#include <optional>
#include <string>

namespace gateway {

enum class ConnectionEnd { KeepAlive, Close };

/// The status line and all headers of a response, up to the empty line. `length` is empty for a
/// stream, which ends with its connection.
std::string headOf(const Response &response, std::optional<std::size_t> length, ConnectionEnd end);

} // namespace gateway
