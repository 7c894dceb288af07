#pragma once

#include <QByteArray>
#include <QDeadlineTimer>
#include <QtGlobal>

class QMessageLogContext;

/// Writes the log's lines to a descriptor. If the reader is slow or has stopped, drops lines
/// instead of waiting long. Reports the number of dropped lines before the next line.
class LogSink
{
public:
    /// `descriptor` must outlive the sink. Other processes may share it, so the sink does not
    /// change its flags.
    explicit LogSink(int descriptor)
        : m_descriptor(descriptor)
    {
    }

    /// Writes one line in the form "Info: MESSAGE (FILE:LINE, FUNCTION)", of any length. Writes
    /// nothing for a type other than the five known ones.
    /// If the reader has room for a part of the line, the sink keeps the rest and writes it before
    /// the next line. If there is no room at all, the sink drops the line.
    /// Blocks the thread for at most 20 ms, and not at all while the reader has stopped. May block
    /// without a limit on a terminal that the daemon's user may not open.
    void write(QtMsgType type, const QMessageLogContext &context, const QByteArray &message);

private:
    int writePart(int output, const QByteArray &bytes, const QDeadlineTimer &deadline);
    bool isReady(int output, const QDeadlineTimer &deadline);

    int m_descriptor;
    QByteArray m_restOfLine;
    unsigned int m_lostLines = 0;
    bool m_readerHasStopped = false;
};
