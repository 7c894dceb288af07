#pragma once

#include "body.h"
#include "command.h"
#include "json.h"
#include "problem.h"

#include <cstdint>
#include <deque>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace gateway {

/// Decides which message of the broker becomes a command. A broker may deliver a message late,
/// twice, or again after a restart. A command therefore has an id and an expiry, and the gate
/// accepts each id once.
///
/// The gate cannot know the ids that an earlier process accepted. All of these expire within 5 s
/// after its start, so it refuses commands that expire so early. If the clock is set back, these
/// expiries come once more. The gate refuses them then, too, but for a minute at most.
class CommandGate
{
public:
    static constexpr std::chrono::milliseconds longestValidity{5000};
    static constexpr std::chrono::minutes longestBlock{1};
    static constexpr std::size_t maxPayload = 1024;
    static constexpr std::size_t maxIds = 1024; ///< of commands that have not expired

    struct Incoming
    {
        int gripper = 0;
        std::string payload;
        bool isRetained = false;
    };

    struct Decision
    {
        std::string id;     ///< empty if the message has none
        std::string action; ///< the member "do", as far as it was read
        std::optional<Command> command;
        std::optional<Problem> refusal; ///< without a command
    };

    CommandGate(std::set<std::string> allowed, const gripper::ReadingTime &start);

    /// Notices that the clock was set back.
    void advance(const gripper::ReadingTime &now);
    Decision decide(const Incoming &incoming, const View &view);

private:
    using Milliseconds = std::int64_t; ///< since 1970, UTC

    struct Known
    {
        std::string id;
        Milliseconds expires = 0;
        Clock::time_point end; ///< the expiry on a clock that nobody sets
    };

    Command check(const Incoming &incoming, const View &view, Decision &decision);
    void checkTime(Milliseconds expires, const gripper::ReadingTime &now) const;
    void remember(const Known &command, Clock::time_point now);
    void rememberRefused(const std::string &id);
    bool isKnown(const std::string &id) const;
    Action allowedAction(const std::string &name) const;

    std::set<std::string> m_allowed;
    Milliseconds m_forgotten; ///< the latest expiry of ids that the gate does not know
    /// The gate ignores m_forgotten from then on. Empty if m_forgotten is in the past.
    std::optional<Clock::time_point> m_blockEnd;
    std::deque<Known> m_known;
    std::set<std::string> m_ids;       ///< those of m_known
    std::deque<std::string> m_refused; ///< the latest ones that m_known does not have
};

/// The actions that an integrator can allow. Renaming and upgrading need a person at the machine.
extern const std::array<Action, 7> commandActions;

} // namespace gateway
