// The Modbus master on a pseudo-terminal whose far end answers whatever it likes, in whatever
// pieces: every request on the line, every result and every error is what an independent judgement
// of the same bytes says.
//
// Nothing waits for the clock: this program has its own idea of the daemon's pauses. In each pause
// one piece of the answer arrives, and when none is left the wait for the answer ends.
//
// Input, per request: one byte of options, slave id, start address (two bytes), register count,
// the values of a write, then the answer in pieces, each a byte with its length (0 ends them) and
// its bytes. Stale bytes that were on the line before are a piece more, in front.

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
    HasStaleBytes = 0x02, ///< bytes that came too late for an earlier request
    RepairsHeader = 0x04, ///< the answer begins with the request's slave id and function code
    RepairsCrc = 0x08,    ///< the answer's CRC is right for the length that is expected
    SwapsCrc = 0x10,      ///< and its two bytes are then swapped
    FillsUp = 0x20,       ///< the answer is long enough
    HasMoreBehind = 0x40, ///< and has a byte more
};

constexpr int readHoldingRegisters = 0x03;
constexpr int writeMultipleRegisters = 0x10;
constexpr int mostRegisters = 140; // twice that is more than a byte holds
constexpr int mostRequests = 6;
constexpr int lineTimeoutMs = 2000;

// CRC-16/MODBUS, made from its tables of one nibble: x^16 + x^15 + x^2 + 1, reflected.
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

// The fuzzer's bytes, read from the front; zero behind their end.
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
    /// A byte with the length, and so many bytes.
    QByteArray piece() { return bytes(byte()); }

private:
    QByteArray m_bytes;
    int m_at = 0;
};

/// The far end of the line. What it answers arrives piece by piece, one in each pause.
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

    /// What has come, at least `count` bytes unless they do not come at all.
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

    // The kernel carries bytes through a pseudo-terminal a moment after they have been written.
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

/// One request with all that the far end does about it, as the input tells.
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

    /// What the master can have seen when it judges: it waits no longer than for enough bytes.
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
    // Few inputs would have the right checksum otherwise.
    void shapeAnswer()
    {
        QByteArray answer;
        for (const QByteArray &piece : qAsConst(pieces))
            answer += piece;
        const int given = answer.size();
        if (has(FillsUp))
            answer = answer.leftJustified(answerLength(), '\x5A');
        if (has(HasMoreBehind))
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
    // Some are fetched by the event loop, others still wait in the kernel.
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
