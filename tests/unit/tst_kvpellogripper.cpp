#include "kvpellogripper.h"

#include "scriptedmaster.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <functional>
#include <memory>

namespace {

using Words = ScriptedMaster::Words;
using Error = KvDeviceBase::KvDeviceError;
using Getter = quint8 (KvPelloGripper::*)() const;
using Setter = void (KvPelloGripper::*)();
using ByteSetter = void (KvPelloGripper::*)(quint8);

constexpr quint8 slave = 9;
constexpr quint16 versionAddress = 500;
constexpr quint16 serialAddress = 510;
constexpr quint16 yearAddress = 514;
constexpr quint16 cyclesAddress = 600;
constexpr quint16 secondsAddress = 602;
constexpr quint16 activationsAddress = 604;
constexpr quint16 outputAddress = 1000;
constexpr quint16 inputAddress = 2000;

struct InputField
{
    const char *name;
    Getter getter;
    int word;
    int lowestBit;
    int width;
};

const QVector<InputField> inputFields{
    {"vacuum status", &KvPelloGripper::getVacuumStatus, 0, 0, 2},
    {"mode echo", &KvPelloGripper::getGripperModeEcho, 0, 9, 2},
    {"go-to echo", &KvPelloGripper::getGoToEcho, 0, 11, 1},
    {"status", &KvPelloGripper::getStatus, 0, 12, 2},
    {"object flag", &KvPelloGripper::getObjectFlag, 0, 14, 2},
    {"position request echo", &KvPelloGripper::getPositionRequestEcho, 1, 0, 8},
    {"fault flag", &KvPelloGripper::getFaultFlag, 1, 8, 4},
    {"motor current", &KvPelloGripper::getMotorCurrent, 2, 0, 8},
    {"position", &KvPelloGripper::getPosition, 2, 8, 8},
};

struct OutputFlag
{
    const char *name;
    Setter set;
    Setter clear;
    quint16 bit; // in the first word
    Getter getter;
};

const QVector<OutputFlag> outputFlags{
    {"LED bypass", &KvPelloGripper::setLedBypass, &KvPelloGripper::clearLedBypass, 0x0010,
     &KvPelloGripper::getLedBypass},
    {"LED red", &KvPelloGripper::setLedRed, &KvPelloGripper::clearLedRed, 0x0020,
     &KvPelloGripper::getLedRed},
    {"LED blue", &KvPelloGripper::setLedBlue, &KvPelloGripper::clearLedBlue, 0x0040,
     &KvPelloGripper::getLedBlue},
    {"LED green", &KvPelloGripper::setLedGreen, &KvPelloGripper::clearLedGreen, 0x0080,
     &KvPelloGripper::getLedGreen},
    {"mode", &KvPelloGripper::setGripperModeAutomatic, &KvPelloGripper::setGripperModeManual,
     0x0200, nullptr},
    {"go-to", &KvPelloGripper::setGoToRequest, &KvPelloGripper::clearGoToRequest, 0x0800,
     &KvPelloGripper::getGoToRequest},
    {"auto-release", &KvPelloGripper::setAutoReleaseRequest,
     &KvPelloGripper::clearAutoReleaseRequest, 0x1000, &KvPelloGripper::getAutoReleaseRequest},
    {"auto-release direction", &KvPelloGripper::setAutoReleaseDirectionRequest,
     &KvPelloGripper::clearAutoReleaseDirectionRequest, 0x2000,
     &KvPelloGripper::getAutoReleaseDirectionRequest},
};

struct OutputByte
{
    const char *name;
    ByteSetter set;
    int word;
    int lowestBit;
    Getter getter;
};

const QVector<OutputByte> outputBytes{
    {"position", &KvPelloGripper::setPositionRequest, 1, 0, &KvPelloGripper::getPositionRequest},
    {"peak current", &KvPelloGripper::setMaxPeakSupplyCurrent, 1, 8,
     &KvPelloGripper::getMaxPeakSupplyCurrent},
    {"force", &KvPelloGripper::setForceRequest, 2, 0, &KvPelloGripper::getForceRequest},
    {"speed", &KvPelloGripper::setSpeedRequest, 2, 8, &KvPelloGripper::getSpeedRequest},
};

QString outputWrite(quint16 action, quint16 position = 0, quint16 motion = 0)
{
    const QChar zero = QLatin1Char('0');
    return QStringLiteral("write 9 1000: 0x%1 0x%2 0x%3")
        .arg(action, 4, 16, zero)
        .arg(position, 4, 16, zero)
        .arg(motion, 4, 16, zero);
}

} // namespace

Q_DECLARE_METATYPE(std::function<void(KvPelloGripper &)>)

class tst_KvPelloGripper : public QObject
{
    Q_OBJECT

private slots:
    void init();

    // Construction
    void constructionReadsInThisOrder();
    void firstRequestComesAfterTheRateHasSettled();
    void eventsAreProcessedDuringConstruction();
    void productCodeDecides_data();
    void productCodeDecides();
    void gripperInErrorIsNotValid();
    void closedLinkGetsNoRequest();
    void everyFailureEndsWithInitilizationError_data();
    void everyFailureEndsWithInitilizationError();
    void failedIdentityReadIsNotRepeated_data();
    void failedIdentityReadIsNotRepeated();
    void successWithOneAttemptLeftIsAccepted();
    void successWithNoAttemptLeftIsRejected();
    void numberOfAttemptsIsLimited();
    void yearIsReadAgainAfterAPause();
    void failedFirstPollRejectsTheGripper_data();
    void failedFirstPollRejectsTheGripper();
    void firstPollComesAfterLateIdentityAnswers();
    void absentGripperGetsOneAttempt();
    void firstPollStartsTheOutputImage();
    void initOutputKeepsTheRequestsThatNoEchoShows();
    void freshGripperWritesOnItsFirstPoll();

    // Input image
    void everyInputBitReachesItsFieldOnly_data();
    void everyInputBitReachesItsFieldOnly();
    void activateEchoNeedsACompletedActivation_data();
    void activateEchoNeedsACompletedActivation();
    void shortPollLeavesEveryFieldUnchanged_data();
    void shortPollLeavesEveryFieldUnchanged();
    void longPollIsDecodedFromItsFirstWords();
    void failedCounterKeepsItsValueAndEndsThePoll_data();
    void failedCounterKeepsItsValueAndEndsThePoll();
    void counterOfAnAmbiguousAnswerKeepsItsValue();
    void countersDoNotChangeTheDeviceError();

