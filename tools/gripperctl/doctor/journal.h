#pragma once

#include "facts.h"

namespace gripperctl::doctor {

enum class JournalPart {
    LastHour, ///< the daemon's lines, without times
    Latest    ///< the latest lines of the daemon and of systemd about it, with times
};

/// Reads the journal of the service.
Run readJournal(const Facts &facts, JournalPart part);

} // namespace gripperctl::doctor
