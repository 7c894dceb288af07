#pragma once

#include <QObject>
#include <QVector>

/// Records the requested lengths of the pauses on this thread while it exists. A length is the
/// interval of a timer that fires, so the pace of the machine does not matter. Needs an application
/// object.
class PauseWatch : public QObject
{
    Q_OBJECT

public:
    PauseWatch();

    /// In milliseconds, in the order in which the pauses ended.
    QVector<int> pausesMs() const { return m_pausesMs; }

    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    QVector<int> m_pausesMs;
};
