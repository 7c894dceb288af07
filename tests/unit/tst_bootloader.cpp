#include "kvdevicebase.h"

#include "bootloaderend.h"
#include "quitsignals.h"
#include "scriptedmaster.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QProcess>
#include <QSignalSpy>
#include <QTest>

#include <csignal>
#include <functional>
#include <memory>
#include <unistd.h>

namespace {

using Error = KvDeviceBase::KvDeviceError;
using Jump = bool (KvDeviceBase::*)(unsigned int);

constexpr quint16 resetAddress = 400;
constexpr unsigned int longTimeoutMs = 60000;
constexpr int wrongExitCode = 97;   // the claim is false
constexpr int unknownExitCode = 98; // the scenario does not exist

const QByteArray acknowledge("\x79");
const QByteArray negativeAcknowledge("\x1F");

// Every reset of this process writes this value, because initTestCase() passes it first.
constexpr quint16 firstCommand = 0x1234;
const QString firstWrite = QStringLiteral("write 9 400: 0x1234");

class Device : public KvDeviceBase
{
public:
    explicit Device(KvModbusAbstract &modbus)
        : KvDeviceBase(modbus, 9, nullptr)
    {
    }
    bool isValidDevice() override { return true; }
};

// A scenario changes its whole process, so it runs in a process of its own. The exit code is the
// result.
using Scenario = std::function<int()>;

/// Makes the first two jumps of a process. Both must write `value`.
int jumpsWrite(Jump first, Jump second, const char *value)
{
    BootloaderEnd end;
    ScriptedMaster master(end.portName());
    Device device(master);
    for (const Jump jump : {first, second}) {
        end.setAnswers({acknowledge});
        master.setOpen(true);
        if (!(device.*jump)(longTimeoutMs))
            return wrongExitCode;
    }
    const QString write = QStringLiteral("write 9 400: ") + QLatin1String(value);
    const QString disconnect = QStringLiteral("disconnect");
    return master.takeRequests() == QStringList{write, disconnect, write, disconnect}
               ? 0
               : wrongExitCode;
}

int romFirst()
{
    return jumpsWrite(&KvDeviceBase::jumpToStBootloader, &KvDeviceBase::jumpToTavrinBootloader,
                      "0x2a00");
}

int ownFirst()
{
    return jumpsWrite(&KvDeviceBase::jumpToTavrinBootloader, &KvDeviceBase::jumpToStBootloader,
                      "0x3500");
}

/// The first value applies even if its write fails.
int failedFirst()
{
    ScriptedMaster master(QStringLiteral("none"));
    Device device(master);
    master.refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    if (device.resetDeviceToBootloader(0x0A0B, false, 0))
        return wrongExitCode;
    master.acknowledgeWrites(resetAddress);
    master.takeRequests();
    if (!device.resetDeviceToBootloader(0x0C0D, false, 0))
        return wrongExitCode;
    return master.takeRequests().value(0) == QLatin1String("write 9 400: 0x0a0b") ? 0
                                                                                  : wrongExitCode;
}

int quitDuringDetection()
{
    quitOnSignals({SIGTERM});
    BootloaderEnd end;
    ScriptedMaster master(end.portName());
    Device device(master);
    master.setOpen(false);
    end.raiseAtAttempt(3, SIGTERM);
    if (device.detectBootloader(QSerialPort::Baud115200, 100))
        return wrongExitCode;
    return end.attemptRates().size() == 3 ? 0 : wrongExitCode;
}

/// The answer to the running attempt still counts.
int quitDuringTheAttemptThatIsAnswered()
{
    quitOnSignals({SIGTERM});
    BootloaderEnd end;
    ScriptedMaster master(end.portName());
    Device device(master);
    master.setOpen(false);
    end.setAnswers({QByteArray(), acknowledge});
    end.raiseAtAttempt(2, SIGTERM);
    return device.detectBootloader(QSerialPort::Baud115200, 100) ? 0 : wrongExitCode;
}

int quitBeforeDetection()
{
    quitOnSignals({SIGTERM});
    BootloaderEnd end;
    ScriptedMaster master(end.portName());
    Device device(master);
    master.setOpen(false);
    std::raise(SIGTERM);
    if (device.detectBootloader(QSerialPort::Baud115200, 100))
        return wrongExitCode;
    return end.attemptRates().isEmpty() ? 0 : wrongExitCode;
}

int manualResetThatIsInterrupted(const std::function<void()> &interrupt)
{
    quitOnSignals({SIGTERM});
    ScriptedMaster master(QStringLiteral("none"));
    Device device(master);
    master.refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    bool isReset = true;
    QTimer::singleShot(0, &device, [&] {
        interrupt();
        isReset = device.resetDeviceToBootloader(firstCommand, true, longTimeoutMs);
    });
    const int exitCode = QCoreApplication::exec();
    return exitCode == 0 && !isReset && !master.isConnected() ? 0 : wrongExitCode;
}

int quitDuringAManualReset()
{
    return manualResetThatIsInterrupted(
        [] { QTimer::singleShot(150, QCoreApplication::instance(), [] { std::raise(SIGTERM); }); });
}

int quitBeforeAManualReset()
{
    return manualResetThatIsInterrupted([] { std::raise(SIGTERM); });
}

const QMap<QString, Scenario> &scenarios()
{
    static const QMap<QString, Scenario> all{
        {QStringLiteral("ROM bootloader first"), romFirst},
        {QStringLiteral("own bootloader first"), ownFirst},
        {QStringLiteral("failed write first"), failedFirst},
        {QStringLiteral("during a detection"), quitDuringDetection},
        {QStringLiteral("during an answered attempt"), quitDuringTheAttemptThatIsAnswered},
        {QStringLiteral("before a detection"), quitBeforeDetection},
        {QStringLiteral("during a manual reset"), quitDuringAManualReset},
        {QStringLiteral("before a manual reset"), quitBeforeAManualReset},
    };
    return all;
}

/// Runs this program for one scenario. Returns its exit code, or wrongExitCode if it does not end
/// in time.
int runScenario(const QString &scenario, int timeoutMs)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(QCoreApplication::applicationFilePath(),
                  {QStringLiteral("--scenario"), scenario});
    if (!process.waitForFinished(timeoutMs)) {
        process.kill();
        process.waitForFinished();
        return wrongExitCode;
    }
    return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : wrongExitCode;
}

} // namespace

