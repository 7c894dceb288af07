#pragma once

#include <QStringList>

/// Records the log messages while it exists. They are not printed. A process may have only one
/// object of this class at a time.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /// Clears the record.
    void clear();

    /// The messages of info level, in order.
    QStringList infos() const;
    /// The messages of info level that begin with `start`.
    QStringList infosThatStartWith(const QString &start) const;

    /// The messages of warning level and worse. A healthy program logs no such message.
    QStringList warnings() const;

private:
    QtMessageHandler m_previous;
};