    // Output image
    void eachFlagIsItsBitOnTheWire_data();
    void eachFlagIsItsBitOnTheWire();
    void eachByteIsItsHalfWordOnTheWire_data();
    void eachByteIsItsHalfWordOnTheWire();
    void unusedOutputBitsStayZero();
    void onlyAChangeMarksNewOutput();
    void sentImageIsNoLongerNewEvenWhenTheWriteFails();
    void outputChangedBetweenTheAttemptsIsWrittenOnceMore_data();
    void outputChangedBetweenTheAttemptsIsWrittenOnceMore();
    void outputRepeatedUnchangedIsNotWrittenOnceMore();

    // Activation
    void activationOfAnActiveGripperTakesTwoWrites();
    void activationOfAnInactiveGripperIsSentAtOnce();
    void activationAlwaysMarksNewOutput();
    void clearedActivationIsSentEvenIfNoneWasPending();
    void clearedActivationWithdrawsAPendingOne();
    void failedActivationWriteIsRepeated();
    void pollAloneDoesNotChangeTheActivationSent();

    // Replacement by a scan
    void unacknowledgedFieldIsCopied_data();
    void unacknowledgedFieldIsCopied();
    void acknowledgedFieldIsNotCopied();
    void fieldSetDuringTheWriteIsCopied();
    void fieldSetToItsOldValueIsCopiedOnceAReplacementIsExpected();
    void activationThatIsNotCarriedOutIsCopied_data();
    void activationThatIsNotCarriedOutIsCopied();

    // Maintenance
    void countersAreLowWordFirst();
    void directReadsUseTheirRegister_data();
    void directReadsUseTheirRegister();
    void directReadsThatFailGiveZero_data();
    void directReadsThatFailGiveZero();
    void speedLimitThatTheGripperShowsReturnsFalse_data();
    void speedLimitThatTheGripperShowsReturnsFalse();
    void speedLimitIsWrittenAndReadBackAfterAPause();
    void refusedSpeedLimitIsNotReadBack();

private:
    std::unique_ptr<ScriptedMaster> m_master;

    std::unique_ptr<KvPelloGripper> makeGripper();
    QList<Error> errorsOfConstruction();
    // The gripper answers this poll with `status`.
    void poll(KvPelloGripper &gripper, const Words &status);
    // Writes the output and returns the request as text.
    QString written(KvPelloGripper &gripper);
};

void tst_KvPelloGripper::init()
{
    m_master = std::make_unique<ScriptedMaster>();
    m_master->addGripper(slave);
}

std::unique_ptr<KvPelloGripper> tst_KvPelloGripper::makeGripper()
{
    auto gripper = std::make_unique<KvPelloGripper>(*m_master, slave);
    m_master->takeRequests();
    return gripper;
}

void tst_KvPelloGripper::poll(KvPelloGripper &gripper, const Words &status)
{
    m_master->setRegisters(slave, inputAddress, status);
    QVERIFY(gripper.updateInput());
}

QString tst_KvPelloGripper::written(KvPelloGripper &gripper)
{
    m_master->takeRequests();
    return gripper.updateOutput() ? m_master->takeRequests().join(QLatin1Char(';'))
                                  : QStringLiteral("refused");
}

// The parent knows a gripper during its construction, so an event can connect to its signals.
QList<Error> tst_KvPelloGripper::errorsOfConstruction()
{
    QObject parent;
    QList<Error> errors;
    QTimer::singleShot(0, &parent, [&] {
        connect(parent.findChild<KvDeviceBase *>(), &KvDeviceBase::errorOccurred, &parent,
                [&](Error error) { errors.append(error); });
    });
    const KvPelloGripper gripper(*m_master, slave, &parent);
    if (errors.isEmpty() || errors.last() != gripper.error())
        errors.append(gripper.error());
    return errors;
}

void tst_KvPelloGripper::constructionReadsInThisOrder()
{
    const KvPelloGripper gripper(*m_master, slave);
    QCOMPARE(gripper.error(), KvDeviceBase::NoError);
    QCOMPARE(m_master->takeRequests(),
             QStringList({QStringLiteral("baud 115200"), QStringLiteral("read 9 500 3"),
                          QStringLiteral("read 9 514 1"), QStringLiteral("read 9 510 4"),
                          QStringLiteral("read 9 2000 3"), QStringLiteral("read 9 600 2"),
                          QStringLiteral("read 9 602 2"), QStringLiteral("read 9 604 2")}));
}

void tst_KvPelloGripper::firstRequestComesAfterTheRateHasSettled()
{
    QElapsedTimer clock;
    QList<qint64> times;
    m_master->setOnRequest([&] { times.append(clock.elapsed()); });
    clock.start();
    const KvPelloGripper gripper(*m_master, slave);
    QVERIFY(times.size() > 1);
    QVERIFY2(times[1] - times[0] >= 185, qPrintable(QString::number(times[1] - times[0])));
}

void tst_KvPelloGripper::eventsAreProcessedDuringConstruction()
{
    // The first pause lasts 200 ms. Timers fire in the order in which they are due, so all of these
    // fire inside the pause, also on a slow machine.
    QList<int> fired;
    QList<int> due;
    QObject context;
    for (int ms = 0; ms < 200; ms += 20) {
        due.append(ms);
        QTimer::singleShot(ms, Qt::PreciseTimer, &context, [&fired, ms] { fired.append(ms); });
    }
    QList<QList<int>> firedBeforeRequest;
    m_master->setOnRequest([&] { firedBeforeRequest.append(fired); });
    const KvPelloGripper gripper(*m_master, slave);
    QCOMPARE(firedBeforeRequest.value(0), QList<int>()); // the rate
    QCOMPARE(firedBeforeRequest.value(1), due);          // the first read
}

void tst_KvPelloGripper::productCodeDecides_data()
{
    QTest::addColumn<quint16>("code");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("TA") << quint16{0x5441} << true;
    QTest::newRow("TB") << quint16{0x5442} << true;
    QTest::newRow("TF") << quint16{0x5446} << true;
    QTest::newRow("TE") << quint16{0x5445} << true;
    QTest::newRow("TC") << quint16{0x5443} << false;
    QTest::newRow("TD") << quint16{0x5444} << false;
    QTest::newRow("TG") << quint16{0x5447} << false;
    QTest::newRow("ta") << quint16{0x7461} << false;
    QTest::newRow("Ta") << quint16{0x5461} << false;
    QTest::newRow("AT") << quint16{0x4154} << false;
    QTest::newRow("NUL") << quint16{0} << false;
}

