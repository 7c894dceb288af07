#pragma once

#include "command.h"
#include "joblist.h"
#include "jobs.h"
#include "picture.h"

#include <gripper/connection.h>
#include <gripper/gripper.h>

#include <atomic>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <optional>
#include <thread>
#include <variant>

namespace gateway {

/// Carries out commands by the calls of the client library. They block, so each job has a thread
/// and a connection of its own. There is one job at a time for a gripper, and none beside a job of
/// the whole line (scan, rename, upgrade). Two jobs do not wait: a stop, and a movement that
/// replaces another one.
///
/// Everything but the calls themselves runs in the thread that makes the object.
class JobRunner : public Jobs
{
public:
    /// `post` makes a function run in the thread of this object.
    using Post = std::function<void(std::function<void()>)>;
    using Finished = std::function<void(const Job &)>;

    JobRunner(gripper::Endpoint endpoint, Picture &picture, JobList &list, Post post,
              Finished finished);
    /// Cancels the jobs and waits for their ends. Then polling is not muted, unless a flasher runs.
    ~JobRunner() override;
    JobRunner(const JobRunner &) = delete;
    JobRunner &operator=(const JobRunner &) = delete;

    std::variant<int, Refusal> begin(const Command &command) override;
    /// Refuses further jobs and cancels those that run.
    void shutDown();
    bool isIdle() const;
    bool isMaintaining() const override;

private:
    enum class Cancellation { None, Superseded, ShutDown };
    struct Running;
    class Task;

    std::shared_ptr<Running> running(int gripper) const;
    std::optional<Refusal> refusalOf(const Command &command) const;
    void start(const Command &command, int id, const std::shared_ptr<Running> &replaced);
    void finish(int id, const JobOutcome &outcome);

    gripper::Endpoint m_endpoint;
    Picture &m_picture;
    JobList &m_list;
    Post m_post;
    Finished m_finished;
    bool m_isEnding = false;
    std::map<int, std::shared_ptr<Running>> m_running; ///< by job id
};

} // namespace gateway
