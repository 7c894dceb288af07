#include "kvmodbuscustom.h"

#include "logcapture.h"
#include "ptyline.h"
#include "quitsignals.h"
#include "waits.h"

#include <QAbstractEventDispatcher>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QSocketNotifier>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <future>
#include <limits>
#include <memory>
#include <poll.h>
#include <termios.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Frames and checksums were computed with pymodbus 3.0.0 (ModbusRtuFramer, computeCRC) and copied.

namespace {

using Words = QVector<quint16>;
using Error = KvModbusAbstract::KvModbusError;

constexpr int readRequestLength = 8;

int writeRequestLength(int count)
{
    return 9 + 2 * count;
}

QByteArray hex(const char *digits)
{
    return QByteArray::fromHex(digits);
}

Words countingFrom(quint16 first, int count)
{
    Words words;
    for (int i = 0; i < count; ++i)
        words.append(static_cast<quint16>(first + i));
    return words;
}

// Answers of slave 9: to a read of one register that contains 0x07E8, and to a write at 1000.
const QByteArray oneRegister = hex("09030207e85bfb");
const QByteArray writeDone = hex("091003e800030130");
const QByteArray readRefused = hex("0983024133");
const QByteArray writeRefused = hex("0990024c03");

// An answer of slave 9 to a read of three registers.
const QByteArray threeRegisters = hex("0903063900f3ab12340c0f");
const Words threeValues{0x3900, 0xF3AB, 0x1234};

/// Sixteen readable descriptors besides the port. A turn of the event loop that finds all of them
/// notifies at least one before the port. The first notification calls `act`.
class ManyNotifiers
{
public:
    explicit ManyNotifiers(std::function<void()> act)
        : m_act(std::move(act))
    {
        for (Pipe &pipe : m_pipes) {
            if (::pipe2(pipe.ends.data(), O_CLOEXEC) != 0)
                qFatal("pipe2() failed");
            pipe.notifier.reset(new QSocketNotifier(pipe.ends[0], QSocketNotifier::Read));
            QObject::connect(pipe.notifier.data(), &QSocketNotifier::activated,
                             pipe.notifier.data(), [this] { onNotified(); });
        }
    }

    ~ManyNotifiers()
    {
        for (Pipe &pipe : m_pipes) {
            pipe.notifier.reset();
            ::close(pipe.ends[0]);
            ::close(pipe.ends[1]);
        }
    }

    Q_DISABLE_COPY(ManyNotifiers)

    void notify()
    {
        for (const Pipe &pipe : m_pipes) {
            if (::write(pipe.ends[1], "x", 1) != 1)
                qFatal("write() to the pipe failed");
        }
    }

private:
    struct Pipe
    {
        std::array<int, 2> ends{};
        QScopedPointer<QSocketNotifier> notifier;
    };

    void onNotified()
    {
        for (const Pipe &pipe : m_pipes)
            pipe.notifier->setEnabled(false);
        m_act();
    }

    std::function<void()> m_act;
    std::array<Pipe, 16> m_pipes;
};

/// Returns the shortest of at least four tries, because a busy machine only makes an action longer.
/// Tries up to 20 times until one takes less than `enoughMs`.
template <typename Action>
qint64 shortestMs(int enoughMs, Action action)
{
    qint64 shortest = std::numeric_limits<qint64>::max();
    for (int attempt = 0; attempt < 20 && (attempt < 4 || shortest >= enoughMs); ++attempt) {
        QElapsedTimer clock;
        clock.start();
        action();
        shortest = std::min(shortest, clock.elapsed());
    }
    return shortest;
}

/// Reads a request of `length` bytes from the line, `hesitationMs` after its first byte has
/// arrived. Uses a thread, because the master blocks the caller while it writes. Returns the number
/// of bytes.
std::future<int> takeRequestAfter(int hesitationMs, int lineEnd, int length)
{
    return std::async(std::launch::async, [=] {
        pollfd line{lineEnd, POLLIN, 0};
        ::poll(&line, 1, 5000);
        std::this_thread::sleep_for(std::chrono::milliseconds(hesitationMs));
        std::array<char, 4096> bytes{};
        int missing = length;
        while (missing > 0 && ::poll(&line, 1, 200) == 1)
            missing -= static_cast<int>(::read(lineEnd, bytes.data(), bytes.size()));
        return length - missing;
    });
}

QByteArray withBitFlipped(QByteArray frame, int position)
{
    frame[position] = static_cast<char>(frame[position] ^ 0x10);
    return frame;
}

} // namespace

class tst_KvModbusCustom : public QObject
{
    Q_OBJECT

public:
    // Selects the daemon's event loop. Its turn delivers all notifications that one poll has found.
    static void initMain() { qputenv("QT_NO_GLIB", "1"); }

private slots:
    void init();
    void cleanup();

    void checksumsAreThoseOfAnotherGenerator_data();
    void checksumsAreThoseOfAnotherGenerator();
    void checksumIsAppendedLowByteFirst();
    void everyFlippedBitSpoilsTheChecksum();

    void portIsClosedAtFirst();
    void lineIsOpenedWithEightDataBitsNoParityOneStopBit();
    void openingAnOpenPortChangesNothing();
    void portThatDoesNotExistCannotBeOpened();
    void closingAClosedPortIsHarmless();
    void newPortNameTakesEffectAtTheNextOpen();
    void baudRateSetBeforehandIsUsedAtTheOpen();
    void baudRateChangesAtOnceWhenOpen();
    void destroyedMasterClosesThePort();

    void readRequestIsTheseBytes_data();
    void readRequestIsTheseBytes();
    void writeRequestIsTheseBytes_data();
    void writeRequestIsTheseBytes();
    void byteCountOfAWriteOf200ValuesIsItsLowByte();
    void countOfAWriteIsModulo65536();

    void readGivesTheValuesInOrder_data();
    void readGivesTheValuesInOrder();
    void acceptedAnswers_data();
    void acceptedAnswers();
    void differentSecondAnswerMakesAnAnswerAmbiguous_data();
    void differentSecondAnswerMakesAnAnswerAmbiguous();
    void rejectedAnswers_data();
    void rejectedAnswers();
    void answerInPiecesIsPutTogether();

