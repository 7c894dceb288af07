#pragma once

#include <QByteArray>
#include <QString>

namespace sim {

/// The format of the simulator's firmware images: a text head and a pseudo-random body. Because
/// the bytes are random, a verification notices every lost or moved byte.
///
/// The head has 128 bytes: four lines, each ended by a line feed, then zeros. The lines are
/// "gripper-simulator firmware", "version=TA3-1.6.14", "size=16384" (bytes of the whole image) and
/// "sha1=" with 40 hexadecimal digits. The digest covers the first three lines and the body.
class FirmwareImage
{
public:
    static constexpr int headSize = 128;
    static constexpr int defaultSize = 16384;

    /// Makes an image of `size` bytes, at least one more than the head. Does not check `version`.
    static QByteArray make(const QString &version, int size = defaultSize);
    /// Returns the version of the image at the start of `flash`. Returns an empty text when the
    /// image is missing, incomplete or damaged.
    static QString versionIn(const QByteArray &flash);
};

} // namespace sim
