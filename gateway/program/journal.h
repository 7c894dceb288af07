#pragma once

#include "api.h"

#include <string>

namespace gateway {

/// Writes an entry to the journal of the system with fields of its own, or to standard error if
/// this is not connected to the journal.
void writeToJournal(const JournalEntry &entry);

} // namespace gateway
