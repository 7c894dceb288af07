#include "output.h"

#include "failure.h"

#include <QJsonDocument>

#include <cerrno>
#include <cstdio>

#include <unistd.h>

namespace gripperctl {

namespace {

void writeError(const QString &text)
{
    std::fputs(text.toLocal8Bit().constData(), stderr);
    std::fflush(stderr);
}

QByteArray asLine(const QJsonObject &json)
{
    return QJsonDocument(json).toJson(QJsonDocument::Compact);
}

} // namespace

bool writeOut(const QByteArray &text)
{
    const auto size = static_cast<std::size_t>(text.size());
    return std::fwrite(text.constData(), 1, size, stdout) == size && std::fflush(stdout) == 0;
}

Output::Output(bool isJson)
    : m_isJson(isJson)
    , m_isTerminal(::isatty(STDERR_FILENO) == 1)
{
}

bool Output::result(const QString &text, const QJsonObject &json) const
{
    errno = 0;
    if (writeOut((m_isJson ? asLine(json) : text.toLocal8Bit()) + '\n'))
        return true;
    // The reader closed the pipe, or the user pressed Ctrl-C: neither needs a message.
    if (errno == EPIPE || errno == EINTR)
        return false;
    throw Failure{ExitCode::LocalProblem,
                  QStringLiteral("cannot write the result: %1").arg(qt_error_string(errno))};
}

void Output::partialResult(const QString &text) const
{
    if (!m_isJson)
        result(text, {});
}

void Output::begin(const QString &stage)
{
    endStage();
    if (m_isJson)
        return;
    m_stage = stage;
    writeError(m_isTerminal ? stage + QStringLiteral(" ...") : stage + QStringLiteral(" ...\n"));
}

void Output::tick(qint64 elapsedMs)
{
    if (!m_stage.isEmpty() && m_isTerminal)
        writeError(QStringLiteral("\r%1 ... %2 s\x1b[K").arg(m_stage).arg(elapsedMs / 1000));
}

void Output::endStage()
{
    if (!m_stage.isEmpty() && m_isTerminal)
        writeError(QStringLiteral("\n"));
    m_stage.clear();
}

void Output::note(const QString &text)
{
    endStage();
    writeError(QStringLiteral("gripperctl: %1\n").arg(text));
}

void Output::problem(const QString &text, int exitCode, const QJsonObject &known)
{
    note(text);
    if (!m_isJson)
        return;
    QJsonObject json = known;
    json.insert(QStringLiteral("error"), text);
    json.insert(QStringLiteral("exitCode"), exitCode);
    writeOut(asLine(json) + '\n');
}

} // namespace gripperctl