Q_DECLARE_METATYPE(Jump)

class tst_Bootloader : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();

    void flashAddressesAreTheseTexts();
    void firstResetValueOfAProcessIsWrittenEveryTime_data();
    void firstResetValueOfAProcessIsWrittenEveryTime();

    void automaticResetThatFailsLeavesTheLinkOpen_data();
    void automaticResetThatFailsLeavesTheLinkOpen();
    void firmwareRestartDoesNotChangeTheLink_data();
    void firmwareRestartDoesNotChangeTheLink();

    void manualResetRepeatsUntilTheDeviceAcknowledges();
    void manualResetReopensALostLink();
    void manualResetThatTimesOutClosesTheLink_data();
    void manualResetThatTimesOutClosesTheLink();
    void manualResetPausesBeforeEachWrite();
    void manualResetIsAborted();
    void manualResetCanStartAgainAfterAnAbort();
    void abortWithoutAManualResetDoesNothing();

    void answerIsDetected_data();
    void answerIsDetected();
    void detectionMakesOneAttemptMoreThanRetries_data();
    void detectionMakesOneAttemptMoreThanRetries();
    void detectionStopsAtTheFirstAnswer();
    void detectionContinuesAfterAWrongAnswer_data();
    void detectionContinuesAfterAWrongAnswer();
    void attemptWaitsFiftyMilliseconds();
    void detectionClosesThePort_data();
    void detectionClosesThePort();
    void detectionPumpsNoEvents();
    void detectionNeedsTheLinkClosed();
    void detectionWithoutAPortDoesNotChangeTheError();

    void jumpResetsAndDetects_data();
    void jumpResetsAndDetects();
    void jumpMakesFiftyOneAttempts_data();
    void jumpMakesFiftyOneAttempts();
    void jumpAfterAFailedResetFindsTheLinkOpen_data();
    void jumpAfterAFailedResetFindsTheLinkOpen();
    void jumpWithTheLinkClosedStillDetects_data();
    void jumpWithTheLinkClosedStillDetects();

    void quitSignalEndsTheOperation_data();
    void quitSignalEndsTheOperation();

