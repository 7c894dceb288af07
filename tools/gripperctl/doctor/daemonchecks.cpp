// The daemon, its port and its grippers.
#include "checks.h"

#include "gripperview.h"
#include "text.h"

#include <algorithm>
#include <iterator>

namespace gripperctl::doctor {

namespace {

const std::string readLog = "read the log: journalctl --namespace=gripperd";

/// A state of the link that is not the usual one.
struct LinkRow
{
    const char *text;
    const char *meaning;
    const char *action;
};

constexpr LinkRow linkRows[] = {
    {"SCANNING", "The daemon has found no gripper yet.",
     "Switch the gripper on, check its cable, and run gripperctl scan."},
    {"ERR_TIMEOUT", "A gripper has stopped answering, and the daemon looks for it.",
     "Check the gripper's power, the wires A and B, and the termination."},
    {"ERR_SCANNING (EIO)", "The serial port has vanished or no gripper is left on it.",
     "Plug the adapter in, or check the power of the tool flange and of the gripper."},
};

Finding findingOf(const Reply &reply, const std::string &host)
{
    switch (reply.end) {
    case Reply::End::Answered:
        return {Level::Ok, concat("gripperd answers on ", host), {}, {}};
    case Reply::End::NoConnection:
        return {Level::Problem, reply.problem, "No client can command the grippers.",
                "Start the daemon: sudo systemctl start gripperd"};
    case Reply::End::Silent:
        return {
            Level::Problem, concat("no answer from ", host, " in time"),
            "The daemon is stopped or busy, or a firewall or the address filter of its unit drops "
            "the packets.",
            "Check the address filter and the firewall of that machine, and run gripperctl doctor "
            "there."};
    case Reply::End::Foreign:
        return {Level::Problem, concat("another program answers on ", host),
                concat("It is no gripperd: ", reply.problem),
                "Check the address and the port of --host."};
    }
    return {};
}

/// Whether the service exists, but another gripperd has its port.
bool isStray(const Unit &unit, const Process &process)
{
    return unit.isLoaded() && unit.value("ActiveState") != "inactive" &&
           unit.mainProcess() != process.pid;
}

/// For a port on which a process listens.
Finding findingOf(const Facts &facts, const std::string &name, bool isGripperd)
{
    const std::string result = concat(name, " has port ", facts.endpoint.port);
    if (facts.reply.isAnswered())
        return {Level::Ok, result + ", and gripperd answers", {}, {}};
    if (isGripperd)
        return {Level::Problem, result + " and does not answer",
                "The daemon is stopped or busy, or the address filter of its unit excludes this "
                "machine.",
                "See the check address-filter, and " + readLog};
    return {Level::Problem, result + " and is not gripperd",
            "The daemon cannot listen, so no client can command the grippers.",
            concat("End that program, then run: sudo systemctl restart ", facts.unit.name)};
}

Finding findingOf(const Facts &facts, const Listener &listener)
{
    const Process *process = findProcess(facts.processes, listener.pid);
    if (process == nullptr)
        return findingOf(facts, concat("a process of user ", listener.user), true);
    if (process->name == daemonName && isStray(facts.unit, *process))
        return {Level::Problem,
                concat(process->text(), " has port ", facts.endpoint.port,
                       " and does not belong to ", facts.unit.name),
                "The service cannot listen, and nothing restarts the daemon that does.",
                concat("Run: sudo kill ", process->pid, ". The service then starts by itself.")};
    return findingOf(facts, process->text(), facts.listensForDaemon(*process));
}

} // namespace

Findings checkPort(const Facts &facts)
{
    const std::string host = facts.endpoint.text();
    if (facts.listeners.empty())
        return {findingOf(facts.reply, host)};
    Findings findings;
    for (const Listener &listener : facts.listeners) {
        const Finding finding = findingOf(facts, listener);
        // The same process listens on IPv4 and IPv6.
        const auto isSame = [&](const Finding &other) { return other.result == finding.result; };
        if (std::none_of(findings.begin(), findings.end(), isSame))
            findings.push_back(finding);
    }
    return findings;
}

Findings checkLink(const Facts &facts)
{
    if (!facts.reply.isAnswered())
        return one(Level::Unseen, "the daemon does not answer", "The state of the link is unknown.",
                   "See the check port.");
    const std::string &link = facts.reply.link;
    if (link == linkRuns)
        return one(Level::Ok, "the link is RUNNING");
    const auto *row = std::find_if(std::begin(linkRows), std::end(linkRows),
                                   [&](const LinkRow &known) { return known.text == link; });
    const bool isKnown = row != std::end(linkRows);
    return one(Level::Problem, concat("the link is ", link),
               isKnown ? row->meaning : "The daemon does not poll a gripper.",
               isKnown ? row->action : "Run gripperctl scan, and " + readLog);
}

Findings checkGrippers(const Facts &facts)
{
    if (!facts.reply.isAnswered())
        return one(Level::Unseen, "the daemon does not answer", "Its grippers are unknown.",
                   "See the check port.");
    std::vector<int> missing;
    const std::vector<int> &ids = facts.reply.ids;
    std::copy_if(facts.expected.begin(), facts.expected.end(), std::back_inserter(missing),
                 [&](int id) { return std::find(ids.begin(), ids.end(), id) == ids.end(); });
    if (missing.empty())
        return one(Level::Ok, concat("grippers found: ", listOfIds(ids)));
    return one(Level::Problem,
               concat("gripper ", join(missing), " is missing (found: ", listOfIds(ids), ')'),
               "While another gripper answers, the daemon does not look for it.",
               "Check its power and its cable, then run gripperctl scan.");
}

} // namespace gripperctl::doctor
