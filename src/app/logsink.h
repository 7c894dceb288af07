#pragma once

#include <QByteArray>
#include <QDeadlineTimer>
#include <QtGlobal>

class QMessageLogContext;

/// Writes the log's lines to a descriptor. Never waits long for a reader that is slow or has
/// stopped: it drops lines instead, and reports before the next line how many.
class LogSink
{
public:
    /// `descriptor` must outlive the sink. Other processes may share it, so its flags stay as they
    /// are.
    explicit LogSink(int descriptor)
        : m_descriptor(descriptor)
    {
    }

    /// Writes one line in the form "Info: MESSAGE (FILE:LINE, FUNCTION)", of any length. A type
    /// other than the five known ones writes nothing.
    /// If the reader has room for a part of the line, the sink keeps the rest and writes it before
    /// the next line. If there is no room at all, the sink drops the line.
    /// Blocks the thread for at most 20 ms, and not at all while the reader has stopped. A terminal
    /// of another user may block without a limit.
    void write(QtMsgType type, const QMessageLogContext &context, const QByteArray &message);

private:
    int writePart(int output, const QByteArray &bytes, const QDeadlineTimer &deadline);
    bool isReady(int output, const QDeadlineTimer &deadline);

    int m_descriptor;
    QByteArray m_restOfLine;
    unsigned int m_lostLines = 0;
    bool m_readerHasStopped = false;
};
