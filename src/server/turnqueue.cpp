#include "turnqueue.h"

#include "clientconnection.h"

#include <utility>

TurnQueue::TurnQueue(Condition mayRun, Process process)
    : m_mayRun(std::move(mayRun))
    , m_process(std::move(process))
{
}

void TurnQueue::enqueue(const Batch &batch)
{
    batch.client->hold();
    batch.client->pause();
    m_batches.enqueue(batch);
    schedule();
}

/// Each turn is a posted call. Between two posted calls the event loop serves sockets and timers.
void TurnQueue::schedule()
{
    if (m_isScheduled || m_batches.isEmpty() || !m_mayRun())
        return;
    m_isScheduled = true;
    QMetaObject::invokeMethod(this, &TurnQueue::runTurn, Qt::QueuedConnection);
}

void TurnQueue::runTurn()
{
    m_isScheduled = false;
    if (!m_mayRun())
        return;
    const Batch batch = m_batches.dequeue();
    batch.client->resume();
    // The next batch must get its turn even if this one waits on the bus.
    schedule();
    m_process(batch);
    batch.client->release();
    schedule();
}
