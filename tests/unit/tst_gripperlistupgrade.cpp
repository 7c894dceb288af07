#include "gripperlist.h"

#include "bootloaderend.h"
#include "logcapture.h"
#include "scriptedmaster.h"
#include "workingdirectory.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <memory>

namespace {

using Error = KvDeviceBase::KvDeviceError;

constexpr quint16 resetAddress = 400;
const QByteArray acknowledge("\x79");
// Enough for three searches of 51 attempts.
const QList<QByteArray> everyAttemptAcknowledged =
    QVector<QByteArray>(3 * 51, acknowledge).toList();

// Every reset of this process writes this value, because initTestCase() passes it first.
constexpr quint16 firstCommand = 0x1234;
const QStringList resetAndClose{QStringLiteral("write 9 400: 0x1234"),
                                QStringLiteral("disconnect")};

} // namespace

/// Upgrades of a gripper on a scripted link. A bootloader answers at the port of this link, and a
/// shell script replaces the flashing program. The list's own link is open on another port.
class tst_GripperList : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void namedFirmwareImagesAreThoseOfTheFamilies();
    void searchForABootloaderMakesFiftyOneAttempts();
    void searchForABootloaderWaitsForAQuietLine();
    void gripperWithAnOpenLinkIsNotInItsBootloader();

    void gripperInItsBootloaderIsNeitherResetNorMuted_data();
    void gripperInItsBootloaderIsNeitherResetNorMuted();
    void jumpMutesThePolling_data();
    void jumpMutesThePolling();
    void failedJumpMutesThePolling();

    void familyIsFlashedWithItsFirmware_data();
    void familyIsFlashedWithItsFirmware();
    void gripperInItsBootloaderIsFlashedWithoutMuting();
    void upgradeOfAnUnknownFamilyFailsAfterTheJump_data();
    void upgradeOfAnUnknownFamilyFailsAfterTheJump();
    void upgradeWithoutABootloaderFails();
    void secondUpgradeIsRefused();
    void scanOpensNoPortDuringAnUpgrade();
    void pollingIsUnmutedWhenTheProgramEnds_data();
    void pollingIsUnmutedWhenTheProgramEnds();
    void missingProgramLeavesThePollingMuted_data();
    void missingProgramLeavesThePollingMuted();

    void pendingJumpIsCarriedOutByTheNextTick();
    void pendingJumpsAreCarriedOutInOrder();
    void pendingJumpWaitsWhileTheListIsMutedOrBusy_data();
    void pendingJumpWaitsWhileTheListIsMutedOrBusy();

private:
    using LoopStep = GripperList::LoopStep;

    GripperList::Gripper makeGripper(char familyLetter);
    void addFamilyRows();
    void writeProgram(const QByteArray &script);
    QList<int> ratesOfSearches() const;
    QStringList logOf(const char *start) const
    {
        return m_log->infosThatStartWith(QString::fromLatin1(start));
    }

    ModbusConstraintsFactory m_factory;
    BootloaderEnd m_end;
    BootloaderEnd m_listEnd;
    // The bootloader answers at the port of this link.
    ScriptedMaster m_master{m_end.portName()};
    QMap<char, GripperList::Gripper> m_families;
    GripperList::Gripper m_gripper;
    std::unique_ptr<WorkingDirectory> m_directory;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<GripperList> m_list;
};

GripperList::Gripper tst_GripperList::makeGripper(char familyLetter)
{
    m_master.addGripper(9, static_cast<quint16>(0x5400 | familyLetter));
    return GripperList::Gripper::create(m_master, quint16{9});
}

void tst_GripperList::initTestCase()
{
    for (const char familyLetter : {'A', 'B', 'C', 'E', 'F'})
        m_families.insert(familyLetter, makeGripper(familyLetter));
    m_gripper = m_families['A'];
    QVERIFY(m_gripper->resetDeviceToBootloader(firstCommand, false, 0));
}

void tst_GripperList::init()
{
    m_directory = std::make_unique<WorkingDirectory>();
    writeProgram("until test -e end; do sleep 0.01; done; exit 5");
    m_log = std::make_unique<LogCapture>();
    m_list = std::make_unique<GripperList>(m_factory, nullptr);
    m_list->m_stateLoopTimer->stop();
    m_list->openLink(m_listEnd.portName());
    QVERIFY(m_list->m_modbus.isConnected());
    m_master.acknowledgeWrites(resetAddress);
    m_master.setOpen(true);
    m_master.takeRequests();
    m_end.setAnswers(everyAttemptAcknowledged);
    for (const auto &gripper : qAsConst(m_families))
        gripper->clearError();
}

