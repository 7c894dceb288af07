// The checks of gripperctl doctor on images of machines, and the programs that they run.
#include "assertions.h"

#include "doctor/checks.h"

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include <unistd.h>

using namespace gripperctl::doctor;

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

/// The root folder of a machine, with files that the test puts there.
class Image
{
public:
    Image()
    {
        std::string path = (fs::temp_directory_path() / "doctor.XXXXXX").string();
        CHECK(::mkdtemp(path.data()) != nullptr);
        m_root = path;
    }
    ~Image()
    {
        ::setenv("PATH", m_path.c_str(), 1);
        fs::remove_all(m_root);
    }
    Image(const Image &) = delete;
    Image &operator=(const Image &) = delete;

    Image &put(const std::string &path, const std::string &text)
    {
        fs::create_directories((m_root + path).substr(0, (m_root + path).rfind('/')));
        std::ofstream(m_root + path) << text;
        return *this;
    }
    /// `target` is relative, so that it stays in the image.
    Image &link(const std::string &path, const std::string &target)
    {
        fs::create_directories((m_root + path).substr(0, (m_root + path).rfind('/')));
        fs::create_symlink(target, m_root + path);
        return *this;
    }
    /// Programs in the root folder of the image replace those of this machine.
    Image &putProgram(const std::string &name, const std::string &text)
    {
        put('/' + name, "#!/bin/sh\n" + text);
        fs::permissions(m_root + '/' + name, fs::perms::owner_all);
        ::setenv("PATH", (m_root + ':' + m_path).c_str(), 1);
        return *this;
    }
    Machine machine() const { return Machine(m_root); }

private:
    std::string m_root;
    std::string m_path = std::getenv("PATH");
};

Facts factsOf(const Machine &machine)
{
    Facts facts;
    facts.machine = machine;
    return facts;
}

Level worst(const Findings &findings)
{
    Level level = Level::Ok;
    for (const Finding &finding : findings)
        level = std::max(level, finding.level);
    return level;
}

Level filterWith(const std::string &allowed, const std::string &denied)
{
    Facts facts;
    facts.filter.properties = {
        {"LoadState", "loaded"}, {"IPAddressAllow", allowed}, {"IPAddressDeny", denied}};
    return worst(checkAddressFilter(facts));
}

/// /dev/null is a device of the kind "mem" on every machine. No check opens it.
Level policyFor(const std::string &policy, const std::vector<std::string> &allowed)
{
    Facts facts;
    SerialPort port;
    port.names = {"null"};
    port.node = facts.machine.status("/dev/null");
    facts.ports.push_back(port);
    facts.unit.properties = {{"LoadState", "loaded"}, {"DevicePolicy", policy}};
    for (const std::string &line : allowed)
        facts.unit.properties.emplace("DeviceAllow", line);
    return worst(checkDevicePolicy(facts));
}

} // namespace

TEST(aProgramHasOutputErrorsAndAStatus)
{
    const Run run = Machine::run({"sh", "-c", "echo out; echo why >&2; exit 3"});
    CHECK(run.end == Run::End::Exited && run.status == 3 && !run.hasSucceeded());
    CHECK(run.output == "out\n" && run.problem() == "why");
    CHECK(Machine::run({"true"}).hasSucceeded());
    CHECK(Machine::run({"sh", "-c", "kill -TERM $$"}).status == 128 + SIGTERM);
}

TEST(aMissingProgramIsNoException)
{
    const Run run = Machine::run({"no-such-program"});
    CHECK(run.end == Run::End::Missing && run.problem() == "the program is not installed");
}

TEST(aProgramGetsNoInputAndPlainMessages)
{
    ::setenv("LC_ALL", "xx_YY", 1);
    CHECK(Machine::run({"sh", "-c", "cat; echo $LC_ALL"}).output == "C\n");
}

TEST(aProgramThatHangsEndsWithItsChildren)
{
    const auto begin = Clock::now();
    const Run run = Machine::run({"sh", "-c", "sleep 60 & echo $!; wait"}, milliseconds(100));
    CHECK(run.end == Run::End::TimedOut && !run.hasSucceeded());
    CHECK(Clock::now() - begin < std::chrono::seconds(5));
    const std::string stat = "/proc/" + trimmed(run.output) + "/stat";
    const auto hasEnded = [&] {
        const std::string line = Machine().line(stat);
        // An orphan that has ended may still be listed.
        return line.empty() || line.find(") Z ") != std::string::npos;
    };
    while (!hasEnded() && Clock::now() - begin < std::chrono::seconds(10))
        ::usleep(1000);
    CHECK(hasEnded());
}

