#pragma once

#include "command.h"

#include <variant>

namespace gateway {

enum class Refusal {
    Busy,    ///< another job has the gripper or the line
    TooMany, ///< many jobs are under way
    Ending   ///< the gateway ends
};

/// Starts jobs. The faces know nothing else of them.
class Jobs
{
public:
    virtual ~Jobs() = default;
    /// Returns the id of the new job.
    virtual std::variant<int, Refusal> begin(const Command &command) = 0;
    /// Whether a running job has muted polling.
    virtual bool isMaintaining() const = 0;
};

} // namespace gateway
