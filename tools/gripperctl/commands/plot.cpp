#include "commands.h"

#include "failure.h"
#include "plotscript.h"
#include "session.h"

#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <algorithm>

namespace gripperctl {

namespace {

constexpr int plotTimeoutMs = 60'000;

[[noreturn]] void fail(const QString &problem)
{
    throw Failure{ExitCode::LocalProblem, problem};
}

QVector<Sample> read(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        fail(QStringLiteral("cannot read %1: %2").arg(path, file.errorString()));
    const QVector<Sample> samples = parseRecording(QString::fromUtf8(file.readAll()));
    const auto isLive = [](const Sample &sample) { return sample.isLive; };
    if (std::none_of(samples.begin(), samples.end(), isLive))
        fail(QStringLiteral("%1 has no values from a running link: record again while "
                            "gripperctl status shows link RUNNING")
                 .arg(path));
    return samples;
}

QString pictureFor(const Options &options)
{
    if (options.has("output"))
        return options.text("output");
    const QFileInfo recordingFile(options.arguments.first());
    return recordingFile.path() + QLatin1Char('/') + recordingFile.completeBaseName() +
           QStringLiteral(".svg");
}

bool isPng(const QString &path)
{
    const QString suffix = QFileInfo(path).suffix().toLower();
    if (suffix != QLatin1String("png") && suffix != QLatin1String("svg")) {
        throw Failure{ExitCode::WrongUsage,
                      QStringLiteral("the output %1 must end in .svg or .png").arg(path)};
    }
    return suffix == QLatin1String("png");
}

QByteArray draw(const QByteArray &script)
{
    QProcess gnuplot;
    gnuplot.start(QStringLiteral("gnuplot"), QStringList());
    if (!gnuplot.waitForStarted())
        fail(QStringLiteral("cannot start gnuplot: install it with sudo apt install gnuplot-nox"));
    gnuplot.write(script);
    gnuplot.closeWriteChannel();
    const bool isDone = gnuplot.waitForFinished(plotTimeoutMs);
    QByteArray picture = gnuplot.readAllStandardOutput();
    if (!isDone || gnuplot.exitCode() != 0 || picture.isEmpty()) {
        const QString errors = QString::fromLocal8Bit(gnuplot.readAllStandardError()).simplified();
        fail(QStringLiteral("gnuplot failed: %1").arg(errors));
    }
    return picture;
}

void write(const QString &path, const QByteArray &picture)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(picture) != picture.size() || !file.flush())
        fail(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
}

} // namespace

void runPlot(Session &session)
{
    const QString picturePath = pictureFor(session.options());
    const bool wantsPng = isPng(picturePath);
    const QVector<Sample> samples = read(session.options().arguments.first());
    write(picturePath, draw(plotScript(samples, wantsPng)));
    session.output().result(QStringLiteral("drew %1").arg(picturePath),
                            {{QStringLiteral("file"), picturePath}});
}

} // namespace gripperctl
