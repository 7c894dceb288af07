#include "watchview.h"

namespace gripperctl {

namespace {

constexpr int maxPosition = 255;
constexpr int minBarWidth = 10;
constexpr int maxBarWidth = 100;

int cellOf(int position, int cells)
{
    return (qBound(0, position, maxPosition) * (cells - 1) + maxPosition / 2) / maxPosition;
}

QString textBeforeBar(const GripperState &gripper)
{
    return QStringLiteral("%1 %2 %3")
        .arg(gripper.id(), 2)
        .arg(gripper.family(), -6)
        .arg(gripper.statusText(), -10);
}

QString textAfterBar(const GripperState &gripper)
{
    return QStringLiteral("%1 -> %2  current %3  %4 fault %5")
        .arg(gripper.position(), 3)
        .arg(gripper.requestedPosition(), 3)
        .arg(gripper.current(), 3)
        .arg(gripper.objectText(), -7)
        .arg(gripper.text("FLT"));
}

QString lineOf(const GripperState &gripper, int width)
{
    const QString left = textBeforeBar(gripper);
    const QString right = textAfterBar(gripper);
    const int room = width - left.size() - right.size() - 4;
    const int cells = qBound(minBarWidth, room, maxBarWidth);
    const QString drawn = positionBar(gripper.position(), gripper.requestedPosition(), cells);
    return QStringLiteral("%1 [%2] %3").arg(left, drawn, right);
}

QString plainLineOf(const Snapshot &snapshot, const GripperState &gripper)
{
    return QStringLiteral("%1 link=%2 gripper=%3 status=%4 position=%5 requested=%6 current=%7 "
                          "object=%8 fault=%9")
        .arg(snapshot.time.toString(Qt::ISODateWithMs),
             QString(snapshot.link).replace(QLatin1Char(' '), QLatin1Char('_')))
        .arg(gripper.id())
        .arg(gripper.statusText())
        .arg(gripper.position())
        .arg(gripper.requestedPosition())
        .arg(gripper.current())
        .arg(gripper.objectText())
        .arg(gripper.fault());
}

} // namespace

QString positionBar(int position, int requested, int cells)
{
    QString drawn(cells, QLatin1Char('-'));
    const int end = cellOf(position, cells);
    for (int cell = 0; cell <= end && position > 0; ++cell)
        drawn[cell] = QLatin1Char('#');
    drawn[cellOf(requested, cells)] = QLatin1Char('|');
    return drawn;
}

QStringList watchScreen(const Snapshot &snapshot, const QString &host, int width)
{
    QStringList lines{QStringLiteral("gripperd %1 on %2  link %3  %4  Ctrl-C ends")
                          .arg(snapshot.driver, host, snapshot.link,
                               snapshot.time.toString(QStringLiteral("hh:mm:ss")))};
    for (const GripperState &gripper : snapshot.grippers)
        lines.append(lineOf(gripper, width));
    if (snapshot.grippers.isEmpty())
        lines.append(QStringLiteral("no grippers found"));
    for (QString &line : lines)
        line.truncate(width);
    return lines;
}

QStringList watchLines(const Snapshot &snapshot)
{
    QStringList lines;
    for (const GripperState &gripper : snapshot.grippers)
        lines.append(plainLineOf(snapshot, gripper));
    if (lines.isEmpty()) {
        lines.append(QStringLiteral("%1 link=%2 no grippers found")
                         .arg(snapshot.time.toString(Qt::ISODateWithMs),
                              QString(snapshot.link).replace(QLatin1Char(' '), QLatin1Char('_'))));
    }
    return lines;
}

} // namespace gripperctl
