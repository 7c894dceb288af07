#pragma once

#include "failure.h"

#include <chrono>
#include <string>

namespace gripperctl {

/// The output for the user. Results go to standard output, as text or as JSON. Problems and
/// progress go to standard error.
class Output
{
public:
    Output();

    void useJson() { m_isJson = true; }
    bool isJson() const { return m_isJson; }

    /// Whether standard output is a terminal.
    static bool isTerminal();

    /// Writes `text` to standard output at once. Returns false if the reader has closed the pipe.
    /// Throws Failure for any other error.
    static bool print(const std::string &text);

    /// Ends the stage and prints the result: `text`, which may have several lines, or one line of
    /// JSON. Returns and throws as print() does.
    bool result(const std::string &text, const Json &json);

    /// Prints a part of the result as text. With JSON it prints nothing, because the final JSON
    /// contains this part.
    void partialResult(const std::string &text);

    /// `text` in red on a terminal, if NO_COLOR is not set.
    static std::string highlighted(const std::string &text);

    /// Ends the previous stage and shows the one that begins now. Shows nothing with JSON.
    void begin(const std::string &stage);

    /// Shows the time of the stage in the same line. Shows nothing if there is no terminal.
    void tick();

    /// Ends the line of the present stage.
    void endStage();

    /// Prints a line to standard error.
    void note(const std::string &text);

    /// Prints the reason for the exit code; with JSON also one line with all members.
    void problem(const Failure &failure);

    /// Asks `question` on the terminal. Throws Failure with `refusal` for every answer but yes, and
    /// if standard input is not a terminal.
    void confirm(const std::string &question, const std::string &refusal);

private:
    bool m_isJson = false;
    bool m_isProgressShown; ///< standard error is a terminal
    std::string m_stage;
    std::chrono::steady_clock::time_point m_begin;
};

/// Writes `text` to standard output at once. Returns false if it cannot; errno then has the cause.
bool writeOut(const std::string &text);

} // namespace gripperctl
