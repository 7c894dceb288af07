// USB adapters: programs that seize them, and their settings.
#include "checks.h"

#include "text.h"

#include <algorithm>

namespace gripperctl::doctor {

namespace {

constexpr unsigned long wantedLatencyMs = 1;
const std::string installRules = "Install packaging/udev/91-gripperd.rules (part of the package) "
                                 "into /lib/udev/rules.d, and unplug "
                                 "the adapter once.";
const std::string usbDevice = "c"; // the database names character devices in this way

std::vector<const SerialPort *> adapters(const Facts &facts)
{
    std::vector<const SerialPort *> found;
    for (const SerialPort &port : facts.ports) {
        if (port.node && !port.adapter.empty())
            found.push_back(&port);
    }
    return found;
}

const Process *findProgram(const Facts &facts, const std::string &name)
{
    const auto found = std::find_if(facts.processes.begin(), facts.processes.end(),
                                    [&](const Process &process) { return process.name == name; });
    return found == facts.processes.end() ? nullptr : &*found;
}

bool isHiddenFromModemManager(const Machine &machine, const SerialPort &port)
{
    const auto isSet = [&](const std::string &folder, const char *property) {
        return udevProperty(machine, folder, usbDevice, property) == "1";
    };
    const std::string tty = machine.canonical("/sys/class/tty/" + port.name());
    return isSet(tty, "ID_MM_DEVICE_IGNORE") || isSet(tty, "ID_MM_PORT_IGNORE") ||
           isSet(port.usb, "ID_MM_DEVICE_IGNORE");
}

/// The way in which rules name the USB device: "403/6001/".
std::string productOf(const Machine &machine, const SerialPort &port)
{
    const auto plain = [&](const char *file) {
        const std::string number = machine.line(port.usb + file);
        return number.substr(std::min(number.find_first_not_of('0'), number.size()));
    };
    return concat(plain("/idVendor"), '/', plain("/idProduct"), '/');
}

/// A rule that gives the adapter to brltty; empty without one.
std::string brailleRuleFor(const Machine &machine, const std::string &product)
{
    for (const char *folder : {"/etc/udev/rules.d", "/run/udev/rules.d", "/lib/udev/rules.d"}) {
        for (const std::string &name : machine.list(folder).value_or(std::vector<std::string>())) {
            std::string path = concat(folder, '/', name);
            if (name.find("brltty") != std::string::npos &&
                machine.read(path).value_or("").find('"' + product) != std::string::npos)
                return path;
        }
    }
    return {};
}

} // namespace

Findings checkModemManager(const Facts &facts)
{
    const Process *manager = findProgram(facts, "ModemManager");
    if (manager == nullptr)
        return one(Level::Ok, "ModemManager does not run");
    Findings findings;
    for (const SerialPort *port : adapters(facts)) {
        if (!isHiddenFromModemManager(facts.machine, *port))
            findings.push_back(
                {Level::Problem, concat(manager->text(), " may use ", port->path()),
                 "It opens a new adapter for half a minute and sends to the gripper.",
                 "Set ID_MM_DEVICE_IGNORE for the adapter by a udev rule. " + installRules});
    }
    return orOk(findings, concat(manager->text(), " leaves the adapters alone"));
}

Findings checkBraille(const Facts &facts)
{
    Findings findings;
    for (const SerialPort *port : adapters(facts)) {
        if (port->usb.empty())
            continue;
        const std::string rule = brailleRuleFor(facts.machine, productOf(facts.machine, *port));
        const bool isGiven =
            !udevProperty(facts.machine, port->usb, usbDevice, "BRLTTY_BRAILLE_DRIVER").empty();
        if (isGiven)
            findings.push_back({Level::Problem,
                                concat("brltty treats ", port->path(), " as a braille display"),
                                "It takes the adapter away from its driver, and the port vanishes.",
                                "Remove brltty (sudo apt remove brltty), or: " + installRules});
        else if (!rule.empty() && findProgram(facts, "brltty") != nullptr)
            findings.push_back(
                {Level::Note, concat(rule, " names the adapter ", port->path()),
                 "When it is plugged in, brltty may take it, unless a later rule prevents this.",
                 "Make sure that 91-gripperd.rules is installed."});
    }
    return orOk(findings, "brltty leaves the adapters alone");
}

Findings checkLatency(const Facts &facts)
{
    Findings findings;
    for (const SerialPort *port : adapters(facts)) {
        const std::string file = port->adapter + "/latency_timer";
        const auto latency = decimal(facts.machine.line(file));
        if (latency && *latency > wantedLatencyMs)
            findings.push_back(
                {Level::Problem,
                 concat("the latency timer of ", port->path(), " is ", *latency, " ms"),
                 "Every answer of a gripper is late by up to this time, so values are older.",
                 concat("Run: echo ", wantedLatencyMs, " | sudo tee ", file,
                        ". For every start: " + installRules)});
    }
    return orOk(findings, "no adapter delays answers");
}

Findings checkAutosuspend(const Facts &facts)
{
    Findings findings;
    for (const SerialPort *port : adapters(facts)) {
        const std::string folder = port->usb + "/power/";
        const std::string delay = facts.machine.line(folder + "autosuspend_delay_ms");
        const bool isSuspendable =
            facts.machine.line(folder + "control") == "auto" && !startsWith(delay, "-");
        if (!port->usb.empty() && isSuspendable)
            findings.push_back(
                {Level::Problem,
                 concat("the USB adapter of ", port->path(), " is suspended after ",
                        delay.empty() ? "?" : delay, " ms without use"),
                 "Many adapters lose bytes or vanish when they wake up.",
                 concat("Run: echo on | sudo tee ", folder,
                        "control. For every start, exclude the adapter in the program that saves "
                        "power.")});
    }
    return orOk(findings, "no adapter is suspended");
}

} // namespace gripperctl::doctor
