#pragma once

#include "ptypair.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <atomic>
#include <mutex>
#include <thread>

/// A bootloader at the far end of a pseudo-terminal. Its own thread answers even while the thread
/// of the test blocks. An attempt to find it is one synchronisation byte.
class BootloaderEnd
{
public:
    BootloaderEnd();
    ~BootloaderEnd();

    BootloaderEnd(const BootloaderEnd &) = delete;
    BootloaderEnd &operator=(const BootloaderEnd &) = delete;

    /// The full path of the end that a serial port opens.
    QString portName() const { return m_pty.portName(); }

    /// Sets one answer for each of the next attempts. An empty answer is silence. All further
    /// attempts get no answer. Clears the records of attempts and other bytes.
    void setAnswers(const QList<QByteArray> &answers);

    /// The baud rate of each attempt. The list is complete when the port is closed.
    QList<int> attemptRates() const;
    /// All received bytes that are not synchronisation bytes.
    QByteArray otherBytes() const;

    /// At this attempt, counted from 1, the process sends the signal to itself.
    void raiseAtAttempt(int attempt, int signalNumber);

private:
    void run();
    void receive(char byte);
    int baudRate() const;

    PtyPair m_pty;
    mutable std::mutex m_mutex;
    QList<QByteArray> m_answers;
    QList<int> m_attemptRates;
    QByteArray m_otherBytes;
    int m_signalAttempt = 0;
    int m_signalNumber = 0;
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};
