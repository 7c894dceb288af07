#include "plotscript.h"

#include "text.h"

#include <algorithm>
#include <iomanip>
#include <utility>

namespace gripperctl {

namespace {

/// A text of gnuplot, which ends at a line ending and knows '' for an apostrophe.
std::string quoted(const std::string &text)
{
    std::string written = "'";
    for (const char character : text)
        written += character == '\n' ? " " : std::string(character == '\'' ? 2 : 1, character);
    return written + '\'';
}

/// One block of data per gripper. A gripper without values has none, because gnuplot complains of a
/// curve without points.
void writeData(std::ostream &script, const Recording &recording, const std::vector<int> &grippers)
{
    for (const int gripper : grippers) {
        script << "$g" << gripper << " << EOD\n";
        bool isGap = false;
        bool isBegun = false;
        for (const Sample &sample : recording.samples) {
            if (sample.gripper != gripper && !sample.concernsAll)
                continue;
            if (!sample.isLive) {
                isGap = isBegun;
                continue;
            }
            // A blank line makes a gap in the curve, because the values of this time are unknown.
            script << (std::exchange(isGap, false) ? "\n" : "") << sample.seconds << ' '
                   << sample.position << ' ' << sample.requested << ' ' << sample.current << '\n';
            isBegun = true;
        }
        script << "EOD\n";
    }
}

/// Both panels have the same margins and range, so that the same time is at the same place.
void writeAxes(std::ostream &script, const Recording &recording)
{
    const auto &samples = recording.samples;
    const auto earlier = [](const Sample &a, const Sample &b) { return a.seconds < b.seconds; };
    const auto [first, last] = std::minmax_element(samples.begin(), samples.end(), earlier);
    const double begin = first->seconds;
    const double end = std::max(last->seconds, begin + 0.001);
    script << "set lmargin at screen 0.08\nset rmargin at screen 0.86\nset grid\n"
              "set key outside right\nset xrange ["
           << begin << ':' << end << "]\n";
    if (recording.time.empty())
        return;
    script << "start = strptime('%Y-%m-%dT%H:%M:%S', " << quoted(recording.time) << ") - "
           << samples.front().seconds << "\nset x2range [start + " << begin << ":start + " << end
           << "]\nset x2data time\nset x2tics timedate\nset format x2 '%H:%M:%S'\n";
}

} // namespace

std::string plotScript(const Recording &recording, const std::string &title,
                       const std::string &picture, bool isPng)
{
    std::vector<int> grippers;
    for (const Sample &sample : recording.samples) {
        if (sample.isLive && std::count(grippers.begin(), grippers.end(), sample.gripper) == 0)
            grippers.push_back(sample.gripper);
    }
    std::sort(grippers.begin(), grippers.end());
    std::vector<std::string> positions;
    std::vector<std::string> currents;
    for (std::size_t i = 0; i < grippers.size(); ++i) {
        const std::string data = concat("$g", grippers[i], " using 1:");
        const std::string style = concat(" lc ", i + 1, " lw 2 title 'gripper ", grippers[i], '\'');
        positions.push_back(concat(data, "2 with lines", style));
        positions.push_back(concat(data, "3 with steps lc ", i + 1, " dt 2 title 'requested'"));
        currents.push_back(concat(data, "4 with lines", style));
    }
    std::ostringstream script;
    script << std::fixed << std::setprecision(3) << "set terminal "
           << (isPng ? "pngcairo" : "svg background 'white'") << " size 1200,800\nset output "
           << quoted(picture) << '\n';
    writeData(script, recording, grippers);
    const std::string from = recording.time.empty() ? "" : ", from " + recording.time;
    script << "set multiplot layout 2,1 title " << quoted(title + from) << " noenhanced\n";
    writeAxes(script, recording);
    script << "set ylabel 'position'\nset yrange [-5:260]\nplot " << join(positions)
           << "\nunset x2tics\nset offsets 0, 0, 5, 0\nset ylabel 'current'\n"
              "set yrange [-1:*<260]\nset xlabel 'seconds'\nplot "
           << join(currents) << "\nunset multiplot\n";
    return script.str();
}

} // namespace gripperctl