    void silenceLastsTimeoutPlusFactorPerRegister_data();
    void silenceLastsTimeoutPlusFactorPerRegister();
    void incompleteAnswerCostsTheWholeDeadline_data();
    void incompleteAnswerCostsTheWholeDeadline();
    void completeAnswerEndsTheWaitWithAnyContent_data();
    void completeAnswerEndsTheWaitWithAnyContent();
    void slowAnswerWithinTheDeadlineIsAccepted();
    void answerAfterTheDeadlineIsRefused();
    void newTimingAppliesFromTheNextRequest();
    void broadcastEndsInATimeout();

    void lateAnswerIsDroppedBeforeTheNextRequest_data();
    void lateAnswerIsDroppedBeforeTheNextRequest();

    void closedPortSendsNothingAndFailsAtOnce();
    void overriddenConnectionStateCounts();
    void requestThatCannotBeWrittenTimesOut_data();
    void requestThatCannotBeWrittenTimesOut();
    void timeSpentWritingCountsAgainstTheDeadline();
    void requestThatCouldNotBeWrittenIsNotSentLater();
    void everyRequestSignalsItsOutcomeOnce();

    void seriousErrorsCloseThePort_data();
    void seriousErrorsCloseThePort();
    void hungUpLineIsClosedOnceAndStaysSilent();
    void hangUpDuringARequestEndsInATimeout();
    void hangUpAfterPartOfTheAnswerEndsInATimeout();
    void hangUpAfterTheAnswerArrivedKeepsIt();
    void requestOnALineJustHungUpFails_data();
    void requestOnALineJustHungUpFails();
    void replacedLineCanBeOpenedAfterAHangUp();

    void requestInATurnThatFoundAnAnswerLeavesThePortOpen();
    void nestedRequestWaitsForTheOuterAnswerAndKeepsIt_data();
    void nestedRequestWaitsForTheOuterAnswerAndKeepsIt();
    void nestedRequestWaitsForTheOuterDeadline_data();
    void nestedRequestWaitsForTheOuterDeadline();
    void threeLevelsOfRequestsGetTheirOwnAnswers();
    void requestsOfOneTurnGoOutOneAfterTheOther();
    void nestedRequestInTheTurnOfTheOuterAnswerKeepsBothAnswers();
    void answerIsKeptWhenANestedRequestClosesThePort();
    void nestedRequestSendsNothingWhenThePortClosesDuringItsWait();
    void waitForAQuietLineIncludesAClosedPort();
    void floodDuringARequestEndsIt();
    void portReopenedInsideTheWaitServesTheNextRequest();

    void quitSignalEndsTheWaitsForAnAnswerAndForTheLine();

private:
    void readLater(int delayMs, Words &values);

    Words access(bool isRead);
    Words accessAnsweredBy(const QByteArray &answer, bool isRead);

    QScopedPointer<PtyLine> m_line;
    QScopedPointer<KvModbusCustom> m_master;
    std::unique_ptr<LogCapture> m_log;
};

void tst_KvModbusCustom::init()
{
    m_log = std::make_unique<LogCapture>();
    m_line.reset(new PtyLine);
    m_master.reset(new KvModbusCustom(m_line->portName(), nullptr));
    // Answers arrive at once or never, so a long timeout costs no time.
    m_master->setConstraints({2000, 0, 2});
    QVERIFY(m_master->connectToDevice());
}

void tst_KvModbusCustom::cleanup()
{
    m_master.reset();
    m_line.reset();
    // The daemon would print the warnings of Qt to its log.
    QCOMPARE(m_log->warnings(), QStringList());
    m_log.reset();
}

/// Begins another read of one register after `delayMs`, inside the wait of the running request.
void tst_KvModbusCustom::readLater(int delayMs, Words &values)
{
    QTimer::singleShot(delayMs, Qt::PreciseTimer, this,
                       [&] { values = m_master->readRegisters(9, 514, 1); });
}

/// Reads a register, or writes 1 to another one. Returns the value, or nothing on failure.
Words tst_KvModbusCustom::access(bool isRead)
{
    if (isRead)
        return m_master->readRegisters(9, 514, 1);
    const Words values{1};
    return m_master->writeRegisters(9, 1000, values) ? values : Words();
}

Words tst_KvModbusCustom::accessAnsweredBy(const QByteArray &answer, bool isRead)
{
    m_line->queueAnswer(isRead ? readRequestLength : writeRequestLength(1), {answer});
    return access(isRead);
}

void tst_KvModbusCustom::checksumsAreThoseOfAnotherGenerator_data()
{
    QTest::addColumn<quint16>("checksum");
    QTest::newRow("") << quint16{0xFFFF};
    QTest::newRow("00") << quint16{0x40BF};
    QTest::newRow("ff") << quint16{0x00FF};
    QTest::newRow("010300000001") << quint16{0x0A84};
    QTest::newRow("0910") << quint16{0x2C06};
    QTest::newRow("000000") << quint16{0xC071};
    QTest::newRow("313233343536373839") << quint16{0x4B37};
    QTest::newRow("ffffffff") << quint16{0xB001};
}

void tst_KvModbusCustom::checksumsAreThoseOfAnotherGenerator()
{
    QFETCH(quint16, checksum);
    QCOMPARE(KvModbusCustom::computeCRC(hex(QTest::currentDataTag())), checksum);
}

void tst_KvModbusCustom::checksumIsAppendedLowByteFirst()
{
    QByteArray bytes = hex("010300000001");
    KvModbusCustom::addCRC(bytes);
    QCOMPARE(bytes.toHex(), QByteArray("010300000001840a"));
}

void tst_KvModbusCustom::everyFlippedBitSpoilsTheChecksum()
{
    QVERIFY(KvModbusCustom::verifyCRC(oneRegister));
    QVERIFY(!KvModbusCustom::verifyCRC(hex("09030207e8fb5b"))); // bytes swapped
    for (int bit = 0; bit < 8 * oneRegister.size(); ++bit) {
        QByteArray frame = oneRegister;
        frame[bit / 8] = static_cast<char>(frame[bit / 8] ^ (1 << bit % 8));
        QVERIFY2(!KvModbusCustom::verifyCRC(frame), frame.toHex().constData());
    }
}

void tst_KvModbusCustom::portIsClosedAtFirst()
{
    KvModbusCustom master(nullptr);
    QVERIFY(!master.isConnected());
    QCOMPARE(master.getPortName(), QString());
    QCOMPARE(master.error(), KvModbusAbstract::NoError);
}

