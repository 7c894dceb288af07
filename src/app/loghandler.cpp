#include "loghandler.h"

#include <QString>

#include <cstdio>
#include <cstdlib>

namespace {

// One bad client must not fill the disk with a single line.
constexpr int maxMessageLength = 1000;

const char *formatOf(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
        return "Debug: %s (%s:%u, %s)\n";
    case QtInfoMsg:
        return "Info: %s (%s:%u, %s)\n";
    case QtWarningMsg:
        return "Warning: %s (%s:%u, %s)\n";
    case QtCriticalMsg:
        return "Critical: %s (%s:%u, %s)\n";
    case QtFatalMsg:
        return "Fatal: %s (%s:%u, %s)\n";
    }
    return nullptr;
}

const char *printable(const char *text)
{
    return text != nullptr ? text : "(null)";
}

QByteArray cut(const QString &message)
{
    if (message.size() <= maxMessageLength)
        return message.toLocal8Bit();
    return message.left(maxMessageLength).toLocal8Bit() + "... (" +
           QByteArray::number(message.size() - maxMessageLength) + " more characters)";
}

} // namespace

void myMessageOutput(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    const char *format = formatOf(type);
    if (format == nullptr)
        return;
    std::fprintf(stderr, format, cut(message).constData(), printable(context.file), context.line,
                 printable(context.function));
    if (type == QtFatalMsg)
        std::abort();
}
