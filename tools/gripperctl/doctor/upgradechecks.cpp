// The files that an upgrade needs, and the programs that the daemon starts.
#include "checks.h"

#include "text.h"

#include <algorithm>
#include <sstream>

namespace gripperctl::doctor {

namespace {

/// The firmware image of a family. A test compares the rows with the daemon's.
struct ImageRow
{
    char letter;      ///< the second character of the firmware version
    const char *path; ///< relative to the working directory of the daemon
};

constexpr ImageRow imageRows[] = {
    {'A', "firmware/TA3-1.6.14.bin"},
    {'B', "firmware/TB1-1.4.3.bin"},
    {'E', "firmware/TE1-2.0.2.bin"},
    {'F', "firmware/TF1-2.0.2.bin"},
};

/// A program that the daemon or the flasher finds on its search path.
struct ProgramRow
{
    const char *name;
    Level level;
    const char *meaning;
    const char *action;
};

constexpr ProgramRow programRows[] = {
    {"fuser", Level::Problem, "The daemon treats every USB port as in use.",
     "Run: sudo apt install psmisc"},
    {"stm32flash", Level::Note, "The flasher of the package cannot write firmware without it.",
     "Run: sudo apt install stm32flash"},
};

constexpr unsigned readable = 4;
constexpr unsigned executable = 1;
const std::string folderUnseen = "the daemon's working directory is not visible";

bool may(const Facts &facts, unsigned wanted, const struct stat &file)
{
    return !facts.credentials || facts.credentials->may(wanted, file);
}

Findings unseenFolder()
{
    return one(Level::Unseen, folderUnseen, "Its firmware images and programs are unknown.",
               "Run sudo gripperctl doctor while the daemon runs.");
}

/// The grippers of a family: "9".
std::vector<int> grippersOf(const Facts &facts, char letter)
{
    std::vector<int> ids;
    for (const auto &[id, version] : facts.reply.firmware) {
        if (version.size() > 1 && version[1] == letter)
            ids.push_back(id);
    }
    return ids;
}

void judgeImage(const Facts &facts, const std::string &path, const std::vector<int> &grippers,
                Findings &findings)
{
    const std::string meaning = "An upgrade of this family writes nothing.";
    const std::string action =
        concat("Copy the image of the grippers' maker to ", path, ", readable by all.");
    const auto file = facts.machine.status(path);
    if (!file && !grippers.empty())
        findings.push_back({Level::Note, concat(path, " is missing, for gripper ", join(grippers)),
                            meaning, action});
    else if (file && (!S_ISREG(file->st_mode) || file->st_size == 0))
        findings.push_back({Level::Problem, concat(path, " is empty"), meaning, action});
    else if (file && !may(facts, readable, *file))
        findings.push_back(
            {Level::Problem, concat("the daemon may not read ", path), meaning, action});
}

/// The search path of the daemon, or the usual one if this user does not see it.
std::vector<std::string> searchPathOf(const Facts &facts)
{
    std::string folders = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";
    const std::string name = "PATH=";
    std::istringstream variables(
        facts.machine.read(concat("/proc/", facts.daemon, "/environ")).value_or(""));
    for (std::string variable; std::getline(variables, variable, '\0');) {
        if (startsWith(variable, name))
            folders = variable.substr(name.size());
    }
    std::vector<std::string> path;
    std::istringstream stream(folders);
    for (std::string folder; std::getline(stream, folder, ':');)
        path.push_back(folder);
    return path;
}

bool isInstalled(const Facts &facts, const std::vector<std::string> &folders,
                 const std::string &name)
{
    return std::any_of(folders.begin(), folders.end(), [&](const std::string &folder) {
        const auto file = facts.machine.status(concat(folder, '/', name));
        return file && S_ISREG(file->st_mode) && may(facts, executable, *file);
    });
}

} // namespace

Findings checkImages(const Facts &facts)
{
    const std::string folder = facts.workingDirectory();
    if (folder.empty())
        return unseenFolder();
    Findings findings;
    for (const ImageRow &row : imageRows)
        judgeImage(facts, concat(folder, '/', row.path), grippersOf(facts, row.letter), findings);
    return orOk(findings, concat("the images in ", folder, "/firmware can be used"));
}

Findings checkPrograms(const Facts &facts)
{
    const std::string folder = facts.workingDirectory();
    if (folder.empty())
        return unseenFolder();
    Findings findings;
    const std::string flasher = folder + "/romflasher";
    const auto file = facts.machine.status(flasher);
    if (!file || !S_ISREG(file->st_mode) || !may(facts, executable, *file))
        findings.push_back(
            {Level::Problem,
             concat(flasher, file ? " cannot be executed" : " is missing or leads to nothing"),
             "An upgrade sends the gripper into its bootloader and writes nothing.",
             concat("Run: sudo ln -sf /usr/sbin/romflasher ", flasher)});
    const std::vector<std::string> path = searchPathOf(facts);
    for (const ProgramRow &row : programRows) {
        if (!isInstalled(facts, path, row.name) && !isInstalled(facts, {folder}, row.name))
            findings.push_back(
                {row.level, concat(row.name, " is not installed"), row.meaning, row.action});
    }
    return orOk(findings, "the flasher and the programs of the daemon are there");
}

} // namespace gripperctl::doctor
