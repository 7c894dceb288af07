#pragma once

#include <QJsonObject>
#include <QString>

namespace gripperctl {

/// What the user sees. Results go to standard output, as text or as JSON; problems and what is
/// being waited for go to standard error.
class Output
{
public:
    explicit Output(bool isJson);

    bool isJson() const { return m_isJson; }

    /// The result: `text`, which may have several lines, or one line of JSON. False if nobody reads
    /// it any more; throws a Failure if it cannot be written.
    bool result(const QString &text, const QJsonObject &json) const;

    /// A part of the result that stands in the JSON of the end, and is text only here.
    void partialResult(const QString &text) const;

    /// What begins now; ends what began before. Not shown with JSON.
    void begin(const QString &stage);

    /// How long it has taken so far: shown in place, on a terminal only.
    void tick(qint64 elapsedMs);

    /// Nothing is waited for any more.
    void endStage();

    /// Something that the user should know.
    void note(const QString &text);

    /// Why the run ends with that exit code. As JSON it is one line, with what is `known`.
    void problem(const QString &text, int exitCode, const QJsonObject &known);

private:
    bool m_isJson;
    bool m_isTerminal;
    QString m_stage;
};

/// Writes `text` to standard output at once; false if nobody reads it any more.
bool writeOut(const QByteArray &text);

} // namespace gripperctl
