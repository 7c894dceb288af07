#pragma once

#include <cstddef>
#include <string>

namespace gateway {

/// Random characters of an alphabet of 32 that are hard to confuse, so 5 bits each. Throws
/// std::runtime_error if the system gives no random numbers.
std::string randomText(std::size_t length);

/// The SHA-256 of a text. Secrets are looked up by it, so that the time of a look-up says nothing
/// about them.
std::string digestOf(const std::string &text);

/// The form in which pairing codes are compared: upper case, without blanks and minus signs.
std::string normalizedCode(const std::string &code);

} // namespace gateway
