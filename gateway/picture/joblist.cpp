#include "joblist.h"

#include <algorithm>

namespace gateway {

const char *nameOf(Action action)
{
    switch (action) {
    case Action::Activate:
        return "activate";
    case Action::Deactivate:
        return "deactivate";
    case Action::Move:
        return "move";
    case Action::Stop:
        return "stop";
    case Action::Release:
        return "release";
    case Action::Led:
        return "led";
    case Action::Mode:
        return "mode";
    case Action::Scan:
        return "scan";
    case Action::Rename:
        return "rename";
    case Action::Upgrade:
        return "upgrade";
    }
    return "";
}

const Job &JobList::add(const Command &command, const gripper::ReadingTime &now)
{
    if (m_jobs.size() >= capacity) {
        const auto oldest = std::find_if(m_jobs.begin(), m_jobs.end(),
                                         [](const Job &job) { return !job.isRunning(); });
        if (oldest != m_jobs.end())
            m_jobs.erase(oldest);
    }
    Job job;
    job.id = ++m_lastId;
    job.action = command.action;
    job.gripper = command.gripper;
    job.role = command.role;
    job.started = now;
    job.version = ++m_version;
    m_jobs.push_back(job);
    return m_jobs.back();
}

void JobList::setStage(int id, const std::string &stage)
{
    if (Job *job = search(id)) {
        job->stage = stage;
        job->version = ++m_version;
    }
}

void JobList::finish(int id, const JobOutcome &outcome, std::chrono::steady_clock::time_point now)
{
    if (Job *job = search(id)) {
        job->outcome = outcome;
        job->ended = now;
        job->version = ++m_version;
    }
}

const Job *JobList::find(int id) const
{
    const auto job =
        std::find_if(m_jobs.begin(), m_jobs.end(), [&](const Job &each) { return each.id == id; });
    return job == m_jobs.end() ? nullptr : &*job;
}

Job *JobList::search(int id)
{
    const auto job =
        std::find_if(m_jobs.begin(), m_jobs.end(), [&](const Job &each) { return each.id == id; });
    return job == m_jobs.end() ? nullptr : &*job;
}

} // namespace gateway