void tst_KvPelloGripper::productCodeDecides()
{
    QFETCH(quint16, code);
    QFETCH(bool, accepted);
    m_master->setRegisters(slave, versionAddress, {code, 0x3301, 0x060E});
    KvPelloGripper gripper(*m_master, slave);
    QCOMPARE(gripper.error(), accepted ? KvDeviceBase::NoError : KvDeviceBase::InitilizationError);
    gripper.clearError();
    QCOMPARE(gripper.isValidDevice(), accepted);
    const QStringList requests = m_master->takeRequests();
    QCOMPARE(requests.contains(QStringLiteral("read 9 514 1")), accepted);
    QCOMPARE(requests.contains(QStringLiteral("read 9 2000 3")), accepted);
}

void tst_KvPelloGripper::gripperInErrorIsNotValid()
{
    const auto gripper = makeGripper();
    QVERIFY(gripper->isValidDevice());
    // The gripper knows its version, so no read clears the error.
    gripper->setError(KvDeviceBase::CommunicationError);
    QVERIFY(!gripper->isValidDevice());
    gripper->clearError();
    QVERIFY(gripper->isValidDevice());
    QCOMPARE(m_master->takeRequests(), QStringList());
}

void tst_KvPelloGripper::closedLinkGetsNoRequest()
{
    m_master->setOpen(false);
    const KvPelloGripper gripper(*m_master, slave);
    QCOMPARE(gripper.error(), KvDeviceBase::InitilizationError);
    QCOMPARE(m_master->takeRequests(), QStringList(QStringLiteral("baud 115200")));
}

void tst_KvPelloGripper::everyFailureEndsWithInitilizationError_data()
{
    QTest::addColumn<bool>("isOpen");
    QTest::addColumn<Words>("version");
    QTest::addColumn<Words>("year");
    QTest::addColumn<Words>("status");
    QTest::addColumn<QList<Error>>("errors");
    const Words known{0x5441, 0x3301, 0x060E};
    const Error none = KvDeviceBase::NoError;
    const Error invalid = KvDeviceBase::InvalideDeviceError;
    const Error closed = KvDeviceBase::NotConnectedError;
    const Error silent = KvDeviceBase::CommunicationError;
    const Error failed = KvDeviceBase::InitilizationError;
    QTest::newRow("link closed") << false << known << Words{2024} << Words{0, 0, 0}
                                 << QList<Error>{closed, failed};
    QTest::newRow("other device") << true << Words{0x5858, 0, 0} << Words{2024} << Words{0, 0, 0}
                                  << QList<Error>{none, invalid, failed};
    QTest::newRow("no version") << true << Words{} << Words{2024} << Words{0, 0, 0}
                                << QList<Error>{silent, invalid, failed};
    QTest::newRow("no year") << true << known << Words{} << Words{0, 0, 0}
                             << QList<Error>{none, silent, failed};
    QTest::newRow("no status") << true << known << Words{2024} << Words{}
                               << QList<Error>{none, none, none, silent, failed};
    QTest::newRow("version once more")
        << true << known << Words{2024} << known << QList<Error>{none, none, none, none, failed};
    QTest::newRow("no failure") << true << known << Words{2024} << Words{0, 0, 0}
                                << QList<Error>{none, none, none, none};
}

void tst_KvPelloGripper::everyFailureEndsWithInitilizationError()
{
    QFETCH(bool, isOpen);
    QFETCH(Words, version);
    QFETCH(Words, year);
    QFETCH(Words, status);
    QFETCH(QList<Error>, errors);
    m_master->setOpen(isOpen);
    m_master->setRegisters(slave, versionAddress, version);
    m_master->setRegisters(slave, yearAddress, year);
    m_master->setRegisters(slave, inputAddress, status);
    QCOMPARE(errorsOfConstruction(), errors);
}

void tst_KvPelloGripper::failedIdentityReadIsNotRepeated_data()
{
    QTest::addColumn<quint16>("address");
    QTest::addColumn<int>("length");
    QTest::newRow("version, silence") << versionAddress << 0;
    QTest::newRow("version, one short") << versionAddress << 2;
    QTest::newRow("year, silence") << yearAddress << 0;
    QTest::newRow("serial number, silence") << serialAddress << 0;
    QTest::newRow("serial number, one short") << serialAddress << 3;
}

void tst_KvPelloGripper::failedIdentityReadIsNotRepeated()
{
    QFETCH(quint16, address);
    QFETCH(int, length);
    m_master->setNextAnswers(slave, address, {Words(length, 0x5441)});
    const KvPelloGripper gripper(*m_master, slave);
    QCOMPARE(gripper.error(), KvDeviceBase::InitilizationError);
    const QStringList requests = m_master->takeRequests();
    QVERIFY(requests.last().startsWith(QStringLiteral("read 9 %1 ").arg(address)));
    QCOMPARE(requests.filter(QStringLiteral(" %1 ").arg(address)).size(), 1);
}

void tst_KvPelloGripper::successWithOneAttemptLeftIsAccepted()
{
    // One attempt for the version, three for the year, one for the serial number.
    m_master->setNextAnswers(slave, yearAddress, {{0}, {0}});
    const KvPelloGripper gripper(*m_master, slave);
    QCOMPARE(gripper.error(), KvDeviceBase::NoError);
    QCOMPARE(m_master->takeRequests().filter(QStringLiteral("read 9 514 1")).size(), 3);
}

void tst_KvPelloGripper::successWithNoAttemptLeftIsRejected()
{
    m_master->setNextAnswers(slave, yearAddress, {{0}, {0}, {0}});
    KvPelloGripper gripper(*m_master, slave);
    QCOMPARE(gripper.error(), KvDeviceBase::InitilizationError);
    const QStringList requests = m_master->takeRequests();
    QCOMPARE(requests.filter(QStringLiteral("read 9 514 1")).size(), 4);
    QCOMPARE(requests.last(), QStringLiteral("read 9 510 4"));
    QCOMPARE(gripper.getSerialNumber(), QStringLiteral("ABC-0042"));
    QCOMPARE(m_master->takeRequests(), QStringList());
}

void tst_KvPelloGripper::numberOfAttemptsIsLimited()
{
    m_master->setRegisters(slave, yearAddress, {0});
    const KvPelloGripper gripper(*m_master, slave);
    QCOMPARE(gripper.error(), KvDeviceBase::InitilizationError);
    const QStringList requests = m_master->takeRequests();
    QCOMPARE(requests.filter(QStringLiteral("read 9 514 1")).size(), 5);
    QCOMPARE(requests.last(), QStringLiteral("read 9 514 1"));
}