private:
    void addJumpRows();

    BootloaderEnd m_end;
    std::unique_ptr<ScriptedMaster> m_master;
    std::unique_ptr<Device> m_device;
};

void tst_Bootloader::initTestCase()
{
    qRegisterMetaType<Error>("KvDeviceBase::KvDeviceError");
    ScriptedMaster master(m_end.portName());
    Device device(master);
    QVERIFY(device.resetDeviceToBootloader(firstCommand, false, 0));
    QCOMPARE(master.takeRequests(), (QStringList{firstWrite, QStringLiteral("disconnect")}));
}

void tst_Bootloader::init()
{
    m_device.reset();
    m_master = std::make_unique<ScriptedMaster>(m_end.portName());
    m_device = std::make_unique<Device>(*m_master);
    m_end.setAnswers({});
}

void tst_Bootloader::flashAddressesAreTheseTexts()
{
    QCOMPARE(QByteArray(KvDeviceBase::__bootLoaderRestartAddress), QByteArray("0x08000000"));
    QCOMPARE(QByteArray(KvDeviceBase::__bootLoaderFirmwareStartAddress), QByteArray("0x08080000"));
}

void tst_Bootloader::firstResetValueOfAProcessIsWrittenEveryTime_data()
{
    QTest::addColumn<QString>("scenario");
    for (const char *scenario :
         {"ROM bootloader first", "own bootloader first", "failed write first"})
        QTest::newRow(scenario) << QString::fromLatin1(scenario);
}

void tst_Bootloader::firstResetValueOfAProcessIsWrittenEveryTime()
{
    QFETCH(QString, scenario);
    QCOMPARE(runScenario(scenario, 10000), 0);
}

void tst_Bootloader::automaticResetThatFailsLeavesTheLinkOpen_data()
{
    QTest::addColumn<int>("error");
    QTest::newRow("time-out") << int(KvModbusAbstract::TimeoutError);
    QTest::newRow("checksum") << int(KvModbusAbstract::BadCrcError);
}

void tst_Bootloader::automaticResetThatFailsLeavesTheLinkOpen()
{
    QFETCH(int, error);
    m_master->refuseWrites(resetAddress, KvModbusAbstract::KvModbusError(error));
    QElapsedTimer clock;
    clock.start();
    QVERIFY(!m_device->resetDeviceToBootloader(firstCommand, false, longTimeoutMs));
    QVERIFY(clock.elapsed() < 1000);
    QCOMPARE(m_master->takeRequests(), QStringList{firstWrite});
    QVERIFY(m_master->isConnected());
    QCOMPARE(m_device->error(), Error::CommunicationError);
}

void tst_Bootloader::firmwareRestartDoesNotChangeTheLink_data()
{
    QTest::addColumn<bool>("open");
    QTest::addColumn<bool>("acknowledged");
    QTest::newRow("acknowledged") << true << true;
    QTest::newRow("not acknowledged") << true << false;
    QTest::newRow("link closed") << false << false;
}

void tst_Bootloader::firmwareRestartDoesNotChangeTheLink()
{
    QFETCH(bool, open);
    QFETCH(bool, acknowledged);
    m_master->setOpen(open);
    if (!acknowledged)
        m_master->refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    QCOMPARE(m_device->resetDeviceToFirmware(), acknowledged);
    QCOMPARE(m_master->takeRequests(), QStringList{QStringLiteral("write 9 400: 0x5600")});
    QCOMPARE(m_master->isConnected(), open);
    QCOMPARE(m_device->error(), acknowledged ? Error::NoError : Error::CommunicationError);
}

void tst_Bootloader::manualResetRepeatsUntilTheDeviceAcknowledges()
{
    m_master->refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    int writes = 0;
    QStringList requests;
    m_master->setOnRequest([&] {
        requests += m_master->takeRequests();
        writes += requests.last() == firstWrite ? 1 : 0;
        if (writes == 3)
            m_master->acknowledgeWrites(resetAddress);
    });
    QVERIFY(m_device->resetDeviceToBootloader(firstCommand, true, longTimeoutMs));
    QCOMPARE(requests.mid(0, 5),
             (QStringList{QStringLiteral("baud 115200"), QStringLiteral("connect"), firstWrite,
                          firstWrite, firstWrite}));
    QCOMPARE(requests.last(), QStringLiteral("disconnect"));
    QCOMPARE(writes, 3);
    QVERIFY(!m_master->isConnected());
}

