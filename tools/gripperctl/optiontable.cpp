#include "optiontable.h"

namespace gripperctl {

namespace {

using Kind = OptionRow::Kind;

constexpr double minSeconds = 0.02;
constexpr double maxSeconds = 86400;

OptionRow flag(const char *name, const char *help)
{
    return {name, nullptr, Kind::Flag, nullptr, 0, 0, help};
}

OptionRow text(const char *name, const char *valueName, const char *help,
               const char *shortName = nullptr)
{
    return {name, shortName, Kind::Text, valueName, 0, 0, help};
}

OptionRow whole(const char *name, const char *valueName, double min, double max, const char *help)
{
    return {name, nullptr, Kind::Whole, valueName, min, max, help};
}

OptionRow seconds(const char *name, const char *help)
{
    return {name, nullptr, Kind::Seconds, "SECONDS", minSeconds, maxSeconds, help};
}

} // namespace

QString OptionRow::nameText() const
{
    return QString::fromLatin1(name);
}

const QVector<OptionRow> &generalOptions()
{
    static const QVector<OptionRow> rows{
        text("host", "HOST[:PORT]", "The address of gripperd (default 127.0.0.1:63352)."),
        whole("gripper", "ID", 1, 9, "The gripper (default 9)."),
        flag("json", "Print JSON, for scripts."),
        seconds("timeout", "Time limit for an answer, or for the end of the action."),
        {"help", "h", Kind::Flag, nullptr, 0, 0, "Explain gripperctl, or the given command."},
        flag("version", "Print the version of gripperctl."),
    };
    return rows;
}

const QVector<OptionRow> &commandOptions()
{
    static const QVector<OptionRow> rows{
        flag("wait", "Wait for the end and print the result."),
        whole("speed", "N", 0, 255, "0 (slowest) to 255; without it, the last value."),
        whole("force", "N", 0, 255, "0 (gentlest) to 255; without it, the last value."),
        flag("again", "Activate again, even if the gripper is already active."),
        flag("closing", "Release by closing instead of opening."),
        flag("yes", "Do not ask for confirmation."),
        text("expect", "VERSION", "Succeed if the gripper runs this firmware afterwards."),
        seconds("interval", "Time between two readings (default: watch 0.2, record 0.1)."),
        whole("count", "N", 1, 1000000, "End after this number of readings."),
        seconds("seconds", "End after this time."),
        text("output", "FILE",
             "The picture, .svg or .png (default: the recording's name with .svg).", "o"),
    };
    return rows;
}

} // namespace gripperctl