void tst_GripperList::cleanup()
{
    m_list.reset();
    QCOMPARE(m_log->warnings(), QStringList());
    m_log.reset();
    m_directory.reset();
}

void tst_GripperList::cleanupTestCase()
{
    m_gripper.reset();
    m_families.clear();
}

void tst_GripperList::writeProgram(const QByteArray &script)
{
    m_directory->writeScript(QStringLiteral("romflasher"), script);
}

// The baud rate of each search. On a busy machine the answer may come after the first attempt, so
// consecutive attempts at the same rate count as one search.
QList<int> tst_GripperList::ratesOfSearches() const
{
    QList<int> rates = m_end.attemptRates();
    rates.erase(std::unique(rates.begin(), rates.end()), rates.end());
    return rates;
}

void tst_GripperList::addFamilyRows()
{
    QTest::addColumn<char>("family");
    QTest::addColumn<int>("baudRate");
    QTest::addColumn<QString>("file");

    const auto row = [](const char *name, char family, int baudRate, const char *file) {
        QTest::newRow(name) << family << baudRate << QString::fromLatin1(file);
    };
    row("TA", 'A', 19200, "firmware/TA3-1.6.14.bin");
    row("TB", 'B', 19200, "firmware/TB1-1.4.3.bin");
    row("TE", 'E', 115200, "firmware/TE1-2.0.2.bin");
    row("TF", 'F', 115200, "firmware/TF1-2.0.2.bin");
}

void tst_GripperList::namedFirmwareImagesAreThoseOfTheFamilies()
{
    QCOMPARE(GripperList::__firmwareGripperA, "firmware/TA3-1.6.14.bin");
    QCOMPARE(GripperList::__firmwareGripperB, "firmware/TB1-1.4.3.bin");
    QCOMPARE(GripperList::__firmwareGripperE, "firmware/TE1-2.0.2.bin");
    QCOMPARE(GripperList::__firmwareGripperF, "firmware/TF1-2.0.2.bin");
}

void tst_GripperList::searchForABootloaderMakesFiftyOneAttempts()
{
    m_master.setOpen(false);
    m_end.setAnswers({});
    QVERIFY(!m_list->isDeviceInBootloaderMode(m_gripper));
    QTRY_COMPARE(m_end.attemptRates().size(), 51);
}

void tst_GripperList::searchForABootloaderWaitsForAQuietLine()
{
    m_list->m_modbus.setConstraints({150, 0, 2});
    m_master.setOpen(false);
    QElapsedTimer clock;
    clock.start();
    qint64 detectedAfterMs = 0;
    QTimer::singleShot(0, m_list.get(), [&] {
        m_list->m_modbus.disconnectFromDevice();
        QVERIFY(m_list->isDeviceInBootloaderMode(m_gripper));
        detectedAfterMs = clock.elapsed();
    });
    m_list->m_modbus.readRegisters(9, 2000, 3);
    QVERIFY2(detectedAfterMs >= 150, qPrintable(QString::number(detectedAfterMs)));
}

void tst_GripperList::gripperWithAnOpenLinkIsNotInItsBootloader()
{
    QVERIFY(!m_list->isDeviceInBootloaderMode(m_gripper));
    QCOMPARE(m_gripper->error(), Error::NotConnectedError);
    QCOMPARE(m_end.attemptRates(), QList<int>());
}

void tst_GripperList::gripperInItsBootloaderIsNeitherResetNorMuted_data()
{
    addFamilyRows();
}

void tst_GripperList::gripperInItsBootloaderIsNeitherResetNorMuted()
{
    QFETCH(char, family);
    QFETCH(int, baudRate);
    m_master.setOpen(false);
    QVERIFY(m_list->jumpToBootloader(m_families[family]));
    QCOMPARE(ratesOfSearches(), QList<int>{baudRate});
    QCOMPARE(m_master.takeRequests(), QStringList());
    QVERIFY(!m_list->m_muted);
}

void tst_GripperList::jumpMutesThePolling_data()
{
    addFamilyRows();
}

void tst_GripperList::jumpMutesThePolling()
{
    QFETCH(char, family);
    QFETCH(int, baudRate);
    QVERIFY(m_list->jumpToBootloader(m_families[family]));
    QCOMPARE(m_master.takeRequests(), resetAndClose);
    QCOMPARE(ratesOfSearches(), QList<int>{baudRate});
    QVERIFY(m_list->m_muted);
}

