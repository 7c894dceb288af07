#pragma once

#include "body.h"
#include "jobs.h"
#include "json.h"
#include "message.h"
#include "names.h"
#include "sessions.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>

namespace gateway {

/// A line of the record of commands.
struct JournalEntry
{
    std::string action;
    std::optional<int> gripper;
    std::string role;
    std::string peer;
    std::string text; ///< for people; contains the others
};

using Journal = std::function<void(const JournalEntry &)>;

/// Answers the requests: who may do what, and the forms of bodies and answers. It does no input or
/// output and reads no clock, so a test or a fuzzer can call it alone.
class Api
{
public:
    struct Parts
    {
        Picture &picture;
        JobList &jobList;
        Jobs &jobs;
        Sessions &sessions;
        Lease &lease;
        const Names &names;
        Journal journal;
        bool viewNeedsToken; ///< also on the machine itself
        /// The metrics of the picture as text. Empty: there are none.
        std::function<std::string(Clock::time_point now)> metrics = {};
    };

    explicit Api(Parts parts)
        : m_parts(std::move(parts))
    {
    }

    Response handle(const Request &request, const gripper::ReadingTime &now);
    /// Answers a request to the port of the metrics, which needs no token. `names` are those of
    /// this port.
    Response handleMetrics(const Request &request, const Names &names, Clock::time_point now) const;
    /// Does what only the passing of time causes: the lease and sessions end.
    void advance(const gripper::ReadingTime &now);
    View view(const gripper::ReadingTime &now) const;
    /// The viewer of a stream. Empty if the session has ended.
    std::optional<Viewer> viewer(std::optional<std::uint64_t> session,
                                 const gripper::ReadingTime &now);

    /// Reads the values of the command's action. Throws a Problem for wrong ones.
    static void readValues(Command &command, Body &body);
    /// Starts a command of a known gripper and writes it to the journal. The caller has checked who
    /// may command. Returns the id of the job. Throws a Problem if it cannot start.
    int begin(const Command &command);

private:
    struct Call;

    Response route(const Request &request, const gripper::ReadingTime &now);
    static void requireOwnHost(const Request &request, const Names &names);
    Response page(const Request &request) const;
    Response healthz() const;
    Response metrics(Clock::time_point now) const;
    Response view(Call &call);
    Response change(Call &call);
    std::optional<Session> requireViewer(const Call &call);
    void requireOwnPage(const Request &request) const;
    Session requireRole(const Call &call, Role role);
    void requireLease(const Call &call, Body &body) const;

    Response pair(Call &call);
    Response endSession(Call &call);
    Response takeControl(Call &call);
    Response returnControl(Call &call);
    Response beginJob(Call &call);
    Response history(const Call &call) const;
    Response job(const Call &call) const;

    const GripperView &requireGripper(int id) const;
    void addControlEvent(const char *detail, const std::string &text,
                         const gripper::ReadingTime &now);
    void record(const std::string &action, std::optional<int> gripper, Role role,
                const std::string &peer, const std::string &detail = {}) const;

    Parts m_parts;
};

} // namespace gateway
