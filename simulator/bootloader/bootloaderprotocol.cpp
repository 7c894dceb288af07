#include "bootloaderprotocol.h"

#include "bootloadercodes.h"
#include "faultplan.h"
#include "flashmemory.h"

namespace sim {

namespace {
constexpr quint8 allSectors = 0xFF;           ///< each byte of the count that means all sectors
constexpr quint32 firstSpecialCount = 0xFFF0; ///< of 16 bits; no sector list follows these counts
constexpr int addressLength = 5;
constexpr int wordSize = 4;
constexpr quint8 byteMask = 0xFF;

quint8 byteAt(const QByteArray &bytes, int offset)
{
    return static_cast<quint8>(bytes.at(offset));
}

QByteArray single(quint8 byte)
{
    return QByteArray(1, static_cast<char>(byte));
}

QByteArray acknowledge()
{
    return single(boot::ackByte);
}

QByteArray refuse()
{
    return single(boot::nackByte);
}

quint8 checksumOf(const QByteArray &bytes)
{
    quint8 sum = 0;
    for (const char byte : bytes)
        sum = static_cast<quint8>(sum ^ static_cast<quint8>(byte));
    return sum;
}

/// Whether the last byte is the checksum of the others.
bool hasValidChecksum(const QByteArray &bytes)
{
    return checksumOf(bytes) == 0;
}

bool isComplementPair(const QByteArray &pair)
{
    return (byteAt(pair, 0) ^ byteAt(pair, 1)) == byteMask;
}

quint32 numberIn(const QByteArray &bytes, int offset, int width)
{
    quint32 number = 0;
    for (int i = 0; i < width; ++i)
        number = number << 8 | byteAt(bytes, offset + i);
    return number;
}

int lengthOfSectors(const QByteArray &pending, int width)
{
    if (pending.size() < width)
        return width;
    const bool isSpecial = width == 1 ? byteAt(pending, 0) == allSectors
                                      : numberIn(pending, 0, width) >= firstSpecialCount;
    const int count = isSpecial ? 0 : static_cast<int>(numberIn(pending, 0, width)) + 1;
    return width * (1 + count) + 1;
}
} // namespace

using Self = BootloaderProtocol;

const Self::Command Self::commands[] = {
    {boot::getCommand, Step::Command, &Self::describeCommands},
    {boot::getVersionCommand, Step::Command, &Self::describeVersion},
    {boot::getIdCommand, Step::Command, &Self::describeProductId},
    {boot::readMemoryCommand, Step::Address, &Self::acceptCommand},
    {boot::goCommand, Step::Address, &Self::acceptCommand},
    {boot::writeMemoryCommand, Step::Address, &Self::acceptCommand},
    {boot::eraseCommand, Step::Sectors, &Self::acceptCommand},
    {boot::extendedEraseCommand, Step::WideSectors, &Self::acceptCommand},
};

BootloaderProtocol::BootloaderProtocol(const BootloaderKind &kind, FlashMemory &flash,
                                       FaultPlan &faults)
    : m_kind(kind)
    , m_flash(flash)
    , m_faults(faults)
{
}

void BootloaderProtocol::reset()
{
    m_step = Step::Synchronisation;
    m_event = Event::None;
    m_pending.clear();
    m_blocks = 0;
}

QByteArray BootloaderProtocol::receive(quint8 byte)
{
    m_event = Event::None;
    m_pending.append(static_cast<char>(byte));
    if (m_pending.size() < expectedLength())
        return QByteArray();
    const QByteArray bytes = m_pending;
    m_pending.clear();
    return handleRequest(bytes);
}

int BootloaderProtocol::expectedLength() const
{
    switch (m_step) {
    case Step::Synchronisation:
        return 1;
    case Step::Command:
    case Step::ReadCount:
        return 2;
    case Step::Address:
        return addressLength;
    case Step::Block:
        return byteAt(m_pending, 0) + 3;
    case Step::Sectors:
        return lengthOfSectors(m_pending, 1);
    case Step::WideSectors:
        return lengthOfSectors(m_pending, 2);
    }
    return 1;
}

QByteArray BootloaderProtocol::handleRequest(const QByteArray &bytes)
{
    const Step step = m_step;
    // A refused or completed request is followed by the next command.
    m_step = Step::Command;
    switch (step) {
    case Step::Synchronisation:
        if (byteAt(bytes, 0) == boot::synchronisationByte)
            return acknowledge();
        m_step = Step::Synchronisation;
        return QByteArray();
    case Step::Command:
        return handleCommand(bytes);
    case Step::Address:
        return handleAddress(bytes);
    case Step::ReadCount:
        return handleReadCount(bytes);
    case Step::Block:
        return handleBlock(bytes);
    case Step::Sectors:
        return handleSectors(bytes, 1);
    case Step::WideSectors:
        return handleSectors(bytes, 2);
    }
    return QByteArray();
}

QByteArray BootloaderProtocol::handleCommand(const QByteArray &bytes)
{
    if (!isComplementPair(bytes))
        return refuse();
    for (const Command &command : commands) {
        if (command.code != byteAt(bytes, 0))
            continue;
        m_command = command.code;
        m_step = command.next;
        return (this->*command.answer)();
    }
    return refuse();
}

QByteArray BootloaderProtocol::handleAddress(const QByteArray &bytes)
{
    if (!hasValidChecksum(bytes))
        return refuse();
    m_address = numberIn(bytes, 0, addressLength - 1);
    if (m_command == boot::readMemoryCommand)
        return acceptAddress(Step::ReadCount, m_flash.contains(m_address, 1));
    if (m_command == boot::writeMemoryCommand)
        return acceptAddress(Step::Block,
                             m_flash.isWritable(m_address, wordSize) && m_address % wordSize == 0);
    return go();
}

QByteArray BootloaderProtocol::acceptAddress(Step next, bool isAllowed)
{
    if (!isAllowed)
        return refuse();
    m_step = next;
    return acknowledge();
}

QByteArray BootloaderProtocol::go()
{
    if (m_address != m_kind.firmwareStart || m_faults.strike(FaultKind::RefuseGo))
        return refuse();
    m_event = Event::Start;
    return acknowledge();
}

QByteArray BootloaderProtocol::handleReadCount(const QByteArray &bytes)
{
    const int count = byteAt(bytes, 0) + 1;
    if (!isComplementPair(bytes) || !m_flash.contains(m_address, count))
        return refuse();
    return acknowledge() + m_flash.read(m_address, count);
}

QByteArray BootloaderProtocol::handleBlock(const QByteArray &bytes)
{
    QByteArray data = bytes.mid(1, bytes.size() - 2);
    const bool isAllowed =
        data.size() % wordSize == 0 && m_flash.isWritable(m_address, data.size());
    if (!hasValidChecksum(bytes) || !isAllowed || m_faults.strike(FaultKind::NackWrite))
        return refuse();
    ++m_blocks;
    if (isPowerFailing()) {
        m_flash.write(m_address, data.left(data.size() / 2));
        m_event = Event::PowerFailure;
        return QByteArray();
    }
    if (m_faults.strike(FaultKind::BadVerify))
        data[data.size() - 1] = static_cast<char>(~data.at(data.size() - 1));
    m_flash.write(m_address, data);
    return acknowledge();
}

bool BootloaderProtocol::isPowerFailing()
{
    const std::optional<int> block = m_faults.valueOf(FaultKind::DiesDuringWrite);
    return block == m_blocks && m_faults.strike(FaultKind::DiesDuringWrite);
}

QByteArray BootloaderProtocol::handleSectors(const QByteArray &bytes, int width)
{
    if (!hasValidChecksum(bytes))
        // The count for all sectors is followed by its complement instead of a checksum.
        return width == 1 && byteAt(bytes, 0) == allSectors && byteAt(bytes, 1) == 0
                   ? eraseSectors(bytes.left(width), width)
                   : refuse();
    return eraseSectors(bytes.chopped(1), width);
}

/// Erases nothing when one of the sectors cannot be erased.
QByteArray BootloaderProtocol::eraseSectors(const QByteArray &sectors, int width)
{
    if (sectors.size() == width) {
        // The other special counts mean one of two banks. This flash has no banks.
        if (sectors != QByteArray(width, static_cast<char>(allSectors)))
            return refuse();
        m_flash.eraseAll();
        return acknowledge();
    }
    for (int offset = width; offset < sectors.size(); offset += width) {
        if (!m_flash.isErasable(static_cast<int>(numberIn(sectors, offset, width))))
            return refuse();
    }
    for (int offset = width; offset < sectors.size(); offset += width)
        m_flash.erase(static_cast<int>(numberIn(sectors, offset, width)));
    return acknowledge();
}

QByteArray BootloaderProtocol::acceptCommand() const
{
    return acknowledge();
}

QByteArray BootloaderProtocol::describeCommands() const
{
    QByteArray list = single(m_kind.version);
    for (const Command &command : commands) {
        const bool isOtherErase = command.next != Step::Address && command.next != Step::Command &&
                                  command.code != m_kind.eraseCommand;
        if (!isOtherErase)
            list.append(static_cast<char>(command.code));
    }
    return acknowledge() + single(static_cast<quint8>(list.size() - 1)) + list + acknowledge();
}

QByteArray BootloaderProtocol::describeVersion() const
{
    // The two option bytes of this answer are obsolete and 0.
    return acknowledge() + single(m_kind.version) + QByteArray(2, '\0') + acknowledge();
}

QByteArray BootloaderProtocol::describeProductId() const
{
    return acknowledge() + single(1) + single(boot::productId >> 8) +
           single(boot::productId & byteMask) + acknowledge();
}

} // namespace sim
