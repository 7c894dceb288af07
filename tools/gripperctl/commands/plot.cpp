#include "commands.h"

#include "app.h"
#include "gnuplot.h"
#include "plotscript.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

namespace gripperctl {

namespace {

namespace fs = std::filesystem;

struct PlotOptions
{
    std::string path;
    std::string picture;
};

[[noreturn]] void failFor(const std::string &action, const fs::path &path)
{
    throw Failure(ExitCode::LocalProblem,
                  concat("cannot ", action, ' ', path.string(), ": ", std::strerror(errno)));
}

Recording readRecording(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    std::error_code ignored;
    if (fs::is_directory(path, ignored))
        errno = EISDIR;
    else if (file)
        return parseRecording({std::istreambuf_iterator<char>(file), {}});
    failFor("read", path);
}

void refuseEmpty(const Recording &recording, const fs::path &path)
{
    const auto &samples = recording.samples;
    if (std::any_of(samples.begin(), samples.end(), [](const auto &one) { return one.isLive; }))
        return;
    throw Failure(ExitCode::LocalProblem,
                  concat(path.string(), " has no values from a running link: record again while "
                                        "gripperctl status shows link RUNNING"));
}

bool isPng(const fs::path &path)
{
    const std::string suffix = upper(path.extension());
    if (suffix == ".PNG" || suffix == ".SVG")
        return suffix == ".PNG";
    throw Failure(ExitCode::WrongUsage,
                  concat("the output ", path.string(), " must end in .svg or .png"));
}

void writePicture(const fs::path &path, const std::string &picture)
{
    std::ofstream file(path, std::ios::binary);
    if (!(file << picture << std::flush))
        failFor("write", path);
}

void plot(Program &program, const PlotOptions &options)
{
    const fs::path path(options.path);
    const fs::path picture = options.picture.empty() ? fs::path(path).replace_extension(".svg")
                                                     : fs::path(options.picture);
    const bool wantsPng = isPng(picture);
    const Recording recording = readRecording(path);
    refuseEmpty(recording, path);
    const std::string script = plotScript(recording, path.filename(), wantsPng);
    writePicture(picture, runGnuplot(script));
    program.output().result(concat("drew ", picture.string()), {{"file", picture.string()}});
}

} // namespace

void addPlot(CLI::App &app, Program &program)
{
    const auto options = std::make_shared<PlotOptions>();
    CLI::App &command = addCommand(app,
                                   {"plot", "Draw a recording, with gnuplot.",
                                    "This needs no daemon.", "plot grip.csv -o grip.png"},
                                   [&program, options] { plot(program, *options); });
    addWord(command, "FILE.csv", options->path);
    command
        .add_option("-o,--output", options->picture,
                    "The picture, .svg or .png (default: the recording's name with .svg).")
        ->type_name("FILE");
}

} // namespace gripperctl
