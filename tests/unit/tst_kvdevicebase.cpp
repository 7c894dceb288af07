#include "kvdevicebase.h"

#include "pausewatch.h"
#include "scriptedmaster.h"

#include <QSignalSpy>
#include <QTest>

namespace {

using Words = ScriptedMaster::Words;
using Error = KvDeviceBase::KvDeviceError;

constexpr quint8 slave = 9;
constexpr quint16 versionAddress = 500;
constexpr quint16 serialAddress = 510;
constexpr quint16 yearAddress = 514;
constexpr quint16 commandAddress = 401;

class Device : public KvDeviceBase
{
public:
    explicit Device(KvModbusAbstract &modbus, quint16 slaveId = slave)
        : KvDeviceBase(modbus, slaveId, nullptr)
    {
    }
    bool isValidDevice() override { return true; }
};

QString text(const char *latin1, int length)
{
    return QString::fromLatin1(latin1, length);
}

QList<Error> errorsIn(const QSignalSpy &spy)
{
    QList<Error> errors;
    for (const QList<QVariant> &signal : spy)
        errors.append(signal[0].value<Error>());
    return errors;
}

} // namespace

class tst_KvDeviceBase : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void slaveIdIsTheLowByte();
    void readSetsTheError_data();
    void readSetsTheError();
    void writeSetsTheError();
    void eachErrorIsStoredNamedAndSignalled_data();
    void eachErrorIsStoredNamedAndSignalled();
    void errorIsStoredBeforeItIsSignalled();
    void unknownErrorHasNoName();
    void clearErrorIsSilentAndClearsTheMasterToo();

    void serialNumberIsDecoded_data();
    void serialNumberIsDecoded();
    void firmwareVersionIsDecoded_data();
    void firmwareVersionIsDecoded();
    void identityIsReadOnceAndKept();
    void shortIdentityAnswerIsRefused_data();
    void shortIdentityAnswerIsRefused();
    void yearZeroIsReadAgainEveryTime();
    void yearIsReadAgainAfterAFailure();

    void identityIsWrittenAsThreeWrites_data();
    void identityIsWrittenAsThreeWrites();
    void refusedIdentityWriteEndsTheProgramming_data();
    void refusedIdentityWriteEndsTheProgramming();
    void timeoutOfTheStoreCommandIsTolerated();
    void expectedTextIsPaddedWithItsOwnBounds_data();
    void expectedTextIsPaddedWithItsOwnBounds();
    void onlyTheFirst49ReadBacksCanConfirm_data();
    void onlyTheFirst49ReadBacksCanConfirm();
    void wrongYearIsNotConfirmed();
    void cachedIdentityIsNotReadBack();

private:
    QScopedPointer<ScriptedMaster> m_master;
};

void tst_KvDeviceBase::init()
{
    m_master.reset(new ScriptedMaster);
}

void tst_KvDeviceBase::slaveIdIsTheLowByte()
{
    Device device(*m_master, 0x0109);
    QCOMPARE(device.getSlaveId(), quint8{9});
    device.modbusReadRegisters(1, 2);
    device.modbusWriteRegisters(3, {4});
    QCOMPARE(m_master->takeRequests(),
             QStringList({QStringLiteral("read 9 1 2"), QStringLiteral("write 9 3: 0x0004")}));
}

void tst_KvDeviceBase::readSetsTheError_data()
{
    QTest::addColumn<Words>("answer");
    QTest::addColumn<Error>("error");
    QTest::newRow("complete") << Words{1, 2, 3} << KvDeviceBase::NoError;
    QTest::newRow("longer") << Words{1, 2, 3, 4} << KvDeviceBase::NoError;
    QTest::newRow("one short") << Words{1, 2} << KvDeviceBase::CommunicationError;
    QTest::newRow("nothing") << Words{} << KvDeviceBase::CommunicationError;
}

