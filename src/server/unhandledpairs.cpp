#include "unhandledpairs.h"

#include <QDebug>

namespace {

// A request of thousands of unknown names would fill the disk with copies of itself.
constexpr int loggedPairs = 100;

QString lineOf(std::string_view request)
{
    QString line;
    QDebug(&line) << "SET UNHANDLED REQUEST :"
                  << QString::fromLatin1(request.data(), static_cast<int>(request.size()));
    return line.trimmed();
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
    // A debug stream would copy the whole line, which may have a million characters.
    qt_message_output(QtInfoMsg, QMessageLogContext(), m_line);
}
