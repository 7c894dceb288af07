#pragma once

#include "turnqueue.h"

#include <cstddef>

/// Decides when each request is processed, so that no client keeps the others waiting:
///
/// - The first 256 bytes of a batch are processed at once. The rest follows in shares of 4 KiB, one
///   share of one client on each turn of the event loop. A request that may wait ends its share.
/// - Requests that wait on the bus run inside each other's waits, at most `nestingLimit` deep. At
///   this depth, or while the handler allows no nesting, a request that may wait is postponed. All
///   later requests of its client are postponed with it. Postponed requests run one after another,
///   in order of arrival.
class RequestTurns
{
public:
    /// Processes the requests.
    class Handler
    {
    public:
        /// Whether the request may wait on the bus or block.
        virtual bool mayWait(const Request &request,
                             const QSharedPointer<KvPelloGripper> &gripper) const = 0;

        /// Processes one request. May pump events. Returns whether it may have waited or blocked.
        virtual bool processRequest(ClientConnection *client, const Request &request,
                                    const QSharedPointer<KvPelloGripper> &gripper) = 0;

        /// Whether a request that may wait may now run inside the wait of another request. If the
        /// result is false, a request is running. The result is true again before that request
        /// ends.
        virtual bool mayNest() const = 0;

    protected:
        ~Handler() = default;
    };

    /// Each level uses about 3 KiB of stack and a 10 ms timer.
    static constexpr int nestingLimit = 32;

    /// `handler` must outlive this object.
    explicit RequestTurns(Handler &handler);

    /// Processes the first share of the batch and sends the replies. Queues the rest. Pumps events
    /// if a request does.
    void start(const Batch &batch);

private:
    void process(const Batch &batch, std::size_t share);
    void processBuffer(const Batch &batch, std::size_t share);
    bool mustPostpone(const Batch &batch, const Request &request) const;
    bool mayResumePostponed() const;

    Handler &m_handler;
    TurnQueue m_unfinished; ///< Batches whose earlier shares have been processed.
    TurnQueue m_postponed;  ///< Batches whose next request is postponed.
    int m_depth = 0;        ///< The number of batches on the stack.
    bool m_isResuming = false;
};
