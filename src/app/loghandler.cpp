#include "loghandler.h"

#include "logsink.h"

#include <QString>

#include <cstdlib>
#include <unistd.h>

void myMessageOutput(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    static LogSink standardError(STDERR_FILENO);
    standardError.write(type, context, message.toLocal8Bit());
    if (type == QtFatalMsg)
        std::abort();
}
