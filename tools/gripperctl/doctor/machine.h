#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include <sys/stat.h>

namespace gripperctl::doctor {

/// The end of a program.
struct Run
{
    enum class End { Exited, Missing, TimedOut };

    End end = End::Missing;
    int status = 0; ///< the exit status, or 128 plus the number of a signal
    std::string output;
    std::string error;

    bool hasSucceeded() const { return end == End::Exited && status == 0; }
    /// Why it has not succeeded, in one line.
    std::string problem() const;
};

/// The machine below a root folder: "" is this machine, another folder is an image of one. It only
/// reads, and opens no device.
class Machine
{
public:
    /// The limit of a program whose output is short.
    static constexpr std::chrono::milliseconds programTimeout{1000};

    explicit Machine(const std::string &root = {});

    /// The path of a file of this machine in the image.
    std::string real(const std::string &path) const { return m_root + path; }

    /// The content, at most 1 MiB. Empty if the file cannot be read or is no regular file.
    std::optional<std::string> read(const std::string &path) const;

    /// The first line without blanks at its ends. Empty if the file cannot be read.
    std::string line(const std::string &path) const;

    /// The sorted names in a folder. Empty if the folder cannot be read.
    std::optional<std::vector<std::string>> list(const std::string &folder) const;

    /// The text of a symbolic link.
    std::optional<std::string> link(const std::string &path) const;

    /// The path without links; empty if it leads to nothing.
    std::string canonical(const std::string &path) const;

    /// The status of the file that the path leads to.
    std::optional<struct stat> status(const std::string &path) const;

    /// Runs a program of the search path, without a shell and without input. Kills it and its
    /// children after `timeout`. Reads at most 16 MiB.
    static Run run(const std::vector<std::string> &words,
                   std::chrono::milliseconds timeout = programTimeout);

private:
    std::string m_root;
};

/// The text without blanks at its ends.
std::string trimmed(const std::string &text);

/// The lines without their endings.
std::vector<std::string> linesOf(const std::string &text);

/// The words between blanks.
std::vector<std::string> wordsOf(const std::string &text);

bool startsWith(const std::string &text, const std::string &begin);

/// A whole decimal number that is not negative.
std::optional<unsigned long> decimal(const std::string &text);

} // namespace gripperctl::doctor
