#pragma once

#include "command.h"

#include <gripper/image.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <string>
#include <vector>

namespace gateway {

/// The result of a job. `code` is "ok", or says why not.
struct JobOutcome
{
    std::string code;
    std::string text;                 ///< a sentence for people
    std::string unknown;              ///< the SET that the daemon may or may not have carried out
    std::optional<bool> hasMetObject; ///< after a movement
    std::optional<int> position;      ///< after a movement
    std::optional<int> current;       ///< after a movement
    std::optional<std::string> firmware; ///< after an upgrade
    std::optional<int> fault;
    std::optional<std::vector<int>> ids; ///< after a scan
};

struct Job
{
    int id = 0;
    Action action = Action::Stop;
    std::optional<int> gripper;
    Role role = Role::View;
    gripper::ReadingTime started;
    std::optional<std::chrono::steady_clock::time_point> ended;
    std::string stage;                 ///< of an upgrade; empty before the first one
    std::optional<JobOutcome> outcome; ///< empty while the job runs
    std::uint64_t version = 0;         ///< of the list, when this job changed last

    bool isRunning() const { return !outcome.has_value(); }
};

/// The latest jobs. It keeps all running jobs, and not more than `capacity` in all if some have
/// ended.
class JobList
{
public:
    static constexpr std::size_t capacity = 50;

    const Job &add(const Command &command, const gripper::ReadingTime &now);
    void setStage(int id, const std::string &stage);
    void finish(int id, const JobOutcome &outcome, std::chrono::steady_clock::time_point now);

    /// Null for an unknown job.
    const Job *find(int id) const;
    /// In ascending order of id.
    const std::deque<Job> &jobs() const { return m_jobs; }
    std::uint64_t version() const { return m_version; }

private:
    Job *search(int id);

    std::deque<Job> m_jobs;
    int m_lastId = 0;
    std::uint64_t m_version = 0;
};

} // namespace gateway
