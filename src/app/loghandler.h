#pragma once

#include <QtGlobal>

class QMessageLogContext;
class QString;

/// The log handler of the whole process. Writes one line for each message to standard error, in the
/// local encoding, through one LogSink. A fatal message aborts the process after its line. A line
/// may have any length: the callers limit the texts that clients can make long.
void myMessageOutput(QtMsgType type, const QMessageLogContext &context, const QString &message);
