#include "commands.h"

#include "commandoptions.h"
#include "looks.h"
#include "text.h"
#include "watchview.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>

#include <sys/ioctl.h>
#include <unistd.h>

namespace gripperctl {

namespace {

constexpr gripper::Seconds defaultInterval{0.2};
constexpr int maxCount = 1'000'000;
constexpr winsize defaultSize{24, 80, 0, 0};

bool isScreen()
{
    const char *terminal = std::getenv("TERM");
    return Output::isTerminal() && (terminal == nullptr || std::strcmp(terminal, "dumb") != 0);
}

winsize screenSize()
{
    winsize size = {};
    const bool isKnown = ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0;
    return isKnown ? size : defaultSize;
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

    /// Shows as many lines as there is room for.
    static bool show(const std::vector<ScreenLine> &lines, std::size_t room)
    {
        std::string text("\x1b[H");
        for (std::size_t line = 0; line < std::min(lines.size(), room); ++line) {
            text += line == 0 ? "" : "\r\n";
            text +=
                lines[line].isAlarming ? Output::highlighted(lines[line].text) : lines[line].text;
            text += "\x1b[K";
        }
        return writeOut(text + "\x1b[J");
    }
};

void watchOnScreen(Looks &looks)
{
    const Screen screen;
    std::map<std::string, Look> latest;
    while (auto look = looks.next()) {
        const std::string host = look->host;
        latest.insert_or_assign(host, std::move(*look));
        const winsize size = screenSize();
        if (!Screen::show(watchScreen(latest, size.ws_col), size.ws_row))
            return;
    }
}

void watchAsLines(Looks &looks, Program &program)
{
    const bool hasSeveralHosts = program.settings().endpoints.size() > 1;
    while (const auto look = looks.next()) {
        if (!program.output().result(watchText(*look, hasSeveralHosts), watchJson(*look)))
            return;
    }
}

void watch(Program &program, const CLI::App &command)
{
    try {
        Looks looks(program, secondsOf(command, "--interval").value_or(defaultInterval),
                    numberOf(command, "--count"));
        if (!program.output().isJson() && isScreen())
            watchOnScreen(looks);
        else
            watchAsLines(looks, program);
    } catch (const Interrupted &) {
        // This is how a user ends it.
        return;
    }
}

} // namespace

void addWatch(CLI::App &app, Program &program)
{
    CLI::App &command = addCommand(
        app, program,
        {"watch", "Show positions, currents, objects and faults, live.",
         "If the output is not a terminal, print one line per gripper and reading. Ctrl-C ends it.",
         "watch --interval 0.5"},
        watch);
    addSeconds(command, "--interval", "Time between two readings (default 0.2).");
    addNumber(command, "--count", 1, maxCount, "End after this number of readings.");
}

} // namespace gripperctl