void tst_KvDeviceBase::readSetsTheError()
{
    QFETCH(Words, answer);
    QFETCH(Error, error);
    m_master->setRegisters(slave, 2000, answer);
    Device device(*m_master);
    QSignalSpy errors(&device, &KvDeviceBase::errorOccurred);
    QCOMPARE(device.modbusReadRegisters(2000, 3), answer);
    QCOMPARE(device.error(), error);
    QCOMPARE(errorsIn(errors), QList<Error>{error});
    QCOMPARE(m_master->takeRequests(), QStringList(QStringLiteral("read 9 2000 3")));
}

void tst_KvDeviceBase::writeSetsTheError()
{
    Device device(*m_master);
    QSignalSpy errors(&device, &KvDeviceBase::errorOccurred);
    m_master->refuseWrites(1000, KvModbusAbstract::BadCrcError);
    QVERIFY(!device.modbusWriteRegisters(1000, {1}));
    QCOMPARE(device.error(), KvDeviceBase::CommunicationError);
    m_master->acknowledgeWrites(1000);
    QVERIFY(device.modbusWriteRegisters(1000, {0x0102, 0xFFFF}));
    QCOMPARE(device.error(), KvDeviceBase::NoError);
    QCOMPARE(errorsIn(errors),
             QList<Error>({KvDeviceBase::CommunicationError, KvDeviceBase::NoError}));
    QCOMPARE(m_master->takeRequests(),
             QStringList({QStringLiteral("write 9 1000: 0x0001"),
                          QStringLiteral("write 9 1000: 0x0102 0xffff")}));
}

void tst_KvDeviceBase::eachErrorIsStoredNamedAndSignalled_data()
{
    QTest::addColumn<int>("value");
    QTest::newRow("NoError") << 0;
    QTest::newRow("InvalideDeviceError") << 1;
    QTest::newRow("NotConnectedError") << 2;
    QTest::newRow("CommunicationError") << 3;
    QTest::newRow("InitilizationError") << 4;
}

void tst_KvDeviceBase::eachErrorIsStoredNamedAndSignalled()
{
    QFETCH(int, value);
    const auto error = static_cast<Error>(value);
    Device device(*m_master);
    QSignalSpy errors(&device, &KvDeviceBase::errorOccurred);
    device.setError(error);
    device.setError(error);
    QCOMPARE(device.error(), error);
    QCOMPARE(device.errorString(), QString::fromLatin1(QTest::currentDataTag()));
    QCOMPARE(errorsIn(errors), QList<Error>({error, error}));
}

void tst_KvDeviceBase::errorIsStoredBeforeItIsSignalled()
{
    Device device(*m_master);
    Error storedError = KvDeviceBase::NoError;
    connect(&device, &KvDeviceBase::errorOccurred, &device, [&] { storedError = device.error(); });
    device.setError(KvDeviceBase::InvalideDeviceError);
    QCOMPARE(storedError, KvDeviceBase::InvalideDeviceError);
    device.modbusReadRegisters(2000, 1);
    QCOMPARE(storedError, KvDeviceBase::CommunicationError);
}

void tst_KvDeviceBase::unknownErrorHasNoName()
{
    Device device(*m_master);
    device.setError(static_cast<Error>(5));
    QCOMPARE(device.errorString(), QString());
}

void tst_KvDeviceBase::clearErrorIsSilentAndClearsTheMasterToo()
{
    Device device(*m_master);
    device.modbusReadRegisters(2000, 1);
    QCOMPARE(device.error(), KvDeviceBase::CommunicationError);
    QCOMPARE(m_master->error(), KvModbusAbstract::TimeoutError);
    QSignalSpy deviceErrors(&device, &KvDeviceBase::errorOccurred);
    QSignalSpy masterErrors(m_master.data(), &KvModbusAbstract::errorOccurred);
    device.clearError();
    QCOMPARE(device.error(), KvDeviceBase::NoError);
    QCOMPARE(m_master->error(), KvModbusAbstract::NoError);
    QCOMPARE(deviceErrors.size() + masterErrors.size(), 0);
}