void tst_Bootloader::manualResetReopensALostLink()
{
    m_master->setOpen(false);
    m_master->setOpenable(false);
    QTimer::singleShot(250, m_master.get(), [this] { m_master->setOpenable(true); });
    QVERIFY(m_device->resetDeviceToBootloader(firstCommand, true, longTimeoutMs));
    const QStringList requests = m_master->takeRequests();
    QVERIFY2(requests.count(QStringLiteral("connect")) >= 3,
             qPrintable(requests.join(QLatin1Char(';'))));
    QVERIFY(!m_master->isConnected());
}

void tst_Bootloader::manualResetThatTimesOutClosesTheLink_data()
{
    QTest::addColumn<int>("timeoutMs");
    QTest::newRow("at once") << 0;
    QTest::newRow("after some writes") << 350;
}

void tst_Bootloader::manualResetThatTimesOutClosesTheLink()
{
    QFETCH(int, timeoutMs);
    m_master->refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(!m_device->resetDeviceToBootloader(firstCommand, true,
                                               static_cast<unsigned int>(timeoutMs)));
    QVERIFY2(clock.elapsed() >= timeoutMs, qPrintable(QString::number(clock.elapsed())));
    QVERIFY2(clock.elapsed() < timeoutMs + 1000, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(m_master->takeRequests().last(), QStringLiteral("disconnect"));
    QVERIFY(!m_master->isConnected());
}

void tst_Bootloader::manualResetPausesBeforeEachWrite()
{
    m_master->refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    QVector<qint64> writesMs;
    QElapsedTimer clock;
    m_master->setOnRequest([&] {
        if (m_master->takeRequests().last() == firstWrite)
            writesMs.append(clock.elapsed());
    });
    clock.start();
    QVERIFY(!m_device->resetDeviceToBootloader(firstCommand, true, 350));
    QVERIFY(!writesMs.isEmpty());
    QVERIFY(writesMs.size() <= 4);
    for (int i = 0; i < writesMs.size(); ++i)
        QVERIFY2(writesMs[i] >= qint64{100} * (i + 1), qPrintable(QString::number(writesMs[i])));
}

void tst_Bootloader::manualResetIsAborted()
{
    m_master->refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    QTimer::singleShot(150, m_device.get(), [this] { m_device->abortManualResetToBootLoader(); });
    QElapsedTimer clock;
    clock.start();
    QVERIFY(!m_device->resetDeviceToBootloader(firstCommand, true, longTimeoutMs));
    QVERIFY(clock.elapsed() >= 150);
    QVERIFY2(clock.elapsed() < 1500, qPrintable(QString::number(clock.elapsed())));
    QVERIFY(!m_master->isConnected());
}

void tst_Bootloader::manualResetCanStartAgainAfterAnAbort()
{
    m_device->abortManualResetToBootLoader();
    QVERIFY(m_device->resetDeviceToBootloader(firstCommand, true, longTimeoutMs));
    m_device->abortManualResetToBootLoader();
    QVERIFY(m_device->resetDeviceToBootloader(firstCommand, true, longTimeoutMs));
    QCOMPARE(m_master->takeRequests().count(firstWrite), 2);
}

void tst_Bootloader::abortWithoutAManualResetDoesNothing()
{
    m_device->abortManualResetToBootLoader();
    QCOMPARE(m_master->takeRequests(), QStringList());
    QVERIFY(m_master->isConnected());
}

void tst_Bootloader::answerIsDetected_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::addColumn<bool>("detected");
    QTest::newRow("acknowledge") << acknowledge << true;
    QTest::newRow("negative acknowledge") << negativeAcknowledge << true;
    QTest::newRow("two acknowledges") << acknowledge + acknowledge << false;
    QTest::newRow("one of each") << acknowledge + negativeAcknowledge << false;
    QTest::newRow("garbage and acknowledge") << QByteArray(1, '\0') + acknowledge << false;
    QTest::newRow("echo") << QByteArray("\x7F") << false;
    QTest::newRow("NUL") << QByteArray(1, '\0') << false;
    QTest::newRow("high bit") << QByteArray("\xF9") << false;
    QTest::newRow("silence") << QByteArray() << false;
}

