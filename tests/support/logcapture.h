#pragma once

#include <QStringList>

/// Keeps what is logged while it lives instead of printing it. One at a time.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();

    LogCapture(const LogCapture &) = delete;
    LogCapture &operator=(const LogCapture &) = delete;

    /// Forgets everything.
    void clear();

    /// The messages of info level, in order.
    QStringList infos() const;
    /// The messages of info level that begin with `start`.
    QStringList infosThatStartWith(const QString &start) const;

    /// The messages of warning level and worse: a healthy program has none.
    QStringList warnings() const;

private:
    QtMessageHandler m_previous;
};
