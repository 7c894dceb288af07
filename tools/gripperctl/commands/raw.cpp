#include "commands.h"

#include "commandoptions.h"
#include "interruption.h"
#include "text.h"

#include <array>
#include <iostream>

#include <poll.h>
#include <sys/socket.h>

namespace gripperctl {

namespace {

constexpr gripper::Seconds replyTimeout{5};
constexpr int sliceMs = 50;

/// Cuts the next reply from the begin of `text`, without its line ending. The reply to a SET has
/// three small letters and no line ending. Empty if there is no whole reply.
std::optional<std::string> takeReply(std::string &text)
{
    const std::string begin = text.substr(0, 3);
    const bool isOfSet = begin == "ack" || begin == "nak";
    const std::size_t size = isOfSet ? begin.size() : text.find('\n');
    if (size == std::string::npos)
        return std::nullopt;
    const std::string reply = text.substr(0, size);
    text.erase(0, size + (isOfSet ? 0 : 1));
    return reply;
}

/// Lines that go to the daemon one by one.
class RawSession
{
public:
    explicit RawSession(Program &program)
        : m_program(program)
        , m_connection(program.endpoint(), program.options())
        , m_timeout(program.timeoutOr(replyTimeout))
    {
        m_connection.open(gripper::Deadline(m_timeout));
    }

    /// Sends the line and shows its replies. It waits for the reply to a request, because a SET SID
    /// applies from the next packet on.
    void exchange(const std::string &line)
    {
        show('>', line);
        send(line + '\n');
        const std::string begin = upper(line.substr(0, 4));
        const bool isRequest = begin == "GET " || begin == "SET ";
        const gripper::Deadline deadline(m_timeout);
        bool isAnswered = false;
        bool isSilent = false;
        std::string received;
        while (!(isSilent && !isRequest) && !(isAnswered && received.empty())) {
            if (deadline.isOver()) {
                ++m_unanswered;
                return;
            }
            isSilent = !receive(received);
            // A reply has no line ending if the daemon found other text after the name of a GET.
            // The rest of a line comes at once, so silence shows its end.
            if (isSilent && !received.empty())
                received += '\n';
            while (const auto reply = takeReply(received)) {
                show('<', *reply);
                isAnswered = true;
            }
        }
    }

    /// Throws Failure if a request had no reply.
    void end() const
    {
        if (m_unanswered > 0)
            throw Failure(ExitCode::TimedOut,
                          concat("no reply to ", m_unanswered, " of the requests within ",
                                 m_timeout.count(), " s"));
    }

private:
    void send(const std::string &text) const
    {
        const int socket = m_connection.nativeHandle();
        const auto size = static_cast<ssize_t>(text.size());
        if (::send(socket, text.data(), text.size(), MSG_NOSIGNAL) != size)
            failByLoss();
    }

    /// Returns false if nothing came for a while.
    bool receive(std::string &received) const
    {
        throwIfInterrupted();
        pollfd file{m_connection.nativeHandle(), POLLIN, 0};
        if (::poll(&file, 1, sliceMs) <= 0)
            return false;
        std::array<char, 4096> part = {};
        const ssize_t size = ::recv(file.fd, part.data(), part.size(), 0);
        if (size <= 0)
            failByLoss();
        received.append(part.data(), static_cast<std::size_t>(size));
        return true;
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
    int m_unanswered = 0;
};

void raw(Program &program, const CLI::App &command)
{
    const std::vector<std::string> &lines = wordsOf(command);
    RawSession session(program);
    for (const std::string &line : lines)
        session.exchange(line);
    for (std::string line; lines.empty() && std::getline(std::cin, line);) {
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        session.exchange(line);
    }
    throwIfInterrupted();
    session.end();
}

} // namespace

void addRaw(CLI::App &app, Program &program)
{
    CLI::App &command =
        addCommand(app, program,
                   {"raw", "Send lines of the protocol, and show the replies, with times.",
                    "Reads the lines from standard input if none is given. Refuses nothing: see "
                    "gripperd-protocol(7).",
                    "raw \"GET POS\" \"SET MSC 100\""},
                   raw);
    addWords(command, "[LINE]...", 0, manyWords);
}

} // namespace gripperctl
