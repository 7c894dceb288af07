#include "bootloaderend.h"

#include <array>
#include <csignal>
#include <poll.h>
#include <sys/types.h>
#include <termios.h>
#include <unistd.h>

namespace {

constexpr char synchronisationByte = 0x7F;
constexpr int idleMs = 20;

} // namespace

BootloaderEnd::BootloaderEnd()
{
    m_thread = std::thread([this] { run(); });
}

BootloaderEnd::~BootloaderEnd()
{
    m_ends = true;
    m_thread.join();
}

void BootloaderEnd::setAnswers(const QList<QByteArray> &answers)
{
    const std::lock_guard lock(m_mutex);
    m_answers = answers;
    m_attemptRates.clear();
    m_otherBytes.clear();
}

QList<int> BootloaderEnd::attemptRates() const
{
    const std::lock_guard lock(m_mutex);
    return m_attemptRates;
}

QByteArray BootloaderEnd::otherBytes() const
{
    const std::lock_guard lock(m_mutex);
    return m_otherBytes;
}

void BootloaderEnd::raiseAtAttempt(int attempt, int signalNumber)
{
    const std::lock_guard lock(m_mutex);
    m_signalAttempt = attempt;
    m_signalNumber = signalNumber;
}

void BootloaderEnd::run()
{
    while (!m_ends) {
        pollfd line{m_pty.lineEnd(), POLLIN, 0};
        if (::poll(&line, 1, idleMs) <= 0)
            continue;
        std::array<char, 64> bytes{};
        const ssize_t count = ::read(m_pty.lineEnd(), bytes.data(), bytes.size());
        for (ssize_t i = 0; i < count; ++i)
            receive(bytes[static_cast<std::size_t>(i)]);
    }
}

void BootloaderEnd::receive(char byte)
{
    const std::lock_guard lock(m_mutex);
    if (byte != synchronisationByte) {
        m_otherBytes.append(byte);
        return;
    }
    m_attemptRates.append(baudRate());
    if (m_attemptRates.size() == m_signalAttempt)
        ::kill(::getpid(), m_signalNumber);
    const QByteArray answer = m_answers.isEmpty() ? QByteArray() : m_answers.takeFirst();
    if (::write(m_pty.lineEnd(), answer.constData(), static_cast<std::size_t>(answer.size())) !=
        answer.size())
        qFatal("the line does not take the bytes");
}

int BootloaderEnd::baudRate() const
{
    termios settings{};
    ::tcgetattr(m_pty.portEnd(), &settings);
    switch (::cfgetospeed(&settings)) {
    case B19200:
        return 19200;
    case B115200:
        return 115200;
    default:
        return 0;
    }
}
