#include "bundle.h"

#include "journal.h"
#include "text.h"
#include "version.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <stdlib.h>

namespace gripperctl::doctor {

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds packTimeout{10000};
constexpr int jsonIndent = 2;
const std::string folderName = "gripperd-support";

[[noreturn]] void fail(const std::string &path, const std::string &problem)
{
    throw Failure(ExitCode::LocalProblem, concat("cannot write ", path, ": ", problem));
}

/// A folder beside the bundle, which only this user can read. The destructor removes it.
class WorkFolder
{
public:
    explicit WorkFolder(const std::string &bundle)
        : m_path(bundle + ".XXXXXX")
    {
        if (::mkdtemp(m_path.data()) == nullptr)
            fail(bundle, std::strerror(errno));
    }
    ~WorkFolder()
    {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    WorkFolder(const WorkFolder &) = delete;
    WorkFolder &operator=(const WorkFolder &) = delete;

    const std::string &path() const { return m_path; }

private:
    std::string m_path;
};

std::string indented(const Json &json)
{
    return json.dump(jsonIndent, ' ', false, Json::error_handler_t::replace) + '\n';
}

/// The output of a program, or why there is no output.
std::string outputOf(const Run &run)
{
    return run.hasSucceeded() ? run.output : concat("not available: ", run.problem(), '\n');
}

std::string titled(const std::string &title, const std::string &text)
{
    return concat("== ", title, '\n', text, text.empty() || text.back() == '\n' ? "" : "\n", '\n');
}

/// The files of a unit without the settings that may contain a password.
std::string withoutSecrets(const std::string &unit)
{
    std::string text;
    bool isContinued = false;
    for (const std::string &line : linesOf(unit)) {
        const std::string setting = trimmed(line.substr(0, line.find('=')));
        const bool isSecret = setting == "Environment" || startsWith(setting, "SetCredential");
        const bool isHidden = isContinued || isSecret;
        if (!isContinued)
            text += isSecret ? setting + "=(removed)\n" : line + '\n';
        isContinued = isHidden && !line.empty() && line.back() == '\\';
    }
    return text;
}

std::string unitText(const Facts &facts)
{
    std::string shown = facts.unit.problem;
    for (const auto &[property, value] : facts.unit.properties)
        shown += concat(property, '=', value, '\n');
    const Run files = Machine::run({"systemctl", "cat", "--no-pager", facts.unit.name});
    return titled("systemctl show", shown) +
           titled("systemctl cat", withoutSecrets(outputOf(files)));
}

std::string versionsText(const Facts &facts)
{
    const Run packages =
        Machine::run({"dpkg-query", "--show", "gripper*", "libgripper*", "python3-gripperd-client",
                      "systemd", "psmisc", "stm32flash", "modemmanager", "brltty"});
    return titled("gripperctl", tools::version) + titled("driver", facts.reply.driver) +
           titled("kernel", facts.machine.line("/proc/version")) +
           titled("system", facts.machine.read("/etc/os-release").value_or("")) +
           // It fails if one of the packages is unknown, and lists the others.
           titled("packages", packages.output);
}

std::string processText(const Facts &facts)
{
    std::string text;
    for (const char *file : {"status", "limits", "cgroup"}) {
        const std::string path = concat("/proc/", facts.daemon, '/', file);
        text += titled(path, facts.machine.read(path).value_or("not visible"));
    }
    return text;
}

std::string nodeText(const SerialPort &port)
{
    if (!port.node)
        return "leads to nothing\n";
    std::ostringstream text;
    text << "mode " << std::oct << port.node->st_mode << std::dec << ", user " << port.node->st_uid
         << ", group " << port.node->st_gid << '\n';
    return text.str();
}

std::string portText(const Facts &facts, const SerialPort &port)
{
    std::string text = nodeText(port);
    const auto append = [&](const std::string &folder, const char *file) {
        const std::string path = concat(folder, '/', file);
        const std::string line = facts.machine.line(path);
        if (!folder.empty() && !line.empty())
            text += concat(path, ": ", line, '\n');
    };
    append(port.adapter, "latency_timer");
    for (const char *file : {"idVendor", "idProduct", "manufacturer", "product", "serial", "speed",
                             "power/control", "power/autosuspend_delay_ms", "power/runtime_status"})
        append(port.usb, file);
    return titled(port.text(), text);
}

std::string listText(const Machine &machine, const std::string &folder)
{
    return titled(folder, join(machine.list(folder).value_or(std::vector<std::string>()), "\n"));
}

std::string machineText(const Facts &facts)
{
    std::string text;
    for (const SerialPort &port : facts.ports)
        text += portText(facts, port);
    for (const char *folder : {"/run/lock", "/etc/udev/rules.d", "/run/udev/rules.d",
                               "/lib/udev/rules.d", "/sys/class/tty"})
        text += listText(facts.machine, folder);
    if (!facts.workingDirectory().empty()) {
        text += listText(facts.machine, facts.workingDirectory());
        text += listText(facts.machine, facts.workingDirectory() + "/firmware");
    }
    for (const char *file : {"/proc/devices", "/proc/uptime", "/proc/loadavg", "/proc/meminfo"})
        text += titled(file, facts.machine.read(file).value_or(""));
    return facts.daemon == 0 ? text : text + processText(facts);
}

void writeFile(const std::string &path, const std::string &text)
{
    std::ofstream file(path, std::ios::binary);
    file << text;
    file.close();
    if (!file)
        fail(path, std::strerror(errno));
}

void pack(const std::string &folder, const std::string &archive)
{
    const Run run = Machine::run({"tar", "--create", "--gzip", "--file", archive, "--directory",
                                  folder, "--owner=0", "--group=0", "--numeric-owner", folderName},
                                 packTimeout);
    if (!run.hasSucceeded())
        fail(archive, concat("tar failed: ", run.problem()));
}

} // namespace

void refuseExisting(const std::string &path)
{
    std::error_code ignored;
    if (fs::exists(fs::symlink_status(path, ignored)))
        fail(path, "the file exists; give another name");
}

void writeBundle(const Facts &facts, const Json &report, const Json &status,
                 const std::string &path)
{
    const WorkFolder work(path);
    const std::string folder = concat(work.path(), '/', folderName, '/');
    std::error_code error;
    fs::create_directory(folder, error);
    writeFile(folder + "doctor.json", indented(report));
    writeFile(folder + "status.json", indented(status));
    writeFile(folder + "versions.txt", versionsText(facts));
    if (facts.isHere) {
        writeFile(folder + "unit.txt", unitText(facts));
        writeFile(folder + "journal.txt", outputOf(readJournal(facts, JournalPart::Latest)));
        writeFile(folder + "machine.txt", machineText(facts));
    }
    const std::string archive = work.path() + "/archive";
    pack(work.path(), archive);
    fs::permissions(archive, fs::perms::owner_read | fs::perms::owner_write, error);
    if (error)
        fail(path, error.message());
    if (::renameat2(AT_FDCWD, archive.c_str(), AT_FDCWD, path.c_str(), RENAME_NOREPLACE) != 0)
        fail(path, std::strerror(errno));
}

} // namespace gripperctl::doctor
