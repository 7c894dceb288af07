#include "commands.h"

#include "failure.h"
#include "interruption.h"
#include "pacer.h"
#include "session.h"
#include "watchview.h"

#include <cstdio>
#include <limits>

#include <sys/ioctl.h>
#include <unistd.h>

namespace {

constexpr int usualIntervalMs = 200;
constexpr int usualWidth = 80;

bool isScreen()
{
    return ::isatty(STDOUT_FILENO) == 1 && qgetenv("TERM") != "dumb";
}

int screenWidth()
{
    winsize size = {};
    const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col : usualWidth;
}

/// The terminal's second screen, without a cursor; the first comes back at the end.
class Screen
{
public:
    Screen() { writeOut("\x1b[?1049h\x1b[?25l"); }
    ~Screen() { writeOut("\x1b[?25h\x1b[?1049l"); }
    Screen(const Screen &) = delete;
    Screen &operator=(const Screen &) = delete;

    bool show(const QStringList &lines) const
    {
        QByteArray text("\x1b[H");
        for (const QString &line : lines)
            text += line.toLocal8Bit() + "\x1b[K\r\n";
        return writeOut(text + "\x1b[J");
    }
};

bool showPlain(Session &session, const Snapshot &snapshot)
{
    return session.output().result(watchview::plainLines(snapshot).join(QLatin1Char('\n')),
                                   snapshot.toJson());
}

/// Looks until the count is reached, nobody reads any more, or Ctrl-C.
template <typename Show>
void look(Session &session, Show show)
{
    const int count = session.options().whole("count").value_or(std::numeric_limits<int>::max());
    Pacer pacer(session.options().milliseconds("interval").value_or(usualIntervalMs));
    for (int looks = 1; show(Snapshot::take(session)) && looks < count; ++looks) {
        if (!pacer.waitForNext(std::numeric_limits<qint64>::max()))
            return;
    }
}

void lookUntilInterrupted(Session &session)
{
    if (session.output().isJson() || !isScreen()) {
        look(session, [&](const Snapshot &snapshot) { return showPlain(session, snapshot); });
        return;
    }
    const Screen screen;
    const QString host = session.options().endpoint.text();
    look(session, [&](const Snapshot &snapshot) {
        return screen.show(watchview::screen(snapshot, host, screenWidth()));
    });
}

} // namespace

void commands::watch(Session &session)
{
    if (session.options().has("gripper"))
        session.selectGripper();
    try {
        lookUntilInterrupted(session);
    } catch (const Failure &failure) {
        if (failure.code != ExitCode::Interrupted)
            throw;
    }
}
