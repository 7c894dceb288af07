#include "setvariables.h"

#include "gripperlist.h"
#include "logcapture.h"
#include "modbusconstraintsfactory.h"
#include "simulatedline.h"

#include <QSharedPointer>
#include <QTest>

#include <memory>

namespace {

using Gripper = GripperList::Gripper;
using Getter = quint8 (KvPelloGripper::*)() const;

std::string_view viewOf(const QByteArray &text)
{
    return {text.constData(), static_cast<std::size_t>(text.size())};
}

} // namespace

Q_DECLARE_METATYPE(Getter)

/// The SET table with gripper 9 of a list that does not poll.
class tst_SetVariables : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void onlyOperationsOnTheBusMayWait();
    void unknownNameHasNoRow_data();
    void unknownNameHasNoRow();

    void flagIsSetByEveryValueButZero_data();
    void flagIsSetByEveryValueButZero();
    void numberIsStoredUnchanged_data();
    void numberIsStoredUnchanged();

    void activationClearsTheAutoRelease_data();
    void activationClearsTheAutoRelease();
    void modeIsAcknowledgedIfItExists_data();
    void modeIsAcknowledgedIfItExists();

    void selectionOfADiscoveredGripperDoesNotChangeTheReply();
    void selectionOfAnUnknownIdIsNakAndStored();
    void muteStopsThePolling();
    void throttleChangesTheInterval();
    void blockingScanRequestEndsAfterTheScan();
    void scanRequestDoesNotScanAtOnce();
    void failedMoveScansWithoutNewReplyOrSelection();
    void failedOperationIsNakAndLeavesThePollingMuted_data();
    void failedOperationIsNakAndLeavesThePollingMuted();
    void moveScansWithoutNewReplyOrSelection();

private:
    using Reply = std::optional<std::string_view>;

    bool findGripper();
    Reply set(const QByteArray &name, int value);
    int requestsWithin(int milliseconds);
    void scanAgainIfMissed();

    ModbusConstraintsFactory m_factory;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<SimulatedLine> m_line;
    std::unique_ptr<GripperList> m_list;
    Gripper m_gripper;
    int m_selectedSlaveId = 9;
};

void tst_SetVariables::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
    m_line = std::make_unique<SimulatedLine>(
        std::initializer_list<SimulatedLine::Gripper>{{9, "TA3-1.6.14"}});
    m_list = std::make_unique<GripperList>(m_factory, nullptr);
    m_list->setMuted(true);
}

void tst_SetVariables::init()
{
    m_list->setMuted(true);
    QTRY_VERIFY(findGripper());
    QTRY_VERIFY(m_gripper->updateOutput());
    m_selectedSlaveId = 9;
    m_line->clearTraffic();
}

void tst_SetVariables::cleanup()
{
    QCOMPARE(m_log->warnings(), QStringList());
}

void tst_SetVariables::cleanupTestCase()
{
    m_gripper.reset();
    m_list.reset();
    m_log.reset();
}

/// Scans if the list has no gripper. On a busy machine a scan may miss the gripper.
bool tst_SetVariables::findGripper()
{
    if (!m_list->getGripperFromSlaveId(9))
        m_list->scan(m_line->path());
    m_gripper = m_list->getGripperFromSlaveId(9);
    return !m_gripper.isNull();
}

tst_SetVariables::Reply tst_SetVariables::set(const QByteArray &name, int value)
{
    const SetVariable *variable = findSetVariable(viewOf(name));
    const Gripper gripper = variable->needsGripper ? m_gripper : Gripper();
    return variable->apply({*m_list, gripper, m_selectedSlaveId, static_cast<quint8>(value)});
}

int tst_SetVariables::requestsWithin(int milliseconds)
{
    m_line->clearTraffic();
    QTest::qWait(milliseconds);
    return m_line->requests().size();
}

// On a busy machine a scan may miss the gripper.
void tst_SetVariables::scanAgainIfMissed()
{
    if (m_list->getDiscoveredSlaveIds().isEmpty())
        m_list->scan(m_line->path());
}

void tst_SetVariables::onlyOperationsOnTheBusMayWait()
{
    QStringList waiting;
    for (const SetVariable &variable : setVariables()) {
        if (variable.mayWait)
            waiting.append(QString::fromStdString(std::string(variable.name)));
    }
    waiting.sort();
    QCOMPARE(waiting, QStringList({QStringLiteral("BLD"), QStringLiteral("NID"),
                                   QStringLiteral("SCN_BLOCK"), QStringLiteral("UPG")}));
}

