#include "commands.h"

#include "app.h"
#include "interruption.h"
#include "text.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <memory>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace gripperctl {

namespace {

constexpr gripper::Seconds answerTimeout{5};
constexpr int sliceMs = 50;

/// Cuts the next line, without its ending, from the begin of `text`.
std::optional<std::string> takeLine(std::string &text)
{
    const std::size_t end = text.find('\n');
    if (end == std::string::npos)
        return std::nullopt;
    std::string line = text.substr(0, end);
    text.erase(0, end + 1);
    if (!line.empty() && line.back() == '\r')
        line.pop_back();
    return line;
}

/// Cuts the next reply. The reply to a SET has three small letters and no line ending.
std::optional<std::string> takeReply(std::string &text)
{
    const std::string begin = text.substr(0, 3);
    if (begin != "ack" && begin != "nak")
        return takeLine(text);
    text.erase(0, begin.size());
    return begin;
}

bool isRequest(const std::string &line)
{
    const std::string begin = upper(line.substr(0, 4));
    return begin == "GET " || begin == "SET ";
}

/// Text that travels between the user and the daemon, both ways at the same time.
class RawSession
{
public:
    RawSession(Program &program, std::string input, bool readsMore)
        : m_program(program)
        , m_connection(program.endpoint(), program.options())
        , m_timeout(program.timeoutOr(answerTimeout))
        , m_input(std::move(input))
        , m_readsMore(readsMore)
    {
        m_connection.open(gripper::Deadline(m_timeout));
    }

    /// Returns when the input has ended. Throws Failure if a request has no reply.
    void run()
    {
        while (m_readsMore || m_isAwaiting || !m_input.empty() || !m_received.empty()) {
            throwIfInterrupted();
            if (!m_isAwaiting)
                sendNext();
            transfer();
            if (m_isAwaiting && m_deadline.isOver()) {
                m_isAwaiting = false;
                ++m_unanswered;
            }
        }
        if (m_unanswered > 0) {
            throw Failure(ExitCode::TimedOut,
                          concat("no reply to ", m_unanswered, " of the requests within ",
                                 m_timeout.count(), " s"));
        }
    }

private:
    void transfer()
    {
        const bool readsNow = m_readsMore && m_input.find('\n') == std::string::npos;
        // poll() ignores a negative descriptor.
        std::array<pollfd, 2> files{
            {{m_connection.nativeHandle(), POLLIN, 0}, {readsNow ? STDIN_FILENO : -1, POLLIN, 0}}};
        const int ready = ::poll(files.data(), files.size(), sliceMs);
        // A reply has no line ending if the daemon found other text after the name of a GET. The
        // rest of a line comes at once, so silence shows its end.
        if (ready == 0 && !m_received.empty())
            showReply(std::exchange(m_received, {}));
        if (ready <= 0)
            return;
        if (files[0].revents != 0)
            receive();
        if (files[1].revents != 0)
            readInput();
    }

    void readInput()
    {
        std::array<char, 4096> part = {};
        const ssize_t size = ::read(STDIN_FILENO, part.data(), part.size());
        if (size < 0 && errno == EINTR)
            return;
        m_readsMore = size > 0;
        m_input.append(part.data(), size > 0 ? static_cast<std::size_t>(size) : 0);
        if (!m_readsMore && !m_input.empty() && m_input.back() != '\n')
            m_input += '\n';
    }

    /// The daemon carries out a batch for the gripper that was selected before. So each request
    /// waits for the reply to the one before.
    void sendNext()
    {
        const auto line = takeLine(m_input);
        if (!line)
            return;
        show('>', *line);
        m_deadline = gripper::Deadline(m_timeout);
        m_isAwaiting = isRequest(*line);
        send(*line + '\n');
    }

    void send(const std::string &text)
    {
        for (std::size_t sent = 0; sent < text.size();) {
            const ssize_t size = ::send(m_connection.nativeHandle(), text.data() + sent,
                                        text.size() - sent, MSG_NOSIGNAL);
            if (size > 0)
                sent += static_cast<std::size_t>(size);
            else if (errno == EAGAIN || errno == EINTR)
                waitUntilWritable();
            else
                failByLoss();
        }
    }

    void waitUntilWritable()
    {
        throwIfInterrupted();
        if (m_deadline.isOver())
            throw Failure(ExitCode::TimedOut, "the daemon does not take the text");
        pollfd file{m_connection.nativeHandle(), POLLOUT, 0};
        ::poll(&file, 1, sliceMs);
    }

    void receive()
    {
        std::array<char, 4096> part = {};
        const ssize_t size = ::recv(m_connection.nativeHandle(), part.data(), part.size(), 0);
        if (size < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (size <= 0)
            failByLoss();
        m_received.append(part.data(), static_cast<std::size_t>(size));
        while (const auto reply = takeReply(m_received))
            showReply(*reply);
    }

    void showReply(const std::string &reply)
    {
        show('<', reply);
        m_isAwaiting = false;
    }

    [[noreturn]] void failByLoss() const
    {
        throw Failure(ExitCode::NoConnection,
                      concat("lost the connection to ", m_connection.endpoint().text()));
    }

    void show(char direction, const std::string &line) const
    {
        const std::string time = timeText(std::chrono::system_clock::now());
        m_program.output().result(
            concat(time, ' ', direction, ' ', line),
            {{"time", time}, {"direction", std::string(1, direction)}, {"line", line}});
    }

    Program &m_program;
    gripper::Connection m_connection;
    gripper::Seconds m_timeout;
    std::string m_input;
    bool m_readsMore;
    std::string m_received;
    bool m_isAwaiting = false; ///< the reply to a request
    gripper::Deadline m_deadline{m_timeout};
    int m_unanswered = 0;
};

void raw(Program &program, const std::vector<std::string> &lines)
{
    std::string input;
    for (const std::string &line : lines)
        input += line + '\n';
    RawSession(program, input, lines.empty()).run();
}

} // namespace

void addRaw(CLI::App &app, Program &program)
{
    const auto lines = std::make_shared<std::vector<std::string>>();
    CLI::App &command = addCommand(
        app,
        {"raw", "Send lines as they are, and show them and the replies with their times.",
         "Reads the lines from standard input if none is given. Refuses nothing: see "
         "gripperd-protocol(7).",
         "raw \"GET POS\" \"SET MSC 100\""},
        [&program, lines] { raw(program, *lines); });
    command.add_option("lines", *lines)->type_name("[LINE]...");
}

} // namespace gripperctl
