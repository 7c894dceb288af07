#include "plotscript.h"

#include <QMap>

namespace gripperctl {

namespace {

using ByGripper = QMap<int, QVector<Sample>>;

ByGripper grouped(const QVector<Sample> &samples)
{
    ByGripper groups;
    for (const Sample &sample : samples)
        groups[sample.gripper].append(sample);
    return groups;
}

QByteArray dataLine(const Sample &sample)
{
    // A blank line makes a gap in the curve, because the values of this time are unknown.
    if (!sample.isLive)
        return "\n";
    return QStringLiteral("%1 %2 %3 %4\n")
        .arg(sample.seconds, 0, 'f', 3)
        .arg(sample.position)
        .arg(sample.requested)
        .arg(sample.current)
        .toLatin1();
}

QByteArray dataBlock(int gripper, const QVector<Sample> &samples)
{
    QByteArray block = "$g" + QByteArray::number(gripper) + " << EOD\n";
    for (const Sample &sample : samples)
        block += dataLine(sample);
    return block + "EOD\n";
}

/// A "plot" command with one curve per gripper and form. In a form, %1 is the gripper and %2 its
/// colour.
QByteArray plotCommand(const ByGripper &groups, const QStringList &forms)
{
    QStringList curves;
    int colour = 0;
    for (auto group = groups.begin(); group != groups.end(); ++group) {
        ++colour;
        for (const QString &form : forms)
            curves.append(form.arg(group.key()).arg(colour));
    }
    return "plot " + curves.join(QStringLiteral(", ")).toLatin1() + '\n';
}

QByteArray terminal(bool isPng)
{
    return isPng ? QByteArray("set terminal pngcairo size 1200,800\n")
                 : QByteArray("set terminal svg size 1200,800 background 'white'\n");
}

} // namespace

QByteArray plotScript(const QVector<Sample> &samples, bool isPng)
{
    const ByGripper groups = grouped(samples);
    QByteArray script = terminal(isPng);
    for (auto group = groups.begin(); group != groups.end(); ++group)
        script += dataBlock(group.key(), group.value());
    script += "set multiplot layout 2,1\nset grid\nset key outside right\n"
              "set ylabel 'position'\nset yrange [-5:260]\n";
    script += plotCommand(
        groups, {QStringLiteral("$g%1 using 1:2 with lines lc %2 lw 2 title 'gripper %1'"),
                 QStringLiteral("$g%1 using 1:3 with steps lc %2 dt 2 title 'requested'")});
    script += "set ylabel 'current'\nset yrange [0:*<260]\nset xlabel 'seconds'\n";
    script +=
        plotCommand(groups, {QStringLiteral("$g%1 using 1:4 with lines lc %2 title 'gripper %1'")});
    return script + "unset multiplot\n";
}

} // namespace gripperctl
