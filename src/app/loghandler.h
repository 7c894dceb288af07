#pragma once

#include <QtGlobal>

class QMessageLogContext;
class QString;

/// The process-wide log handler: one line per message to standard error, in the form
/// "Info: MESSAGE (FILE:LINE, FUNCTION)". A message of more than 1,000 characters is cut there and
/// the number of characters cut is told. A fatal message aborts the process after its line.
/// Blocks for at most 20 ms when whoever reads standard error has stopped reading (a terminal of
/// another user, which cannot be opened once more, may block without a limit), and not again
/// until it reads on: what could not be written meanwhile is lost, and the next line tells how
/// much. A message type other than the five known ones prints nothing.
void myMessageOutput(QtMsgType type, const QMessageLogContext &context, const QString &message);
