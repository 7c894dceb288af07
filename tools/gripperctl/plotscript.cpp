#include "plotscript.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace gripperctl {

namespace {

using ByGripper = std::map<int, std::vector<Sample>>;

std::string numberText(double number)
{
    std::array<char, 40> text = {};
    return {text.data(),
            static_cast<std::size_t>(std::snprintf(text.data(), text.size(), "%.3f", number))};
}

/// Without grippers that have no values: gnuplot complains of a curve without points.
ByGripper grouped(const std::vector<Sample> &samples)
{
    ByGripper groups;
    for (const Sample &sample : samples) {
        if (sample.isLive)
            groups[sample.gripper];
    }
    for (const Sample &sample : samples) {
        const auto group = groups.find(sample.gripper);
        if (group != groups.end())
            group->second.push_back(sample);
    }
    return groups;
}

std::string dataLine(const Sample &sample)
{
    // A blank line makes a gap in the curve, because the values of this time are unknown.
    if (!sample.isLive)
        return "\n";
    return numberText(sample.seconds) + ' ' + std::to_string(sample.position) + ' ' +
           std::to_string(sample.requested) + ' ' + std::to_string(sample.current) + '\n';
}

std::string dataBlocks(const ByGripper &groups)
{
    std::string blocks;
    for (const auto &[gripper, samples] : groups) {
        blocks += "$g" + std::to_string(gripper) + " << EOD\n";
        for (const Sample &sample : samples)
            blocks += dataLine(sample);
        blocks += "EOD\n";
    }
    return blocks;
}

std::string replaced(std::string text, char mark, const std::string &value)
{
    for (std::size_t at = text.find(mark); at != std::string::npos;
         at = text.find(mark, at + value.size()))
        text.replace(at, 1, value);
    return text;
}

/// A "plot" command with one curve per gripper and form. In a form, @ is the gripper and # its
/// colour.
std::string plotCommand(const ByGripper &groups, const std::vector<std::string> &forms)
{
    std::string command;
    int colour = 0;
    for (const auto &group : groups) {
        const std::string gripper = std::to_string(group.first);
        ++colour;
        for (const std::string &form : forms) {
            command += command.empty() ? "plot " : ", ";
            command += replaced(replaced(form, '@', gripper), '#', std::to_string(colour));
        }
    }
    return command + '\n';
}

/// Both panels have the same margins and range, so that the same time is at the same place.
std::string axes(const Recording &recording)
{
    const auto &samples = recording.samples;
    const auto earlier = [](const Sample &a, const Sample &b) { return a.seconds < b.seconds; };
    const auto [first, last] = std::minmax_element(samples.begin(), samples.end(), earlier);
    const double begin = first->seconds;
    const double end = std::max(last->seconds, begin + 0.001);
    std::string text = "set lmargin at screen 0.08\nset rmargin at screen 0.86\n"
                       "set grid\nset key outside right\n"
                       "set xrange [" +
                       numberText(begin) + ':' + numberText(end) + "]\n";
    if (recording.start) {
        const double start = recording.start->seconds;
        text += "set x2data time\nset x2tics timedate\nset format x2 '%H:%M:%S'\nset x2range [" +
                numberText(start + begin) + ':' + numberText(start + end) + "]\n";
    }
    return text;
}

std::string title(const Recording &recording, const std::string &name)
{
    std::string text = name;
    std::replace(text.begin(), text.end(), '\n', ' ');
    if (recording.start)
        text += ", from " + dateText(*recording.start);
    return '\'' + replaced(text, '\'', "''") + '\'';
}

} // namespace

std::string plotScript(const Recording &recording, const std::string &name, bool isPng)
{
    const ByGripper groups = grouped(recording.samples);
    std::string script = isPng ? "set terminal pngcairo size 1200,800\n"
                               : "set terminal svg size 1200,800 background 'white'\n";
    script += dataBlocks(groups);
    script += "set multiplot layout 2,1 title " + title(recording, name) + " noenhanced\n";
    script += axes(recording);
    script += "set ylabel 'position'\nset yrange [-5:260]\n";
    script += plotCommand(groups, {"$g@ using 1:2 with lines lc # lw 2 title 'gripper @'",
                                   "$g@ using 1:3 with steps lc # dt 2 title 'requested'"});
    script += "unset x2tics\nset offsets 0, 0, 5, 0\nset ylabel 'current'\nset yrange "
              "[0:*<260]\nset xlabel 'seconds'\n";
    script += plotCommand(groups, {"$g@ using 1:4 with lines lc # title 'gripper @'"});
    return script + "unset multiplot\n";
}

} // namespace gripperctl