void tst_KvDeviceBase::serialNumberIsDecoded_data()
{
    QTest::addColumn<Words>("registers");
    QTest::addColumn<QString>("serialNumber");
    const auto number = [](quint16 low, quint16 high = 0) {
        return Words{0x4142, 0x4300, low, high};
    };
    QTest::newRow("letters from the high byte on") << number(42) << QStringLiteral("ABC-0042");
    QTest::newRow("low byte of the second register unused")
        << Words{0x4142, 0x43FF, 42, 0} << QStringLiteral("ABC-0042");
    QTest::newRow("all letters NUL") << Words{0, 0, 42, 0} << QStringLiteral("-0042");
    QTest::newRow("first letter NUL") << Words{0x0042, 0x4300, 42, 0} << QStringLiteral("BC-0042");
    QTest::newRow("middle letter NUL") << Words{0x4100, 0x4300, 42, 0} << QStringLiteral("AC-0042");
    QTest::newRow("last letter NUL") << Words{0x4142, 0x0000, 42, 0} << QStringLiteral("AB-0042");
    QTest::newRow("leading blanks") << Words{0x2020, 0x4300, 42, 0} << QStringLiteral("C-0042");
    QTest::newRow("blank after a NUL") << Words{0x0020, 0x4300, 42, 0} << QStringLiteral("C-0042");
    QTest::newRow("blank before the dash")
        << Words{0x4142, 0x2000, 42, 0} << QStringLiteral("AB -0042");
    QTest::newRow("only blanks") << Words{0x2020, 0x2000, 42, 0} << QStringLiteral("-0042");
    QTest::newRow("letter above 127") << Words{0xE942, 0x4300, 42, 0}
                                      << text("\xE9"
                                              "BC-0042",
                                              8);
    QTest::newRow("0") << number(0) << QStringLiteral("ABC-000");
    QTest::newRow("7") << number(7) << QStringLiteral("ABC-007");
    QTest::newRow("99") << number(99) << QStringLiteral("ABC-0099");
    QTest::newRow("100") << number(100) << QStringLiteral("ABC-100");
    QTest::newRow("101") << number(101) << QStringLiteral("ABC-0101");
    QTest::newRow("150") << number(150) << QStringLiteral("ABC-0150");
    QTest::newRow("999") << number(999) << QStringLiteral("ABC-0999");
    QTest::newRow("1000") << number(1000) << QStringLiteral("ABC-1000");
    QTest::newRow("65535") << number(0xFFFF) << QStringLiteral("ABC-65535");
    QTest::newRow("low word first") << number(2, 1) << QStringLiteral("ABC-65538");
    QTest::newRow("largest") << number(0xFFFF, 0x7FFF) << QStringLiteral("ABC-2147483647");
    QTest::newRow("smallest") << number(0, 0x8000) << QStringLiteral("ABC-00-2147483648");
    QTest::newRow("-1") << number(0xFFFF, 0xFFFF) << QStringLiteral("ABC-00-1");
}

void tst_KvDeviceBase::serialNumberIsDecoded()
{
    QFETCH(Words, registers);
    QFETCH(QString, serialNumber);
    m_master->setRegisters(slave, serialAddress, registers);
    Device device(*m_master);
    QCOMPARE(device.getSerialNumber(), serialNumber);
    QCOMPARE(m_master->takeRequests(), QStringList(QStringLiteral("read 9 510 4")));
}

void tst_KvDeviceBase::firmwareVersionIsDecoded_data()
{
    QTest::addColumn<Words>("registers");
    QTest::addColumn<QString>("version");
    QTest::newRow("letters and numbers")
        << Words{0x5441, 0x3301, 0x060E} << QStringLiteral("TA3-1.6.14");
    QTest::newRow("numbers up to 255")
        << Words{0x5442, 0x31FF, 0xFEFD} << QStringLiteral("TB1-255.254.253");
    QTest::newRow("NUL letters are kept") << Words{0, 0, 0} << text("\0\0\0-0.0.0", 9);
    QTest::newRow("blanks are kept") << Words{0x2041, 0x2001, 0x0203} << text(" A -1.2.3", 9);
    QTest::newRow("letter above 127") << Words{0xE941, 0xFF01, 0x0203}
                                      << text("\xE9"
                                              "A\xFF-1.2.3",
                                              9);
}

