#include "jobrunner.h"

#include <gripper/errors.h>
#include <gripper/line.h>

#include <algorithm>
#include <system_error>
#include <utility>

namespace gateway {

namespace {

using gripper::Gripper;
using gripper::Options;

constexpr gripper::Seconds replyTime{5};
constexpr int maxStops = 4;            ///< of one gripper
constexpr std::size_t maxRunning = 32; ///< without the stops

bool isOfLine(Action action)
{
    return action == Action::Scan || action == Action::Rename || action == Action::Upgrade;
}

/// Whether a stop ends such a job. The call has sent everything, or sends nothing after its
/// cancellation.
bool endsByStop(Action action)
{
    return action == Action::Move || action == Action::Release || action == Action::Activate;
}

const char *nameOf(gripper::UpgradeStage stage)
{
    switch (stage) {
    case gripper::UpgradeStage::Jumping:
        return "jumping";
    case gripper::UpgradeStage::Writing:
        return "writing";
    case gripper::UpgradeStage::Searching:
        return "searching";
    case gripper::UpgradeStage::Done:
        return "done";
    }
    return "";
}

JobOutcome ok(const std::string &text)
{
    JobOutcome outcome;
    outcome.code = "ok";
    outcome.text = text;
    return outcome;
}

JobOutcome failure(const char *code, const std::string &text)
{
    JobOutcome outcome;
    outcome.code = code;
    outcome.text = text;
    return outcome;
}

JobOutcome failure(const char *code, const gripper::CommunicationError &error)
{
    JobOutcome outcome = failure(code, error.what());
    outcome.unknown = error.unknown();
    return outcome;
}

JobOutcome outcomeOf(const gripper::MoveResult &result)
{
    const bool hasMet = std::holds_alternative<gripper::ObjectMet>(result);
    JobOutcome outcome = ok(hasMet ? "stopped by an object" : "arrived");
    outcome.hasMetObject = hasMet;
    std::visit(
        [&](const auto &values) {
            outcome.position = values.position;
            outcome.current = values.effort;
        },
        result);
    return outcome;
}

} // namespace

struct JobRunner::Running
{
    Action action = Action::Stop;
    std::optional<int> gripper;
    std::atomic<Cancellation> cancellation = Cancellation::None;
    std::promise<void> endPromise;
    std::shared_future<void> end = endPromise.get_future().share();
    std::thread thread;
};

/// The part of a job that runs in its own thread.
class JobRunner::Task
{
public:
    struct Parts
    {
        gripper::Endpoint endpoint;
        Command command;
        std::shared_ptr<Running> self;
        std::shared_ptr<Running> replaced; ///< the job that ends first; null without one
        std::function<void(const char *stage)> report;
    };

    explicit Task(Parts parts)
        : m_parts(std::move(parts))
    {
    }

    JobOutcome run() const
    {
        try {
            return carryOut();
        } catch (const Cancelled &) {
            if (m_parts.self->cancellation == Cancellation::ShutDown)
                return failure("shutdown", "the gateway ended before the job");
            return failure("superseded", "a later command replaced this one");
        } catch (const TooLate &) {
            return failure("expired", "the command expired before it reached the daemon");
        } catch (const gripper::Fault &error) {
            JobOutcome outcome = failure("fault", error.what());
            outcome.fault = error.code();
            return outcome;
        } catch (const gripper::ConnectionLost &error) {
            return failure("connection-lost", error);
        } catch (const gripper::TimedOut &error) {
            return failure("timed-out", error);
        } catch (const gripper::ProtocolError &error) {
            return failure("protocol", error);
        } catch (const gripper::Refused &error) {
            return failure("refused", error.what());
        } catch (const gripper::GripperMissing &error) {
            return failure("missing", error.what());
        } catch (const gripper::NotActive &error) {
            return failure("not-active", error.what());
        } catch (const gripper::Interference &error) {
            return failure("interference", error.what());
        } catch (const gripper::InvalidValue &error) {
            return failure("invalid", error.what());
        }
    }

private:
    struct Cancelled
    {
    };
    struct TooLate
    {
    };

