#include "secrets.h"

#include <openssl/rand.h>
#include <openssl/sha.h>

#include <array>
#include <cctype>
#include <stdexcept>
#include <vector>

namespace gateway {

namespace {

constexpr std::array<char, 33> alphabet{"ABCDEFGHJKLMNPQRSTUVWXYZ23456789"};
constexpr unsigned alphabetMask = 31;

} // namespace

std::string randomText(std::size_t length)
{
    std::vector<unsigned char> bytes(length);
    if (RAND_bytes(bytes.data(), static_cast<int>(length)) != 1)
        throw std::runtime_error("the system gives no random numbers");
    std::string text;
    for (const unsigned char byte : bytes)
        text += alphabet[byte & alphabetMask];
    return text;
}

std::string digestOf(const std::string &text)
{
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    SHA256(reinterpret_cast<const unsigned char *>(text.data()), text.size(), digest.data());
    return {digest.begin(), digest.end()};
}

std::string normalizedCode(const std::string &code)
{
    std::string normalized;
    for (const char character : code) {
        if (character != '-' && character != ' ')
            normalized += static_cast<char>(std::toupper(static_cast<unsigned char>(character)));
    }
    return normalized;
}

} // namespace gateway
