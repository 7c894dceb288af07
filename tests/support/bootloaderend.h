#pragma once

#include "ptypair.h"

#include <QByteArray>
#include <QList>
#include <QString>

#include <atomic>
#include <mutex>
#include <thread>

/// A bootloader at the far end of a pseudo-terminal, in a thread of its own: it answers also while
/// the tests' thread blocks. Every synchronisation byte is a knock; other bytes are kept apart.
class BootloaderEnd
{
public:
    BootloaderEnd();
    ~BootloaderEnd();

    BootloaderEnd(const BootloaderEnd &) = delete;
    BootloaderEnd &operator=(const BootloaderEnd &) = delete;

    /// The full path of the end that a serial port opens.
    QString portName() const { return m_pty.portName(); }

    /// What the knocks from now on are answered with, one each; an empty one is silence, and so is
    /// what comes after the last. Forgets the knocks so far.
    void setAnswers(const QList<QByteArray> &answers);

    /// The rate in baud at which each knock came. All of them when the port is closed again.
    QList<int> knocks() const;
    /// Whatever came that is no knock.
    QByteArray otherBytes() const;

    /// A signal that this process sends itself with the knock of that number, counted from 1.
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
