#include "resultqueue.h"

namespace gateway {

void ResultQueue::addRefusal(Message message)
{
    if (m_refusals.size() >= maxRefusals)
        m_refusals.pop_front();
    m_refusals.push_back(std::move(message));
}

const Message *ResultQueue::next()
{
    std::deque<Message> &queue = m_outcomes.empty() ? m_refusals : m_outcomes;
    if (!m_next && !queue.empty()) {
        m_next = std::move(queue.front());
        queue.pop_front();
    }
    return m_next ? &*m_next : nullptr;
}

} // namespace gateway
