#include "commands.h"

#include "commandoptions.h"
#include "looks.h"
#include "recording.h"
#include "text.h"

namespace gripperctl {

namespace {

constexpr gripper::Seconds defaultInterval{0.1};

/// Writes until the time is over. Ctrl-C is how a user ends it.
void recordInto(RecordingWriter &file, Looks &looks, std::optional<gripper::Seconds> time)
{
    using Clock = Looks::Clock;
    const auto end = time ? Clock::now() + std::chrono::duration_cast<Clock::duration>(*time)
                          : Clock::time_point::max();
    try {
        while (const auto look = looks.next(end)) {
            for (const gripper::WatchItem &item : look->items)
                file.write(item);
        }
    } catch (const Interrupted &) {
        return;
    }
}

void record(Program &program, const CLI::App &command)
{
    const std::string &path = wordsOf(command).front();
    // A file takes the grippers of one daemon.
    program.endpoint();
    // Connects first: without a daemon, the file stays as it is.
    Looks looks(program, secondsOf(command, "--interval").value_or(defaultInterval));
    RecordingWriter file(path);
    program.output().begin(concat("recording into ", path));
    recordInto(file, looks, secondsOf(command, "--seconds"));
    program.output().result(concat(file.lines(), " lines in ", path),
                            {{"file", path}, {"lines", file.lines()}});
}

} // namespace

void addRecord(CLI::App &app, Program &program)
{
    CLI::App &command = addCommand(app, program,
                                   {"record", "Write positions and currents into a file.",
                                    "Records until Ctrl-C, or for --seconds. Overwrites the file.",
                                    "record grip.csv --seconds 30"},
                                   record);
    addWords(command, "FILE.csv", 1, 1, filesOffered);
    addSeconds(command, "--interval", "Time between two readings (default 0.1).");
    addSeconds(command, "--seconds", "End after this time.");
}

} // namespace gripperctl