TEST(aProgramThatClosesItsOutputStillHasADeadline)
{
    const auto begin = Clock::now();
    const Run run = Machine::run({"sh", "-c", "exec >&- 2>&-; exec sleep 60"}, milliseconds(100));
    CHECK(run.end == Run::End::TimedOut);
    CHECK(Clock::now() - begin < std::chrono::seconds(5));
}

TEST(aMachineReadsNoDevice)
{
    CHECK(!Machine().read("/dev/zero"));
    CHECK(Machine().line("/proc/self/comm") == "tst_doctor");
    CHECK(!Machine().list("/no/such/folder"));
}

TEST(processesHaveTheirFilesAndParents)
{
    Image image;
    image.put("/dev/ttyUSB0", "")
        .put("/proc/7/comm", "a) (b\n")
        .put("/proc/7/stat", "7 (a) (b) S 3 7 7 0\n")
        .link("/proc/7/fd/5", "../../../dev/ttyUSB0")
        .link("/proc/7/fd/6", "socket:[4711]")
        .put("/proc/3/comm", "shell\n")
        .put("/proc/3/stat", "3 (shell) S 1 3 3 0\n")
        .put("/proc/self-is-no-process", "");
    const Machine machine = image.machine();
    const std::vector<Process> processes = processesOf(machine);
    CHECK(processes.size() == 2);
    const Process *process = findProcess(processes, 7);
    CHECK(process != nullptr && process->text() == "a) (b (process 7)");
    CHECK(process->sockets == std::vector<std::string>{"4711"});
    CHECK(process->areFilesVisible && !findProcess(processes, 3)->areFilesVisible);
    CHECK(process->hasOpen(FileId::of(*machine.status("/dev/ttyUSB0"))));
    CHECK(descendsFrom(processes, 7, 3) && !descendsFrom(processes, 3, 7));
}

TEST(portsAreTheToolLinkAndTheAdapters)
{
    Image image;
    image.put("/dev/ttyUSB0", "")
        .put("/dev/ttyACM1", "")
        .put("/dev/ttyS0", "")
        .link("/dev/ttyTool", "ttyUSB0")
        .put("/sys/devices/usb1/1-1/idVendor", "0403\n")
        .put("/sys/devices/usb1/1-1/1-1:1.0/ttyUSB0/latency_timer", "16\n")
        .put("/sys/devices/usb1/1-1/1-1:1.0/ttyUSB0/tty/ttyUSB0/dev", "188:0\n")
        .link("/sys/devices/usb1/1-1/1-1:1.0/ttyUSB0/tty/ttyUSB0/device", "../../../ttyUSB0")
        .link("/sys/class/tty/ttyUSB0", "../../devices/usb1/1-1/1-1:1.0/ttyUSB0/tty/ttyUSB0")
        .put("/sys/class/tty/ttyACM1/dev", "166:1\n")
        .put("/sys/class/tty/ttyS0/dev", "4:64\n");
    const std::vector<SerialPort> ports = serialPortsOf(image.machine(), "ttyTool");
    CHECK(ports.size() == 2);
    CHECK(ports[0].text() == "ttyTool -> ttyUSB0" && ports[0].isTool);
    CHECK(ports[0].adapter == "/sys/devices/usb1/1-1/1-1:1.0/ttyUSB0");
    CHECK(ports[0].usb == "/sys/devices/usb1/1-1");
    CHECK(ports[1].text() == "ttyACM1" && !ports[1].isTool && ports[1].usb.empty());
    Facts facts = factsOf(image.machine());
    facts.ports = ports;
    CHECK(checkLatency(facts).front().result == "the latency timer of /dev/ttyUSB0 is 16 ms");
}

TEST(linksInACircleLeadToNothing)
{
    Image image;
    image.link("/dev/ttyTool", "ttyUSB0").link("/dev/ttyUSB0", "ttyTool");
    const std::vector<SerialPort> ports = serialPortsOf(image.machine(), "ttyTool");
    CHECK(ports.size() == 1 && !ports.front().node);
}

TEST(aBrailleRuleIsNamedIfBrlttyRuns)
{
    Image image;
    image.put("/dev/ttyUSB0", "")
        .put("/sys/class/tty/ttyUSB0/device/idVendor", "0403\n")
        .put("/sys/class/tty/ttyUSB0/device/idProduct", "6001\n")
        .put("/lib/udev/rules.d/85-brltty.rules", "ENV{PRODUCT}==\"403/6001/*\", ...\n");
    Facts facts = factsOf(image.machine());
    facts.ports = serialPortsOf(facts.machine, "ttyTool");
    CHECK(worst(checkBraille(facts)) == Level::Ok);
    facts.processes.push_back({1, 0, "brltty", true, {}, {}});
    CHECK(worst(checkBraille(facts)) == Level::Note);
    image.put("/sys/class/tty/ttyUSB0/device/idProduct", "6002\n");
    CHECK(worst(checkBraille(facts)) == Level::Ok);
}

