#include "getvariables.h"

#include "gripperlist.h"
#include "logcapture.h"
#include "modbusconstraintsfactory.h"
#include "simulatedline.h"

#include <QTest>

#include <memory>
#include <string>

namespace {

std::string_view viewOf(const QByteArray &text)
{
    return {text.constData(), static_cast<std::size_t>(text.size())};
}

} // namespace

/// The GET table. The fields of the gripper have different values.
class tst_GetVariables : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();

    void onlyTheIdentityMayWait();
    void numberIsPaddedToItsDigits_data();
    void numberIsPaddedToItsDigits();
    void largestNumbersAreUnsigned();
    void valueIsAppended();
    void unknownNameHasNoRow_data();
    void unknownNameHasNoRow();
    void idsOfAnEmptyListAreAnEmptyList();
    void driverStateIsTheStateOfTheList();
    void readingTheTableSendsNoRequest();

private:
    QByteArray valueOf(const QByteArray &name);

    ModbusConstraintsFactory m_factory;
    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<SimulatedLine> m_line;
    std::unique_ptr<GripperList> m_list;
    GripperList::Gripper m_gripper;
};

void tst_GetVariables::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
    m_line = std::make_unique<SimulatedLine>(
        std::initializer_list<SimulatedLine::Gripper>{{2, "TE1-2.0.2"}});
    auto &bus = m_line->bus();
    sim::GripperIdentity identity;
    QVERIFY(identity.setVersion(QStringLiteral("TA3-1.6.14")));
    QVERIFY(identity.setSerial(QStringLiteral("ABC-42")));
    identity.year = 2021;
    QVERIFY(bus.addGripper(9, identity));
    // Vacuum 2, active, mode 2, go-to, status 3, object 1; fault 5, echo 7; position 201,
    // current 33.
    bus.pinRegister(9, 2000, 0x7D02);
    bus.pinRegister(9, 2001, 0xF507);
    bus.pinRegister(9, 2002, 0xC921);
    const QVector<quint16> counters{1, 2, 3, 4, 5, 6};
    for (int i = 0; i < counters.size(); ++i)
        bus.pinRegister(9, static_cast<quint16>(600 + i), counters[i]);

    m_list = std::make_unique<GripperList>(m_factory, nullptr);
    m_list->setMuted(true);
    m_list->scan(m_line->path());
    m_gripper = m_list->getGripperFromSlaveId(9);
    QVERIFY(m_gripper);
    m_gripper->setLedBypass();
    m_gripper->setLedRed();
    m_gripper->setMaxPeakSupplyCurrent(77);
    m_gripper->setPositionRequest(66);
    m_gripper->setSpeedRequest(88);
    m_gripper->setForceRequest(99);
}

void tst_GetVariables::cleanupTestCase()
{
    m_gripper.reset();
    m_list.reset();
    QCOMPARE(m_log->warnings(), QStringList());
    m_log.reset();
}

QByteArray tst_GetVariables::valueOf(const QByteArray &name)
{
    const GetVariable *variable = findGetVariable(viewOf(name));
    if (variable == nullptr)
        return "no such row";
    std::string value;
    variable->appendValue({*m_list, variable->needsGripper() ? m_gripper.data() : nullptr}, value);
    return QByteArray::fromStdString(value);
}

void tst_GetVariables::onlyTheIdentityMayWait()
{
    QStringList waiting;
    for (const GetVariable &variable : getVariables()) {
        if (variable.mayWait())
            waiting.append(QString::fromStdString(std::string(variable.name)));
    }
    waiting.sort();
    QCOMPARE(waiting,
             QStringList({QStringLiteral("FWV"), QStringLiteral("PYE"), QStringLiteral("SNU")}));
}

void tst_GetVariables::numberIsPaddedToItsDigits_data()
{
    QTest::addColumn<int>("faultAndEcho");
    QTest::addColumn<QByteArray>("fault");
    QTest::addColumn<QByteArray>("echo");

    QTest::newRow("zero") << 0x0000 << QByteArray("00") << QByteArray("000");
    QTest::newRow("one digit") << 0x0909 << QByteArray("09") << QByteArray("009");
    QTest::newRow("two digits") << 0x0C63 << QByteArray("12") << QByteArray("099");
    QTest::newRow("three digits") << 0x0FFF << QByteArray("15") << QByteArray("255");
}

void tst_GetVariables::numberIsPaddedToItsDigits()
{
    QFETCH(int, faultAndEcho);
    m_line->bus().pinRegister(9, 2001, static_cast<quint16>(faultAndEcho));
    QTRY_VERIFY(m_gripper->updateInput());
    QTEST(valueOf("FLT"), "fault");
    QTEST(valueOf("PRE"), "echo");
}

void tst_GetVariables::largestNumbersAreUnsigned()
{
    m_line->bus().pinRegister(9, 600, 0xFFFF);
    m_line->bus().pinRegister(9, 601, 0xFFFF);
    m_line->bus().pinRegister(9, 2002, 0xFFFF);
    QTRY_VERIFY(m_gripper->updateInput());
    QCOMPARE(valueOf("NCY"), QByteArray("4294967295"));
    QCOMPARE(valueOf("POS"), QByteArray("255"));
    QCOMPARE(valueOf("COU"), QByteArray("255"));
}

void tst_GetVariables::valueIsAppended()
{
    std::string reply("VER ");
    findGetVariable("VER")->appendValue({*m_list, nullptr}, reply);
    QCOMPARE(reply, std::string("VER MZV-2.0.0"));
}

void tst_GetVariables::unknownNameHasNoRow_data()
{
    QTest::addColumn<QByteArray>("name");
    for (const char *name : {"ATR", "ARD", "NID", "SCN", "BLD", "ABC", "PO", "POSI", "pos", "___",
                             "SCN_BLOCK", "MUTE", "THROTTLE", ""})
        QTest::newRow(name) << QByteArray(name);
}

void tst_GetVariables::unknownNameHasNoRow()
{
    QFETCH(QByteArray, name);
    QVERIFY(findGetVariable(viewOf(name)) == nullptr);
}

void tst_GetVariables::idsOfAnEmptyListAreAnEmptyList()
{
    GripperList empty(m_factory, nullptr);
    std::string value;
    findGetVariable("SID")->appendValue({empty, nullptr}, value);
    QCOMPARE(value, std::string("[]"));
}

void tst_GetVariables::driverStateIsTheStateOfTheList()
{
    m_list->requestScanBlock();
    QCOMPARE(valueOf("DRI"), QByteArray("RUNNING"));
}

// The scan has already read the identity of the gripper.
void tst_GetVariables::readingTheTableSendsNoRequest()
{
    m_line->clearTraffic();
    for (const GetVariable &variable : getVariables()) {
        std::string value;
        variable.appendValue({*m_list, m_gripper.data()}, value);
        QVERIFY2(!value.empty(), std::string(variable.name).c_str());
    }
    QCOMPARE(m_line->requests(), QStringList());
}

QTEST_GUILESS_MAIN(tst_GetVariables)
#include "tst_getvariables.moc"
