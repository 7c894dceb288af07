#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Reads the first line that a client sends and recognises an HTTP request line or a TLS handshake.
/// No client of the protocol begins with these. A web page can make its visitor's browser send them
/// to any port, followed by lines that the page chooses.
///
/// Keeps a few bytes of state and no text, so the line may have any length. Uses no socket.
class FirstLine
{
public:
    enum class Protocol : std::uint8_t {
        Undecided, ///< The line may still become Http or Tls.
        Gripper,   ///< Any other text, also garbage.
        Http,      ///< "METHOD TARGET HTTP/n.n" and a line ending.
        Tls,       ///< A handshake record, which begins with 0x16 0x03.
    };

    /// Reads the bytes that arrived next and returns the protocol. After a decision, reads nothing
    /// and returns the same protocol.
    Protocol read(std::string_view bytes);

private:
    /// The part of the line that the next byte belongs to.
    enum class Part : std::uint8_t { FirstByte, TlsVersion, Method, TargetStart, Target, Version };

    Protocol readByte(char c);
    Protocol readVersion(char c);
    Protocol continueWith(Part part);

    Protocol m_protocol = Protocol::Undecided;
    Part m_part = Part::FirstByte;
    std::uint8_t m_versionLength = 0;
};
