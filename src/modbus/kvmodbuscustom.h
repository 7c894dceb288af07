#pragma once

#include "kvmodbusabstract.h"
#include "serialline.h"

#include <QElapsedTimer>

/// A Modbus RTU master on one serial port, with the functions 0x03 and 0x10. Every request is a
/// single attempt.
///
/// A request blocks the thread for at most writeWaitMs until it is written. It then pumps events
/// and looks for its answer every pollingStepMs. Another request may begin inside this wait. The
/// second request sends nothing until the first one has its answer or reaches its deadline, so
/// requests never overlap on the line. The request that ends last decides error().
///
/// A serial error closes the port. The master drops input that arrives outside of a request.
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

    /// Takes a bare device name ("ttyTool") or a path. Applies when the port is opened next.
    void setPortName(const QString &portName);

    /// The rate of both directions, in baud.
    int getBaudrate() const;

    /// Pumps events until no request waits for its answer, or until the application quits. Call
    /// this before you block the thread or use the port in another way.
    void waitUntilQuiet();

    /// The CRC-16 of Modbus RTU. 0xFFFF for no bytes.
    static quint16 computeCRC(const QByteArray &bytes);

    /// Appends the CRC of `bytes`, low byte first.
    static void addCRC(QByteArray &bytes);

    /// Whether the last two bytes are the CRC of the other bytes. `frame` has at least 2 bytes.
    static bool verifyCRC(const QByteArray &frame);

    /// The full paths of the USB serial ports that no process has open, in the order of the
    /// enumeration. isUsbSerialPortName() decides which names count. Blocks the thread while
    /// `fuser` runs, once or twice for each port.
    static QVector<QString> getAvailablePorts();

    static constexpr int writeWaitMs = 50;
    static constexpr int pollingStepMs = 10;

private slots:
    void onSerialPortErrorOccurred(QSerialPort::SerialPortError error);
    void onReceived(const QByteArray &input);

private:
    /// A request on the line and the input that follows it.
    struct Exchange
    {
        int answerLength;
        qint64 deadlineMs;
        QElapsedTimer clock;
        QByteArray input; ///< At most two answers long, so that a flood takes no memory.
        bool isOver;      ///< The answer is complete, or the deadline has passed.
    };

    KvModbusError exchange(const QByteArray &request, int registerCount, int answerLength,
                           QByteArray &answer);
    bool isAnswerAwaited() const;

    SerialLine m_line;
    /// The latest exchange, until its request has read the input. The exchange is on the stack of
    /// that request, which other requests may suspend. Null if there is no exchange.
    Exchange *m_latestExchange = nullptr;
};
