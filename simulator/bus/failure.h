#pragma once

#include <QString>

namespace sim {

/// Thrown by an operation that cannot do what was asked. Nothing throws it through Qt's event
/// loop: slots catch it.
struct Failure
{
    QString text; ///< what happened, why, and what to do next, in one line
};

} // namespace sim