    Options options() const
    {
        return {replyTime, [self = m_parts.self] {
                    if (self->cancellation != Cancellation::None)
                        throw Cancelled();
                }};
    }

    JobOutcome carryOut() const
    {
        if (m_parts.command.action == Action::Stop)
            return stop();
        if (m_parts.replaced)
            m_parts.replaced->end.wait();
        // A stop may have cancelled this job before its first request.
        if (m_parts.self->cancellation != Cancellation::None)
            throw Cancelled();
        switch (m_parts.command.action) {
        case Action::Scan:
            return scan();
        case Action::Rename:
            return rename();
        case Action::Upgrade:
            return upgrade();
        default:
            return commandGripper();
        }
    }

    Gripper gripper() const
    {
        // The constructor waits for the daemon, and commands nothing.
        Gripper gripper(m_parts.endpoint, m_parts.command.gripper.value_or(0), options());
        if (m_parts.command.latestBegin && Clock::now() > *m_parts.command.latestBegin)
            throw TooLate();
        return gripper;
    }

    /// The first SET goes out at once. A call that was cancelled may have been about to send a SET
    /// of its own, so the stop follows once more after the end of that call.
    JobOutcome stop() const
    {
        Gripper gripper = this->gripper();
        if (m_parts.replaced) {
            gripper.set({{"GTO", 0}});
            m_parts.replaced->end.wait();
        }
        gripper.stop();
        return ok("stopped");
    }

    JobOutcome scan() const
    {
        gripper::Line line(m_parts.endpoint, options());
        const std::vector<int> ids = line.scan();
        JobOutcome outcome = ok("the scan has found " + std::to_string(ids.size()) +
                                (ids.size() == 1 ? " gripper" : " grippers"));
        outcome.ids = ids;
        return outcome;
    }

    JobOutcome rename() const
    {
        const int newId = m_parts.command.newId;
        gripper::Line line(m_parts.endpoint, options());
        line.rename(m_parts.command.gripper.value_or(0), newId);
        return ok("the gripper has the id " + std::to_string(newId));
    }

    JobOutcome upgrade() const
    {
        Gripper gripper = this->gripper();
        const std::string version =
            gripper.upgrade([&](gripper::UpgradeStage stage) { m_parts.report(nameOf(stage)); },
                            m_parts.command.expected);
        JobOutcome outcome = ok("the gripper runs firmware " + version);
        outcome.firmware = version;
        return outcome;
    }

    JobOutcome commandGripper() const
    {
        const Command &command = m_parts.command;
        Gripper gripper = this->gripper();
        switch (command.action) {
        case Action::Activate:
            gripper.activate(command.again ? gripper::Again::Yes : gripper::Again::No);
            return ok("active");
        case Action::Deactivate:
            gripper.deactivate();
            return ok("inactive");
        case Action::Move:
            return outcomeOf(gripper.move(command.position, command.speed, command.force));
        case Action::Release:
            gripper.release(command.closing);
            return ok("released: activate the gripper before it moves again");
        case Action::Led:
            if (command.ledAuto)
                gripper.ledAuto();
            else
                gripper.led(command.red, command.green, command.blue);
            return ok("the LEDs are set");
        case Action::Mode:
            gripper.set({{"MOD", command.mode}});
            return ok("the mode is set");
        case Action::Stop:
        case Action::Scan:
        case Action::Rename:
        case Action::Upgrade:
            break;
        }
        return failure("invalid", "this command addresses the whole line");
    }