void tst_KvPelloGripper::yearIsReadAgainAfterAPause()
{
    m_master->setNextAnswers(slave, yearAddress, {{0}, {0}});
    QElapsedTimer clock;
    QList<qint64> times;
    m_master->setOnRequest([&] { times.append(clock.elapsed()); });
    clock.start();
    const KvPelloGripper gripper(*m_master, slave);
    // After the rate and the version.
    QVERIFY(times.size() > 4);
    QVERIFY2(times[3] - times[2] >= 46, qPrintable(QString::number(times[3] - times[2])));
    QVERIFY2(times[4] - times[3] >= 46, qPrintable(QString::number(times[4] - times[3])));
}

void tst_KvPelloGripper::failedFirstPollRejectsTheGripper_data()
{
    QTest::addColumn<quint16>("address");
    QTest::newRow("status") << inputAddress;
    QTest::newRow("cycles") << cyclesAddress;
    QTest::newRow("seconds") << secondsAddress;
    QTest::newRow("activations") << activationsAddress;
}

void tst_KvPelloGripper::failedFirstPollRejectsTheGripper()
{
    QFETCH(quint16, address);
    m_master->setRegisters(slave, address, {1});
    const KvPelloGripper gripper(*m_master, slave);
    QCOMPARE(gripper.error(), KvDeviceBase::InitilizationError);
}

void tst_KvPelloGripper::firstPollComesAfterLateIdentityAnswers()
{
    QElapsedTimer clock;
    QList<qint64> times;
    m_master->setOnRequest([&] { times.append(clock.elapsed()); });
    clock.start();
    const KvPelloGripper gripper(*m_master, slave);
    // After the rate, the version, the year and the serial number.
    QVERIFY(times.size() > 4);
    QVERIFY2(times[4] - times[3] >= 96, qPrintable(QString::number(times[4] - times[3])));
}

void tst_KvPelloGripper::absentGripperGetsOneAttempt()
{
    QElapsedTimer clock;
    m_master->setRegisters(slave, versionAddress, {});
    m_master->setOnRequest([&] { clock.start(); });
    const KvPelloGripper gripper(*m_master, slave);
    QVERIFY2(clock.elapsed() < 80, qPrintable(QString::number(clock.elapsed())));
}

void tst_KvPelloGripper::firstPollStartsTheOutputImage()
{
    // Every bit is set except the activation. The image copies only go-to and the position request.
    m_master->setRegisters(slave, inputAddress, {0xFEFF, 0xFFAB, 0xFFFF});
    QCOMPARE(written(*makeGripper()), outputWrite(0x0800, 0x00AB));
    m_master->setRegisters(slave, inputAddress, {0x0100, 0, 0});
    QCOMPARE(written(*makeGripper()), outputWrite(0x0100));
    m_master->setRegisters(slave, inputAddress, {0x0900, 0x00AB, 0});
    const auto gripper = makeGripper();
    QCOMPARE(gripper->getGoToRequest(), quint8{1});
    QCOMPARE(gripper->getPositionRequest(), quint8{0xAB});
    QCOMPARE(gripper->getActivateRequest(), quint8{0});
}

void tst_KvPelloGripper::initOutputKeepsTheRequestsThatNoEchoShows()
{
    const auto gripper = makeGripper();
    for (const OutputFlag &flag : outputFlags)
        (*gripper.*flag.set)();
    for (const OutputByte &byte : outputBytes)
        (*gripper.*byte.set)(0xFF);
    QVERIFY(gripper->initOutput());
    QCOMPARE(written(*gripper), outputWrite(0x32F0, 0xFF00, 0xFFFF)); // with go-to and position
    m_master->setRegisters(slave, inputAddress, {0x0900, 0x00AB, 0});
    QVERIFY(gripper->initOutput());
    QCOMPARE(written(*gripper), outputWrite(0x3BF0, 0xFFAB, 0xFFFF));
}

void tst_KvPelloGripper::freshGripperWritesOnItsFirstPoll()
{
    const auto gripper = makeGripper();
    QVERIFY(gripper->isNewOutput());
    gripper->setSpeedRequest(0);
    written(*gripper);
    QVERIFY(!gripper->isNewOutput());
    gripper->setSpeedRequest(0);
    QVERIFY(!gripper->isNewOutput());
}

void tst_KvPelloGripper::everyInputBitReachesItsFieldOnly_data()
{
    QTest::addColumn<Words>("status");
    QTest::newRow("none") << Words{0, 0, 0};
    QTest::newRow("all") << Words{0xFFFF, 0xFFFF, 0xFFFF};
    QTest::newRow("alternating") << Words{0xAAAA, 0x5555, 0xAAAA};
    QTest::newRow("alternating the other way") << Words{0x5555, 0xAAAA, 0x5555};
    for (int word = 0; word < 3; ++word) {
        for (int bit = 0; bit < 16; ++bit) {
            Words one(3, 0);
            one[word] = static_cast<quint16>(1 << bit);
            Words allButOne(3, 0xFFFF);
            allButOne[word] = static_cast<quint16>(~(1 << bit) & 0xFFFF);
            QTest::addRow("word %d bit %d", word, bit) << one;
            QTest::addRow("all but word %d bit %d", word, bit) << allButOne;
        }
    }
}

void tst_KvPelloGripper::everyInputBitReachesItsFieldOnly()
{
    QFETCH(Words, status);
    // One gripper serves all rows, because a poll renews the whole image.
    static ScriptedMaster master;
    master.addGripper(slave);
    static KvPelloGripper gripper(master, slave);
    master.setRegisters(slave, inputAddress, status);
    QVERIFY(gripper.updateInput());
    for (const InputField &field : inputFields) {
        const int expected = status[field.word] >> field.lowestBit & ((1 << field.width) - 1);
        const int actual = (gripper.*field.getter)();
        QVERIFY2(actual == expected, qPrintable(QStringLiteral("%1: %2 instead of %3")
                                                    .arg(QLatin1String(field.name))
                                                    .arg(actual)
                                                    .arg(expected)));
    }
}

void tst_KvPelloGripper::activateEchoNeedsACompletedActivation_data()
{
    QTest::addColumn<quint16>("word");
    QTest::addColumn<int>("echo");
    QTest::newRow("inactive, status 0") << quint16{0x0000} << 0;
    QTest::newRow("inactive, status 1") << quint16{0x1000} << 0;
    QTest::newRow("inactive, status 2") << quint16{0x2000} << 0;
    QTest::newRow("inactive, status 3") << quint16{0x3000} << 0;
    QTest::newRow("active, status 0") << quint16{0x0100} << 0;
    QTest::newRow("active, status 1") << quint16{0x1100} << 0;
    QTest::newRow("active, status 2") << quint16{0x2900} << 0;
    QTest::newRow("active, status 3") << quint16{0x3900} << 1;
    QTest::newRow("every bit but the activation") << quint16{0xFEFF} << 0;
}