void tst_KvDeviceBase::firmwareVersionIsDecoded()
{
    QFETCH(Words, registers);
    QFETCH(QString, version);
    m_master->setRegisters(slave, versionAddress, registers);
    Device device(*m_master);
    QCOMPARE(device.getFirmwareVersion(), version);
    QCOMPARE(m_master->takeRequests(), QStringList(QStringLiteral("read 9 500 3")));
}

void tst_KvDeviceBase::identityIsReadOnceAndKept()
{
    m_master->setRegisters(slave, versionAddress, {0x5441, 0x3301, 0x060E});
    m_master->setRegisters(slave, serialAddress, {0x4142, 0x4300, 42, 0});
    m_master->setRegisters(slave, yearAddress, {2024});
    Device device(*m_master);
    device.getFirmwareVersion();
    device.getSerialNumber();
    device.getProductionYear();
    QCOMPARE(m_master->takeRequests(),
             QStringList({QStringLiteral("read 9 500 3"), QStringLiteral("read 9 510 4"),
                          QStringLiteral("read 9 514 1")}));

    m_master->setRegisters(slave, versionAddress, {0x5442, 0x3301, 0x060E});
    m_master->setRegisters(slave, serialAddress, {0x5858, 0x5800, 1, 0});
    m_master->setRegisters(slave, yearAddress, {1999});
    QSignalSpy errors(&device, &KvDeviceBase::errorOccurred);
    QCOMPARE(device.getFirmwareVersion(), QStringLiteral("TA3-1.6.14"));
    QCOMPARE(device.getSerialNumber(), QStringLiteral("ABC-0042"));
    QCOMPARE(device.getProductionYear(), quint16{2024});
    QCOMPARE(m_master->takeRequests(), QStringList());
    QCOMPARE(errors.size(), 0);
}

void tst_KvDeviceBase::shortIdentityAnswerIsRefused_data()
{
    QTest::addColumn<Words>("serialNumber");
    QTest::addColumn<Words>("version");
    QTest::newRow("nothing") << Words{} << Words{};
    QTest::newRow("one short") << Words{0x4142, 0x4300, 42} << Words{0x5441, 0x3301};
}

void tst_KvDeviceBase::shortIdentityAnswerIsRefused()
{
    QFETCH(Words, serialNumber);
    QFETCH(Words, version);
    m_master->setRegisters(slave, versionAddress, {0x5441, 0x3301, 0x060E});
    m_master->setRegisters(slave, serialAddress, {0x4142, 0x4300, 42, 0});
    m_master->setNextAnswers(slave, serialAddress, {serialNumber});
    m_master->setNextAnswers(slave, versionAddress, {version});
    Device device(*m_master);
    QCOMPARE(device.getSerialNumber(), QString());
    QCOMPARE(device.error(), KvDeviceBase::CommunicationError);
    QCOMPARE(device.getSerialNumber(), QStringLiteral("ABC-0042"));
    QCOMPARE(device.error(), KvDeviceBase::NoError);
    QCOMPARE(device.getFirmwareVersion(), QString());
    QCOMPARE(device.error(), KvDeviceBase::CommunicationError);
    QCOMPARE(device.getFirmwareVersion(), QStringLiteral("TA3-1.6.14"));
    QCOMPARE(device.error(), KvDeviceBase::NoError);
}

void tst_KvDeviceBase::yearZeroIsReadAgainEveryTime()
{
    m_master->setRegisters(slave, yearAddress, {0});
    Device device(*m_master);
    for (int i = 0; i < 3; ++i) {
        QCOMPARE(device.getProductionYear(), quint16{0});
        QCOMPARE(device.error(), KvDeviceBase::NoError);
    }
    QCOMPARE(m_master->takeRequests().size(), 3);
}

void tst_KvDeviceBase::yearIsReadAgainAfterAFailure()
{
    m_master->setRegisters(slave, yearAddress, {2024});
    m_master->setNextAnswers(slave, yearAddress, {Words{}});
    Device device(*m_master);
    QCOMPARE(device.getProductionYear(), quint16{0});
    QCOMPARE(device.error(), KvDeviceBase::CommunicationError);
    QCOMPARE(device.getProductionYear(), quint16{2024});
    QCOMPARE(device.error(), KvDeviceBase::NoError);
}

