#include "modbusconstraintsfactory.h"

#include <QTest>

class tst_ModbusConstraints : public QObject
{
    Q_OBJECT

private slots:
    void timingFollowsThePortName_data();
    void timingFollowsThePortName();
};

void tst_ModbusConstraints::timingFollowsThePortName_data()
{
    QTest::addColumn<bool>("isToolFlange");
    QTest::addColumn<bool>("isWristCamera");
    QTest::addColumn<int>("timeoutMs");

    QTest::newRow("ttyTool") << true << false << 32;
    QTest::newRow("ttyTool0") << false << false << 32;
    QTest::newRow("ttytool") << false << false << 32;
    QTest::newRow("xttyTool") << false << false << 32;
    QTest::newRow("ttyACM") << false << true << 200;
    QTest::newRow("ttyACM0") << false << true << 200;
    QTest::newRow("ttyACM10") << false << true << 200;
    QTest::newRow("ttyAC") << false << false << 32;
    QTest::newRow("xttyACM0") << false << false << 32;
    QTest::newRow("ttyacm0") << false << false << 32;
    QTest::newRow("ttyUSB0") << false << false << 32;
    QTest::newRow("ttyS1") << false << false << 32;
    QTest::newRow("") << false << false << 32;
    QTest::newRow("/dev/ttyACM0") << false << false << 32;
    QTest::newRow("/dev/ttyTool") << false << false << 32;
}

void tst_ModbusConstraints::timingFollowsThePortName()
{
    QFETCH(bool, isToolFlange);
    QFETCH(bool, isWristCamera);
    QFETCH(int, timeoutMs);
    const QString portName = QString::fromLatin1(QTest::currentDataTag());

    const ModbusConstraintsFactory factory;
    QCOMPARE(factory.isG5ToolFlangeSerialConverter(portName), isToolFlange);
    QCOMPARE(factory.isTavrinWristCameraSerialConverter(portName), isWristCamera);
    const ModbusConstraints constraints = factory.getModbusConstraints(portName);
    QCOMPARE(constraints.getTimeout(), timeoutMs);
    QCOMPARE(constraints.getTimeoutFactor(), 10);
    QCOMPARE(constraints.getRetries(), 2);
}

QTEST_APPLESS_MAIN(tst_ModbusConstraints)
#include "tst_modbusconstraints.moc"
