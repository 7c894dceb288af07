#pragma once

#include <QByteArray>
#include <QString>

namespace sim {

/// The simulator's own firmware images: a head of text that carries the version, and a body
/// without meaning, so that every byte of it counts in a verification.
///
/// The head has 128 bytes: the lines "gripper-simulator firmware", "version=TA3-1.6.14",
/// "size=16384" (of the whole image in bytes) and "sha1=" with the 40 hexadecimal digits of the
/// three lines before it and the body, each ended by a line feed; then zeros.
class FirmwareImage
{
public:
    static constexpr int headSize = 128;
    static constexpr int defaultSize = 16384;

    /// An image of `size` bytes (more than the head has). `version` is not checked.
    static QByteArray make(const QString &version, int size = defaultSize);
    /// The version of the whole and unspoilt image at the front of `flash`; empty without one.
    static QString versionIn(const QByteArray &flash);
};

} // namespace sim
