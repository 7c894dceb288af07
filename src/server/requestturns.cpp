#include "requestturns.h"

#include "clientconnection.h"

#include <QScopedValueRollback>

namespace {

// In bytes of requests, because the processing time grows with their length.
constexpr std::size_t firstShare = 256;
constexpr std::size_t laterShare = 4096;

} // namespace

RequestTurns::RequestTurns(Handler &handler)
    : m_handler(handler)
    , m_unfinished([] { return true; }, [this](const Batch &batch) { process(batch, laterShare); })
    , m_postponed([this] { return mayResumePostponed(); },
                  [this](const Batch &batch) {
                      const QScopedValueRollback<bool> resuming(m_isResuming, true);
                      process(batch, firstShare);
                  })
{
}

void RequestTurns::start(const Batch &batch)
{
    process(batch, firstShare);
}

void RequestTurns::process(const Batch &batch, std::size_t share)
{
    // The client and its buffer must outlive this call.
    batch.client->hold();
    ++m_depth;
    if (batch.request)
        m_handler.processRequest(batch.client, *batch.request, batch.gripper);
    processBuffer(batch, share);
    --m_depth;
    batch.client->release();
    m_postponed.schedule();
}

void RequestTurns::processBuffer(const Batch &batch, std::size_t share)
{
    ClientConnection *client = batch.client;
    Request request;
    std::size_t done = 0;
    while (!client->isPaused() && batch.buffer->takeNext(request)) {
        if (mustPostpone(batch, request)) {
            m_postponed.enqueue({client, batch.buffer, batch.gripper, request});
            break;
        }
        const bool hasWaited = m_handler.processRequest(client, request, batch.gripper);
        done += hasWaited ? share : request.text.size();
        // If the request pumped events, another batch of this client may be queued already.
        if (done >= share && batch.buffer->bytesKept() > 0 && !client->isPaused())
            m_unfinished.enqueue({client, batch.buffer, batch.gripper, std::nullopt});
    }
    client->sendReplies();
}

/// Requests that arrived earlier come first, even if the stack has room again.
bool RequestTurns::mustPostpone(const Batch &batch, const Request &request) const
{
    if (m_depth <= nestingLimit && m_postponed.isEmpty() && m_handler.mayNest())
        return false;
    return m_handler.mayWait(request, batch.gripper);
}

bool RequestTurns::mayResumePostponed() const
{
    return !m_isResuming && m_depth < nestingLimit && m_handler.mayNest();
}
