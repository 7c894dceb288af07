#pragma once

#include "kvmodbusabstract.h"
#include "serialline.h"

#include <QElapsedTimer>

/// A Modbus RTU master on one serial port: functions 0x03 and 0x10, 8 data bits, no parity, one
/// stop bit. Every request is a single attempt that waits for its answer in short steps and
/// pumps events meanwhile. A request that begins inside this wait sends nothing until the answer is
/// there or its time is over, so requests never overlap on the line. The last one to end decides
/// error(). Writing the request blocks the thread for a short time. A serial error closes the
/// port. Input that arrives while no answer is awaited is dropped at once.
class KvModbusCustom : public KvModbusAbstract
{
    Q_OBJECT

public:
    explicit KvModbusCustom(QObject *parent);
    KvModbusCustom(const QString &portName, QObject *parent);

    bool connectToDevice() override;
    void disconnectFromDevice() override;
    bool isConnected() override;
    QString getPortName() const override;
    QVector<quint16> readRegisters(quint8 slaveId, quint16 startAddress, quint16 count) override;
    bool writeRegisters(quint8 slaveId, quint16 startAddress,
                        const QVector<quint16> &values) override;
    void setBaudRate(qint32 baudRate) override;

    /// A bare device name ("ttyTool") or a path; takes effect when the port is opened next.
    void setPortName(const QString &portName);

    /// The rate in baud, both directions.
    int getBaudrate() const;

    /// Returns when no answer is awaited on the line, or when the application quits. Pumps events
    /// until then. A caller that blocks the thread, or uses the port otherwise, calls this first.
    void waitUntilQuiet();

    /// CRC-16 as Modbus RTU uses it; 0xFFFF for no bytes.
    static quint16 computeCRC(const QByteArray &bytes);

    /// Appends the CRC of `bytes`, low byte first.
    static void addCRC(QByteArray &bytes);

    /// Whether the last two bytes are the CRC of those before them. `frame` has at least 2 bytes.
    static bool verifyCRC(const QByteArray &frame);

    /// Full paths of the USB serial and modem-class ports that no process holds open, in the order
    /// of the enumeration. Blocks the thread while `fuser` runs, once or twice a port.
    static QVector<QString> getAvailablePorts();

private slots:
    void onSerialPortErrorOccurred(QSerialPort::SerialPortError error);
    void onReceived(const QByteArray &input);

private:
    /// A request on the line, and the input that followed it.
    struct Exchange
    {
        int answerLength;
        qint64 deadlineMs;
        QElapsedTimer clock;
        QByteArray input; ///< Two answers at most, so that a flood takes no memory.
        bool isOver;      ///< The answer is complete, or its time has passed.
    };

    KvModbusError exchange(const QByteArray &request, int registerCount, int answerLength,
                           QByteArray &answer);
    bool isAnswerAwaited() const;

    SerialLine m_line;
    /// The latest exchange on the line, until its request has looked at the input. It lies on the
    /// stack of that request, which may be suspended below another one.
    Exchange *m_latest = nullptr;
};