void tst_KvDeviceBase::identityIsWrittenAsThreeWrites_data()
{
    QTest::addColumn<QString>("prefix");
    QTest::addColumn<quint32>("number");
    QTest::addColumn<QString>("serialWrite");
    QTest::newRow("four letters, the first in the low byte")
        << QStringLiteral("ABCD") << quint32{0x00012345}
        << QStringLiteral("write 9 510: 0x4241 0x4443 0x2345 0x0001");
    QTest::newRow("longer ones are cut")
        << QStringLiteral("ABCDE") << quint32{7}
        << QStringLiteral("write 9 510: 0x4241 0x4443 0x0007 0x0000");
    QTest::newRow("three letters") << QStringLiteral("ABC") << quint32{7}
                                   << QStringLiteral("write 9 510: 0x4241 0x0043 0x0007 0x0000");
    QTest::newRow("no letters") << QString() << quint32{7}
                                << QStringLiteral("write 9 510: 0x0000 0x0000 0x0007 0x0000");
    QTest::newRow("code 255") << QString(4, QChar(0xFF)) << quint32{7}
                              << QStringLiteral("write 9 510: 0xffff 0xffff 0x0007 0x0000");
    QTest::newRow("code 256") << QString(4, QChar(0x100)) << quint32{7}
                              << QStringLiteral("write 9 510: 0x0000 0x0000 0x0007 0x0000");
    QTest::newRow("largest number") << QStringLiteral("ABC") << quint32{0xFFFFFFFE}
                                    << QStringLiteral("write 9 510: 0x4241 0x0043 0xfffe 0xffff");
}

void tst_KvDeviceBase::identityIsWrittenAsThreeWrites()
{
    QFETCH(QString, prefix);
    QFETCH(quint32, number);
    QFETCH(QString, serialWrite);
    m_master->refuseWrites(commandAddress, KvModbusAbstract::BadCrcError); // avoids the read-back
    Device device(*m_master);
    QVERIFY(!device.setSerialNumberAndProductionYear(prefix, number, 2024));
    QCOMPARE(m_master->takeRequests(),
             QStringList({serialWrite, QStringLiteral("write 9 514: 0x07e8"),
                          QStringLiteral("write 9 401: 0x4900")}));
}

void tst_KvDeviceBase::refusedIdentityWriteEndsTheProgramming_data()
{
    QTest::addColumn<quint16>("address");
    QTest::addColumn<KvModbusAbstract::KvModbusError>("error");
    QTest::addColumn<int>("writes");
    QTest::newRow("serial number, timeout") << serialAddress << KvModbusAbstract::TimeoutError << 1;
    QTest::newRow("year, timeout") << yearAddress << KvModbusAbstract::TimeoutError << 2;
    QTest::newRow("command, bad CRC") << commandAddress << KvModbusAbstract::BadCrcError << 3;
    QTest::newRow("command, not connected")
        << commandAddress << KvModbusAbstract::NotConnectedError << 3;
}

void tst_KvDeviceBase::refusedIdentityWriteEndsTheProgramming()
{
    QFETCH(quint16, address);
    QFETCH(KvModbusAbstract::KvModbusError, error);
    QFETCH(int, writes);
    m_master->setRegisters(slave, serialAddress, {0x4142, 0x4300, 42, 0});
    m_master->setRegisters(slave, yearAddress, {2024});
    m_master->refuseWrites(address, error);
    Device device(*m_master);
    QVERIFY(!device.setSerialNumberAndProductionYear(QStringLiteral("ABC"), 42, 2024));
    QCOMPARE(device.error(), KvDeviceBase::CommunicationError);
    QCOMPARE(m_master->takeRequests().size(), writes);
}

void tst_KvDeviceBase::timeoutOfTheStoreCommandIsTolerated()
{
    m_master->setRegisters(slave, serialAddress, {0x4142, 0x4300, 42, 0});
    m_master->setRegisters(slave, yearAddress, {2024});
    m_master->refuseWrites(commandAddress, KvModbusAbstract::TimeoutError);
    Device device(*m_master);
    QVERIFY(device.setSerialNumberAndProductionYear(QStringLiteral("ABC"), 42, 2024));
    QCOMPARE(m_master->takeRequests().size(), 5);
}

