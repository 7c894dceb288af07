#include "output.h"

#include "text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <unistd.h>

namespace gripperctl {

namespace {

void writeError(const std::string &text)
{
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
}

std::string asLine(const Json &json)
{
    // A peer may send bytes that are not UTF-8.
    return json.text() + '\n';
}

bool isColoured()
{
    const char *noColour = std::getenv("NO_COLOR");
    return Output::isTerminal() && (noColour == nullptr || *noColour == '\0');
}

} // namespace

bool writeOut(const std::string &text)
{
    return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() &&
           std::fflush(stdout) == 0;
}

Output::Output()
    : m_isProgressShown(::isatty(STDERR_FILENO) == 1)
{
}

bool Output::isTerminal()
{
    return ::isatty(STDOUT_FILENO) == 1;
}

bool Output::result(const std::string &text, const Json &json)
{
    endStage();
    errno = 0;
    if (writeOut(m_isJson ? asLine(json) : text + '\n'))
        return true;
    // The reader closed the pipe, or the user pressed Ctrl-C: neither needs a message.
    if (errno == EPIPE || errno == EINTR)
        return false;
    throw Failure(ExitCode::LocalProblem,
                  concat("cannot write the result: ", std::strerror(errno)));
}

void Output::partialResult(const std::string &text)
{
    if (!m_isJson)
        result(text, {});
}

std::string Output::highlighted(const std::string &text)
{
    return isColoured() ? "\x1b[1;31m" + text + "\x1b[0m" : text;
}

void Output::begin(const std::string &stage)
{
    endStage();
    if (m_isJson)
        return;
    m_stage = stage;
    m_begin = std::chrono::steady_clock::now();
    writeError(stage + (m_isProgressShown ? " ..." : " ...\n"));
}

void Output::tick()
{
    if (m_stage.empty() || !m_isProgressShown)
        return;
    const auto elapsed = std::chrono::steady_clock::now() - m_begin;
    writeError(concat("\r", m_stage, " ... ",
                      std::chrono::duration_cast<std::chrono::seconds>(elapsed).count(),
                      " s\x1b[K"));
}

void Output::endStage()
{
    if (!m_stage.empty() && m_isProgressShown)
        writeError("\n");
    m_stage.clear();
}

void Output::note(const std::string &text)
{
    endStage();
    writeError("gripperctl: " + text + '\n');
}

void Output::problem(const Failure &failure)
{
    note(failure.what());
    if (!m_isJson)
        return;
    Json json = failure.known();
    json["error"] = failure.what();
    json["exitCode"] = static_cast<int>(failure.code());
    writeOut(asLine(json));
}

void Output::confirm(const std::string &question, const std::string &refusal)
{
    if (::isatty(STDIN_FILENO) != 1 || m_isJson)
        throw Failure(ExitCode::WrongUsage, refusal + ": confirm it with --yes");
    endStage();
    writeError(question + " [y/N] ");
    const int answer = std::getchar();
    if (answer != 'y' && answer != 'Y')
        throw Failure(ExitCode::Interrupted, "not confirmed: nothing was sent to the gripper");
}

} // namespace gripperctl
