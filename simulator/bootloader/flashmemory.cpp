#include "flashmemory.h"

namespace sim {

namespace {
constexpr char erasedByte = '\xFF';
constexpr int bytesPerKiB = 1024;
constexpr int sectorSizesKiB[] = {16, 16, 16, 16, 64, 128, 128, 128, 128, 128, 128, 128};

struct Span
{
    int offset = 0;
    int size = 0;
};

Span spanOf(int sector)
{
    Span span;
    for (int i = 0; i < sector; ++i)
        span.offset += sectorSizesKiB[i] * bytesPerKiB;
    span.size = sectorSizesKiB[sector] * bytesPerKiB;
    return span;
}
} // namespace

FlashMemory::FlashMemory(quint32 protectedBelow)
    : m_protectedBelow(protectedBelow)
    , m_bytes(sizeBytes, erasedByte)
{
}

bool FlashMemory::contains(quint32 address, int count) const
{
    return address >= startAddress && count <= sizeBytes &&
           address - startAddress <= static_cast<quint32>(sizeBytes - count);
}

bool FlashMemory::isWritable(quint32 address, int count) const
{
    return address >= m_protectedBelow && contains(address, count);
}

QByteArray FlashMemory::read(quint32 address, int count) const
{
    return m_bytes.mid(offsetOf(address), count);
}

QByteArray FlashMemory::from(quint32 address) const
{
    return m_bytes.mid(offsetOf(address));
}

void FlashMemory::write(quint32 address, const QByteArray &bytes)
{
    const int offset = offsetOf(address);
    for (int i = 0; i < bytes.size(); ++i)
        m_bytes[offset + i] = static_cast<char>(m_bytes.at(offset + i) & bytes.at(i));
}

bool FlashMemory::isErasable(int sector) const
{
    return sector >= 0 && sector < sectorCount &&
           startAddress + static_cast<quint32>(spanOf(sector).offset) >= m_protectedBelow;
}

void FlashMemory::erase(int sector)
{
    const Span span = spanOf(sector);
    m_bytes.replace(span.offset, span.size, QByteArray(span.size, erasedByte));
}

void FlashMemory::eraseAll()
{
    for (int sector = 0; sector < sectorCount; ++sector) {
        if (isErasable(sector))
            erase(sector);
    }
}

} // namespace sim
