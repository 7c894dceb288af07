#pragma once

#include "facts.h"

#include <string>
#include <utility>
#include <vector>

namespace gripperctl::doctor {

/// How serious a finding is. Only a problem makes the exit code differ from 0.
enum class Level {
    Ok,
    Note,   ///< it may be intended, or has no effect now
    Unseen, ///< this user or this machine does not show it
    Problem
};

/// The word in the output.
const char *wordOf(Level level);

struct Finding
{
    Level level = Level::Ok;
    std::string result;
    std::string meaning; ///< empty for Ok
    std::string action;  ///< empty for Ok
};

using Findings = std::vector<Finding>;

/// A check looks at the facts, and may read more of the machine. It changes nothing.
struct Check
{
    const char *name;
    bool isOverTcp; ///< it also works for a daemon on another machine
    Findings (*look)(const Facts &facts);
};

/// All checks, in the order of the output.
const std::vector<Check> &checks();

// The daemon and its port.
Findings checkPort(const Facts &facts);
Findings checkLink(const Facts &facts);
Findings checkGrippers(const Facts &facts);
// The service.
Findings checkUnit(const Facts &facts);
Findings checkAddressFilter(const Facts &facts);
Findings checkJournal(const Facts &facts);
// The serial ports.
Findings checkToolLink(const Facts &facts);
Findings checkPermissions(const Facts &facts);
Findings checkDevicePolicy(const Facts &facts);
Findings checkLocks(const Facts &facts);
Findings checkHolders(const Facts &facts);
// The adapters.
Findings checkModemManager(const Facts &facts);
Findings checkBraille(const Facts &facts);
Findings checkLatency(const Facts &facts);
Findings checkAutosuspend(const Facts &facts);
// Upgrades.
Findings checkImages(const Facts &facts);
Findings checkPrograms(const Facts &facts);

/// The findings; without findings one Ok with this text.
inline Findings orOk(Findings findings, const std::string &text)
{
    if (findings.empty())
        findings.push_back({Level::Ok, text, {}, {}});
    return findings;
}

/// For a check that needs the unit, on a machine that does not show it.
Findings unseenUnit(const Facts &facts);

/// One finding.
inline Findings one(Level level, const std::string &result, const std::string &meaning = {},
                    const std::string &action = {})
{
    return {{level, result, meaning, action}};
}

} // namespace gripperctl::doctor