void tst_KvModbusCustom::lineIsOpenedWithEightDataBitsNoParityOneStopBit()
{
    const termios settings = m_line->settings();
    QCOMPARE(settings.c_cflag & CSIZE, tcflag_t{CS8});
    QCOMPARE(settings.c_cflag & (PARENB | CSTOPB | CRTSCTS), tcflag_t{0});
    QCOMPARE(settings.c_iflag & (IXON | IXOFF), tcflag_t{0});
    QCOMPARE(settings.c_lflag & (ICANON | ECHO), tcflag_t{0});
}

void tst_KvModbusCustom::openingAnOpenPortChangesNothing()
{
    m_line->send(oneRegister);
    m_master->setBaudRate(19200);
    QVERIFY(m_master->connectToDevice());
    QVERIFY(m_master->isConnected());
    const termios settings = m_line->settings();
    QCOMPARE(::cfgetospeed(&settings), speed_t{B19200});
    QVERIFY(m_line->blockUntilUnread(oneRegister.size()));
}

void tst_KvModbusCustom::portThatDoesNotExistCannotBeOpened()
{
    KvModbusCustom master(QStringLiteral("/dev/no-such-port"), nullptr);
    QVERIFY(!master.connectToDevice());
    QVERIFY(!master.isConnected());
}

void tst_KvModbusCustom::closingAClosedPortIsHarmless()
{
    m_master->disconnectFromDevice();
    QVERIFY(!m_master->isConnected());
    m_master->disconnectFromDevice();
    QVERIFY(!m_master->isConnected());
    QVERIFY(m_master->connectToDevice());
}

void tst_KvModbusCustom::newPortNameTakesEffectAtTheNextOpen()
{
    m_master->setPortName(QStringLiteral("no-such-port"));
    QCOMPARE(m_master->getPortName(), QStringLiteral("no-such-port"));
    m_line->queueAnswer(readRequestLength, {oneRegister});
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words{0x07E8});
    QVERIFY(m_master->connectToDevice());
    m_master->disconnectFromDevice();
    QVERIFY(!m_master->connectToDevice());
}

void tst_KvModbusCustom::baudRateSetBeforehandIsUsedAtTheOpen()
{
    m_master->disconnectFromDevice();
    m_master->setBaudRate(115200);
    QCOMPARE(m_master->getBaudrate(), 115200);
    QVERIFY(m_master->connectToDevice());
    const termios settings = m_line->settings();
    QCOMPARE(::cfgetospeed(&settings), speed_t{B115200});
    QCOMPARE(::cfgetispeed(&settings), speed_t{B115200});
}

void tst_KvModbusCustom::baudRateChangesAtOnceWhenOpen()
{
    m_master->setBaudRate(115200);
    m_master->setBaudRate(19200);
    QCOMPARE(m_master->getBaudrate(), 19200);
    const termios settings = m_line->settings();
    QCOMPARE(::cfgetospeed(&settings), speed_t{B19200});
    QCOMPARE(::cfgetispeed(&settings), speed_t{B19200});
}

void tst_KvModbusCustom::destroyedMasterClosesThePort()
{
    m_master.reset();
    KvModbusCustom other(m_line->portName(), nullptr);
    QVERIFY(other.connectToDevice());
}

void tst_KvModbusCustom::readRequestIsTheseBytes_data()
{
    QTest::addColumn<int>("slaveId");
    QTest::addColumn<int>("address");
    QTest::addColumn<int>("count");
    QTest::newRow("090307d00003040e") << 9 << 2000 << 3;
    QTest::newRow("0203020200012441") << 2 << 514 << 1;
    QTest::newRow("ff03ffff007d9011") << 255 << 65535 << 125;
    QTest::newRow("000307d000018556") << 0 << 2000 << 1;
    QTest::newRow("01030000000045ca") << 1 << 0 << 0;
}

void tst_KvModbusCustom::readRequestIsTheseBytes()
{
    QFETCH(int, slaveId);
    QFETCH(int, address);
    QFETCH(int, count);
    m_master->setConstraints({30, 0, 2});
    m_master->readRegisters(static_cast<quint8>(slaveId), static_cast<quint16>(address),
                            static_cast<quint16>(count));
    QCOMPARE(m_line->requests().size(), 1);
    QCOMPARE(m_line->requests().first().toHex(), QByteArray(QTest::currentDataTag()));
}

void tst_KvModbusCustom::writeRequestIsTheseBytes_data()
{
    QTest::addColumn<int>("slaveId");
    QTest::addColumn<int>("address");
    QTest::addColumn<Words>("values");
    QTest::newRow("091003e8000306010000ffa55ab9ba") << 9 << 1000 << Words{0x0100, 0x00FF, 0xA55A};
    QTest::newRow("0210019100010249008971") << 2 << 401 << Words{0x4900};
    QTest::newRow("0010019100010249009011") << 0 << 401 << Words{0x4900};
    QTest::newRow("091003e8000000f130") << 9 << 1000 << Words{};
}

void tst_KvModbusCustom::writeRequestIsTheseBytes()
{
    QFETCH(int, slaveId);
    QFETCH(int, address);
    QFETCH(Words, values);
    m_master->setConstraints({30, 0, 2});
    m_master->writeRegisters(static_cast<quint8>(slaveId), static_cast<quint16>(address), values);
    QCOMPARE(m_line->requests().size(), 1);
    QCOMPARE(m_line->requests().first().toHex(), QByteArray(QTest::currentDataTag()));
}

void tst_KvModbusCustom::byteCountOfAWriteOf200ValuesIsItsLowByte()
{
    m_line->queueAnswer(writeRequestLength(200), {hex("091003e800c840a7")});
    QVERIFY(m_master->writeRegisters(9, 1000, countingFrom(0, 200)));
    const QByteArray request = m_line->requests().first();
    QCOMPARE(request.size(), 409);
    QCOMPARE(request.left(7).toHex(), QByteArray("091003e800c890"));
    for (int i = 0; i < 200; ++i) {
        QCOMPARE(int(static_cast<quint8>(request[7 + 2 * i])), 0);
        QCOMPARE(int(static_cast<quint8>(request[8 + 2 * i])), i);
    }
    QCOMPARE(request.right(2).toHex(), QByteArray("eaa8"));
}