void tst_KvDeviceBase::expectedTextIsPaddedWithItsOwnBounds_data()
{
    QTest::addColumn<quint32>("number");
    QTest::addColumn<bool>("confirmed");
    QTest::newRow("0") << quint32{0} << true;
    QTest::newRow("99") << quint32{99} << true;
    QTest::newRow("100 is read as 100, expected as 0100") << quint32{100} << false;
    QTest::newRow("101") << quint32{101} << true;
    QTest::newRow("999") << quint32{999} << true;
    QTest::newRow("1000") << quint32{1000} << true;
    QTest::newRow("2147483647") << quint32{0x7FFFFFFF} << true;
    QTest::newRow("2147483648 is read as negative") << quint32{0x80000000} << false;
}

void tst_KvDeviceBase::expectedTextIsPaddedWithItsOwnBounds()
{
    QFETCH(quint32, number);
    QFETCH(bool, confirmed);
    m_master->setRegisters(slave, serialAddress,
                           {0x4142, 0x4300, static_cast<quint16>(number & 0xFFFF),
                            static_cast<quint16>(number >> 16)});
    m_master->setRegisters(slave, yearAddress, {2024});
    Device device(*m_master);
    QCOMPARE(device.setSerialNumberAndProductionYear(QStringLiteral("ABC"), number, 2024),
             confirmed);
}

void tst_KvDeviceBase::onlyTheFirst49ReadBacksCanConfirm_data()
{
    QTest::addColumn<int>("readBack");
    QTest::addColumn<bool>("confirmed");
    QTest::newRow("first") << 1 << true;
    QTest::newRow("49th") << 49 << true;
    QTest::newRow("50th") << 50 << false;
}

void tst_KvDeviceBase::onlyTheFirst49ReadBacksCanConfirm()
{
    QFETCH(int, readBack);
    QFETCH(bool, confirmed);
    m_master->setRegisters(slave, serialAddress, {0x4142, 0x4300, 42, 0});
    m_master->setRegisters(slave, yearAddress, {2024});
    QList<Words> silence;
    for (int i = 1; i < readBack; ++i)
        silence.append(Words{});
    m_master->setNextAnswers(slave, serialAddress, silence);
    Device device(*m_master);
    const PauseWatch watch;
    QCOMPARE(device.setSerialNumberAndProductionYear(QStringLiteral("ABC"), 42, 2024), confirmed);
    QCOMPARE(m_master->takeRequests().filter(QStringLiteral("read 9 510")).size(), readBack);
    QCOMPARE(watch.pausesMs(), QVector<int>(readBack, 50));
}

void tst_KvDeviceBase::wrongYearIsNotConfirmed()
{
    m_master->setRegisters(slave, serialAddress, {0x4142, 0x4300, 42, 0});
    m_master->setRegisters(slave, yearAddress, {2023});
    Device device(*m_master);
    QVERIFY(!device.setSerialNumberAndProductionYear(QStringLiteral("ABC"), 42, 2024));
}

void tst_KvDeviceBase::cachedIdentityIsNotReadBack()
{
    m_master->setRegisters(slave, serialAddress, {0x4142, 0x4300, 41, 0});
    m_master->setRegisters(slave, yearAddress, {2024});
    Device device(*m_master);
    QCOMPARE(device.getSerialNumber(), QStringLiteral("ABC-0041"));
    m_master->setRegisters(slave, serialAddress, {0x4142, 0x4300, 42, 0});
    m_master->takeRequests();
    QVERIFY(!device.setSerialNumberAndProductionYear(QStringLiteral("ABC"), 42, 2024));
    QCOMPARE(m_master->takeRequests().filter(QStringLiteral("read 9 510")), QStringList());
}

QTEST_GUILESS_MAIN(tst_KvDeviceBase)
#include "tst_kvdevicebase.moc"
