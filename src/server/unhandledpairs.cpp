#include "unhandledpairs.h"

#include <QDebug>

namespace {

// The log of a request with thousands of unknown names would contain thousands of its copies.
constexpr int loggedPairs = 100;
// A request may be 1 MiB long.
constexpr int maxLineLength = 1000;

QString cut(const QString &line)
{
    if (line.size() <= maxLineLength)
        return line;
    return line.left(maxLineLength) + QLatin1String("... (") +
           QString::number(line.size() - maxLineLength) + QLatin1String(" more characters)");
}

QString lineOf(std::string_view request)
{
    QString line;
    QDebug(&line) << "SET UNHANDLED REQUEST :"
                  << QString::fromLatin1(request.data(), static_cast<int>(request.size()));
    return cut(line.trimmed());
}

} // namespace

UnhandledPairs::UnhandledPairs(std::string_view request)
    : m_request(request)
{
}

UnhandledPairs::~UnhandledPairs()
{
    if (m_count > loggedPairs)
        qInfo() << "SET UNHANDLED REQUEST :" << m_count - loggedPairs << "more pairs";
}

void UnhandledPairs::log()
{
    ++m_count;
    if (m_count > loggedPairs)
        return;
    if (m_line.isEmpty())
        m_line = lineOf(m_request);
    // A debug stream would copy the line, and put quotes around it.
    qt_message_output(QtInfoMsg, QMessageLogContext(), m_line);
}
