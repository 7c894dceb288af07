#pragma once

#include <QObject>
#include <QSerialPort>
#include <QString>

/// A serial port with 8 data bits, no parity and one stop bit. Owns the QSerialPort and works
/// around its defects. The port stays open after an error: the receiver of errorOccurred() must
/// close it. Otherwise, a line that hung up reports errors without end.
class SerialLine : public QObject
{
    Q_OBJECT

public:
    SerialLine();

    /// Opens the port unless it is open. Returns whether it is open afterwards.
    bool open();
    void close();
    bool isOpen() const { return m_port.isOpen(); }

    QString portName() const { return m_port.portName(); }
    /// Takes a bare device name ("ttyTool") or a path. Applies when the port is opened next.
    void setPortName(const QString &portName);

    /// The rate in baud, both directions.
    qint32 baudRate() const { return m_port.baudRate(); }
    /// Takes effect at once if the port is open.
    void setBaudRate(qint32 baudRate);

    /// Drops the input that has arrived and the unsent output of an earlier call. Then writes
    /// `bytes` and returns whether the port accepted all of them. Blocks the thread for at most
    /// `timeoutMs`, without pumping events. May emit the signals.
    bool send(const QByteArray &bytes, int timeoutMs);

signals:
    void received(const QByteArray &bytes);
    void errorOccurred(QSerialPort::SerialPortError error);

private:
    bool write(const QByteArray &bytes, int timeoutMs);
    void dropPendingNotifications();

    QSerialPort m_port;
};