void tst_SetVariables::unknownNameHasNoRow_data()
{
    QTest::addColumn<QByteArray>("name");
    for (const char *name : {"STA", "VST", "OBJ",  "FLT",      "PRE", "COU",     "DST", "SNU",
                             "PYE", "NCY", "PON",  "NPA",      "FWV", "PCO",     "VER", "DRI",
                             "XYZ", "pos", "SCN_", "SCN_BLOC", "MUT", "THROTTL", ""})
        QTest::newRow(name) << QByteArray(name);
}

void tst_SetVariables::unknownNameHasNoRow()
{
    QFETCH(QByteArray, name);
    QVERIFY(findSetVariable(viewOf(name)) == nullptr);
}

void tst_SetVariables::flagIsSetByEveryValueButZero_data()
{
    QTest::addColumn<Getter>("getter");
    QTest::addColumn<int>("value");
    QTest::addColumn<int>("expected");

    using G = KvPelloGripper;
    const QVector<QPair<const char *, Getter>> flags{
        {"ACT", &G::getActivateRequest},
        {"GTO", &G::getGoToRequest},
        {"ATR", &G::getAutoReleaseRequest},
        {"ARD", &G::getAutoReleaseDirectionRequest},
        {"LBP", &G::getLedBypass},
        {"LGN", &G::getLedGreen},
        {"LRD", &G::getLedRed},
        {"LBL", &G::getLedBlue},
    };
    for (const auto &flag : flags) {
        for (const int value : {1, 0, 2, 0, 255, 0})
            QTest::addRow("%s %d", flag.first, value) << flag.second << value << int(value != 0);
    }
}

void tst_SetVariables::flagIsSetByEveryValueButZero()
{
    QFETCH(Getter, getter);
    QFETCH(int, value);
    const QByteArray name = QByteArray(QTest::currentDataTag()).left(3);
    QVERIFY(!set(name, value));
    QTEST(int((m_gripper.data()->*getter)()), "expected");
    QCOMPARE(m_line->requests(), QStringList());
}

void tst_SetVariables::numberIsStoredUnchanged_data()
{
    QTest::addColumn<Getter>("getter");
    QTest::addColumn<int>("value");

    using G = KvPelloGripper;
    const QVector<QPair<const char *, Getter>> numbers{
        {"MSC", &G::getMaxPeakSupplyCurrent},
        {"POS", &G::getPositionRequest},
        {"SPE", &G::getSpeedRequest},
        {"FOR", &G::getForceRequest},
    };
    for (const auto &number : numbers) {
        for (const int value : {255, 1, 0})
            QTest::addRow("%s %d", number.first, value) << number.second << value;
    }
}

void tst_SetVariables::numberIsStoredUnchanged()
{
    QFETCH(Getter, getter);
    QFETCH(int, value);
    QVERIFY(!set(QByteArray(QTest::currentDataTag()).left(3), value));
    QCOMPARE(int((m_gripper.data()->*getter)()), value);
    QVERIFY(m_gripper->isNewOutput());
    QCOMPARE(m_line->requests(), QStringList());
}

void tst_SetVariables::activationClearsTheAutoRelease_data()
{
    QTest::addColumn<int>("value");
    QTest::newRow("activate") << 1;
    QTest::newRow("deactivate") << 0;
}

void tst_SetVariables::activationClearsTheAutoRelease()
{
    QFETCH(int, value);
    QVERIFY(!set("ATR", 1));
    QCOMPARE(m_gripper->getAutoReleaseRequest(), quint8{1});
    QVERIFY(!set("ACT", value));
    QCOMPARE(m_gripper->getAutoReleaseRequest(), quint8{0});
}

void tst_SetVariables::modeIsAcknowledgedIfItExists_data()
{
    QTest::addColumn<int>("mode");
    QTest::addColumn<QByteArray>("reply");
    QTest::addColumn<int>("sent");

    QTest::newRow("manual") << 0 << QByteArray("ack") << 0x0000;
    QTest::newRow("automatic") << 1 << QByteArray("ack") << 0x0200;
    // The mode that was sent last does not change.
    QTest::newRow("no such mode") << 2 << QByteArray("nak") << 0x0200;
    QTest::newRow("last value") << 255 << QByteArray("nak") << 0x0200;
}

void tst_SetVariables::modeIsAcknowledgedIfItExists()
{
    QFETCH(int, mode);
    QFETCH(QByteArray, reply);
    QCOMPARE(set("MOD", mode), Reply(viewOf(reply)));
    QVERIFY(m_gripper->updateOutput());
    QTEST(*m_line->bus().registerValue(9, 1000) & 0x0600, "sent");
}

