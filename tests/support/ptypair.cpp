#include "ptypair.h"

#include <array>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

PtyPair::PtyPair(Mode mode)
{
    termios raw{};
    ::cfmakeraw(&raw);
    std::array<char, 64> name{};
    const termios *settings = mode == Mode::Raw ? &raw : nullptr;
    if (::openpty(&m_lineEnd, &m_portEnd, name.data(), settings, nullptr) != 0)
        qFatal("cannot open a pseudo-terminal");
    m_portName = QString::fromLatin1(name.data());
}

PtyPair::~PtyPair()
{
    hangUp();
    ::close(m_portEnd);
}

void PtyPair::hangUp()
{
    if (m_lineEnd < 0)
        return;
    ::close(m_lineEnd);
    m_lineEnd = -1;
}
