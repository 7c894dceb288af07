#include "commands.h"

#include "commandoptions.h"
#include "looks.h"
#include "recording.h"
#include "text.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace gripperctl {

namespace {

constexpr double defaultIntervalSeconds = 0.1;

struct RecordOptions
{
    std::string path;
    std::optional<gripper::Seconds> interval;
    std::optional<gripper::Seconds> seconds;
};

class RecordingFile
{
public:
    explicit RecordingFile(const std::string &path)
        : m_path(path)
        , m_file(std::fopen(path.c_str(), "we"), &std::fclose)
    {
        if (!m_file)
            fail();
        append(recordingHeader);
    }

    /// The file is complete up to now afterwards, even if this process is killed.
    void append(const std::string &line)
    {
        if (std::fputs((line + '\n').c_str(), m_file.get()) < 0 || std::fflush(m_file.get()) != 0)
            fail();
    }

private:
    [[noreturn]] void fail() const
    {
        throw Failure(ExitCode::LocalProblem,
                      concat("cannot write ", m_path, ": ", std::strerror(errno)));
    }

    std::string m_path;
    std::unique_ptr<std::FILE, int (*)(std::FILE *)> m_file;
};

/// Returns the number of samples.
int recordInto(RecordingFile &file, Looks &looks, std::optional<gripper::Seconds> time)
{
    const auto start = Looks::Clock::now();
    const auto end = time ? start + std::chrono::duration_cast<Looks::Clock::duration>(*time)
                          : Looks::Clock::time_point::max();
    RecordingWriter writer(start);
    int count = 0;
    try {
        while (Looks::Clock::now() < end) {
            const auto look = looks.next(end);
            if (!look)
                break;
            for (const gripper::WatchItem &item : look->items) {
                const std::string line = writer.lineOf(item);
                if (line.empty())
                    continue;
                file.append(line);
                ++count;
            }
        }
    } catch (const Interrupted &) {
        // This is how a user ends it.
        return count;
    }
    return count;
}

void record(Program &program, const RecordOptions &options)
{
    // A file takes the grippers of one daemon.
    program.endpoint();
    // Connects first: without a daemon, the file stays as it is.
    const gripper::Seconds standard{defaultIntervalSeconds};
    Looks looks(program, options.interval.value_or(standard).count());
    RecordingFile file(options.path);
    program.output().begin(concat("recording into ", options.path));
    const int count = recordInto(file, looks, options.seconds);
    program.output().endStage();
    program.output().result(concat(count, " lines in ", options.path),
                            {{"file", options.path}, {"lines", count}});
}

} // namespace

void addRecord(CLI::App &app, Program &program)
{
    const auto options = std::make_shared<RecordOptions>();
    CLI::App &command = addCommand(app,
                                   {"record", "Write positions and currents into a file.",
                                    "Records until Ctrl-C, or for --seconds. Overwrites the file.",
                                    "record grip.csv --seconds 30"},
                                   [&program, options] { record(program, *options); });
    addWord(command, "FILE.csv", options->path)->option_text(filesOffered);
    addSeconds(command, "--interval", options->interval,
               "Time between two readings (default 0.1).");
    addSeconds(command, "--seconds", options->seconds, "End after this time.");
}

} // namespace gripperctl