void tst_GripperList::failedJumpMutesThePolling()
{
    m_master.refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    QVERIFY(!m_list->jumpToBootloader(m_gripper));
    QCOMPARE(m_master.takeRequests(), resetAndClose.mid(0, 1));
    QCOMPARE(m_end.attemptRates(), QList<int>());
    QVERIFY(m_list->m_muted);
}

void tst_GripperList::familyIsFlashedWithItsFirmware_data()
{
    addFamilyRows();
}

void tst_GripperList::familyIsFlashedWithItsFirmware()
{
    QFETCH(char, family);
    QFETCH(int, baudRate);
    QFETCH(QString, file);
    QVERIFY(m_list->upgradeFirmware(m_families[family]));
    QCOMPARE(m_master.takeRequests(), resetAndClose);
    QVERIFY(m_list->m_muted);
    QVERIFY(!m_list->m_modbus.isConnected());
    QCOMPARE(m_list->getUpgradeStatus(), 1);
    const QString line =
        QStringLiteral(
            R"(command :  "./romflasher" ("-p", "%1", "-b", "%2", "-f", "%3", "-d", "-g"))")
            .arg(m_listEnd.portName(), QString::number(baudRate), file);
    QStringList lines{line};
    if (family == 'A')
        lines.append(QStringLiteral("upgrade started :  true"));
    QCOMPARE(m_log->infos(), lines);

    QVERIFY(QFile(QStringLiteral("end")).open(QIODevice::WriteOnly));
    QTRY_COMPARE(m_list->getUpgradeStatus(), 0);
}

void tst_GripperList::gripperInItsBootloaderIsFlashedWithoutMuting()
{
    m_master.setOpen(false);
    QVERIFY(m_list->upgradeFirmware(m_families['E']));
    QCOMPARE(m_list->getUpgradeStatus(), 1);
    QVERIFY(!m_list->m_muted);
    QVERIFY(!m_list->m_modbus.isConnected());
    QCOMPARE(m_master.takeRequests(), QStringList());
}

void tst_GripperList::upgradeOfAnUnknownFamilyFailsAfterTheJump_data()
{
    QTest::addColumn<bool>("isInBootloader");
    QTest::newRow("jumps") << false;
    QTest::newRow("is there already") << true;
}

void tst_GripperList::upgradeOfAnUnknownFamilyFailsAfterTheJump()
{
    QFETCH(bool, isInBootloader);
    m_master.setOpen(!isInBootloader);
    QVERIFY(!m_list->upgradeFirmware(m_families['C']));
    QCOMPARE(m_master.takeRequests(), isInBootloader ? QStringList() : resetAndClose);
    QCOMPARE(ratesOfSearches(), QList<int>{115200});
    QCOMPARE(m_list->m_muted, !isInBootloader);
    QCOMPARE(m_log->infos(), QStringList());
    QCOMPARE(m_list->getUpgradeStatus(), 0);
    QVERIFY(m_list->m_modbus.isConnected());
}

void tst_GripperList::upgradeWithoutABootloaderFails()
{
    m_master.refuseWrites(resetAddress, KvModbusAbstract::TimeoutError);
    QVERIFY(!m_list->upgradeFirmware(m_gripper));
    QVERIFY(m_list->m_muted);
    QCOMPARE(m_log->infos(), QStringList());
    QCOMPARE(m_list->getUpgradeStatus(), 0);
    QVERIFY(m_list->m_modbus.isConnected());
}

void tst_GripperList::secondUpgradeIsRefused()
{
    QVERIFY(m_list->upgradeFirmware(m_gripper));
    m_list->setMuted(false);
    m_master.setOpen(true);
    m_master.takeRequests();
    m_end.setAnswers({acknowledge});
    m_log->clear();
    for (const char family : {'A', 'E'})
        QVERIFY(!m_list->upgradeFirmware(m_families[family]));
    QCOMPARE(m_master.takeRequests(), QStringList());
    QCOMPARE(m_end.attemptRates(), QList<int>());
    QCOMPARE(m_log->infos(), QStringList());
    QVERIFY(!m_list->m_muted);
    QCOMPARE(m_list->getUpgradeStatus(), 1);
}

// A search of several ports that resumes during an upgrade scans its next port.
void tst_GripperList::scanOpensNoPortDuringAnUpgrade()
{
    QVERIFY(m_list->upgradeFirmware(m_gripper));
    m_log->clear();
    m_list->scan(m_listEnd.portName());
    QVERIFY(!m_list->m_modbus.isConnected());
    QCOMPARE(m_log->infos(), QStringList());
}

