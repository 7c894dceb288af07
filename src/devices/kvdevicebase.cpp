#include "kvdevicebase.h"

#include "registermap.h"
#include "waits.h"

#include <QMetaEnum>

namespace {

constexpr int prefixLength = 4;
constexpr int readBackPauseMs = 50;
constexpr int readBackAttempts = 50;

quint8 highByte(quint16 word)
{
    return static_cast<quint8>(word >> 8);
}

quint8 lowByte(quint16 word)
{
    return static_cast<quint8>(word & 0xFF);
}

QString threeLetters(const QVector<quint16> &words)
{
    const QChar letters[] = {quint16{highByte(words[0])}, quint16{lowByte(words[0])},
                             quint16{highByte(words[1])}};
    return QString(letters, 3);
}

// 100 gets no padding: the gripper's own tools print it like this.
QString paddingOfReadNumber(qint32 number)
{
    if (number <= 99)
        return QStringLiteral("00");
    return number >= 101 && number <= 999 ? QStringLiteral("0") : QString();
}

// For 100, this differs from paddingOfReadNumber().
QString paddingOfExpectedNumber(quint32 number)
{
    if (number <= 99)
        return QStringLiteral("00");
    return number <= 999 ? QStringLiteral("0") : QString();
}

QString versionText(const QVector<quint16> &words)
{
    return threeLetters(words) + QLatin1Char('-') + QString::number(lowByte(words[1])) +
           QLatin1Char('.') + QString::number(highByte(words[2])) + QLatin1Char('.') +
           QString::number(lowByte(words[2]));
}

QString withoutNul(QString text)
{
    return text.remove(QChar(QChar::Null));
}

quint16 characterPair(QChar low, QChar high)
{
    const auto code = [](QChar character) {
        return character.unicode() <= 0xFF ? character.unicode() : quint16{0};
    };
    return static_cast<quint16>(code(low) + (code(high) << 8));
}

} // namespace

KvDeviceBase::KvDeviceBase(KvModbusAbstract &modbus, quint16 slaveId, QObject *parent)
    : QObject(parent)
    , m_slaveId(static_cast<quint8>(slaveId & 0xFF))
    , m_modbus(modbus)
{
}

KvDeviceBase::~KvDeviceBase() = default;

QVector<quint16> KvDeviceBase::modbusReadRegisters(quint16 address, quint16 count)
{
    const QVector<quint16> values = m_modbus.readRegisters(m_slaveId, address, count);
    setError(values.size() >= count ? NoError : CommunicationError);
    return values;
}

bool KvDeviceBase::modbusWriteRegisters(quint16 address, const QVector<quint16> &values)
{
    const bool acknowledged = m_modbus.writeRegisters(m_slaveId, address, values);
    setError(acknowledged ? NoError : CommunicationError);
    return acknowledged;
}

QString KvDeviceBase::getSerialNumber()
{
    if (!m_serialNumber.isEmpty())
        return m_serialNumber;
    const QVector<quint16> words =
        modbusReadRegisters(RegisterMap::serialNumberAddress, RegisterMap::serialNumberCount);
    if (words.size() < RegisterMap::serialNumberCount)
        return m_serialNumber;
    const QString text = withoutNul(threeLetters(words) + QLatin1Char('-')).trimmed();
    const auto number = static_cast<qint32>(words[2] | static_cast<quint32>(words[3]) << 16);
    m_serialNumber = text + paddingOfReadNumber(number) + QString::number(number);
    return m_serialNumber;
}

QString KvDeviceBase::getFirmwareVersion()
{
    if (!m_firmwareVersion.isEmpty())
        return m_firmwareVersion;
    const QVector<quint16> words =
        modbusReadRegisters(RegisterMap::firmwareVersionAddress, RegisterMap::firmwareVersionCount);
    if (words.size() < RegisterMap::firmwareVersionCount)
        return m_firmwareVersion;
    m_firmwareVersion = versionText(words);
    return m_firmwareVersion;
}

bool KvDeviceBase::isFirmwareVersion(const QVector<quint16> &words) const
{
    // The text contains every bit of the three words.
    return versionText(words) == m_firmwareVersion;
}

quint16 KvDeviceBase::getProductionYear()
{
    if (m_productionYear != 0)
        return m_productionYear;
    const QVector<quint16> words = modbusReadRegisters(RegisterMap::productionYearAddress, 1);
    if (!words.isEmpty())
        m_productionYear = words[0];
    return m_productionYear;
}

bool KvDeviceBase::setSerialNumberAndProductionYear(const QString &prefix, quint32 number,
                                                    quint16 year)
{
    const QString fourLetters = prefix.leftJustified(prefixLength, QChar(QChar::Null), true);
    if (!writeIdentity(fourLetters, number, year))
        return false;
    return identityReadsBack(withoutNul(fourLetters) + QLatin1Char('-') +
                                 paddingOfExpectedNumber(number) + QString::number(number),
                             year);
}

/// `prefix` has 4 characters. The first one of each pair is in the low byte, but getSerialNumber()
/// reads it from the high byte: the gripper swaps the bytes.
bool KvDeviceBase::writeIdentity(const QString &prefix, quint32 number, quint16 year)
{
    const QVector<quint16> serialNumber{
        characterPair(prefix[0], prefix[1]), characterPair(prefix[2], prefix[3]),
        static_cast<quint16>(number & 0xFFFF), static_cast<quint16>(number >> 16)};
    if (!modbusWriteRegisters(RegisterMap::serialNumberAddress, serialNumber))
        return false;
    if (!modbusWriteRegisters(RegisterMap::productionYearAddress, {year}))
        return false;
    // The device may store its data now and not answer, so a time-out counts as success.
    return modbusWriteRegisters(RegisterMap::commandAddress, {RegisterMap::storeIdentityCommand}) ||
           m_modbus.error() == KvModbusAbstract::TimeoutError;
}

/// Does not compare the result of the last read.
bool KvDeviceBase::identityReadsBack(const QString &serialNumber, quint16 year)
{
    QString readSerialNumber;
    int readYear = -1;
    for (int attempt = 1; attempt <= readBackAttempts; ++attempt) {
        if (readSerialNumber == serialNumber && readYear == year)
            return true;
        readSerialNumber = getSerialNumber();
        readYear = getProductionYear();
        qSleepWhileProcessingEvents(readBackPauseMs);
    }
    return false;
}

QString KvDeviceBase::errorString() const
{
    return QString::fromLatin1(QMetaEnum::fromType<KvDeviceError>().valueToKey(m_error));
}

void KvDeviceBase::setError(KvDeviceError error)
{
    m_error = error;
    emit errorOccurred(error);
}

void KvDeviceBase::clearError()
{
    m_error = NoError;
    m_modbus.clearError();
}
