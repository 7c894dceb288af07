#pragma once

#include <QtGlobal>

class QMessageLogContext;
class QString;

/// The process-wide log handler: one line for each message to standard error, in the local
/// encoding, by one LogSink for the whole process. A fatal message aborts the process after its
/// line. A line has any length: the caller limits the texts that clients can make long.
void myMessageOutput(QtMsgType type, const QMessageLogContext &context, const QString &message);
