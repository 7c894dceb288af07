#include "commands.h"

#include "commandoptions.h"
#include "plotscript.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

#include <sys/wait.h>

namespace gripperctl {

namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(const std::string &problem)
{
    throw Failure(ExitCode::LocalProblem, problem);
}

Recording readRecording(const fs::path &path)
{
    std::error_code ignored;
    std::ifstream file(path, std::ios::binary);
    if (!file || fs::is_directory(path, ignored))
        fail(concat("cannot read ", path.string(), ": ", file ? "a folder" : std::strerror(errno)));
    Recording recording = parseRecording({std::istreambuf_iterator<char>(file), {}});
    const auto isLive = [](const Sample &sample) { return sample.isLive; };
    if (std::none_of(recording.samples.begin(), recording.samples.end(), isLive))
        fail(concat(path.string(), " has no values from a running link: record again while "
                                   "gripperctl status shows link RUNNING"));
    return recording;
}

bool isPng(const fs::path &path)
{
    const std::string suffix = upper(path.extension());
    if (suffix == ".PNG" || suffix == ".SVG")
        return suffix == ".PNG";
    throw Failure(ExitCode::WrongUsage,
                  concat("the output ", path.string(), " must end in .svg or .png"));
}

/// gnuplot writes its own errors to standard error.
void runGnuplot(const std::string &script)
{
    constexpr int notFound = 127; // from the shell
    // A script from a file ends at its first error. A picture that has no file would be printed.
    std::FILE *gnuplot = ::popen("exec gnuplot /dev/stdin >/dev/null", "w");
    if (gnuplot == nullptr)
        fail(concat("cannot start a shell: ", std::strerror(errno)));
    std::fputs(script.c_str(), gnuplot);
    const int status = ::pclose(gnuplot);
    if (WIFEXITED(status) && WEXITSTATUS(status) == notFound)
        fail("cannot start gnuplot: install it with sudo apt install gnuplot-nox");
    if (status != 0)
        fail("gnuplot failed: its errors are above");
}

/// gnuplot does not notice a full disk.
bool isComplete(const fs::path &picture, bool isPng)
{
    constexpr int endLength = 16;
    std::ifstream file(picture, std::ios::binary);
    file.seekg(-endLength, std::ios::end);
    // Not all of it: a device may have no end.
    std::string end(endLength, ' ');
    file.read(end.data(), endLength);
    return end.find(isPng ? "IEND" : "</svg>") != std::string::npos;
}

void plot(Program &program, const CLI::App &command)
{
    const fs::path path(wordsOf(command).front());
    fs::path picture = textOf(command, "--output");
    if (picture.empty())
        picture = fs::path(path).replace_extension(".svg");
    const bool wantsPng = isPng(picture);
    // gnuplot runs a name that begins with "|" as a command.
    const fs::path noCommand = fs::path(".") / picture;
    runGnuplot(plotScript(readRecording(path), path.filename(), noCommand, wantsPng));
    if (!isComplete(picture, wantsPng))
        fail(concat("cannot write all of ", picture.string(), ": is the disk full?"));
    program.output().result(concat("drew ", picture.string()), {{"file", picture.string()}});
}

} // namespace

void addPlot(CLI::App &app, Program &program)
{
    CLI::App &command = addCommand(app, program,
                                   {"plot", "Draw a recording, with gnuplot.",
                                    "This needs no daemon.", "plot grip.csv -o grip.png"},
                                   plot);
    addWords(command, "FILE.csv", 1, 1, filesOffered);
    addText(command, "-o,--output", "FILE",
            "The picture, .svg or .png (default: the recording's name with .svg).", filesOffered);
}

} // namespace gripperctl
