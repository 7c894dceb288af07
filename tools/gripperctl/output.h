#pragma once

#include <QJsonObject>
#include <QString>

namespace gripperctl {

/// The output for the user. Results go to standard output, as text or as JSON. Problems and
/// progress go to standard error.
class Output
{
public:
    explicit Output(bool isJson);

    bool isJson() const { return m_isJson; }

    /// Prints the result: `text`, which may have several lines, or one line of JSON. Returns false
    /// if the reader has closed the pipe. Throws Failure for any other error.
    bool result(const QString &text, const QJsonObject &json) const;

    /// Prints a part of the result as text. With JSON it prints nothing, because the final JSON
    /// contains this part.
    void partialResult(const QString &text) const;

    /// Ends the previous stage and shows the one that begins now. Shows nothing with JSON.
    void begin(const QString &stage);

    /// Shows the time of the stage in the same line. Shows nothing if there is no terminal.
    void tick(qint64 elapsedMs);

    /// Ends the line of the present stage.
    void endStage();

    /// Prints a line to standard error.
    void note(const QString &text);

    /// Prints the reason for the exit code; with JSON also one line with the members of `known`.
    void problem(const QString &text, int exitCode, const QJsonObject &known);

private:
    bool m_isJson;
    bool m_isTerminal;
    QString m_stage;
};

/// Writes `text` to standard output at once. Returns false if it cannot; errno then has the cause.
bool writeOut(const QByteArray &text);

} // namespace gripperctl