void tst_KvPelloGripper::activateEchoNeedsACompletedActivation()
{
    QFETCH(quint16, word);
    QFETCH(int, echo);
    m_master->setRegisters(slave, inputAddress, {word, 0, 0});
    QCOMPARE(int(makeGripper()->getActivateEcho()), echo);
}

void tst_KvPelloGripper::shortPollLeavesEveryFieldUnchanged_data()
{
    QTest::addColumn<Words>("answer");
    QTest::newRow("silence") << Words{};
    QTest::newRow("two registers") << Words{0, 0};
}

void tst_KvPelloGripper::shortPollLeavesEveryFieldUnchanged()
{
    QFETCH(Words, answer);
    m_master->setRegisters(slave, inputAddress, {0xFFFF, 0xFFFF, 0xFFFF});
    m_master->setRegisters(slave, cyclesAddress, {7, 0});
    const auto gripper = makeGripper();
    m_master->setRegisters(slave, inputAddress, answer);
    m_master->setRegisters(slave, cyclesAddress, {8, 0});
    QVERIFY(!gripper->updateInput());
    QCOMPARE(gripper->error(), KvDeviceBase::CommunicationError);
    for (const InputField &field : inputFields)
        QCOMPARE(int((*gripper.*field.getter)()), (1 << field.width) - 1);
    QCOMPARE(gripper->getActivateEcho(), quint8{1});
    QCOMPARE(gripper->getNumberOfCycles(), quint32{7});
    QCOMPARE(m_master->takeRequests(), QStringList(QStringLiteral("read 9 2000 3")));
    QVERIFY(!gripper->initOutput());
}

void tst_KvPelloGripper::longPollIsDecodedFromItsFirstWords()
{
    const auto gripper = makeGripper();
    poll(*gripper, {0x3900, 0x0001, 0x0203, 0xFFFF});
    QCOMPARE(gripper->getPositionRequestEcho(), quint8{1});
    QCOMPARE(gripper->getPosition(), quint8{2});
    QCOMPARE(gripper->getMotorCurrent(), quint8{3});
}

void tst_KvPelloGripper::failedCounterKeepsItsValueAndEndsThePoll_data()
{
    QTest::addColumn<quint16>("address");
    QTest::addColumn<Words>("answer");
    QTest::addColumn<QVector<quint32>>("counters");
    QTest::newRow("cycles, one word") << cyclesAddress << Words{99} << QVector<quint32>{1, 2, 3};
    QTest::newRow("cycles, silence") << cyclesAddress << Words{} << QVector<quint32>{1, 2, 3};
    QTest::newRow("seconds, one word") << secondsAddress << Words{99} << QVector<quint32>{11, 2, 3};
    QTest::newRow("activations, one word")
        << activationsAddress << Words{99} << QVector<quint32>{11, 12, 3};
}

void tst_KvPelloGripper::failedCounterKeepsItsValueAndEndsThePoll()
{
    QFETCH(quint16, address);
    QFETCH(Words, answer);
    QFETCH(QVector<quint32>, counters);
    m_master->setRegisters(slave, cyclesAddress, {1, 0});
    m_master->setRegisters(slave, secondsAddress, {2, 0});
    m_master->setRegisters(slave, activationsAddress, {3, 0});
    const auto gripper = makeGripper();
    m_master->setRegisters(slave, cyclesAddress, {11, 0});
    m_master->setRegisters(slave, secondsAddress, {12, 0});
    m_master->setRegisters(slave, activationsAddress, {13, 0});
    m_master->setRegisters(slave, address, answer);
    m_master->setRegisters(slave, inputAddress, {0, 0, 0x7B00});
    QVERIFY(!gripper->updateInput());
    QCOMPARE(QVector<quint32>({gripper->getNumberOfCycles(), gripper->getNumberOfSecondsPumpIsOn(),
                               gripper->getNumberOfPumpActivations()}),
             counters);
    QCOMPARE(gripper->getPosition(), quint8{123}); // the status block was read
    QVERIFY(m_master->takeRequests().last().startsWith(QStringLiteral("read 9 %1 ").arg(address)));
}

void tst_KvPelloGripper::counterOfAnAmbiguousAnswerKeepsItsValue()
{
    const auto gripper = makeGripper();
    m_master->setRegisters(slave, cyclesAddress, {7, 0});
    QVERIFY(gripper->updateInput());
    m_master->setRegisters(slave, cyclesAddress, {8, 0});
    m_master->setAnswerAmbiguous(true);
    QVERIFY(gripper->updateInput());
    QCOMPARE(gripper->getNumberOfCycles(), 7U);
    m_master->setAnswerAmbiguous(false);
    QVERIFY(gripper->updateInput());
    QCOMPARE(gripper->getNumberOfCycles(), 8U);
}

void tst_KvPelloGripper::countersDoNotChangeTheDeviceError()
{
    const auto gripper = makeGripper();
    QSignalSpy errors(gripper.get(), &KvDeviceBase::errorOccurred);
    m_master->setRegisters(slave, cyclesAddress, {});
    QVERIFY(!gripper->updateCycleNumber());
    QCOMPARE(gripper->error(), KvDeviceBase::NoError);
    m_master->setRegisters(slave, inputAddress, {});
    gripper->updateInput();
    QCOMPARE(gripper->error(), KvDeviceBase::CommunicationError);
    QVERIFY(gripper->updateNumberOfSecondsPumpIsOn());
    QVERIFY(gripper->updateNumberOfPumpActivations());
    QCOMPARE(gripper->error(), KvDeviceBase::CommunicationError);
    QCOMPARE(errors.size(), 1);
}

void tst_KvPelloGripper::eachFlagIsItsBitOnTheWire_data()
{
    QTest::addColumn<int>("index");
    for (int i = 0; i < outputFlags.size(); ++i)
        QTest::newRow(outputFlags[i].name) << i;
}

void tst_KvPelloGripper::eachFlagIsItsBitOnTheWire()
{
    QFETCH(int, index);
    const OutputFlag &flag = outputFlags[index];
    const auto gripper = makeGripper();
    QCOMPARE(written(*gripper), outputWrite(0));

    (*gripper.*flag.set)();
    QVERIFY(gripper->isNewOutput());
    QCOMPARE(written(*gripper), outputWrite(flag.bit));
    if (flag.getter != nullptr)
        QCOMPARE((*gripper.*flag.getter)(), quint8{1});
    (*gripper.*flag.set)();
    QVERIFY(!gripper->isNewOutput());

    (*gripper.*flag.clear)();
    QVERIFY(gripper->isNewOutput());
    QCOMPARE(written(*gripper), outputWrite(0));
    if (flag.getter != nullptr)
        QCOMPARE((*gripper.*flag.getter)(), quint8{0});
    (*gripper.*flag.clear)();
    QVERIFY(!gripper->isNewOutput());
}