void tst_SetVariables::selectionOfADiscoveredGripperDoesNotChangeTheReply()
{
    m_selectedSlaveId = 4;
    QVERIFY(!set("SID", 9));
    QCOMPARE(m_selectedSlaveId, 9);
}

void tst_SetVariables::selectionOfAnUnknownIdIsNakAndStored()
{
    QCOMPARE(set("SID", 5), Reply("nak"));
    QCOMPARE(m_selectedSlaveId, 5);
    QCOMPARE(set("SID", 0), Reply("nak"));
    QCOMPARE(m_selectedSlaveId, 0);
}

void tst_SetVariables::muteStopsThePolling()
{
    QVERIFY(!set("MUTE", 0));
    QTRY_VERIFY(!m_line->requests().isEmpty());
    QVERIFY(!set("MUTE", 1));
    // A silence that is longer than any time-out follows the last exchange.
    QTRY_COMPARE(requestsWithin(150), 0);
    QCOMPARE(requestsWithin(200), 0);
    QVERIFY(!set("MUTE", 255));
    QCOMPARE(requestsWithin(200), 0);
}

void tst_SetVariables::throttleChangesTheInterval()
{
    auto *ticks = m_list->findChild<QTimer *>();
    for (auto *timer : m_list->findChildren<QTimer *>()) {
        if (!timer->isSingleShot())
            ticks = timer;
    }
    QVERIFY(!set("THROTTLE", 0));
    QTRY_COMPARE(ticks->interval(), 5);
    QVERIFY(!set("THROTTLE", 3));
    QTRY_COMPARE(ticks->interval(), 50);
}

void tst_SetVariables::blockingScanRequestEndsAfterTheScan()
{
    QVERIFY(!set("SCN_BLOCK", 0));
    QVERIFY(m_list->getGripperFromSlaveId(9) != m_gripper);
    QCOMPARE(m_list->getPrintableState(), QByteArray("RUNNING"));
}

void tst_SetVariables::scanRequestDoesNotScanAtOnce()
{
    QVERIFY(!set("SCN", 0));
    QCOMPARE(m_line->requests(), QStringList());
    m_list->setMuted(false);
    QTRY_VERIFY(m_list->getGripperFromSlaveId(9) != m_gripper);
    m_list->setMuted(true);
    QTRY_COMPARE(requestsWithin(150), 0);
}

void tst_SetVariables::failedMoveScansWithoutNewReplyOrSelection()
{
    m_line->silence(9, 430, 1);
    QVERIFY(!set("NID", 4));
    QCOMPARE(m_line->requests().mid(0, 2),
             (QStringList{QStringLiteral("9 read 430"), QStringLiteral("9 read 500")}));
    QVERIFY(m_list->getGripperFromSlaveId(9) != m_gripper);
    scanAgainIfMissed();
    QVERIFY(m_list->getGripperFromSlaveId(9));
    QVERIFY(!m_list->getGripperFromSlaveId(4));
    QCOMPARE(m_selectedSlaveId, 9);
}

void tst_SetVariables::failedOperationIsNakAndLeavesThePollingMuted_data()
{
    QTest::addColumn<QByteArray>("name");
    QTest::newRow("upgrade") << QByteArray("UPG");
    QTest::newRow("bootloader") << QByteArray("BLD");
}

void tst_SetVariables::failedOperationIsNakAndLeavesThePollingMuted()
{
    QFETCH(QByteArray, name);
    m_line->ignoreResets(9, 1);
    QCOMPARE(set(name, 1), Reply("nak"));
    QCOMPARE(m_line->requests(), QStringList{QStringLiteral("9 write 400")});
    // The detection also blocks the simulator, which afterwards reads its bytes as requests.
    QTRY_COMPARE(requestsWithin(200), 0);
}

// Must be the last test: it moves the gripper to another id.
void tst_SetVariables::moveScansWithoutNewReplyOrSelection()
{
    QVERIFY(!set("NID", 4));
    QCOMPARE(m_selectedSlaveId, 9);
    // Without its scan, the list would still have the id 9.
    scanAgainIfMissed();
    QCOMPARE(m_list->getDiscoveredSlaveIds(), QVector<quint8>{4});
    // The scan has replaced the object of the gripper.
    QVERIFY(m_list->getGripperFromSlaveId(4) != m_gripper);
}

QTEST_GUILESS_MAIN(tst_SetVariables)
#include "tst_setvariables.moc"
