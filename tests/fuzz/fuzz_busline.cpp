// The Modbus master on a pseudo-terminal whose far end sends arbitrary answers in arbitrary pieces.
// The target computes every request, result and error independently and compares them.
//
// The target replaces the daemon's pauses and needs no real time. In each pause one piece of the
// answer arrives. After the last piece, the wait for the answer ends.
//
// Input, per request: one byte of options, slave id, start address (two bytes), register count and
// the values of a write. Stale bytes follow if an option asks for them. The pieces of the answer
// come last. Each piece is one byte with its length and its bytes. Length 0 ends the pieces.

#include "finding.h"
#include "kvmodbuscustom.h"
#include "ptypair.h"
#include "quitsignals.h"
#include "waits.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <array>
#include <cstddef>
#include <cstdint>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace {

enum Option : quint8 {
    IsWrite = 0x01,
    HasStaleBytes = 0x02, ///< late bytes of an earlier request are on the line
    RepairsHeader = 0x04, ///< the answer begins with the request's slave id and function code
    RepairsCrc = 0x08,    ///< the CRC is correct for the expected length
    SwapsCrc = 0x10,      ///< the bytes of the repaired CRC are swapped
    FillsUp = 0x20,       ///< the answer has at least the expected length
    HasExtraByte = 0x40,  ///< the answer has one byte more
};

constexpr int readHoldingRegisters = 0x03;
constexpr int writeMultipleRegisters = 0x10;
constexpr int mostRegisters = 140; // their number of bytes exceeds one byte
constexpr int mostRequests = 6;
constexpr int lineTimeoutMs = 2000;

// CRC-16/MODBUS by nibbles: x^16 + x^15 + x^2 + 1, reflected.
quint16 referenceCrc(const QByteArray &bytes)
{
    static const std::array<quint16, 16> table{0x0000, 0xCC01, 0xD801, 0x1400, 0xF001, 0x3C00,
                                               0x2800, 0xE401, 0xA001, 0x6C00, 0x7800, 0xB401,
                                               0x5000, 0x9C01, 0x8801, 0x4400};
    unsigned crc = 0xFFFF;
    for (const char c : bytes) {
        const auto byte = static_cast<quint8>(c);
        crc = (crc >> 4) ^ table[(crc ^ byte) & 0xF];
        crc = (crc >> 4) ^ table[(crc ^ (byte >> 4)) & 0xF];
    }
    return static_cast<quint16>(crc);
}

QByteArray crcBytes(const QByteArray &bytes)
{
    const quint16 crc = referenceCrc(bytes);
    const std::array<char, 2> text{static_cast<char>(crc & 0xFF), static_cast<char>(crc >> 8)};
    return {text.data(), 2};
}

QByteArray word(int value)
{
    const std::array<char, 2> text{static_cast<char>(value >> 8 & 0xFF),
                                   static_cast<char>(value & 0xFF)};
    return {text.data(), 2};
}

// The bytes of the fuzzer, read from the start. After their end, every byte is zero.
class Input
{
public:
    Input(const std::uint8_t *data, std::size_t size)
        : m_bytes(reinterpret_cast<const char *>(data), static_cast<int>(size))
    {
    }

    bool isEmpty() const { return m_at >= m_bytes.size(); }
    quint8 byte() { return isEmpty() ? quint8(0) : static_cast<quint8>(m_bytes[m_at++]); }

    int word()
    {
        const int high = byte();
        return high << 8 | byte();
    }

    QByteArray bytes(int count)
    {
        QByteArray taken = m_bytes.mid(m_at, count);
        m_at += taken.size();
        return taken;
    }
    /// Reads one byte with the length, then that many bytes.
    QByteArray piece() { return bytes(byte()); }

private:
    QByteArray m_bytes;
    int m_at = 0;
};

/// The far end of the line. One piece of its answer arrives in each pause.
class FarEnd
{
public:
    QString portName() const { return m_pty.portName(); }
    void setAnswer(const QList<QByteArray> &pieces) { m_pieces = pieces; }
    bool hasAnswered() const { return m_pieces.isEmpty(); }
    void sendNextPiece() { send(m_pieces.takeFirst()); }

    /// Returns only when the bytes have passed the kernel.
    void send(const QByteArray &bytes) const
    {
        const int before = unread(m_pty.portEnd());
        if (::write(m_pty.lineEnd(), bytes.constData(), static_cast<std::size_t>(bytes.size())) !=
            bytes.size())
            qFatal("the line does not take the bytes");
        awaitUnread(m_pty.portEnd(), before + bytes.size());
    }

    /// Waits for at least `count` bytes and returns all received ones; empty after a time-out.
    QByteArray receive(int count) const
    {
        QByteArray received;
        if (!awaitUnread(m_pty.lineEnd(), count))
            return received;
        received.resize(unread(m_pty.lineEnd()));
        received.resize(static_cast<int>(
            ::read(m_pty.lineEnd(), received.data(), static_cast<std::size_t>(received.size()))));
        return received;
    }

private:
    static int unread(int descriptor)
    {
        int count = 0;
        ::ioctl(descriptor, FIONREAD, &count);
        return count;
    }

    // The kernel passes bytes through a pseudo-terminal some time after the write.
    static bool awaitUnread(int descriptor, int count)
    {
        QElapsedTimer clock;
        clock.start();
        while (unread(descriptor) < count && !clock.hasExpired(lineTimeoutMs))
            ::sched_yield();
        return unread(descriptor) >= count;
    }

    PtyPair m_pty;
    QList<QByteArray> m_pieces;
};

FarEnd &farEnd()
{
    static FarEnd end;
    return end;
}

