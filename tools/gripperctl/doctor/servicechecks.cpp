// The unit of the daemon, as systemd shows it, and its journal.
#include "checks.h"

#include "journal.h"
#include "text.h"

#include <algorithm>
#include <array>
#include <iterator>

#include <arpa/inet.h>

namespace gripperctl::doctor {

namespace {

Findings absentUnit(const Facts &facts)
{
    const std::string meaning = "Nothing starts the daemon at boot or after a crash.";
    return one(Level::Note, concat(facts.unit.name, " is not installed"), meaning,
               "Install the package gripperd on the machine that has the grippers.");
}

Finding maskedUnit(const Facts &facts)
{
    return {Level::Problem, concat(facts.unit.name, " is masked"),
            "systemd refuses to start the daemon.",
            concat("Run: sudo systemctl unmask ", facts.unit.name, " && sudo systemctl start ",
                   facts.unit.name)};
}

/// Whether systemd starts the daemon again and again.
bool isRestarting(const Unit &unit)
{
    return unit.value("ActiveState") == "activating" &&
           (unit.value("SubState") == "auto-restart" || unit.value("NRestarts") != "0");
}

void judgeState(const Facts &facts, Findings &findings)
{
    const Unit &unit = facts.unit;
    const std::string state = unit.value("ActiveState");
    if (isRestarting(unit)) {
        findings.push_back(
            {Level::Problem,
             concat(unit.name, " restarts again and again (", unit.value("NRestarts"), " times, ",
                    unit.value("Result"), ')'),
             "The daemon ends soon after its start.",
             "See the check port, and read the log: journalctl --namespace=gripperd"});
    } else if (state == "failed") {
        findings.push_back({Level::Problem,
                            concat(unit.name, " has failed (", unit.value("Result"), ')'),
                            "systemd does not start the daemon again.",
                            concat("Read the log: journalctl --namespace=gripperd. Then run: sudo "
                                   "systemctl restart ",
                                   unit.name)});
    } else if (state != "active" && state != "activating" && state != "reloading") {
        const bool isReplaced = facts.reply.isAnswered();
        findings.push_back({isReplaced ? Level::Note : Level::Problem,
                            concat(unit.name, " is ", state),
                            isReplaced ? "Another daemon answers, and no service restarts it."
                                       : "The service does not run.",
                            concat("Run: sudo systemctl start ", unit.name)});
    }
}

struct AddressRange
{
    int family = 0;
    std::array<unsigned char, 16> bytes = {};
    unsigned long length = 0;

    /// Reads "10.0.0.0/8". A text that is no address gives the family 0.
    static AddressRange from(const std::string &text)
    {
        AddressRange range;
        const std::size_t slash = text.find('/');
        const std::string address = text.substr(0, slash);
        const int family = address.find(':') == std::string::npos ? AF_INET : AF_INET6;
        if (::inet_pton(family, address.c_str(), range.bytes.data()) != 1)
            return range;
        range.family = family;
        range.length = family == AF_INET ? 32 : 128;
        if (slash != std::string::npos)
            range.length = decimal(text.substr(slash + 1)).value_or(range.length);
        return range;
    }