void tst_Bootloader::answerIsDetected()
{
    QFETCH(QByteArray, answer);
    m_master->setOpen(false);
    m_end.setAnswers({answer});
    QSignalSpy errors(m_device.get(), &KvDeviceBase::errorOccurred);
    QTEST(m_device->detectBootloader(QSerialPort::Baud115200, 0), "detected");
    QCOMPARE(m_end.attemptRates().size(), 1);
    QCOMPARE(m_end.otherBytes(), QByteArray());
    QCOMPARE(errors.size(), 0);
    QCOMPARE(m_master->takeRequests(), QStringList());
}

void tst_Bootloader::detectionMakesOneAttemptMoreThanRetries_data()
{
    QTest::addColumn<int>("retries");
    for (const int retries : {0, 1, 5})
        QTest::addRow("%d", retries) << retries;
}

void tst_Bootloader::detectionMakesOneAttemptMoreThanRetries()
{
    QFETCH(int, retries);
    m_master->setOpen(false);
    QVERIFY(
        !m_device->detectBootloader(QSerialPort::Baud115200, static_cast<unsigned int>(retries)));
    QTRY_COMPARE(m_end.attemptRates().size(), retries + 1);
}

void tst_Bootloader::detectionStopsAtTheFirstAnswer()
{
    m_master->setOpen(false);
    m_end.setAnswers({{}, {}, acknowledge});
    QVERIFY(m_device->detectBootloader(QSerialPort::Baud115200, 20));
    QTest::qWait(120);
    QCOMPARE(m_end.attemptRates().size(), 3);
}

void tst_Bootloader::detectionContinuesAfterAWrongAnswer_data()
{
    QTest::addColumn<QByteArray>("wrong");
    QTest::newRow("two bytes") << acknowledge + acknowledge;
    QTest::newRow("garbage") << QByteArray("x");
}

void tst_Bootloader::detectionContinuesAfterAWrongAnswer()
{
    QFETCH(QByteArray, wrong);
    m_master->setOpen(false);
    m_end.setAnswers({wrong, negativeAcknowledge});
    QVERIFY(m_device->detectBootloader(QSerialPort::Baud19200, 1));
    QCOMPARE(m_end.attemptRates().size(), 2);
}

void tst_Bootloader::attemptWaitsFiftyMilliseconds()
{
    m_master->setOpen(false);
    QElapsedTimer clock;
    clock.start();
    QVERIFY(!m_device->detectBootloader(QSerialPort::Baud115200, 5));
    QVERIFY2(clock.elapsed() >= qint64{6} * 48, qPrintable(QString::number(clock.elapsed())));
    QVERIFY2(clock.elapsed() < 6 * 100 + 300, qPrintable(QString::number(clock.elapsed())));
}

void tst_Bootloader::detectionClosesThePort_data()
{
    QTest::addColumn<QByteArray>("answer");
    QTest::newRow("detected") << acknowledge;
    QTest::newRow("not detected") << QByteArray();
}

void tst_Bootloader::detectionClosesThePort()
{
    QFETCH(QByteArray, answer);
    m_master->setOpen(false);
    m_end.setAnswers({answer});
    m_device->detectBootloader(QSerialPort::Baud115200, 0);
    QSerialPort port(m_end.portName());
    QVERIFY(port.open(QIODevice::ReadWrite));
    QVERIFY(!m_master->isConnected());
}

void tst_Bootloader::detectionPumpsNoEvents()
{
    m_master->setOpen(false);
    bool pumped = false;
    QTimer::singleShot(0, m_device.get(), [&] { pumped = true; });
    QVERIFY(!m_device->detectBootloader(QSerialPort::Baud115200, 1));
    QVERIFY(!pumped);
    QTRY_VERIFY(pumped);
}

