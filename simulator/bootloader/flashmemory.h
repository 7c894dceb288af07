#pragma once

#include <QByteArray>

namespace sim {

/// Owns the flash of the microcontroller: 1 MiB in 12 sectors (four of 16 KiB, one of 64 KiB, seven
/// of 128 KiB). Erasing sets every bit of a sector. Writing can only clear bits.
class FlashMemory
{
public:
    static constexpr quint32 startAddress = 0x08000000;
    static constexpr int sizeBytes = 0x100000;
    static constexpr int sectorCount = 12;

    /// Makes an erased flash. Addresses below `protectedBelow` can only be read.
    explicit FlashMemory(quint32 protectedBelow);

    bool contains(quint32 address, int count) const;
    bool isWritable(quint32 address, int count) const;
    /// Reads bytes that the flash must contain.
    QByteArray read(quint32 address, int count) const;
    /// Reads everything from `address` to the end of the flash.
    QByteArray from(quint32 address) const;
    /// Writes bytes at addresses that must be writable.
    void write(quint32 address, const QByteArray &bytes);

    bool isErasable(int sector) const;
    /// Erases a sector that must be erasable.
    void erase(int sector);
    /// Erases every erasable sector.
    void eraseAll();

private:
    static int offsetOf(quint32 address) { return static_cast<int>(address - startAddress); }

    quint32 m_protectedBelow;
    QByteArray m_bytes;
};

} // namespace sim