void tst_KvModbusCustom::countOfAWriteIsModulo65536()
{
    // The line does not take all bytes in time. The first ones are enough for this test.
    m_master->setConstraints({30, 0, 2});
    m_master->writeRegisters(9, 1000, countingFrom(0, 65537));
    qSleepWhileProcessingEvents(30);
    QVERIFY(!m_line->requests().isEmpty());
    QCOMPARE(m_line->requests().first().left(11).toHex(), QByteArray("091003e8000102"
                                                                     "00000001"));
}

void tst_KvModbusCustom::readGivesTheValuesInOrder_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<Words>("values");
    QTest::newRow("one") << oneRegister << Words{0x07E8};
    QTest::newRow("three") << threeRegisters << threeValues;
    QTest::newRow("none") << hex("090300a132") << Words{};
    QTest::newRow("125")
        << hex("0903fa0100010101020103010401050106010701080109010a010b010c010d010e010f0110011101120"
               "113"
               "011401150116011701180119011a011b011c011d011e011f01200121012201230124012501260127012"
               "80129"
               "012a012b012c012d012e012f0130013101320133013401350136013701380139013a013b013c013d013"
               "e013f"
               "0140014101420143014401450146014701480149014a014b014c014d014e014f0150015101520153015"
               "40155"
               "0156015701580159015a015b015c015d015e015f0160016101620163016401650166016701680169016"
               "a016b"
               "016c016d016e016f0170017101720173017401750176017701780179017a017b017c2938")
        << countingFrom(0x100, 125);
}

void tst_KvModbusCustom::readGivesTheValuesInOrder()
{
    QFETCH(QByteArray, answer);
    QFETCH(Words, values);
    m_line->queueAnswer(readRequestLength, {answer});
    QCOMPARE(m_master->readRegisters(9, 2000, static_cast<quint16>(values.size())), values);
    QCOMPARE(m_master->error(), KvModbusAbstract::NoError);
}

void tst_KvModbusCustom::acceptedAnswers_data()
{
    QTest::addColumn<bool>("isRead");
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("read, one byte more") << true << oneRegister + '\0';
    QTest::newRow("read, a second frame after it") << true << oneRegister + writeDone;
    QTest::newRow("read, other byte count") << true << hex("0903ff07e8ca0b");
    QTest::newRow("write, one byte more") << false << writeDone + '\0';
    QTest::newRow("write, a second frame after it") << false << writeDone + oneRegister;
    QTest::newRow("write, other address and count") << false << hex("091000110063d16d");
}

void tst_KvModbusCustom::acceptedAnswers()
{
    QFETCH(bool, isRead);
    QFETCH(QByteArray, answer);
    QCOMPARE(accessAnsweredBy(answer, isRead), Words{isRead ? quint16{0x07E8} : quint16{1}});
    QCOMPARE(m_master->error(), KvModbusAbstract::NoError);
}

void tst_KvModbusCustom::differentSecondAnswerMakesAnAnswerAmbiguous_data()
{
    QTest::addColumn<QByteArray>("rest");
    QTest::addColumn<bool>("isAmbiguous");
    const QByteArray other = hex("09030200005985");
    QTest::newRow("nothing") << QByteArray() << false;
    QTest::newRow("a byte") << QByteArray(1, '\0') << false;
    QTest::newRow("most of an answer") << other.chopped(1) << false;
    QTest::newRow("the same answer") << oneRegister << false;
    QTest::newRow("another answer") << other << true;
}

void tst_KvModbusCustom::differentSecondAnswerMakesAnAnswerAmbiguous()
{
    QFETCH(QByteArray, rest);
    QFETCH(bool, isAmbiguous);
    QCOMPARE(accessAnsweredBy(oneRegister + rest, true), Words{0x07E8});
    QCOMPARE(m_master->isAnswerAmbiguous(), isAmbiguous);
    QCOMPARE(accessAnsweredBy(oneRegister, true), Words{0x07E8});
    QVERIFY(!m_master->isAnswerAmbiguous());
}

void tst_KvModbusCustom::rejectedAnswers_data()
{
    QTest::addColumn<bool>("isRead");
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<Error>("error");
    const Error timeout = KvModbusAbstract::TimeoutError;
    const Error badCrc = KvModbusAbstract::BadCrcError;
    QTest::newRow("read, silence") << true << QByteArray() << timeout;
    QTest::newRow("read, one byte short") << true << oneRegister.chopped(1) << timeout;
    QTest::newRow("read, header only") << true << oneRegister.left(2) << timeout;
    QTest::newRow("read, other slave") << true << hex("02030207e8fe3a") << timeout;
    QTest::newRow("read, other function") << true << hex("09040207e85a8f") << timeout;
    QTest::newRow("read, exception") << true << readRefused << timeout;
    QTest::newRow("read, noise before") << true << '\0' + oneRegister << timeout;
    QTest::newRow("read, echo before") << true << hex("090302020001253a") + oneRegister << badCrc;
    QTest::newRow("read, data damaged") << true << withBitFlipped(oneRegister, 3) << badCrc;
    QTest::newRow("read, low CRC byte damaged") << true << withBitFlipped(oneRegister, 5) << badCrc;
    QTest::newRow("read, high CRC byte damaged")
        << true << withBitFlipped(oneRegister, 6) << badCrc;
    QTest::newRow("write, silence") << false << QByteArray() << timeout;
    QTest::newRow("write, one byte short") << false << writeDone.chopped(1) << timeout;
    QTest::newRow("write, header only") << false << writeDone.left(2) << timeout;
    QTest::newRow("write, other slave") << false << hex("021003e80003004b") << timeout;
    QTest::newRow("write, other function") << false << hex("090603e8000348f3") << timeout;
    QTest::newRow("write, exception") << false << writeRefused << timeout;
    QTest::newRow("write, noise before") << false << '\0' + writeDone << timeout;
    QTest::newRow("write, address damaged") << false << withBitFlipped(writeDone, 2) << badCrc;
    QTest::newRow("write, low CRC byte damaged") << false << withBitFlipped(writeDone, 6) << badCrc;
    QTest::newRow("write, high CRC byte damaged")
        << false << withBitFlipped(writeDone, 7) << badCrc;
}

void tst_KvModbusCustom::rejectedAnswers()
{
    QFETCH(bool, isRead);
    QFETCH(QByteArray, answer);
    QFETCH(Error, error);
    m_master->setConstraints({100, 0, 2});
    QSignalSpy errors(m_master.data(), &KvModbusAbstract::errorOccurred);
    QCOMPARE(accessAnsweredBy(answer, isRead), Words());
    QCOMPARE(m_master->error(), error);
    QCOMPARE(errors.size(), 1);
    QCOMPARE(errors[0][0].value<Error>(), error);
    QVERIFY(m_master->isConnected());
}