void tst_Bootloader::detectionNeedsTheLinkClosed()
{
    m_end.setAnswers({acknowledge});
    QSignalSpy errors(m_device.get(), &KvDeviceBase::errorOccurred);
    QVERIFY(!m_device->detectBootloader(QSerialPort::Baud115200, 3));
    QCOMPARE(m_device->error(), Error::NotConnectedError);
    QCOMPARE(errors.size(), 1);
    QCOMPARE(m_end.attemptRates(), QList<int>());
    QVERIFY(m_master->isConnected());
}

void tst_Bootloader::detectionWithoutAPortDoesNotChangeTheError()
{
    ScriptedMaster master(QStringLiteral("/dev/there-is-no-such-port"));
    Device device(master);
    master.setOpen(false);
    device.setError(Error::InvalideDeviceError);
    QVERIFY(!device.detectBootloader(QSerialPort::Baud115200, 3));
    QCOMPARE(device.error(), Error::InvalideDeviceError);
}

void tst_Bootloader::addJumpRows()
{
    QTest::addColumn<Jump>("jump");
    QTest::addColumn<int>("baudRate");
    QTest::newRow("own bootloader") << &KvDeviceBase::jumpToTavrinBootloader << 115200;
    QTest::newRow("ROM bootloader") << &KvDeviceBase::jumpToStBootloader << 19200;
}

void tst_Bootloader::jumpResetsAndDetects_data()
{
    addJumpRows();
}

void tst_Bootloader::jumpResetsAndDetects()
{
    QFETCH(Jump, jump);
    QFETCH(int, baudRate);
    m_end.setAnswers({acknowledge});
    QVERIFY((m_device.get()->*jump)(0));
    QCOMPARE(m_master->takeRequests(), (QStringList{firstWrite, QStringLiteral("disconnect")}));
    QCOMPARE(m_end.attemptRates(), QList<int>{baudRate});
    QVERIFY(!m_master->isConnected());
}

void tst_Bootloader::jumpMakesFiftyOneAttempts_data()
{
    addJumpRows();
}

void tst_Bootloader::jumpMakesFiftyOneAttempts()
{
    QFETCH(Jump, jump);
    QFETCH(int, baudRate);
    QVERIFY(!(m_device.get()->*jump)(longTimeoutMs));
    QTRY_COMPARE(m_end.attemptRates().size(), 51);
    QCOMPARE(m_end.attemptRates().count(baudRate), 51);
}

void tst_Bootloader::jumpAfterAFailedResetFindsTheLinkOpen_data()
{
    addJumpRows();
}

void tst_Bootloader::jumpAfterAFailedResetFindsTheLinkOpen()
{
    QFETCH(Jump, jump);
    m_master->refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    m_end.setAnswers({acknowledge});
    QVERIFY(!(m_device.get()->*jump)(longTimeoutMs));
    QCOMPARE(m_device->error(), Error::NotConnectedError);
    QCOMPARE(m_end.attemptRates(), QList<int>());
    QCOMPARE(m_master->takeRequests(), QStringList{firstWrite});
}

void tst_Bootloader::jumpWithTheLinkClosedStillDetects_data()
{
    addJumpRows();
}

void tst_Bootloader::jumpWithTheLinkClosedStillDetects()
{
    QFETCH(Jump, jump);
    m_master->setOpen(false);
    m_end.setAnswers({negativeAcknowledge});
    QVERIFY((m_device.get()->*jump)(longTimeoutMs));
    QCOMPARE(m_end.attemptRates().size(), 1);
}

void tst_Bootloader::quitSignalEndsTheOperation_data()
{
    QTest::addColumn<QString>("scenario");
    for (const char *scenario :
         {"during a detection", "during an answered attempt", "before a detection",
          "during a manual reset", "before a manual reset"})
        QTest::newRow(scenario) << QString::fromLatin1(scenario);
}

void tst_Bootloader::quitSignalEndsTheOperation()
{
    QFETCH(QString, scenario);
    QCOMPARE(runScenario(scenario, 3000), 0);
}

int main(int argc, char *argv[])
{
    QCoreApplication application(argc, argv);
    const QStringList arguments = QCoreApplication::arguments();
    if (arguments.value(1) == QLatin1String("--scenario")) {
        ::alarm(20); // ends the process if it hangs
        const Scenario scenario = scenarios().value(arguments.value(2));
        return scenario ? scenario() : unknownExitCode;
    }
    tst_Bootloader test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_bootloader.moc"
