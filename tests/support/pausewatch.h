#pragma once

#include <QObject>
#include <QVector>

/// Records how long the pauses on this thread were asked to last. The intervals of the timers that
/// fire give the answer, so the pace of the machine does not matter. Watches from its construction
/// to its destruction; needs an application object.
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
