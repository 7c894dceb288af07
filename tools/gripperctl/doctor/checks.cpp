#include "checks.h"

namespace gripperctl::doctor {

const char *wordOf(Level level)
{
    switch (level) {
    case Level::Ok:
        return "ok";
    case Level::Note:
        return "note";
    case Level::Unseen:
        return "unseen";
    case Level::Problem:
        return "problem";
    }
    return "";
}

const std::vector<Check> &checks()
{
    static const std::vector<Check> all{
        {"port", true, checkPort},
        {"link", true, checkLink},
        {"grippers", true, checkGrippers},
        {"unit", false, checkUnit},
        {"address-filter", false, checkAddressFilter},
        {"journal", false, checkJournal},
        {"tool-link", false, checkToolLink},
        {"permissions", false, checkPermissions},
        {"device-policy", false, checkDevicePolicy},
        {"locks", false, checkLocks},
        {"holders", false, checkHolders},
        {"modem-manager", false, checkModemManager},
        {"braille", false, checkBraille},
        {"latency", false, checkLatency},
        {"autosuspend", false, checkAutosuspend},
        {"images", false, checkImages},
        {"programs", false, checkPrograms},
    };
    return all;
}

} // namespace gripperctl::doctor