TEST(theRightsOfAUserComeFromItsGroups)
{
    Image image;
    image.put("/etc/passwd", "root:x:0:0::/:\ngripperd:x:990:990::/:\n")
        .put("/etc/group", "dialout:x:20:me,gripperd\ngripperd:x:990:\ntape:x:26:\n");
    const auto credentials = credentialsOf(image.machine(), "gripperd", {"tape"});
    CHECK(credentials && credentials->user == 990);
    CHECK(credentials->groups == (std::vector<unsigned long>{990, 20, 26}));
    CHECK(!credentialsOf(image.machine(), "nobody", {}));
    struct stat port = {};
    port.st_gid = 20;
    port.st_mode = S_IFCHR | 0660;
    CHECK(credentials->may(06, port));
    port.st_gid = 21;
    CHECK(!credentials->may(06, port) && credentialsOf(image.machine(), "root", {})->may(06, port));
    port.st_uid = 990;
    port.st_mode = S_IFCHR | 0466;
    CHECK(!credentials->may(06, port) && credentials->may(04, port));
}

TEST(theRightsOfAProcessComeFromItsStatus)
{
    Image image;
    image.put("/proc/5/status", "Name:\tgripperd\nUid:\t1\t990\t1\t1\nGid:\t1\t991\t1\t1\n"
                                "Groups:\t20 26 \nCapEff:\t0000000000000004\n");
    const auto credentials = credentialsOf(image.machine(), 5);
    CHECK(credentials && credentials->user == 990 && !credentials->mayOverride);
    CHECK(credentials->mayReadAll);
    CHECK(credentials->groups == (std::vector<unsigned long>{991, 20, 26}));
    CHECK(!credentialsOf(image.machine(), 6));
}

TEST(theAddressFilterAdmitsThisMachineAndNotAll)
{
    const std::string every = "0.0.0.0/0 ::/0";
    CHECK(filterWith("127.0.0.0/8 ::1/128 10.0.0.0/8", every) == Level::Ok);
    CHECK(filterWith("localhost 10.0.0.0/8", "any") == Level::Ok);
    CHECK(filterWith("10.0.0.0/8", every) == Level::Problem);
    CHECK(filterWith("127.0.0.0/8", every) == Level::Problem);
    CHECK(filterWith("", every) == Level::Problem);
    CHECK(filterWith("", "") == Level::Note);
    CHECK(filterWith("127.0.0.0/8 ::1/128 0.0.0.0/1 128.0.0.0/1", every) == Level::Note);
}

TEST(theClientsOfAnInstanceMeetItsSocket)
{
    Image image;
    image
        .putProgram("systemctl", "shift 3; echo LoadState=loaded; echo MainPID=7; echo\n"
                                 "echo IPAddressAllow=10.0.0.0/8; echo IPAddressDeny=any\n"
                                 "echo LoadState=loaded; echo DropInPaths=$*\n")
        .put("/proc/net/tcp", "0: 00000000:F7A9 00000000:0000 0A 0:0 0:0 0 0 0 4711 1\n")
        .put("/proc/1/comm", "systemd\n")
        .link("/proc/1/fd/5", "socket:[4711]")
        .put("/proc/7/comm", "gripperd\n");
    const Facts facts = gather(image.machine(), {"127.0.0.1", 63401}, Reply(), {});
    CHECK(facts.unit.name == "gripperd@63401.service" && facts.daemon == 7);
    CHECK(facts.filter.dropIns() == "gripperd@63401.service, gripperd-forward@63401.socket");
    CHECK(worst(checkAddressFilter(facts)) == Level::Problem);
    CHECK(checkPort(facts).front().result ==
          "systemd (process 1) has port 63401 and does not answer");
}

TEST(theDevicePolicyContainsThePort)
{
    CHECK(policyFor("auto", {}) == Level::Ok);
    CHECK(policyFor("auto", {""}) == Level::Ok);
    CHECK(policyFor("closed", {}) == Level::Problem);
    CHECK(policyFor("closed", {"char-mem rw"}) == Level::Ok);
    CHECK(policyFor("closed", {"char-ttyUSB rw", "char-m* rwm"}) == Level::Ok);
    CHECK(policyFor("closed", {"char-mem r"}) == Level::Problem);
    CHECK(policyFor("auto", {"char-ttyUSB rw"}) == Level::Problem);
    CHECK(policyFor("strict", {"/dev/null rw"}) == Level::Ok);
    CHECK(policyFor("strict", {"/dev/zero rw"}) == Level::Problem);
}

int main()
{
    return runTests();
}