void tst_KvModbusCustom::answerInPiecesIsPutTogether()
{
    m_line->queueAnswer(readRequestLength,
                        {oneRegister.left(1), oneRegister.mid(1, 3), oneRegister.mid(4)}, 30);
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words{0x07E8});
}

void tst_KvModbusCustom::silenceLastsTimeoutPlusFactorPerRegister_data()
{
    QTest::addColumn<bool>("isRead");
    QTest::addColumn<int>("timeoutMs");
    QTest::addColumn<int>("count");
    QTest::addColumn<int>("deadlineMs");
    QTest::newRow("read of one on an ordinary port") << true << 32 << 1 << 42;
    QTest::newRow("read of three on an ordinary port") << true << 32 << 3 << 62;
    QTest::newRow("read of three on a modem port") << true << 200 << 3 << 230;
    QTest::newRow("read of none") << true << 20 << 0 << 20;
    QTest::newRow("write of one on an ordinary port") << false << 32 << 1 << 42;
    QTest::newRow("write of three on an ordinary port") << false << 32 << 3 << 62;
    QTest::newRow("write of twenty") << false << 20 << 20 << 220;
}

void tst_KvModbusCustom::silenceLastsTimeoutPlusFactorPerRegister()
{
    QFETCH(bool, isRead);
    QFETCH(int, timeoutMs);
    QFETCH(int, count);
    QFETCH(int, deadlineMs);
    m_master->setConstraints({timeoutMs, 10, 2});
    // The master looks for the answer in steps, and a step may end a little late.
    const int limitMs = deadlineMs + deadlineMs / 20 + 17;
    const qint64 shortest = shortestMs(limitMs, [&] {
        if (isRead)
            m_master->readRegisters(9, 2000, static_cast<quint16>(count));
        else
            m_master->writeRegisters(9, 1000, countingFrom(0, count));
        QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    });
    QVERIFY2(shortest >= deadlineMs, qPrintable(QString::number(shortest)));
    QVERIFY2(shortest < limitMs, qPrintable(QString::number(shortest)));
}

void tst_KvModbusCustom::incompleteAnswerCostsTheWholeDeadline_data()
{
    QTest::addColumn<bool>("isRead");
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("exception to a read") << true << readRefused;
    QTest::newRow("exception to a write") << false << writeRefused;
    QTest::newRow("read, one byte short") << true << oneRegister.chopped(1);
    QTest::newRow("write, one byte short") << false << writeDone.chopped(1);
}

void tst_KvModbusCustom::incompleteAnswerCostsTheWholeDeadline()
{
    QFETCH(bool, isRead);
    QFETCH(QByteArray, answer);
    m_master->setConstraints({100, 50, 2});
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(accessAnsweredBy(answer, isRead), Words());
    QVERIFY2(clock.elapsed() >= 150, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
}

void tst_KvModbusCustom::completeAnswerEndsTheWaitWithAnyContent_data()
{
    QTest::addColumn<bool>("isRead");
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("read") << true << oneRegister;
    QTest::newRow("read, other slave") << true << hex("02030207e8fe3a");
    QTest::newRow("read, damaged") << true << withBitFlipped(oneRegister, 3);
    QTest::newRow("write") << false << writeDone;
    QTest::newRow("write, other function") << false << hex("090603e8000348f3");
    QTest::newRow("write, damaged") << false << withBitFlipped(writeDone, 2);
}

void tst_KvModbusCustom::completeAnswerEndsTheWaitWithAnyContent()
{
    QFETCH(bool, isRead);
    QFETCH(QByteArray, answer);
    QElapsedTimer clock;
    clock.start();
    accessAnsweredBy(answer, isRead);
    QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
}

void tst_KvModbusCustom::slowAnswerWithinTheDeadlineIsAccepted()
{
    m_master->setConstraints({200, 10, 2});
    m_line->queueAnswer(readRequestLength, {oneRegister}, 150);
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words{0x07E8});
    QCOMPARE(m_master->error(), KvModbusAbstract::NoError);
}

void tst_KvModbusCustom::answerAfterTheDeadlineIsRefused()
{
    m_master->setConstraints({50, 10, 2});
    m_line->queueAnswer(readRequestLength, {oneRegister}, 85);
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words());
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
}

void tst_KvModbusCustom::newTimingAppliesFromTheNextRequest()
{
    m_master->setConstraints({150, 0, 2});
    QTimer::singleShot(20, this, [&] { m_master->setConstraints({20, 0, 2}); });
    QElapsedTimer clock;
    clock.start();
    m_master->readRegisters(9, 514, 1);
    QVERIFY(clock.elapsed() >= 150);
}

void tst_KvModbusCustom::broadcastEndsInATimeout()
{
    m_master->setConstraints({30, 0, 2});
    QVERIFY(!m_master->writeRegisters(0, 401, {0x4900}));
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    QCOMPARE(m_master->readRegisters(0, 2000, 1), Words());
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    QCOMPARE(m_line->requests().first().size(), 11 + readRequestLength);
}

void tst_KvModbusCustom::lateAnswerIsDroppedBeforeTheNextRequest_data()
{
    QTest::addColumn<bool>("isFetched");
    QTest::newRow("fetched by the event loop") << true;
    QTest::newRow("still in the kernel") << false;
}

void tst_KvModbusCustom::lateAnswerIsDroppedBeforeTheNextRequest()
{
    QFETCH(bool, isFetched);
    m_line->send(oneRegister);
    QVERIFY(m_line->blockUntilUnread(oneRegister.size()));
    if (isFetched)
        qSleepWhileProcessingEvents(20);
    m_line->queueAnswer(readRequestLength, {threeRegisters});
    QCOMPARE(m_master->readRegisters(9, 2000, 3), threeValues);

    m_line->send(writeDone);
    QVERIFY(m_line->blockUntilUnread(writeDone.size()));
    if (isFetched)
        qSleepWhileProcessingEvents(20);
    m_line->queueAnswer(writeRequestLength(1), {writeRefused});
    m_master->setConstraints({50, 0, 2});
    QVERIFY(!m_master->writeRegisters(9, 1000, {1}));
}

