#pragma once

#include <QObject>
#include <QSerialPort>
#include <QString>

/// A serial port with 8 data bits, no parity and one stop bit. Owns the QSerialPort and works
/// around its defects. Leaves the port open after an error: the receiver of errorOccurred() closes
/// it, or else a line that hung up reports errors without end.
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
    /// A bare device name ("ttyTool") or a path; takes effect when the port is opened next.
    void setPortName(const QString &portName);

    /// The rate in baud, both directions.
    qint32 baudRate() const { return m_port.baudRate(); }
    /// Takes effect at once if the port is open.
    void setBaudRate(qint32 baudRate);

    /// Drops the input that has arrived and the output that is left of an earlier call. Then writes
    /// `bytes` and returns whether the port took all of them. Blocks the thread for at most
    /// `timeoutMs`, without pumping events; may emit the signals.
    bool send(const QByteArray &bytes, int timeoutMs);

signals:
    void received(const QByteArray &bytes);
    void errorOccurred(QSerialPort::SerialPortError error);

private:
    bool write(const QByteArray &bytes, int timeoutMs);
    void dropPendingNotifications();

    QSerialPort m_port;
};
