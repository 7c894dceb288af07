#include "commands.h"

#include "failure.h"
#include "pacer.h"
#include "recording.h"
#include "session.h"

#include <QFile>

#include <limits>

namespace gripperctl {

namespace {

constexpr int defaultIntervalMs = 100;

class RecordingFile
{
public:
    explicit RecordingFile(const QString &path)
        : m_file(path)
    {
        if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            fail();
        append({recordingHeader()});
    }

    void append(const QStringList &lines)
    {
        for (const QString &line : lines)
            m_file.write(line.toUtf8() + '\n');
        // The file is complete up to now, even if this process is killed.
        if (!m_file.flush())
            fail();
        m_lines += lines.size();
    }

    int sampleCount() const { return m_lines - 1; }

private:
    [[noreturn]] void fail() const
    {
        throw Failure{
            ExitCode::LocalProblem,
            QStringLiteral("cannot write %1: %2").arg(m_file.fileName(), m_file.errorString())};
    }

    QFile m_file;
    int m_lines = 0;
};

void recordInto(RecordingFile &file, Session &session)
{
    const auto wantedMs = session.options().milliseconds("seconds");
    const qint64 endMs = wantedMs ? *wantedMs : std::numeric_limits<qint64>::max();
    Pacer pacer(session.options().milliseconds("interval").value_or(defaultIntervalMs));
    do {
        const double seconds = static_cast<double>(pacer.elapsedMs()) / 1000;
        file.append(recordingLines(Snapshot::take(session), seconds));
    } while (pacer.waitForNext(endMs) && pacer.elapsedMs() < endMs);
}

} // namespace

void runRecord(Session &session)
{
    const QString path = session.options().arguments.first();
    if (session.options().has("gripper"))
        session.selectGripper();
    // Connects first: without a daemon, the file stays as it is.
    session.connection();
    RecordingFile file(path);
    session.output().begin(QStringLiteral("recording into %1").arg(path));
    try {
        recordInto(file, session);
    } catch (const Failure &failure) {
        if (failure.code != ExitCode::Interrupted)
            throw;
    }
    session.output().endStage();
    session.output().result(
        QStringLiteral("%1 lines in %2").arg(file.sampleCount()).arg(path),
        {{QStringLiteral("file"), path}, {QStringLiteral("lines"), file.sampleCount()}});
}

} // namespace gripperctl
