#include "pausewatch.h"

#include <QCoreApplication>
#include <QEvent>
#include <QTimer>

PauseWatch::PauseWatch()
{
    QCoreApplication::instance()->installEventFilter(this);
}

bool PauseWatch::eventFilter(QObject *watched, QEvent *event)
{
    const auto *timer = qobject_cast<const QTimer *>(watched);
    if (timer != nullptr && event->type() == QEvent::Timer)
        m_pausesMs.append(timer->interval());
    return QObject::eventFilter(watched, event);
}
