#include "serialline.h"

#include "portlock.h"

#include <QDeadlineTimer>
#include <QSocketNotifier>

SerialLine::SerialLine()
{
    m_port.setDataBits(QSerialPort::Data8);
    m_port.setParity(QSerialPort::NoParity);
    m_port.setStopBits(QSerialPort::OneStop);
    connect(&m_port, &QSerialPort::errorOccurred, this, &SerialLine::errorOccurred);
    connect(&m_port, &QSerialPort::readyRead, this, [this] { emit received(m_port.readAll()); });
}

bool SerialLine::open()
{
    if (m_port.isOpen())
        return true;
    removeStaleLockOfOwnProcess(m_port.portName());
    return m_port.open(QIODevice::ReadWrite);
}

void SerialLine::close()
{
    if (m_port.isOpen())
        m_port.close();
}

void SerialLine::setPortName(const QString &portName)
{
    m_port.setPortName(portName);
}

void SerialLine::setBaudRate(qint32 baudRate)
{
    m_port.setBaudRate(baudRate);
}

bool SerialLine::send(const QByteArray &bytes, int timeoutMs)
{
    // Also empties the kernel's queues: the event loop may not have fetched all of the input.
    m_port.clear(QSerialPort::AllDirections);
    const bool isWritten = write(bytes, timeoutMs);
    dropPendingNotifications();
    return isWritten;
}

bool SerialLine::write(const QByteArray &bytes, int timeoutMs)
{
    // If the adapter was unplugged, clear() has reported an error, and its receiver has closed the
    // port.
    if (!m_port.isOpen() || m_port.write(bytes) != bytes.size())
        return false;
    const QDeadlineTimer deadline(timeoutMs);
    while (m_port.bytesToWrite() > 0 &&
           m_port.waitForBytesWritten(static_cast<int>(deadline.remainingTime())))
        continue;
    return m_port.isOpen() && m_port.bytesToWrite() == 0;
}

/// A turn of the event loop first collects its notifications and then delivers them one by one. The
/// notification of a client's request may come before the port's. The request's send() then drops
/// the input, QSerialPortPrivate::readNotification() reads nothing and reports a ReadError, and the
/// error closes a healthy link. Disabling a notifier removes its pending notification. New input
/// causes another notification in the next turn.
void SerialLine::dropPendingNotifications()
{
    const auto notifiers =
        m_port.findChildren<QSocketNotifier *>(QString(), Qt::FindDirectChildrenOnly);
    for (QSocketNotifier *notifier : notifiers) {
        const bool isEnabled = notifier->isEnabled();
        notifier->setEnabled(false);
        notifier->setEnabled(isEnabled);
    }
}
