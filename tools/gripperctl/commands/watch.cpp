#include "commands.h"

#include "failure.h"
#include "interruption.h"
#include "pacer.h"
#include "session.h"
#include "watchview.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <limits>

#include <sys/ioctl.h>
#include <unistd.h>

namespace gripperctl {

namespace {

constexpr int defaultIntervalMs = 200;
constexpr int defaultWidth = 80;

bool isScreen()
{
    return ::isatty(STDOUT_FILENO) == 1 && qgetenv("TERM") != "dumb";
}

int screenWidth()
{
    winsize size = {};
    const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size.ws_col : defaultWidth;
}

constexpr const char *enterScreen = "\x1b[?1049h\x1b[?25l";
constexpr const char *leaveScreen = "\x1b[?25h\x1b[?1049l";

/// Safe in a signal handler.
void writeAtOnce(const char *text)
{
    // A handler cannot report a failure.
    [[maybe_unused]] const auto written = ::write(STDOUT_FILENO, text, std::strlen(text));
}

void catchStop();

} // namespace

extern "C" {
/// For Ctrl-Z: shows the first screen to the shell until the shell continues this process.
static void stopOnOwnScreen(int /*number*/)
{
    const int errnoBefore = errno;
    writeAtOnce(leaveScreen);
    raise(SIGTSTP);
    catchStop();
    writeAtOnce(enterScreen);
    errno = errnoBefore;
}
}

namespace {

void catchStop()
{
    struct sigaction action = {};
    action.sa_handler = stopOnOwnScreen;
    // The handler raises the signal again; this second one stops the process.
    action.sa_flags = static_cast<int>(SA_RESETHAND) | SA_NODEFER | SA_RESTART;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTSTP, &action, nullptr);
}

/// Shows the second screen of the terminal, without a cursor. The destructor shows the first again.
class Screen
{
public:
    Screen()
    {
        writeOut(enterScreen);
        catchStop();
    }
    ~Screen()
    {
        std::signal(SIGTSTP, SIG_DFL);
        writeOut(leaveScreen);
    }
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
    return session.output().result(watchLines(snapshot).join(QLatin1Char('\n')), snapshot.toJson());
}

/// Looks until the count is reached, the reader closes the pipe, or the user presses Ctrl-C.
template <typename Show>
void look(Session &session, Show show)
{
    const int count = session.options().whole("count").value_or(std::numeric_limits<int>::max());
    Pacer pacer(session.options().milliseconds("interval").value_or(defaultIntervalMs));
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
        return screen.show(watchScreen(snapshot, host, screenWidth()));
    });
}

} // namespace

void runWatch(Session &session)
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

} // namespace gripperctl
