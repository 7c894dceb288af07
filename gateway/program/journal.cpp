#include "journal.h"

#include <cstdio>
#include <cstdlib>

#define SD_JOURNAL_SUPPRESS_LOCATION
#include <syslog.h>
#include <systemd/sd-journal.h>

namespace gateway {

void writeToJournal(const JournalEntry &entry)
{
    // systemd sets this variable if standard error leads to the journal.
    const bool hasJournal = std::getenv("JOURNAL_STREAM") != nullptr;
    const std::string gripper = entry.gripper ? std::to_string(*entry.gripper) : std::string();
    if (hasJournal &&
        sd_journal_send("MESSAGE=%s", entry.text.c_str(), "PRIORITY=%i", LOG_NOTICE, "GRIPPER=%s",
                        gripper.c_str(), "ACTION=%s", entry.action.c_str(), "ROLE=%s",
                        entry.role.c_str(), "PEER=%s", entry.peer.c_str(), nullptr) == 0)
        return;
    std::fprintf(stderr, "gripper-gateway: %s\n", entry.text.c_str());
}

} // namespace gateway
