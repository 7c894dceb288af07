#include "kvmodbusabstract.h"

#include <QSignalSpy>
#include <QTest>

namespace {

// A master without a line: the tests look at the part that every master inherits.
class IdleMaster : public KvModbusAbstract
{
public:
    bool connectToDevice() override { return false; }
    void disconnectFromDevice() override {}
    bool isConnected() override { return false; }
    QString getPortName() const override { return {}; }
    QVector<quint16> readRegisters(quint8, quint16, quint16) override { return {}; }
    bool writeRegisters(quint8, quint16, const QVector<quint16> &) override { return false; }
    void setBaudRate(qint32) override {}

    using KvModbusAbstract::constraints;
    using KvModbusAbstract::setError;
};

using Error = KvModbusAbstract::KvModbusError;

Error errorIn(const QList<QVariant> &signal)
{
    return signal.first().value<Error>();
}

} // namespace

class tst_KvModbusAbstract : public QObject
{
    Q_OBJECT

private slots:
    void noErrorBeforeTheFirstRequest();
    void eachErrorIsStoredNamedAndSignalledEveryTime_data();
    void eachErrorIsStoredNamedAndSignalledEveryTime();
    void errorIsStoredBeforeItIsSignalled();
    void unknownErrorHasNoName();
    void clearErrorIsSilent();
    void initialTimingIsThatOfNoPort();
    void deviceStatesAreForwarded_data();
    void deviceStatesAreForwarded();
};

void tst_KvModbusAbstract::noErrorBeforeTheFirstRequest()
{
    const IdleMaster master;
    QCOMPARE(master.error(), KvModbusAbstract::NoError);
    QCOMPARE(master.errorString(), QStringLiteral("NoError"));
}

void tst_KvModbusAbstract::eachErrorIsStoredNamedAndSignalledEveryTime_data()
{
    QTest::addColumn<int>("value");
    QTest::newRow("NoError") << 0;
    QTest::newRow("TimeoutError") << 1;
    QTest::newRow("BadCrcError") << 2;
    QTest::newRow("NotConnectedError") << 3;
    QTest::newRow("InvalideError") << 4;
    QTest::newRow("InternalError") << 5;
}

void tst_KvModbusAbstract::eachErrorIsStoredNamedAndSignalledEveryTime()
{
    QFETCH(int, value);
    IdleMaster master;
    QSignalSpy errors(&master, &KvModbusAbstract::errorOccurred);
    master.setError(static_cast<Error>(value));
    master.setError(static_cast<Error>(value));
    QCOMPARE(int(master.error()), value);
    QCOMPARE(master.errorString(), QString::fromLatin1(QTest::currentDataTag()));
    QCOMPARE(errors.size(), 2);
    QCOMPARE(int(errorIn(errors[0])), value);
    QCOMPARE(int(errorIn(errors[1])), value);
}

void tst_KvModbusAbstract::errorIsStoredBeforeItIsSignalled()
{
    IdleMaster master;
    Error storedError = KvModbusAbstract::NoError;
    connect(&master, &KvModbusAbstract::errorOccurred, &master,
            [&] { storedError = master.error(); });
    master.setError(KvModbusAbstract::BadCrcError);
    QCOMPARE(storedError, KvModbusAbstract::BadCrcError);
    master.setError(KvModbusAbstract::NoError);
    QCOMPARE(storedError, KvModbusAbstract::NoError);
}

void tst_KvModbusAbstract::unknownErrorHasNoName()
{
    IdleMaster master;
    master.setError(static_cast<Error>(6));
    QCOMPARE(master.errorString(), QString());
}

void tst_KvModbusAbstract::clearErrorIsSilent()
{
    IdleMaster master;
    master.setError(KvModbusAbstract::BadCrcError);
    QSignalSpy errors(&master, &KvModbusAbstract::errorOccurred);
    master.clearError();
    QCOMPARE(master.error(), KvModbusAbstract::NoError);
    QCOMPARE(errors.size(), 0);
}

void tst_KvModbusAbstract::initialTimingIsThatOfNoPort()
{
    const IdleMaster master;
    QCOMPARE(master.constraints().getTimeout(), 20);
    QCOMPARE(master.constraints().getTimeoutFactor(), 10);
    QCOMPARE(master.constraints().getRetries(), 2);
}

void tst_KvModbusAbstract::deviceStatesAreForwarded_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("disconnectedCount");
    QTest::addColumn<int>("connectedCount");
    QTest::newRow("unconnected") << int(QModbusDevice::UnconnectedState) << 1 << 0;
    QTest::newRow("connecting") << int(QModbusDevice::ConnectingState) << 0 << 0;
    QTest::newRow("connected") << int(QModbusDevice::ConnectedState) << 0 << 1;
    QTest::newRow("closing") << int(QModbusDevice::ClosingState) << 0 << 0;
}

void tst_KvModbusAbstract::deviceStatesAreForwarded()
{
    QFETCH(int, state);
    QFETCH(int, disconnectedCount);
    QFETCH(int, connectedCount);
    IdleMaster master;
    QSignalSpy disconnected(&master, &KvModbusAbstract::disconnected);
    QSignalSpy connected(&master, &KvModbusAbstract::connected);
    QSignalSpy errors(&master, &KvModbusAbstract::errorOccurred);
    QVERIFY(QMetaObject::invokeMethod(
        &master, "onModbusStateChanged",
        Q_ARG(QModbusDevice::State, static_cast<QModbusDevice::State>(state))));
    QCOMPARE(disconnected.size(), disconnectedCount);
    QCOMPARE(connected.size(), connectedCount);
    QCOMPARE(errors.size(), 0);
}

QTEST_APPLESS_MAIN(tst_KvModbusAbstract)
#include "tst_kvmodbusabstract.moc"
