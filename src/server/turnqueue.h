#pragma once

#include "requestscanner.h"

#include <QObject>
#include <QQueue>
#include <QSharedPointer>

#include <functional>
#include <optional>

class ClientConnection;
class KvPelloGripper;

/// The requests of one client that address the same gripper.
struct Batch
{
    ClientConnection *client;
    RequestScanner *buffer; ///< The client's unread requests. Exists until the client ends.
    QSharedPointer<KvPelloGripper> gripper; ///< Null if no gripper was found at the client's id.
    std::optional<Request> request;         ///< Runs before the requests in the buffer.
};

/// Batches that wait for a turn of the event loop, first come, first served. A turn runs one batch.
///
/// While a batch waits, the queue holds and pauses its client. The connection therefore stays, and
/// no later request overtakes the batch.
class TurnQueue : public QObject
{
    Q_OBJECT

public:
    /// Whether the next batch may run now.
    using Condition = std::function<bool()>;
    /// Processes a batch. May pump events.
    using Process = std::function<void(const Batch &batch)>;

    TurnQueue(Condition mayRun, Process process);

    bool isEmpty() const { return m_batches.isEmpty(); }

    void enqueue(const Batch &batch);

    /// Schedules a turn if a batch may run now. Call it when the condition becomes true.
    void schedule();

private:
    void runTurn();

    Condition m_mayRun;
    Process m_process;
    QQueue<Batch> m_batches;
    bool m_isScheduled = false;
};
