#include "firstline.h"

#include "requestgrammar.h"

namespace {

constexpr char tlsHandshake = 0x16;
constexpr char tlsMajorVersion = 0x03;

// Case matters in the version. A zero matches any digit.
constexpr std::string_view versionPattern = "HTTP/0.0";
constexpr std::string_view methodPunctuation = "!#$%&'*+-.^_`|~";

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isMethodCharacter(char c)
{
    return isDigit(c) || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
           methodPunctuation.find(c) != std::string_view::npos;
}

// Some browsers send characters outside ASCII as they are.
bool isTargetCharacter(char c)
{
    const auto code = static_cast<unsigned char>(c);
    return code > 0x20 && code != 0x7F;
}

} // namespace

FirstLine::Protocol FirstLine::read(std::string_view bytes)
{
    for (std::size_t i = 0; i < bytes.size() && m_protocol == Protocol::Undecided; ++i)
        m_protocol = readByte(bytes[i]);
    return m_protocol;
}

FirstLine::Protocol FirstLine::readByte(char c)
{
    switch (m_part) {
    case Part::FirstByte:
        if (c == tlsHandshake)
            return continueWith(Part::TlsVersion);
        return isMethodCharacter(c) ? continueWith(Part::Method) : Protocol::Gripper;
    case Part::TlsVersion:
        return c == tlsMajorVersion ? Protocol::Tls : Protocol::Gripper;
    case Part::Method:
        if (c == ' ')
            return continueWith(Part::TargetStart);
        return isMethodCharacter(c) ? Protocol::Undecided : Protocol::Gripper;
    case Part::TargetStart:
        return isTargetCharacter(c) ? continueWith(Part::Target) : Protocol::Gripper;
    case Part::Target:
        if (c == ' ')
            return continueWith(Part::Version);
        return isTargetCharacter(c) ? Protocol::Undecided : Protocol::Gripper;
    case Part::Version:
        return readVersion(c);
    }
    return Protocol::Gripper;
}

FirstLine::Protocol FirstLine::readVersion(char c)
{
    if (m_versionLength == versionPattern.size())
        return isLineEnding(c) ? Protocol::Http : Protocol::Gripper;
    const char expected = versionPattern[m_versionLength++];
    const bool matches = expected == '0' ? isDigit(c) : c == expected;
    return matches ? Protocol::Undecided : Protocol::Gripper;
}

FirstLine::Protocol FirstLine::continueWith(Part part)
{
    m_part = part;
    return Protocol::Undecided;
}