    Parts m_parts;
};

JobRunner::JobRunner(gripper::Endpoint endpoint, Picture &picture, JobList &list, Post post,
                     Finished finished)
    : m_endpoint(std::move(endpoint))
    , m_picture(picture)
    , m_list(list)
    , m_post(std::move(post))
    , m_finished(std::move(finished))
{
}

JobRunner::~JobRunner()
{
    shutDown();
    for (const auto &job : m_running)
        job.second->thread.join();
}

std::variant<int, Refusal> JobRunner::begin(const Command &command)
{
    if (const std::optional<Refusal> refusal = refusalOf(command))
        return *refusal;
    std::shared_ptr<Running> replaced;
    if (command.gripper && !isOfLine(command.action)) {
        replaced = running(*command.gripper);
        const bool isReplaced = replaced && endsByStop(replaced->action);
        if (isReplaced)
            replaced->cancellation = Cancellation::Superseded;
        else
            replaced.reset();
    }
    const int id = m_list.add(command, gripper::ReadingTime::now()).id;
    if (command.gripper)
        m_picture.beginCommand(command);
    start(command, id, replaced);
    return id;
}

void JobRunner::shutDown()
{
    m_isEnding = true;
    for (const auto &job : m_running)
        job.second->cancellation = Cancellation::ShutDown;
}

bool JobRunner::isIdle() const
{
    return m_running.empty();
}

bool JobRunner::isMaintaining() const
{
    return std::any_of(m_running.begin(), m_running.end(), [](const auto &job) {
        return job.second->action == Action::Rename || job.second->action == Action::Upgrade;
    });
}

/// The latest job of the gripper that is no stop. An earlier one may still end.
std::shared_ptr<JobRunner::Running> JobRunner::running(int gripper) const
{
    const auto job = std::find_if(m_running.rbegin(), m_running.rend(), [&](const auto &each) {
        return each.second->gripper == gripper && each.second->action != Action::Stop;
    });
    return job == m_running.rend() ? nullptr : job->second;
}

std::optional<Refusal> JobRunner::refusalOf(const Command &command) const
{
    if (m_isEnding)
        return Refusal::Ending;
    if (command.action == Action::Stop) {
        const auto stops = std::count_if(m_running.begin(), m_running.end(), [&](const auto &job) {
            return job.second->action == Action::Stop && job.second->gripper == command.gripper;
        });
        return stops < maxStops ? std::nullopt : std::optional(Refusal::TooMany);
    }
    if (m_running.size() >= maxRunning)
        return Refusal::TooMany;
    for (const auto &entry : m_running) {
        const Running &job = *entry.second;
        const bool isBeside =
            !isOfLine(command.action) && !isOfLine(job.action) && job.gripper != command.gripper;
        const bool isCancelled = job.cancellation != Cancellation::None;
        const bool isReplaced = command.action == Action::Move && job.action == Action::Move &&
                                job.gripper == command.gripper;
        if (!isBeside && !isReplaced && !(isCancelled && !isOfLine(command.action)))
            return Refusal::Busy;
    }
    return std::nullopt;
}

void JobRunner::start(const Command &command, int id, const std::shared_ptr<Running> &replaced)
{
    auto job = std::make_shared<Running>();
    job->action = command.action;
    job->gripper = command.gripper;
    m_running[id] = job;
    const auto report = [this, id](const char *stage) {
        m_post([this, id, stage] { m_list.setStage(id, stage); });
    };
    const auto run = [this, id, job, task = Task({m_endpoint, command, job, replaced, report})] {
        const JobOutcome outcome = task.run();
        job->endPromise.set_value();
        m_post([this, id, outcome] { finish(id, outcome); });
    };
    try {
        job->thread = std::thread(run);
    } catch (const std::system_error &error) {
        job->endPromise.set_value();
        finish(id, failure("refused", std::string("no thread for the job: ") + error.what()));
    }
}

void JobRunner::finish(int id, const JobOutcome &outcome)
{
    const auto job = m_running.find(id);
    if (job->second->thread.joinable())
        job->second->thread.join();
    const auto now = Clock::now();
    if (job->second->gripper)
        m_picture.endCommand(*job->second->gripper, now);
    m_running.erase(job);
    m_list.finish(id, outcome, now);
    m_finished(*m_list.find(id));
}

} // namespace gateway