/// One request of the input, and the reaction of the far end.
struct Exchange
{
    explicit Exchange(Input &input)
        : options(input.byte())
        , header(input.bytes(1).leftJustified(1, '\0') +
                 char(isWrite() ? writeMultipleRegisters : readHoldingRegisters))
        , address(input.word())
        , count(input.byte() % (mostRegisters + 1))
    {
        for (int i = 0; isWrite() && i < count; ++i)
            values.append(static_cast<quint16>(input.word()));
        if (has(HasStaleBytes))
            stale = input.piece();
        for (QByteArray piece = input.piece(); !piece.isEmpty(); piece = input.piece())
            pieces.append(piece);
        shapeAnswer();
    }

    bool has(Option option) const { return (options & option) != 0; }
    bool isWrite() const { return has(IsWrite); }
    int answerLength() const { return isWrite() ? 8 : 2 * count + 5; }

    QByteArray request() const
    {
        QByteArray bytes = header + word(address) + word(count);
        if (isWrite())
            bytes += word(2 * count).right(1);
        for (const quint16 value : values)
            bytes += word(value);
        return bytes + crcBytes(bytes);
    }

    /// The bytes that the master judges: it stops waiting when it has enough of them.
    QByteArray seen() const
    {
        QByteArray bytes;
        for (const QByteArray &piece : pieces) {
            if (bytes.size() < answerLength())
                bytes += piece;
        }
        return bytes;
    }

    quint8 options;
    QByteArray header;
    int address;
    int count;
    QVector<quint16> values;
    QByteArray stale;
    QList<QByteArray> pieces;

private:
    // Without these repairs, few inputs would have a correct checksum.
    void shapeAnswer()
    {
        QByteArray answer;
        for (const QByteArray &piece : qAsConst(pieces))
            answer += piece;
        const int given = answer.size();
        if (has(FillsUp))
            answer = answer.leftJustified(answerLength(), '\x5A');
        if (has(HasExtraByte))
            answer += '\x07';
        if (has(RepairsHeader))
            answer.replace(0, 2, header);
        if (has(RepairsCrc) && answer.size() >= answerLength()) {
            QByteArray crc = crcBytes(answer.left(answerLength() - 2));
            if (has(SwapsCrc))
                crc = crc.right(1) + crc.left(1);
            answer.replace(answerLength() - 2, 2, crc);
        }
        int at = 0;
        for (QByteArray &piece : pieces) {
            piece = answer.mid(at, piece.size());
            at += piece.size();
        }
        if (answer.size() > given)
            pieces.append(answer.mid(given));
    }
};

KvModbusAbstract::KvModbusError judge(const Exchange &exchange)
{
    const QByteArray seen = exchange.seen();
    const int length = exchange.answerLength();
    if (seen.size() < length || seen.left(2) != exchange.header)
        return KvModbusAbstract::TimeoutError;
    return seen.mid(length - 2, 2) == crcBytes(seen.left(length - 2))
               ? KvModbusAbstract::NoError
               : KvModbusAbstract::BadCrcError;
}

QVector<quint16> valuesOf(const Exchange &exchange)
{
    const QByteArray data = exchange.seen().mid(3);
    QVector<quint16> values;
    for (int i = 0; i < exchange.count; ++i)
        values.append(static_cast<quint16>(static_cast<quint8>(data[2 * i]) * 256 +
                                           static_cast<quint8>(data[2 * i + 1])));
    return values;
}

void run(KvModbusCustom &master, const Exchange &exchange)
{
    farEnd().send(exchange.stale);
    // The event loop reads an odd number of stale bytes; an even number stays in the kernel.
    if (exchange.stale.size() % 2 == 1)
        QCoreApplication::processEvents();
    farEnd().setAnswer(exchange.pieces);

    const auto slaveId = static_cast<quint8>(exchange.header[0]);
    const auto address = static_cast<quint16>(exchange.address);
    const KvModbusAbstract::KvModbusError expected = judge(exchange);
    if (exchange.isWrite()) {
        if (master.writeRegisters(slaveId, address, exchange.values) !=
            (expected == KvModbusAbstract::NoError))
            reportFinding(QStringLiteral("the write's result is wrong"));
    } else {
        const QVector<quint16> values =
            master.readRegisters(slaveId, address, static_cast<quint16>(exchange.count));
        if (values !=
            (expected == KvModbusAbstract::NoError ? valuesOf(exchange) : QVector<quint16>()))
            reportFinding(QStringLiteral("the values are wrong"));
    }
    if (master.error() != expected)
        reportFinding(QStringLiteral("%1 instead of %2").arg(master.error()).arg(expected));
    const QByteArray request = exchange.request();
    const QByteArray received = farEnd().receive(request.size());
    if (received != request)
        reportFinding(readable(received) + QStringLiteral(" was sent instead of ") +
                      readable(request));
}

} // namespace

void qSleepWhileProcessingEvents(int /*ms*/)
{
    farEnd().sendNextPiece();
    QCoreApplication::processEvents();
}

bool quitRequested()
{
    return farEnd().hasAnswered();
}

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerInitialize(int *argc, char ***argv)
{
    static const QCoreApplication application(*argc, *argv);
    return 0;
}

// NOLINTNEXTLINE(readability-identifier-naming): the name that libFuzzer calls
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    Input input(data, size);
    KvModbusCustom master(farEnd().portName(), nullptr);
    master.setConstraints({lineTimeoutMs, 0, 0});
    if (!master.connectToDevice())
        qFatal("the line cannot be opened");
    for (int requests = 0; requests < mostRequests && !input.isEmpty(); ++requests)
        run(master, Exchange(input));
    return 0;
}