    bool contains(const AddressRange &other) const
    {
        if (family != other.family)
            return false;
        for (unsigned long bit = 0; bit < length; ++bit) {
            const unsigned mask = 0x80U >> bit % 8;
            if (((bytes[bit / 8] ^ other.bytes[bit / 8]) & mask) != 0)
                return false;
        }
        return true;
    }
};

/// Whether one of the ranges contains the address. systemd also writes "any" and "localhost".
bool isCovered(const std::vector<std::string> &ranges, const std::string &address)
{
    const AddressRange wanted = AddressRange::from(address);
    return std::any_of(ranges.begin(), ranges.end(), [&](const std::string &range) {
        const bool isLocal = range == "localhost" && isLoopback(address);
        return range == "any" || isLocal ||
               (wanted.family != 0 && AddressRange::from(range).contains(wanted));
    });
}

/// Addresses that no private network contains.
bool admitsEveryone(const std::vector<std::string> &allowed, const std::vector<std::string> &denied)
{
    const char *const foreign[] = {"192.0.2.1", "2001:db8::1"};
    return std::any_of(std::begin(foreign), std::end(foreign), [&](const char *address) {
        return isCovered(allowed, address) || !isCovered(denied, address);
    });
}

/// A line of the log, and what it means.
struct LogRow
{
    const char *text;
    Level level;
    const char *result;
    const char *meaning;
    const char *action;
};

// A line counts for the first row whose text it contains.
constexpr LogRow logRows[] = {
    {"fail counter:  5", Level::Problem, "a gripper was lost",
     "Five requests in a row had no answer, so the daemon closed the link. After an upgrade or BLD "
     "this "
     "is no fault.",
     "Check the cable, the termination and the gripper's supply."},
    {"fail counter:", Level::Note, "a request was repeated",
     "Single requests had no answer in time.",
     "If this is frequent, check the cable, the termination and the latency of the adapter."},
    {"log lines lost because nobody read them", Level::Problem, "log lines were lost",
     "The reader of the log had stopped, or the machine is too slow.",
     "Check the load of the machine, and systemctl status systemd-journald@gripperd."},
    {"Fatal:", Level::Problem, "the daemon could not run",
     "It ended, and systemd started it again. Grippers have lost speed and force.",
     "Read the line: journalctl --namespace=gripperd --grep Fatal:"},
    {"romflasher: cannot begin", Level::Problem, "an upgrade wrote nothing",
     "The flasher refused to begin.", "Read its line, and fix the cause that it names."},
    {"upgrade started :  false", Level::Problem, "the flasher did not start",
     "Polling is muted, and the gripper waits in its bootloader.",
     "Switch the gripper off and on, then run gripperctl set MUTE 0."},
    {"fail to update slave id", Level::Problem, "a gripper kept its id",
     "A change of the slave id failed half-way.", "Switch the gripper off and on."},
};

const LogRow *rowOf(const std::string &line)
{
    const auto *row =
        std::find_if(std::begin(logRows), std::end(logRows), [&](const LogRow &known) {
            return line.find(known.text) != std::string::npos;
        });
    return row == std::end(logRows) ? nullptr : row;
}

} // namespace

Findings unseenUnit(const Facts &facts)
{
    return one(Level::Unseen, facts.unit.problem, "The state of the service is unknown.",
               "If this machine has systemd, run gripperctl doctor outside of the container.");
}

Findings checkUnit(const Facts &facts)
{
    const Unit &unit = facts.unit;
    const std::string loaded = unit.value("LoadState");
    if (!unit.isShown())
        return unseenUnit(facts);
    if (loaded == "masked")
        return {maskedUnit(facts)};
    if (loaded == "not-found")
        return absentUnit(facts);
    if (loaded != "loaded")
        return one(Level::Problem, concat("systemd cannot read ", unit.name, " (", loaded, ')'),
                   "A file or a drop-in of the unit is wrong.",
                   concat("Run: systemd-analyze verify ", unit.name));
    Findings findings;
    judgeState(facts, findings);
    if (unit.value("UnitFileState") == "disabled")
        findings.push_back({Level::Problem, concat(unit.name, " is disabled"),
                            "The daemon does not start at the next boot.",
                            concat("Run: sudo systemctl enable ", unit.name)});
    if (unit.value("NeedDaemonReload") == "yes")
        findings.push_back({Level::Note, concat("the files of ", unit.name, " have changed"),
                            "systemd still uses the old ones.",
                            "Run: sudo systemctl daemon-reload. A restart applies them."});
    return orOk(findings, concat(unit.name, " is ", unit.value("ActiveState"), " and ",
                                 unit.value("UnitFileState")));
}

Findings checkAddressFilter(const Facts &facts)
{
    const Unit &unit = facts.filter;
    if (!unit.isShown())
        return unseenUnit(facts);
    if (!unit.isLoaded())
        return one(Level::Ok, "no unit, so no address filter");
    const std::vector<std::string> allowed = unit.words("IPAddressAllow");
    const std::vector<std::string> denied = unit.words("IPAddressDeny");
    for (const char *address : {"127.0.0.1", "::1"}) {
        if (isCovered(denied, address) && !isCovered(allowed, address))
            return one(Level::Problem, concat("the filter excludes this machine (", address, ')'),
                       "Programs on this machine cannot connect: gripperctl times out.",
                       concat("Add localhost to IPAddressAllow= with systemctl edit ", unit.name,
                              " (now: ", unit.dropIns(), "), and restart it."));
    }
    if (admitsEveryone(allowed, denied))
        return one(
            Level::Note, "the filter admits machines outside of private networks",
            "There is no authentication: every machine that connects can move the grippers.",
            concat(
                "Set IPAddressDeny=any and IPAddressAllow=localhost NETWORK with systemctl edit ",
                unit.name, '.'));
    return one(Level::Ok, concat("admitted: ", join(allowed)));
}

Findings checkJournal(const Facts &facts)
{
    const Run run = readJournal(facts, JournalPart::LastHour);
    if (!run.hasSucceeded())
        return one(Level::Unseen, concat("journalctl shows no log: ", run.problem()),
                   "Retries and lost lines are unknown.",
                   "Run gripperctl doctor as root or as a member of the group systemd-journal.");
    std::map<const LogRow *, int> counts;
    for (const std::string &line : linesOf(run.output)) {
        if (const LogRow *row = rowOf(line))
            ++counts[row];
    }
    Findings findings;
    for (const auto &[row, count] : counts)
        findings.push_back({row->level,
                            concat("in the last hour, ", row->result, " (lines: ", count, ')'),
                            row->meaning, row->action});
    return orOk(findings, run.output.empty() ? "the log of the last hour is empty"
                                             : "the log of the last hour has no failures");
}

} // namespace gripperctl::doctor
