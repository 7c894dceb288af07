#pragma once

#include <QString>

namespace sim {

/// Thrown by an operation that cannot do its work. It must not pass through Qt's event loop, so
/// slots catch it.
struct Failure
{
    QString text; ///< what happened, why, and what to do next, in one line
};

} // namespace sim
