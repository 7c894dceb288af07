// The bootloader operations of KvDeviceBase.
#include "bootloader.h"
#include "kvdevicebase.h"
#include "quitsignals.h"
#include "registermap.h"
#include "waits.h"

namespace {

constexpr int resetPauseMs = 100;
constexpr unsigned int unusedTimeoutMs = 30000;
constexpr int detectionWaitMs = 50;

constexpr char synchronisationByte = 0x7F;
constexpr char acknowledge = 0x79;
constexpr char negativeAcknowledge = 0x1F;

/// Makes one attempt. The bootloader answers with exactly one byte. A negative acknowledgement
/// counts too.
bool bootloaderAnswers(QSerialPort &port)
{
    static const QByteArray msg(1, synchronisationByte);
    port.write(msg);
    port.waitForBytesWritten(detectionWaitMs);
    if (!port.waitForReadyRead(detectionWaitMs))
        return false;
    const QByteArray answer = port.readAll();
    return answer.size() == 1 && (answer[0] == acknowledge || answer[0] == negativeAcknowledge);
}

} // namespace

bool KvDeviceBase::resetDeviceToBootloader(quint16 command, bool manual, unsigned int timeoutMs)
{
    static const QVector<quint16> resetCommandValue{command};
    if (!manual) {
        if (!modbusWriteRegisters(RegisterMap::resetAddress, resetCommandValue))
            return false;
        m_modbus.disconnectFromDevice();
        return true;
    }
    m_modbus.setBaudRate(firmwareBaudRate);
    m_modbus.connectToDevice();
    m_manualResetTimer.setSingleShot(true);
    // A coarse timer may fire early.
    m_manualResetTimer.setTimerType(Qt::PreciseTimer);
    m_manualResetTimer.start(static_cast<int>(timeoutMs));
    const bool isReset = repeatResetUntilAcknowledged(command);
    m_modbus.disconnectFromDevice();
    return isReset;
}

/// After a quit signal every pause ends at once, and the timer never fires.
bool KvDeviceBase::repeatResetUntilAcknowledged(quint16 command)
{
    while (m_manualResetTimer.isActive() && !quitRequested()) {
        if (!m_modbus.isConnected())
            m_modbus.connectToDevice();
        qSleepWhileProcessingEvents(resetPauseMs);
        if (resetDeviceToBootloader(command, false, unusedTimeoutMs))
            return true;
    }
    return false;
}

void KvDeviceBase::abortManualResetToBootLoader()
{
    m_manualResetTimer.stop();
}

bool KvDeviceBase::resetDeviceToFirmware()
{
    return modbusWriteRegisters(RegisterMap::resetAddress, {RegisterMap::restartFirmware});
}

bool KvDeviceBase::detectBootloader(QSerialPort::BaudRate baudRate, unsigned int retries)
{
    if (m_modbus.isConnected()) {
        setError(NotConnectedError);
        return false;
    }
    QSerialPort port(m_modbus.getPortName());
    port.setBaudRate(baudRate);
    if (!port.open(QIODevice::ReadWrite))
        return false;
    bool isDetected = false;
    for (unsigned int attempt = 0; attempt <= retries && !isDetected && !quitRequested(); ++attempt)
        isDetected = bootloaderAnswers(port);
    port.close();
    return isDetected;
}

// The jumps ignore the result of the reset: a device that is already in its bootloader does not
// answer.

bool KvDeviceBase::jumpToTavrinBootloader(unsigned int timeoutMs)
{
    resetDeviceToBootloader(ownBootloader.restartCommand, false, timeoutMs);
    return detectBootloader(ownBootloader.baudRate, bootloaderRetries);
}

bool KvDeviceBase::jumpToStBootloader(unsigned int timeoutMs)
{
    resetDeviceToBootloader(romBootloader.restartCommand, false, timeoutMs);
    return detectBootloader(romBootloader.baudRate, bootloaderRetries);
}