void tst_KvPelloGripper::eachByteIsItsHalfWordOnTheWire_data()
{
    QTest::addColumn<int>("index");
    for (int i = 0; i < outputBytes.size(); ++i)
        QTest::newRow(outputBytes[i].name) << i;
}

void tst_KvPelloGripper::eachByteIsItsHalfWordOnTheWire()
{
    QFETCH(int, index);
    const OutputByte &byte = outputBytes[index];
    const auto gripper = makeGripper();
    written(*gripper);
    for (const int value : {1, 2, 4, 8, 16, 32, 64, 128, 255, 90, 0}) {
        (*gripper.*byte.set)(static_cast<quint8>(value));
        QVERIFY(gripper->isNewOutput());
        QCOMPARE(int((*gripper.*byte.getter)()), value);
        Words words(3, 0);
        words[byte.word] = static_cast<quint16>(value << byte.lowestBit);
        QCOMPARE(written(*gripper), outputWrite(words[0], words[1], words[2]));
        (*gripper.*byte.set)(static_cast<quint8>(value));
        QVERIFY(!gripper->isNewOutput());
    }
}

void tst_KvPelloGripper::unusedOutputBitsStayZero()
{
    const auto gripper = makeGripper();
    for (const OutputFlag &flag : outputFlags)
        (*gripper.*flag.set)();
    for (const OutputByte &byte : outputBytes)
        (*gripper.*byte.set)(0xFF);
    gripper->setActivateRequest();
    QCOMPARE(written(*gripper), outputWrite(0x3BF0, 0xFFFF, 0xFFFF));
}

void tst_KvPelloGripper::onlyAChangeMarksNewOutput()
{
    const auto gripper = makeGripper();
    written(*gripper);
    for (const OutputFlag &flag : outputFlags)
        (*gripper.*flag.clear)();
    for (const OutputByte &byte : outputBytes)
        (*gripper.*byte.set)(0);
    QVERIFY(!gripper->isNewOutput());
    gripper->setSpeedRequest(1);
    gripper->setSpeedRequest(0);
    QVERIFY(gripper->isNewOutput()); // each change counts, although no write has succeeded
}

void tst_KvPelloGripper::sentImageIsNoLongerNewEvenWhenTheWriteFails()
{
    const auto gripper = makeGripper();
    m_master->refuseWrites(outputAddress, KvModbusAbstract::TimeoutError);
    gripper->setPositionRequest(120);
    QVERIFY(!gripper->updateOutput());
    QCOMPARE(gripper->error(), KvDeviceBase::CommunicationError);
    QVERIFY(!gripper->isNewOutput());
    QCOMPARE(gripper->getPositionRequest(), quint8{120});
    m_master->acknowledgeWrites(outputAddress);
    gripper->setSpeedRequest(1);
    QCOMPARE(written(*gripper), outputWrite(0, 120, 0x0100));
}

void tst_KvPelloGripper::outputChangedBetweenTheAttemptsIsWrittenOnceMore_data()
{
    QTest::addColumn<QVector<quint8>>("positions"); // one position before each attempt
    QTest::newRow("two attempts") << QVector<quint8>{1, 2};
    QTest::newRow("changed at the second of three") << QVector<quint8>{1, 2, 2};
    QTest::newRow("changed back") << QVector<quint8>{1, 2, 1};
}

// The acknowledgement may be the late answer to the first attempt.
void tst_KvPelloGripper::outputChangedBetweenTheAttemptsIsWrittenOnceMore()
{
    QFETCH(QVector<quint8>, positions);
    const auto gripper = makeGripper();
    written(*gripper);
    m_master->refuseWrites(outputAddress, KvModbusAbstract::TimeoutError);
    const quint8 last = positions.takeLast();
    for (const quint8 position : qAsConst(positions)) {
        gripper->setPositionRequest(position);
        QVERIFY(!gripper->updateOutput());
    }
    m_master->acknowledgeWrites(outputAddress);
    gripper->setPositionRequest(last);
    QCOMPARE(written(*gripper), outputWrite(0, last));
    QVERIFY(gripper->isNewOutput());
    QCOMPARE(written(*gripper), outputWrite(0, last));
    QVERIFY(!gripper->isNewOutput());
}

void tst_KvPelloGripper::outputRepeatedUnchangedIsNotWrittenOnceMore()
{
    const auto gripper = makeGripper();
    written(*gripper);
    gripper->setPositionRequest(1);
    m_master->refuseWrites(outputAddress, KvModbusAbstract::TimeoutError);
    QVERIFY(!gripper->updateOutput());
    m_master->acknowledgeWrites(outputAddress);
    QCOMPARE(written(*gripper), outputWrite(0, 1));
    QVERIFY(!gripper->isNewOutput());
}

void tst_KvPelloGripper::activationOfAnActiveGripperTakesTwoWrites()
{
    m_master->setRegisters(slave, inputAddress, {0x3100, 0, 0});
    const auto gripper = makeGripper();
    QCOMPARE(written(*gripper), outputWrite(0x0100));
    QVERIFY(!gripper->isNewOutput());

    gripper->setActivateRequest();
    QCOMPARE(written(*gripper), outputWrite(0x0000));
    QVERIFY(gripper->isNewOutput());
    QCOMPARE(gripper->getActivateRequest(), quint8{1});
    // The reset is repeated until the gripper reports that it is inactive.
    QCOMPARE(written(*gripper), outputWrite(0x0000));
    QVERIFY(gripper->isNewOutput());

    poll(*gripper, {0x0000, 0, 0});
    QCOMPARE(written(*gripper), outputWrite(0x0100));
    QCOMPARE(gripper->getActivateRequest(), quint8{0});
    QVERIFY(gripper->isNewOutput());

    QCOMPARE(written(*gripper), outputWrite(0x0100));
    QVERIFY(!gripper->isNewOutput());
}

void tst_KvPelloGripper::activationOfAnInactiveGripperIsSentAtOnce()
{
    const auto gripper = makeGripper();
    written(*gripper);
    gripper->setActivateRequest();
    QCOMPARE(written(*gripper), outputWrite(0x0100));
    QVERIFY(gripper->isNewOutput());
    QCOMPARE(written(*gripper), outputWrite(0x0100));
    QVERIFY(!gripper->isNewOutput());
}

