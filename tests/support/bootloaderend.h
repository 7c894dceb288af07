#pragma once

#include "ptypair.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <atomic>
#include <mutex>
#include <thread>

/// A bootloader at the far end of a pseudo-terminal. Its own thread answers even while the thread
/// of the test blocks. A knock is one synchronisation byte.
class BootloaderEnd
{
public:
    BootloaderEnd();
    ~BootloaderEnd();

    BootloaderEnd(const BootloaderEnd &) = delete;
    BootloaderEnd &operator=(const BootloaderEnd &) = delete;

    /// The full path of the end that a serial port opens.
    QString portName() const { return m_pty.portName(); }

    /// Sets one answer for each of the next knocks. An empty answer is silence, and so is the
    /// answer to all further knocks. Clears the records of knocks and other bytes.
    void setAnswers(const QList<QByteArray> &answers);

    /// The baud rate of each knock. Complete when the port is closed.
    QList<int> knocks() const;
    /// All received bytes that are not knocks.
    QByteArray otherBytes() const;

    /// At this knock, counted from 1, the process sends the signal to itself.
    void raiseAtKnock(int knock, int signalNumber);

private:
    void run();
    void hear(char byte);
    int baudRate() const;

    PtyPair m_pty;
    mutable std::mutex m_mutex;
    QList<QByteArray> m_answers;
    QList<int> m_knocks;
    QByteArray m_otherBytes;
    int m_signalKnock = 0;
    int m_signalNumber = 0;
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};
