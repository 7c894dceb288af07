#include "machine.h"

#include "text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace gripperctl::doctor {

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

constexpr std::size_t maxFileSize = 1 << 20;
constexpr std::size_t maxOutputSize = 16 << 20;
constexpr int signalStatus = 128;
constexpr int exitCheckMs = 5;

/// Reads one stream of a child.
class Pipe
{
public:
    Pipe()
    {
        if (::pipe2(m_ends, O_CLOEXEC) != 0)
            m_ends[0] = m_ends[1] = -1;
    }
    ~Pipe()
    {
        closeEnd(0);
        closeEnd(1);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;

    int input() const { return m_ends[0]; }
    int output() const { return m_ends[1]; }
    void closeOutput() { closeEnd(1); }

    /// Call it when the pipe is ready. Closes the pipe at its end.
    void readInto(std::string &text)
    {
        std::array<char, 65536> part = {};
        const ssize_t size = ::read(m_ends[0], part.data(), part.size());
        if (size > 0 && text.size() < maxOutputSize)
            text.append(part.data(), static_cast<std::size_t>(size));
        else if (size == 0 || (size < 0 && errno != EINTR))
            closeEnd(0);
    }

private:
    void closeEnd(int end)
    {
        if (m_ends[end] >= 0)
            ::close(std::exchange(m_ends[end], -1));
    }

    int m_ends[2] = {-1, -1};
};

int millisecondsUntil(Clock::time_point end)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::max<long>(left, 0));
}

/// The environment with the language of the programs' messages.
std::vector<std::string> plainEnvironment()
{
    std::vector<std::string> variables{"LC_ALL=C", "SYSTEMD_COLORS=0"};
    for (char **variable = environ; *variable != nullptr; ++variable) {
        const std::string text = *variable;
        if (!startsWith(text, "LC_ALL=") && !startsWith(text, "SYSTEMD_COLORS="))
            variables.push_back(text);
    }
    return variables;
}

std::vector<char *> pointersTo(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    pointers.reserve(texts.size() + 1);
    for (std::string &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

/// Starts the program in a process group of its own. Returns 0 if it does not start.
pid_t start(std::vector<std::string> words, const Pipe &output, const Pipe &error)
{
    posix_spawn_file_actions_t actions = {};
    posix_spawnattr_t attributes = {};
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, output.output(), STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, error.output(), STDERR_FILENO);
    posix_spawnattr_setpgroup(&attributes, 0);
    sigset_t defaults = {};
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF);
    std::vector<std::string> variables = plainEnvironment();
    pid_t child = 0;
    const int problem = posix_spawnp(&child, words.front().c_str(), &actions, &attributes,
                                     pointersTo(words).data(), pointersTo(variables).data());
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return problem == 0 ? child : 0;
}

/// Reads both streams until their ends. Returns false at the deadline.
bool readAll(Pipe &output, Pipe &error, Run &run, Clock::time_point deadline)
{
    while (output.input() >= 0 || error.input() >= 0) {
        const int left = millisecondsUntil(deadline);
        // poll() ignores negative descriptors.
        std::array<pollfd, 2> files{{{output.input(), POLLIN, 0}, {error.input(), POLLIN, 0}}};
        if (left == 0)
            return false;
        if (::poll(files.data(), files.size(), left) <= 0)
            continue;
        if (files[0].revents != 0)
            output.readInto(run.output);
        if (files[1].revents != 0)
            error.readInto(run.error);
    }
    return true;
}

/// Returns the wait status; empty at the deadline.
std::optional<int> waitForEnd(pid_t child, Clock::time_point deadline)
{
    int status = 0;
    while (::waitpid(child, &status, WNOHANG) == 0) {
        if (millisecondsUntil(deadline) == 0)
            return std::nullopt;
        ::poll(nullptr, 0, exitCheckMs);
    }
    return status;
}

} // namespace

std::string Run::problem() const
{
    switch (end) {
    case End::Missing:
        return "the program is not installed";
    case End::TimedOut:
        return "it did not end in time";
    case End::Exited:
        break;
    }
    const std::vector<std::string> lines = linesOf(trimmed(error));
    return lines.empty() ? concat("its exit status is ", status) : lines.front();
}

Machine::Machine(const std::string &root)
    : m_root(root.empty() ? root : fs::canonical(root).string())
{
}

std::optional<std::string> Machine::read(const std::string &path) const
{
    std::error_code error;
    // The files of /proc and /sys are regular files, too. Opening a device could change it.
    if (!fs::is_regular_file(real(path), error))
        return std::nullopt;
    std::ifstream file(real(path), std::ios::binary);
    if (!file)
        return std::nullopt;
    std::string text(maxFileSize, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    if (file.bad())
        return std::nullopt;
    text.resize(static_cast<std::size_t>(file.gcount()));
    return text;
}

std::string Machine::line(const std::string &path) const
{
    const std::string text = read(path).value_or("");
    return trimmed(text.substr(0, text.find('\n')));
}

std::optional<std::vector<std::string>> Machine::list(const std::string &folder) const
{
    std::error_code error;
    fs::directory_iterator entry(real(folder), error);
    if (error)
        return std::nullopt;
    std::vector<std::string> names;
    for (; entry != fs::directory_iterator(); entry.increment(error)) {
        names.push_back(entry->path().filename());
        if (error)
            break;
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::optional<std::string> Machine::link(const std::string &path) const
{
    std::error_code error;
    const fs::path target = fs::read_symlink(real(path), error);
    return error ? std::nullopt : std::optional(target.string());
}

std::string Machine::canonical(const std::string &path) const
{
    std::error_code error;
    const std::string found = fs::canonical(real(path), error).string();
    return error || !startsWith(found, m_root) ? "" : found.substr(m_root.size());
}

std::optional<struct stat> Machine::status(const std::string &path) const
{
    struct stat status = {};
    return ::stat(real(path).c_str(), &status) == 0 ? std::optional(status) : std::nullopt;
}

Run Machine::run(const std::vector<std::string> &words, std::chrono::milliseconds timeout)
{
    const Clock::time_point deadline = Clock::now() + timeout;
    Run run;
    Pipe output;
    Pipe error;
    const pid_t child = start(words, output, error);
    if (child == 0)
        return run;
    output.closeOutput();
    error.closeOutput();
    std::optional<int> status;
    if (readAll(output, error, run, deadline))
        status = waitForEnd(child, deadline);
    if (!status) {
        run.end = Run::End::TimedOut;
        ::kill(-child, SIGKILL);
        ::waitpid(child, nullptr, 0);
        return run;
    }
    run.end = Run::End::Exited;
    run.status = WIFEXITED(*status) ? WEXITSTATUS(*status) : signalStatus + WTERMSIG(*status);
    return run;
}

std::string trimmed(const std::string &text)
{
    const char *const blanks = " \t\r\n";
    const std::size_t begin = text.find_first_not_of(blanks);
    return begin == std::string::npos
               ? ""
               : text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

std::vector<std::string> linesOf(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::vector<std::string> wordsOf(const std::string &text)
{
    std::vector<std::string> words;
    std::istringstream stream(text);
    for (std::string word; stream >> word;)
        words.push_back(word);
    return words;
}

bool startsWith(const std::string &text, const std::string &begin)
{
    return text.compare(0, begin.size(), begin) == 0;
}

std::optional<unsigned long> decimal(const std::string &text)
{
    unsigned long number = 0;
    const char *end = text.data() + text.size();
    const auto [last, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && last == end ? std::optional(number) : std::nullopt;
}

} // namespace gripperctl::doctor