void tst_KvPelloGripper::activationAlwaysMarksNewOutput()
{
    const auto gripper = makeGripper();
    written(*gripper);
    gripper->clearActivateRequest(); // changes nothing
    QVERIFY(gripper->isNewOutput());
    written(*gripper);
    QVERIFY(!gripper->isNewOutput());
    gripper->setActivateRequest();
    QVERIFY(gripper->isNewOutput());
}

void tst_KvPelloGripper::clearedActivationIsSentEvenIfNoneWasPending()
{
    m_master->setRegisters(slave, inputAddress, {0x3100, 0, 0});
    const auto gripper = makeGripper();
    QCOMPARE(written(*gripper), outputWrite(0x0100));
    gripper->clearActivateRequest();
    QCOMPARE(written(*gripper), outputWrite(0x0000));
    QVERIFY(!gripper->isNewOutput());
}

void tst_KvPelloGripper::clearedActivationWithdrawsAPendingOne()
{
    const auto gripper = makeGripper();
    gripper->setActivateRequest();
    gripper->clearActivateRequest();
    QCOMPARE(gripper->getActivateRequest(), quint8{0});
    QCOMPARE(written(*gripper), outputWrite(0x0000));
    QVERIFY(!gripper->isNewOutput());
}

void tst_KvPelloGripper::failedActivationWriteIsRepeated()
{
    m_master->setRegisters(slave, inputAddress, {0x3100, 0, 0});
    const auto gripper = makeGripper();
    gripper->setActivateRequest();
    m_master->refuseWrites(outputAddress, KvModbusAbstract::TimeoutError);
    QVERIFY(!gripper->updateOutput());
    QVERIFY(gripper->isNewOutput());
    QCOMPARE(gripper->getActivateRequest(), quint8{1});
    m_master->acknowledgeWrites(outputAddress);
    QCOMPARE(written(*gripper), outputWrite(0x0000));
}

void tst_KvPelloGripper::pollAloneDoesNotChangeTheActivationSent()
{
    m_master->setRegisters(slave, inputAddress, {0x3900, 0x0040, 0});
    const auto gripper = makeGripper();
    QCOMPARE(written(*gripper), outputWrite(0x0900, 0x0040));
    poll(*gripper, {0x0000, 0x0000, 0});
    QVERIFY(!gripper->isNewOutput());
    QCOMPARE(written(*gripper), outputWrite(0x0900, 0x0040));
}

void tst_KvPelloGripper::unacknowledgedFieldIsCopied_data()
{
    QTest::addColumn<int>("index");
    for (int i = 0; i < outputFlags.size(); ++i)
        QTest::newRow(outputFlags[i].name) << i;
    for (int i = 0; i < outputBytes.size(); ++i)
        QTest::newRow(outputBytes[i].name) << outputFlags.size() + i;
}

void tst_KvPelloGripper::unacknowledgedFieldIsCopied()
{
    QFETCH(int, index);
    const auto old = makeGripper();
    written(*old);
    if (index < outputFlags.size())
        (*old.*outputFlags[index].set)();
    else
        (*old.*outputBytes[index - outputFlags.size()].set)(77);
    const auto fresh = makeGripper();
    fresh->copyUnacknowledgedFields(*old);
    QVERIFY(fresh->isNewOutput());
    QCOMPARE(written(*fresh), written(*old));
    QVERIFY(written(*fresh) != outputWrite(0));
    // The device has acknowledged all fields.
    const auto next = makeGripper();
    next->copyUnacknowledgedFields(*fresh);
    QCOMPARE(written(*next), outputWrite(0));
}

void tst_KvPelloGripper::acknowledgedFieldIsNotCopied()
{
    const auto old = makeGripper();
    old->setSpeedRequest(1);
    written(*old);
    old->setSpeedRequest(1);
    old->setForceRequest(2);
    const auto fresh = makeGripper();
    fresh->copyUnacknowledgedFields(*old);
    QCOMPARE(written(*fresh), outputWrite(0, 0, 2));
}

void tst_KvPelloGripper::fieldSetDuringTheWriteIsCopied()
{
    const auto old = makeGripper();
    old->setSpeedRequest(1);
    m_master->setOnRequest([&] { old->setForceRequest(2); });
    QVERIFY(old->updateOutput());
    m_master->setOnRequest([] {});
    const auto fresh = makeGripper();
    fresh->copyUnacknowledgedFields(*old);
    QCOMPARE(written(*fresh), outputWrite(0, 0, 2));
}

void tst_KvPelloGripper::fieldSetToItsOldValueIsCopiedOnceAReplacementIsExpected()
{
    const auto old = makeGripper();
    written(*old);
    old->expectReplacement();
    old->clearGoToRequest();
    old->setPositionRequest(0);
    m_master->setRegisters(slave, inputAddress, {0x0900, 0x00AB, 0});
    const auto fresh = makeGripper();
    fresh->copyUnacknowledgedFields(*old);
    QCOMPARE(written(*fresh), outputWrite(0x0100, 0));
}

void tst_KvPelloGripper::activationThatIsNotCarriedOutIsCopied_data()
{
    using Steps = std::function<void(KvPelloGripper &)>;
    QTest::addColumn<Steps>("steps");
    QTest::addColumn<quint16>("statusWord"); // the new object reads this
    QTest::addColumn<quint16>("action");     // the new object writes this
    const auto unanswered = [this](KvPelloGripper &gripper) {
        m_master->refuseWrites(outputAddress, KvModbusAbstract::TimeoutError);
        gripper.updateOutput();
        m_master->acknowledgeWrites(outputAddress);
    };
    QTest::newRow("asked for") << Steps([](auto &g) { g.setActivateRequest(); }) << quint16{0x0000}
                               << quint16{0x0100};
    QTest::newRow("of an active gripper")
        << Steps([](auto &g) { g.setActivateRequest(); }) << quint16{0x3100} << quint16{0x0000};
    QTest::newRow("reset so far") << Steps([this](auto &g) {
        poll(g, {0x3100, 0, 0});
        g.setActivateRequest();
        g.updateOutput();
    }) << quint16{0x0000} << quint16{0x0100};
    QTest::newRow("sent, not acknowledged") << Steps([=](auto &g) {
        poll(g, {0x0000, 0, 0});
        g.setActivateRequest();
        unanswered(g);
    }) << quint16{0x0000} << quint16{0x0100};
    QTest::newRow("withdrawn") << Steps([](auto &g) { g.clearActivateRequest(); })
                               << quint16{0x3100} << quint16{0x0000};
    QTest::newRow("carried out") << Steps([this](auto &g) {
        poll(g, {0x0000, 0, 0});
        g.setActivateRequest();
        g.updateOutput();
    }) << quint16{0x0000} << quint16{0x0000};
}