void tst_KvModbusCustom::closedPortSendsNothingAndFailsAtOnce()
{
    m_master->disconnectFromDevice();
    QSignalSpy errors(m_master.data(), &KvModbusAbstract::errorOccurred);
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(m_master->readRegisters(9, 2000, 3), Words());
    QCOMPARE(m_master->error(), KvModbusAbstract::NotConnectedError);
    QVERIFY(!m_master->writeRegisters(9, 1000, {1, 2, 3}));
    QCOMPARE(m_master->error(), KvModbusAbstract::NotConnectedError);
    QVERIFY(clock.elapsed() < 1000);
    QCOMPARE(errors.size(), 2);

    QVERIFY(m_master->connectToDevice());
    qSleepWhileProcessingEvents(20);
    QCOMPARE(m_line->requests(), QList<QByteArray>());
}

void tst_KvModbusCustom::overriddenConnectionStateCounts()
{
    class Unplugged : public KvModbusCustom
    {
    public:
        using KvModbusCustom::KvModbusCustom;
        bool isConnected() override { return false; }
    };
    m_master->disconnectFromDevice();
    Unplugged master(m_line->portName(), nullptr);
    QVERIFY(master.connectToDevice());
    QCOMPARE(master.readRegisters(9, 2000, 3), Words());
    QCOMPARE(master.error(), KvModbusAbstract::NotConnectedError);
    qSleepWhileProcessingEvents(20);
    QCOMPARE(m_line->requests(), QList<QByteArray>());
}

void tst_KvModbusCustom::requestThatCannotBeWrittenTimesOut_data()
{
    QTest::addColumn<bool>("isRead");
    QTest::newRow("read") << true;
    QTest::newRow("write") << false;
}

void tst_KvModbusCustom::requestThatCannotBeWrittenTimesOut()
{
    QFETCH(bool, isRead);
    m_line->setTransmissionStopped(true);
    // The limit of the write counts here, not the deadline of the answer.
    const int limitMs = 80;
    const qint64 shortest = shortestMs(limitMs, [&] {
        QCOMPARE(access(isRead), Words());
        QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    });
    QVERIFY2(shortest >= 45, qPrintable(QString::number(shortest)));
    QVERIFY2(shortest < limitMs, qPrintable(QString::number(shortest)));
}

void tst_KvModbusCustom::timeSpentWritingCountsAgainstTheDeadline()
{
    // The write takes longer than the deadline, so the master does not wait for an answer.
    m_master->setConstraints({10, 0, 2});
    const Words values = countingFrom(0, 20000);
    const int length = writeRequestLength(values.size());
    bool isWritten = false;
    // A busy machine may exceed the time for writing.
    for (int attempt = 0; attempt < 20 && !isWritten; ++attempt) {
        QObject context;
        bool isWaiting = false;
        QTimer::singleShot(0, &context, [&] { isWaiting = true; });
        std::future<int> taken = takeRequestAfter(20, m_line->lineEnd(), length);
        QVERIFY(!m_master->writeRegisters(9, 1000, values));
        QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
        isWritten = taken.get() == length;
        QVERIFY(!isWaiting);
    }
    QVERIFY(isWritten);
}

void tst_KvModbusCustom::requestThatCouldNotBeWrittenIsNotSentLater()
{
    m_line->setTransmissionStopped(true);
    QVERIFY(!m_master->writeRegisters(9, 1000, {1}));
    m_line->setTransmissionStopped(false);
    m_line->queueAnswer(readRequestLength, {oneRegister});
    m_master->readRegisters(9, 514, 1);
    QCOMPARE(m_line->requests(), QList<QByteArray>{hex("090302020001253a")});
}

void tst_KvModbusCustom::everyRequestSignalsItsOutcomeOnce()
{
    QSignalSpy errors(m_master.data(), &KvModbusAbstract::errorOccurred);
    m_line->queueAnswer(readRequestLength, {oneRegister});
    m_master->readRegisters(9, 514, 1);
    m_line->queueAnswer(writeRequestLength(1), {writeDone});
    m_master->writeRegisters(9, 1000, {1});
    m_line->queueAnswer(readRequestLength, {withBitFlipped(oneRegister, 3)});
    m_master->readRegisters(9, 514, 1);
    m_master->disconnectFromDevice();
    m_master->readRegisters(9, 514, 1);
    QList<Error> outcomes;
    for (const QList<QVariant> &signal : errors)
        outcomes.append(signal[0].value<Error>());
    QCOMPARE(outcomes,
             QList<Error>({KvModbusAbstract::NoError, KvModbusAbstract::NoError,
                           KvModbusAbstract::BadCrcError, KvModbusAbstract::NotConnectedError}));
}

void tst_KvModbusCustom::seriousErrorsCloseThePort_data()
{
    QTest::addColumn<QSerialPort::SerialPortError>("error");
    QTest::addColumn<bool>("staysOpen");
    QTest::newRow("no error") << QSerialPort::NoError << true;
    QTest::newRow("timeout") << QSerialPort::TimeoutError << true;
    QTest::newRow("device not found") << QSerialPort::DeviceNotFoundError << false;
    QTest::newRow("permission") << QSerialPort::PermissionError << false;
    QTest::newRow("open") << QSerialPort::OpenError << false;
    QTest::newRow("write") << QSerialPort::WriteError << false;
    QTest::newRow("read") << QSerialPort::ReadError << false;
    QTest::newRow("resource") << QSerialPort::ResourceError << false;
    QTest::newRow("unsupported operation") << QSerialPort::UnsupportedOperationError << false;
    QTest::newRow("unknown") << QSerialPort::UnknownError << false;
    QTest::newRow("not open") << QSerialPort::NotOpenError << false;
}

void tst_KvModbusCustom::seriousErrorsCloseThePort()
{
    QFETCH(QSerialPort::SerialPortError, error);
    QFETCH(bool, staysOpen);
    QSignalSpy errors(m_master.data(), &KvModbusAbstract::errorOccurred);
    QVERIFY(QMetaObject::invokeMethod(m_master.data(), "onSerialPortErrorOccurred",
                                      Q_ARG(QSerialPort::SerialPortError, error)));
    QCOMPARE(m_master->isConnected(), staysOpen);
    QCOMPARE(errors.size(), 0);
    if (staysOpen)
        return;
    m_master->readRegisters(9, 514, 1);
    QCOMPARE(m_master->error(), KvModbusAbstract::NotConnectedError);
}

