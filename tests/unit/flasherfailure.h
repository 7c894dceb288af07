#pragma once

#include "failure.h"

/// Returns the failure that `action` throws. The code is Done if `action` throws nothing.
template <typename Action>
flasher::Failure failureOf(Action action)
{
    try {
        action();
    } catch (const flasher::Failure &failure) {
        return failure;
    }
    return {flasher::ExitCode::Done, QString()};
}