void tst_KvPelloGripper::activationThatIsNotCarriedOutIsCopied()
{
    QFETCH(std::function<void(KvPelloGripper &)>, steps);
    QFETCH(quint16, statusWord);
    QFETCH(quint16, action);
    const auto old = makeGripper();
    written(*old);
    steps(*old);
    m_master->setRegisters(slave, inputAddress, {statusWord, 0, 0});
    const auto fresh = makeGripper();
    fresh->copyUnacknowledgedFields(*old);
    QCOMPARE(written(*fresh), outputWrite(action));
}

void tst_KvPelloGripper::countersAreLowWordFirst()
{
    const auto gripper = makeGripper();
    m_master->setRegisters(slave, cyclesAddress, {0x0001, 0x0002});
    m_master->setRegisters(slave, secondsAddress, {0xFFFF, 0xFFFF});
    m_master->setRegisters(slave, activationsAddress, {0x0000, 0x8000});
    QVERIFY(gripper->updateCycleNumber());
    QVERIFY(gripper->updateNumberOfSecondsPumpIsOn());
    QVERIFY(gripper->updateNumberOfPumpActivations());
    QCOMPARE(gripper->getNumberOfCycles(), quint32{131073});
    QCOMPARE(gripper->getNumberOfSecondsPumpIsOn(), quint32{4294967295});
    QCOMPARE(gripper->getNumberOfPumpActivations(), quint32{2147483648});
    QCOMPARE(m_master->takeRequests(),
             QStringList({QStringLiteral("read 9 600 2"), QStringLiteral("read 9 602 2"),
                          QStringLiteral("read 9 604 2")}));
}

namespace {

quint32 directRead(KvPelloGripper &gripper, const QString &name)
{
    if (name == QLatin1String("odometer"))
        return gripper.getOdometer();
    if (name == QLatin1String("controller checksum"))
        return gripper.getMicroUniqueCRC();
    if (name == QLatin1String("activation count range"))
        return gripper.getActivationCountRange();
    return gripper.get200NSpeedLimit();
}

} // namespace

void tst_KvPelloGripper::directReadsUseTheirRegister_data()
{
    QTest::addColumn<quint16>("address");
    QTest::addColumn<int>("count");
    QTest::addColumn<quint32>("value");
    QTest::newRow("odometer") << quint16{602} << 2 << quint32{0x89AB4567};
    QTest::newRow("controller checksum") << quint16{515} << 2 << quint32{0x89AB4567};
    QTest::newRow("activation count range") << quint16{604} << 1 << quint32{0x4567};
    QTest::newRow("speed limit") << quint16{439} << 1 << quint32{0x4567};
}

void tst_KvPelloGripper::directReadsUseTheirRegister()
{
    QFETCH(quint16, address);
    QFETCH(int, count);
    QFETCH(quint32, value);
    const auto gripper = makeGripper();
    gripper->setError(KvDeviceBase::CommunicationError);
    m_master->setRegisters(slave, address, {0x4567, 0x89AB});
    const QString name = QString::fromLatin1(QTest::currentDataTag());
    QCOMPARE(directRead(*gripper, name), value);
    QCOMPARE(gripper->error(), KvDeviceBase::NoError);
    directRead(*gripper, name); // every call reads again
    const QString request = QStringLiteral("read 9 %1 %2").arg(address).arg(count);
    QCOMPARE(m_master->takeRequests(), QStringList({request, request}));
}

void tst_KvPelloGripper::directReadsThatFailGiveZero_data()
{
    QTest::addColumn<quint16>("address");
    QTest::addColumn<Words>("answer");
    QTest::newRow("odometer") << quint16{602} << Words{1};
    QTest::newRow("controller checksum") << quint16{515} << Words{1};
    QTest::newRow("activation count range") << quint16{604} << Words{};
    QTest::newRow("speed limit") << quint16{439} << Words{};
}

void tst_KvPelloGripper::directReadsThatFailGiveZero()
{
    QFETCH(quint16, address);
    QFETCH(Words, answer);
    const auto gripper = makeGripper();
    m_master->setRegisters(slave, address, answer);
    QCOMPARE(directRead(*gripper, QString::fromLatin1(QTest::currentDataTag())), quint32{0});
    QCOMPARE(gripper->error(), KvDeviceBase::CommunicationError);
}

void tst_KvPelloGripper::speedLimitThatTheGripperShowsReturnsFalse_data()
{
    QTest::addColumn<Words>("shown");
    QTest::addColumn<int>("limit");
    QTest::addColumn<bool>("result");
    QTest::newRow("stored") << Words{100} << 100 << false;
    QTest::newRow("ignored") << Words{80} << 100 << true;
    QTest::newRow("unreadable") << Words{} << 100 << true;
    QTest::newRow("zero, unreadable") << Words{} << 0 << false;
}

void tst_KvPelloGripper::speedLimitThatTheGripperShowsReturnsFalse()
{
    QFETCH(Words, shown);
    QFETCH(int, limit);
    QFETCH(bool, result);
    const auto gripper = makeGripper();
    m_master->setRegisters(slave, 439, shown);
    QCOMPARE(gripper->set200NSpeedLimit(static_cast<quint16>(limit)), result);
}

void tst_KvPelloGripper::speedLimitIsWrittenAndReadBackAfterAPause()
{
    const auto gripper = makeGripper();
    QElapsedTimer clock;
    QList<qint64> times;
    m_master->setOnRequest([&] { times.append(clock.elapsed()); });
    clock.start();
    gripper->set200NSpeedLimit(0x1234);
    QCOMPARE(m_master->takeRequests(), QStringList({QStringLiteral("write 9 438: 0x0082 0x1234"),
                                                    QStringLiteral("read 9 439 1")}));
    QVERIFY2(times[1] - times[0] >= 46, qPrintable(QString::number(times[1] - times[0])));
}

void tst_KvPelloGripper::refusedSpeedLimitIsNotReadBack()
{
    const auto gripper = makeGripper();
    m_master->refuseWrites(438, KvModbusAbstract::TimeoutError);
    m_master->setRegisters(slave, 439, {80});
    QVERIFY(!gripper->set200NSpeedLimit(100));
    QCOMPARE(gripper->error(), KvDeviceBase::CommunicationError);
    QCOMPARE(m_master->takeRequests().size(), 1);
}

QTEST_GUILESS_MAIN(tst_KvPelloGripper)
#include "tst_kvpellogripper.moc"