void tst_KvModbusCustom::hungUpLineIsClosedOnceAndStaysSilent()
{
    QSignalSpy errors(m_master.data(), &KvModbusAbstract::errorOccurred);
    m_line->hangUp();
    QTRY_VERIFY(!m_master->isConnected());

    int wakeUps = 0;
    connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, this,
            [&] { ++wakeUps; });
    qSleepWhileProcessingEvents(200);
    disconnect(QAbstractEventDispatcher::instance(), nullptr, this, nullptr);
    QVERIFY2(wakeUps < 20, qPrintable(QString::number(wakeUps)));

    QCOMPARE(errors.size(), 0);
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words());
    QCOMPARE(m_master->error(), KvModbusAbstract::NotConnectedError);
}

void tst_KvModbusCustom::hangUpDuringARequestEndsInATimeout()
{
    m_master->setConstraints({150, 0, 2});
    QSignalSpy errors(m_master.data(), &KvModbusAbstract::errorOccurred);
    QTimer::singleShot(20, this, [&] { m_line->hangUp(); });
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words());
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    QCOMPARE(errors.size(), 1);
    QVERIFY(!m_master->isConnected());
    m_master->readRegisters(9, 514, 1);
    QCOMPARE(m_master->error(), KvModbusAbstract::NotConnectedError);
}

void tst_KvModbusCustom::hangUpAfterPartOfTheAnswerEndsInATimeout()
{
    m_master->setConstraints({150, 0, 2});
    QTimer::singleShot(20, this, [&] {
        m_line->send(oneRegister.chopped(1));
        qSleepWhileProcessingEvents(20);
        m_line->hangUp();
    });
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words());
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    QVERIFY(!m_master->isConnected());
}

void tst_KvModbusCustom::hangUpAfterTheAnswerArrivedKeepsIt()
{
    QTimer::singleShot(20, this, [&] {
        m_line->send(oneRegister);
        qSleepWhileProcessingEvents(20);
        m_line->hangUp();
        QTRY_VERIFY(!m_master->isConnected());
    });
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words{0x07E8});
    QVERIFY(!m_master->isConnected());
}

void tst_KvModbusCustom::requestOnALineJustHungUpFails_data()
{
    QTest::addColumn<bool>("isRead");
    QTest::newRow("read") << true;
    QTest::newRow("write") << false;
}

void tst_KvModbusCustom::requestOnALineJustHungUpFails()
{
    QFETCH(bool, isRead);
    m_master->setConstraints({50, 0, 2});
    QSignalSpy errors(m_master.data(), &KvModbusAbstract::errorOccurred);
    m_line->hangUp();
    QCOMPARE(access(isRead), Words());
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    QCOMPARE(errors.size(), 1);
    QVERIFY(!m_master->isConnected());
}

void tst_KvModbusCustom::replacedLineCanBeOpenedAfterAHangUp()
{
    m_line->hangUp();
    QTRY_VERIFY(!m_master->isConnected());
    QVERIFY(!m_master->connectToDevice());

    PtyLine other;
    m_master->setPortName(other.portName());
    QVERIFY(m_master->connectToDevice());
    other.queueAnswer(readRequestLength, {oneRegister});
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words{0x07E8});
}

void tst_KvModbusCustom::requestInATurnThatFoundAnAnswerLeavesThePortOpen()
{
    Words values;
    ManyNotifiers notifiers([&] { values = m_master->readRegisters(9, 2000, 3); });
    notifiers.notify();
    m_line->send(oneRegister);
    QVERIFY(m_line->blockUntilUnread(oneRegister.size()));
    m_line->queueAnswer(readRequestLength, {threeRegisters});
    QCoreApplication::processEvents();
    QCOMPARE(values, threeValues);
    QVERIFY(m_master->isConnected());
}

void tst_KvModbusCustom::nestedRequestWaitsForTheOuterAnswerAndKeepsIt_data()
{
    QTest::addColumn<QList<QByteArray>>("pieces");
    QTest::newRow("in one piece") << QList<QByteArray>{threeRegisters};
    QTest::newRow("in pieces") << QList<QByteArray>{
        threeRegisters.left(1), threeRegisters.mid(1, 6), threeRegisters.mid(7)};
    QTest::newRow("longer") << QList<QByteArray>{threeRegisters + writeDone};
}

void tst_KvModbusCustom::nestedRequestWaitsForTheOuterAnswerAndKeepsIt()
{
    QFETCH(QList<QByteArray>, pieces);
    m_line->queueAnswer(readRequestLength, pieces, 60);
    m_line->queueAnswer(readRequestLength, {oneRegister}, 30);
    Words innerValues;
    readLater(20, innerValues);
    QSignalSpy errors(m_master.data(), &KvModbusAbstract::errorOccurred);
    QCOMPARE(m_master->readRegisters(9, 2000, 3), threeValues);
    QCOMPARE(m_master->error(), KvModbusAbstract::NoError);
    QCOMPARE(innerValues, Words{0x07E8});
    QCOMPARE(errors.size(), 2);
    QCOMPARE(m_line->overlaps(), 0);
}

void tst_KvModbusCustom::nestedRequestWaitsForTheOuterDeadline_data()
{
    QTest::addColumn<QByteArray>("outerAnswer");
    QTest::newRow("silence") << QByteArray();
    QTest::newRow("part of an answer") << threeRegisters.chopped(1);
    QTest::newRow("exception") << readRefused;
}

