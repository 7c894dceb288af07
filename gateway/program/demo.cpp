#include "demo.h"

#include <gripper/errors.h>
#include <gripper/line.h>

#include <array>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace gateway {

namespace fs = std::filesystem;

namespace {

/// The gripper 9 has an older firmware, so that an upgrade has something to do. Its bootloader
/// takes as long as on a real line.
const std::vector<std::string> simulatorWords = {
    "--gripper", "9=TA3-1.6.13", "--object",         "9=140",
    "--gripper", "2=TE1-2.0.2",  "--bootloader-bps", "19200"};
constexpr const char *imageVersion = "TA3-1.6.14";
constexpr const char *imageBytes = "12288";

const std::vector<int> gripperIds = {2, 9};

/// On a busy machine, the first scan may miss a gripper. The daemon does not look for it again.
void waitForTheGrippers()
{
    gripper::Line line;
    const gripper::Deadline end(gripper::Line::runningTimeout);
    line.waitUntilRunning();
    std::vector<int> found = line.grippers();
    while (found != gripperIds && !end.isOver())
        found = line.scan();
    // Its error names what is missing.
    line.waitUntilRunning(gripperIds, gripper::Seconds(5));
}

fs::path ownFolder()
{
    return fs::read_symlink("/proc/self/exe").parent_path();
}

/// A program of the package: beside this one, or in the other folder of programs.
std::string programPath(const char *name)
{
    for (const char *folder : {".", "../sbin", "../bin"}) {
        const fs::path path = ownFolder() / folder / name;
        if (fs::exists(path))
            return path.lexically_normal();
    }
    throw std::runtime_error(std::string("the demo needs the program ") + name +
                             " of the packages gripperd and gripper-simulator");
}

/// The script that gives a program its own /dev: of the package, or of the source tree.
std::string isolatedPath()
{
    for (const char *place : {"../libexec/gripperd/isolated", "../../../scripts/isolated"}) {
        const fs::path path = ownFolder() / place;
        if (fs::exists(path))
            return path.lexically_normal();
    }
    throw std::runtime_error("the demo needs the script isolated of its package");
}

bool isDaemonRunning()
{
    try {
        gripper::Line().state(gripper::Seconds(1));
        return true;
    } catch (const gripper::CommunicationError &) {
        return false;
    }
}

std::vector<char *> pointersTo(const std::vector<std::string> &words)
{
    std::vector<char *> pointers;
    pointers.reserve(words.size() + 1);
    for (const std::string &word : words)
        pointers.push_back(const_cast<char *>(word.c_str()));
    pointers.push_back(nullptr);
    return pointers;
}

} // namespace

bool Demo::isIsolated()
{
    const char *outer = std::getenv("GRIPPERD_OUTER_MNT");
    return outer != nullptr && fs::read_symlink("/proc/self/ns/mnt") != outer;
}

void Demo::isolate(char **argv)
{
    std::vector<std::string> words = {isolatedPath(), fs::read_symlink("/proc/self/exe")};
    for (char **word = argv + 1; *word != nullptr; ++word)
        words.emplace_back(*word);
    execv(words.front().c_str(), pointersTo(words).data());
    throw std::system_error(errno, std::generic_category(), "cannot run " + words.front());
}

Demo::Demo()
{
    if (isDaemonRunning())
        throw std::runtime_error("a gripperd runs already: end it first, or leave out --demo");
    std::string folder = fs::temp_directory_path() / "gripper-gateway-demo-XXXXXX";
    if (mkdtemp(folder.data()) == nullptr)
        throw std::system_error(errno, std::generic_category(), "cannot make a folder");
    m_folder = folder;
    try {
        putTheFlasherBesideTheDaemon();
        startSimulator();
        startDaemon();
    } catch (...) {
        end();
        throw;
    }
}

Demo::~Demo()
{
    end();
}

void Demo::putTheFlasherBesideTheDaemon()
{
    fs::create_symlink(programPath("romflasher"), fs::path(m_folder) / "romflasher");
    fs::create_directory(fs::path(m_folder) / "firmware");
    const std::string image = std::string("firmware/") + imageVersion + ".bin";
    const pid_t maker =
        spawn({programPath("gripper-firmware-image"), imageVersion, image, imageBytes}, -1);
    m_children.pop_back();
    int status = 0;
    if (waitpid(maker, &status, 0) != maker || status != 0)
        throw std::runtime_error("gripper-firmware-image failed");
}

void Demo::startSimulator()
{
    std::array<int, 2> pipe{};
    if (pipe2(pipe.data(), O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "cannot make a pipe");
    std::vector<std::string> words = {programPath("gripper-simulator")};
    words.insert(words.end(), simulatorWords.begin(), simulatorWords.end());
    spawn(words, pipe[1]);
    close(pipe[1]);
    // The first line says that the line exists. The end of the program ends the wait as well.
    char byte = 0;
    bool isReady = false;
    while (!isReady && read(pipe[0], &byte, 1) == 1)
        isReady = byte == '\n';
    close(pipe[0]);
    if (!isReady)
        throw std::runtime_error("gripper-simulator did not start");
}

void Demo::startDaemon()
{
    const int log =
        open((m_folder + "/gripperd.log").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    spawn({programPath("gripperd")}, log);
    close(log);
    try {
        waitForTheGrippers();
    } catch (const gripper::Error &error) {
        throw std::runtime_error(std::string("the daemon of the demo: ") + error.what());
    }
}

pid_t Demo::spawn(const std::vector<std::string> &words, int output)
{
    const std::vector<char *> pointers = pointersTo(words);
    const pid_t child = fork();
    if (child < 0)
        throw std::system_error(errno, std::generic_category(), "cannot start " + words.front());
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // Ctrl-C reaches only the gateway, which then ends the others.
        setsid();
        const int null = open("/dev/null", O_RDWR);
        dup2(null, STDIN_FILENO);
        dup2(output < 0 ? null : output, STDOUT_FILENO);
        dup2(output < 0 ? null : output, STDERR_FILENO);
        if (chdir(m_folder.c_str()) == 0)
            execv(pointers.front(), pointers.data());
        _exit(127);
    }
    m_children.push_back(child);
    return child;
}

void Demo::end()
{
    for (auto child = m_children.rbegin(); child != m_children.rend(); ++child) {
        kill(*child, SIGTERM);
        waitpid(*child, nullptr, 0);
    }
    m_children.clear();
    std::error_code ignored;
    fs::remove_all(m_folder, ignored);
}

} // namespace gateway
