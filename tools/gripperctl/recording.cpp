#include "recording.h"

#include "failure.h"

namespace gripperctl {

namespace {

enum Column { Time, Seconds, Gripper, Position, Requested, Current, Object, Fault, Link, Columns };

QString lineOf(const Snapshot &snapshot, const GripperState &gripper, double seconds)
{
    const QStringList fields{snapshot.time.toUTC().toString(Qt::ISODateWithMs),
                             QString::number(seconds, 'f', 3),
                             QString::number(gripper.id()),
                             QString::number(gripper.position()),
                             QString::number(gripper.requestedPosition()),
                             QString::number(gripper.current()),
                             gripper.objectText(),
                             QString::number(gripper.fault()),
                             gripper.link()};
    return fields.join(QLatin1Char(','));
}

[[noreturn]] void fail(int line)
{
    throw Failure{
        ExitCode::LocalProblem,
        QStringLiteral("line %1 is not part of a recording: use a file that gripperctl record "
                       "made")
            .arg(line)};
}

int wholeIn(const QStringList &fields, Column column, int line)
{
    bool isNumber = false;
    const int number = fields.at(column).toInt(&isNumber);
    if (!isNumber)
        fail(line);
    return number;
}

Sample sampleFrom(const QStringList &fields, int line)
{
    if (fields.size() != Columns)
        fail(line);
    bool isNumber = false;
    const double seconds = fields.at(Seconds).toDouble(&isNumber);
    if (!isNumber)
        fail(line);
    return {seconds,
            wholeIn(fields, Gripper, line),
            wholeIn(fields, Position, line),
            wholeIn(fields, Requested, line),
            wholeIn(fields, Current, line),
            fields.at(Link) == QLatin1String("RUNNING")};
}

} // namespace

QString recordingHeader()
{
    return QStringLiteral("time,seconds,gripper,position,requested,current,object,fault,link");
}

QStringList recordingLines(const Snapshot &snapshot, double seconds)
{
    QStringList lines;
    for (const GripperState &gripper : snapshot.grippers)
        lines.append(lineOf(snapshot, gripper, seconds));
    return lines;
}

QVector<Sample> parseRecording(const QString &text)
{
    // Spreadsheets end a line with CR and LF.
    const QStringList all = QString(text).remove(QLatin1Char('\r')).split(QLatin1Char('\n'));
    if (all.first() != recordingHeader())
        fail(1);
    QVector<Sample> samples;
    for (int line = 1; line < all.size(); ++line) {
        if (!all.at(line).isEmpty())
            samples.append(sampleFrom(all.at(line).split(QLatin1Char(',')), line + 1));
    }
    return samples;
}

} // namespace gripperctl