void tst_KvModbusCustom::nestedRequestWaitsForTheOuterDeadline()
{
    QFETCH(QByteArray, outerAnswer);
    m_master->setConstraints({200, 0, 2});
    m_line->queueAnswer(readRequestLength, {outerAnswer});
    m_line->queueAnswer(readRequestLength, {oneRegister});
    Words innerValues;
    readLater(20, innerValues);
    QElapsedTimer clock;
    clock.start();
    // The second request is on the line one deadline after the first one, not two deadlines.
    QObject context;
    QTimer::singleShot(180, Qt::PreciseTimer, &context,
                       [&] { QVERIFY(clock.elapsed() >= 200 || m_line->requests().size() == 1); });
    QCOMPARE(m_master->readRegisters(9, 2000, 3), Words());
    QVERIFY2(clock.elapsed() >= 200, qPrintable(QString::number(clock.elapsed())));
    QVERIFY2(clock.elapsed() < 400, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    QCOMPARE(innerValues, Words{0x07E8});
    QCOMPARE(m_line->requests().size(), 2);
}

void tst_KvModbusCustom::threeLevelsOfRequestsGetTheirOwnAnswers()
{
    m_line->queueAnswer(readRequestLength, {threeRegisters}, 60);
    m_line->queueAnswer(readRequestLength, {oneRegister}, 60);
    m_line->queueAnswer(readRequestLength, {oneRegister}, 60);
    // Each request begins while the one before it is on the line.
    Words values;
    Words others;
    readLater(20, values);
    QTimer::singleShot(80, Qt::PreciseTimer, this, [&] {
        QCOMPARE(m_line->requests().size(), 2);
        others = m_master->readRegisters(9, 514, 1);
    });
    QCOMPARE(m_master->readRegisters(9, 2000, 3), threeValues);
    QCOMPARE(values, Words{0x07E8});
    QCOMPARE(others, Words{0x07E8});
    QCOMPARE(m_line->overlaps(), 0);
}

void tst_KvModbusCustom::requestsOfOneTurnGoOutOneAfterTheOther()
{
    constexpr int others = 20;
    m_line->queueAnswer(readRequestLength, {threeRegisters}, 40);
    std::vector<Words> values(others);
    for (Words &each : values) {
        m_line->queueAnswer(readRequestLength, {oneRegister}, 5);
        readLater(10, each);
    }
    QCOMPARE(m_master->readRegisters(9, 2000, 3), threeValues);
    for (const Words &each : values)
        QCOMPARE(each, Words{0x07E8});
    QCOMPARE(m_line->overlaps(), 0);
}

void tst_KvModbusCustom::nestedRequestInTheTurnOfTheOuterAnswerKeepsBothAnswers()
{
    m_line->queueAnswer(readRequestLength, {});
    m_line->queueAnswer(readRequestLength, {oneRegister});
    Words innerValues;
    ManyNotifiers notifiers([&] { innerValues = m_master->readRegisters(9, 514, 1); });
    QTimer::singleShot(20, this, [&] {
        notifiers.notify();
        m_line->send(threeRegisters);
        QVERIFY(m_line->blockUntilUnread(threeRegisters.size()));
    });
    QCOMPARE(m_master->readRegisters(9, 2000, 3), threeValues);
    QCOMPARE(innerValues, Words{0x07E8});
    QVERIFY(m_master->isConnected());
}

void tst_KvModbusCustom::answerIsKeptWhenANestedRequestClosesThePort()
{
    m_line->queueAnswer(readRequestLength, {threeRegisters}, 40);
    m_line->queueAnswer(readRequestLength, {oneRegister});
    Words innerValues;
    QTimer::singleShot(20, this, [&] {
        innerValues = m_master->readRegisters(9, 514, 1);
        m_master->disconnectFromDevice();
    });
    QCOMPARE(m_master->readRegisters(9, 2000, 3), threeValues);
    QCOMPARE(innerValues, Words{0x07E8});
    QVERIFY(!m_master->isConnected());
}

void tst_KvModbusCustom::nestedRequestSendsNothingWhenThePortClosesDuringItsWait()
{
    m_master->setConstraints({200, 0, 2});
    Words innerValues;
    Error innerError = KvModbusAbstract::InternalError;
    QTimer::singleShot(20, this, [&] {
        innerValues = m_master->readRegisters(9, 514, 1);
        innerError = m_master->error();
    });
    QTimer::singleShot(60, this, [&] { m_master->disconnectFromDevice(); });
    QCOMPARE(m_master->readRegisters(9, 2000, 3), Words());
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    QCOMPARE(innerValues, Words());
    QCOMPARE(innerError, KvModbusAbstract::NotConnectedError);
    QCOMPARE(m_line->requests().size(), 1);
}

void tst_KvModbusCustom::waitForAQuietLineIncludesAClosedPort()
{
    m_master->waitUntilQuiet();
    m_master->setConstraints({200, 0, 2});
    QElapsedTimer clock;
    clock.start();
    qint64 quietAfterMs = 0;
    QTimer::singleShot(20, this, [&] {
        m_master->disconnectFromDevice();
        m_master->waitUntilQuiet();
        quietAfterMs = clock.elapsed();
    });
    QCOMPARE(m_master->readRegisters(9, 2000, 3), Words());
    QVERIFY2(quietAfterMs >= 200, qPrintable(QString::number(quietAfterMs)));
}

void tst_KvModbusCustom::floodDuringARequestEndsIt()
{
    m_line->queueAnswer(readRequestLength, {});
    QTimer::singleShot(20, this, [&] { m_line->send(QByteArray(4000, 'x')); });
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(m_master->readRegisters(9, 2000, 3), Words());
    QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    m_line->queueAnswer(readRequestLength, {oneRegister});
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words{0x07E8});
}

void tst_KvModbusCustom::portReopenedInsideTheWaitServesTheNextRequest()
{
    m_master->setConstraints({200, 0, 2});
    QTimer::singleShot(20, this, [&] {
        m_master->disconnectFromDevice();
        QVERIFY(m_master->connectToDevice());
    });
    m_line->queueAnswer(readRequestLength, {});
    m_line->queueAnswer(readRequestLength, {oneRegister});
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words());
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words{0x07E8});
}

// Must be the last test: quitRequested() stays true in this process.
void tst_KvModbusCustom::quitSignalEndsTheWaitsForAnAnswerAndForTheLine()
{
    quitOnSignals({SIGUSR1});
    m_master->setConstraints({20000, 0, 2});
    Words innerValues;
    Error innerError = KvModbusAbstract::InternalError;
    QTimer::singleShot(30, this, [&] {
        innerValues = m_master->readRegisters(9, 514, 1);
        innerError = m_master->error();
    });
    QTimer::singleShot(60, this, [] { std::raise(SIGUSR1); });
    QElapsedTimer clock;
    clock.start();
    QCOMPARE(m_master->readRegisters(9, 514, 1), Words());
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    QCOMPARE(innerValues, Words());
    QCOMPARE(innerError, KvModbusAbstract::TimeoutError);
    QCOMPARE(m_line->requests(), QList<QByteArray>{hex("090302020001253a")});
    QVERIFY(!m_master->writeRegisters(9, 1000, {1}));
    QVERIFY2(clock.elapsed() < 1000, qPrintable(QString::number(clock.elapsed())));
}

QTEST_GUILESS_MAIN(tst_KvModbusCustom)
#include "tst_kvmodbuscustom.moc"
