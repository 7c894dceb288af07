#pragma once

#include <QtGlobal>

class QMessageLogContext;
class QString;

/// The process-wide log handler: one line per message to standard error, in the form
/// "Info: MESSAGE (FILE:LINE, FUNCTION)". A line has any length: the caller limits what clients can
/// make long. A fatal message aborts the process after its line.
/// Blocks for at most 20 ms when the reader of standard error is slow or has stopped, and not again
/// until it reads on. A terminal of another user may block without a limit: it cannot be opened
/// once more. The rest of a line that has begun is kept, and the next call completes it. Other
/// lines are lost meanwhile, and the next line tells how many. A message type other than the five
/// known ones prints nothing.
void myMessageOutput(QtMsgType type, const QMessageLogContext &context, const QString &message);