void tst_GripperList::pollingIsUnmutedWhenTheProgramEnds_data()
{
    QTest::addColumn<QByteArray>("script");
    QTest::newRow("success") << QByteArray("exit 0");
    QTest::newRow("failure") << QByteArray("exit 5");
    QTest::newRow("killed") << QByteArray("kill -9 $$");
}

void tst_GripperList::pollingIsUnmutedWhenTheProgramEnds()
{
    QFETCH(QByteArray, script);
    writeProgram(script);
    QVERIFY(m_list->upgradeFirmware(m_families['F']));
    QVERIFY(m_list->m_muted);
    QTRY_VERIFY(!m_list->m_muted);
    QCOMPARE(logOf("unmute"), QStringList{QStringLiteral("unmuteOnUpgradeFinished")});
    QCOMPARE(m_list->getUpgradeStatus(), 0);
}

void tst_GripperList::missingProgramLeavesThePollingMuted_data()
{
    addFamilyRows();
}

void tst_GripperList::missingProgramLeavesThePollingMuted()
{
    QFETCH(char, family);
    QVERIFY(QFile::remove(QStringLiteral("romflasher")));
    QVERIFY(m_list->upgradeFirmware(m_families[family]));
    QCOMPARE(m_list->getUpgradeStatus(), 0);
    QTest::qWait(50);
    QVERIFY(m_list->m_muted);
    QCOMPARE(logOf("unmute"), QStringList());
    QCOMPARE(logOf("upgrade"), family == 'A'
                                   ? QStringList{QStringLiteral("upgrade started :  false")}
                                   : QStringList());
    QCOMPARE(logOf("command : ").size(), 1);
}

void tst_GripperList::pendingJumpIsCarriedOutByTheNextTick()
{
    m_list->m_loopStep = LoopStep::WriteOutput;
    m_list->m_linkStatus = GripperList::LinkStatus::Timeout;
    m_list->m_scanBackOffTimer->start(60'000); // the Discover step itself does nothing
    m_list->resetToBootloader(m_gripper);
    QTest::qWait(20);
    QCOMPARE(m_master.takeRequests(), QStringList());

    m_list->onTimerStateLoopTimeout();
    QCOMPARE(m_master.takeRequests(), resetAndClose);
    QCOMPARE(ratesOfSearches(), QList<int>{19200});
    QVERIFY(m_list->m_muted);
    QCOMPARE(m_list->m_loopStep, LoopStep::Discover);
    QCOMPARE(m_list->m_linkStatus, GripperList::LinkStatus::Timeout);

    m_list->setMuted(false);
    m_master.setOpen(true);
    m_list->onTimerStateLoopTimeout();
    QCOMPARE(m_master.takeRequests(), QStringList());
    QVERIFY(!m_list->m_muted);
}

void tst_GripperList::pendingJumpsAreCarriedOutInOrder()
{
    m_list->m_scanBackOffTimer->start(60'000);
    // The first jump closes the link, so the list finds the other grippers in their bootloaders.
    m_list->resetToBootloader(m_families['E']);
    m_list->resetToBootloader(m_families['B']);
    m_list->resetToBootloader(m_families['F']);
    m_list->onTimerStateLoopTimeout();
    QCOMPARE(ratesOfSearches(), (QList<int>{115200, 19200, 115200}));
    QVERIFY(m_list->m_pendingBootloader.isEmpty());
}

void tst_GripperList::pendingJumpWaitsWhileTheListIsMutedOrBusy_data()
{
    QTest::addColumn<bool>("muted");
    QTest::newRow("muted") << true;
    QTest::newRow("busy") << false;
}

void tst_GripperList::pendingJumpWaitsWhileTheListIsMutedOrBusy()
{
    QFETCH(bool, muted);
    m_list->m_scanBackOffTimer->start(60'000);
    m_list->m_muted = muted;
    m_list->m_busy = !muted;
    m_list->m_loopStep = LoopStep::WriteOutput;
    m_list->resetToBootloader(m_gripper);
    for (int tick = 0; tick < 3; ++tick)
        m_list->onTimerStateLoopTimeout();
    QCOMPARE(m_master.takeRequests(), QStringList());
    QCOMPARE(m_list->m_loopStep, LoopStep::WriteOutput);
    QCOMPARE(m_list->m_pendingBootloader.size(), 1);

    m_list->m_muted = false;
    m_list->m_busy = false;
    m_list->onTimerStateLoopTimeout();
    QCOMPARE(m_master.takeRequests(), resetAndClose);
    QVERIFY(m_list->m_pendingBootloader.isEmpty());
}

QTEST_GUILESS_MAIN(tst_GripperList)
#include "tst_gripperlistupgrade.moc"
