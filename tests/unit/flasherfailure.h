#pragma once

#include "failure.h"

/// The failure that `action` throws; its code is Done if `action` throws none.
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
