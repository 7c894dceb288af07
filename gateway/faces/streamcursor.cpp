#include "streamcursor.h"

namespace gateway {

namespace {

void append(std::string &text, const char *event, const Json &data)
{
    text += std::string("event: ") + event + "\ndata: " + textOf(data) + "\n\n";
}

std::uint64_t leaseNumber(const View &view)
{
    const auto &holder = view.lease().holder();
    return holder ? holder->number : 0;
}

} // namespace

const std::string &NewestChange::text(const View &view, std::uint64_t since)
{
    if (m_time != view.now().monotonic || m_since != since) {
        m_text.clear();
        append(m_text, "change", view.changesSince(since));
        m_time = view.now().monotonic;
        m_since = since;
    }
    return m_text;
}

std::string StreamCursor::next(const View &view, const Viewer &viewer, NewestChange &change)
{
    const Clock::time_point now = view.now().monotonic;
    std::string text;
    if (!m_lastChange || now - *m_lastChange > tooSlow) {
        Json picture = view.picture();
        picture["you"] = view.viewer(viewer);
        append(text, "picture", picture);
        m_event = view.pictureOf().events().lastNumber();
        m_jobs = view.jobs().version();
    } else {
        appendNew(text, view);
        if (!isChangeDue(view))
            return text;
        text += change.text(view, m_picture);
    }
    m_picture = view.pictureOf().version();
    m_lease = leaseNumber(view);
    m_lastChange = now;
    return text;
}

void StreamCursor::appendNew(std::string &text, const View &view)
{
    for (const Event &event : view.pictureOf().events().events()) {
        if (event.number > m_event)
            append(text, "event", view.event(event));
    }
    m_event = view.pictureOf().events().lastNumber();
    for (const Job &job : view.jobs().jobs()) {
        if (job.version > m_jobs)
            append(text, "job", view.job(job));
    }
    m_jobs = view.jobs().version();
}

bool StreamCursor::isChangeDue(const View &view) const
{
    const auto pause = view.now().monotonic - *m_lastChange;
    const bool isNew = view.pictureOf().version() != m_picture || leaseNumber(view) != m_lease;
    return pause >= longestPause || (isNew && pause >= shortestPause);
}

} // namespace gateway
