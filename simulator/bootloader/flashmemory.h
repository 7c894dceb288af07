#pragma once

#include <QByteArray>

namespace sim {

/// The flash of the microcontroller: 1 MiB in 12 sectors (four of 16 KiB, one of 64, seven of
/// 128). Erasing sets every bit of a sector, writing can only clear bits.
class FlashMemory
{
public:
    static constexpr quint32 startAddress = 0x08000000;
    static constexpr int sizeBytes = 0x100000;
    static constexpr int sectorCount = 12;

    /// Erased. Addresses below `protectedBelow` can be read, and neither written nor erased.
    explicit FlashMemory(quint32 protectedBelow);

    bool contains(quint32 address, int count) const;
    bool isWritable(quint32 address, int count) const;
    /// Only to be asked for what is contained.
    QByteArray read(quint32 address, int count) const;
    /// All from `address` to the end of the flash.
    QByteArray from(quint32 address) const;
    /// Only to be called for what is writable.
    void write(quint32 address, const QByteArray &bytes);

    bool isErasable(int sector) const;
    /// Only to be called for what is erasable.
    void erase(int sector);
    /// Every sector that is erasable.
    void eraseAll();

private:
    static int offsetOf(quint32 address) { return static_cast<int>(address - startAddress); }

    quint32 m_protectedBelow;
    QByteArray m_bytes;
};

} // namespace sim
