#include "optiontable.h"

namespace gripperctl {

namespace {

using Kind = OptionRow::Kind;

constexpr double shortest = 0.02;
constexpr double longest = 86400;

OptionRow flag(const char *name, const char *help)
{
    return {name, nullptr, Kind::Flag, nullptr, 0, 0, help};
}

OptionRow text(const char *name, const char *valueName, const char *help,
               const char *shortName = nullptr)
{
    return {name, shortName, Kind::Text, valueName, 0, 0, help};
}

OptionRow whole(const char *name, const char *valueName, double least, double most,
                const char *help)
{
    return {name, nullptr, Kind::Whole, valueName, least, most, help};
}

OptionRow seconds(const char *name, const char *help)
{
    return {name, nullptr, Kind::Seconds, "SECONDS", shortest, longest, help};
}

} // namespace

QString OptionRow::nameText() const
{
    return QString::fromLatin1(name);
}

const QVector<OptionRow> &generalOptions()
{
    static const QVector<OptionRow> rows{
        text("host", "HOST[:PORT]", "Where gripperd listens (127.0.0.1:63352)."),
        whole("gripper", "ID", 1, 9, "Which gripper (9)."),
        flag("json", "Print JSON, for scripts."),
        seconds("timeout", "How long to wait for an answer, or for what was asked for."),
        {"help", "h", Kind::Flag, nullptr, 0, 0, "Explain gripperctl, or the command given."},
        flag("version", "Print the version of gripperctl."),
    };
    return rows;
}

const QVector<OptionRow> &commandOptions()
{
    static const QVector<OptionRow> rows{
        flag("wait", "Wait for the end and tell how it came."),
        whole("speed", "N", 0, 255, "0 (slowest) to 255; otherwise as it was last."),
        whole("force", "N", 0, 255, "0 (gentlest) to 255; otherwise as it was last."),
        flag("again", "Activate anew a gripper that is active."),
        flag("closing", "Release by closing instead of opening."),
        flag("yes", "Do not ask."),
        text("expect", "VERSION", "Succeed if the gripper runs this firmware in the end."),
        seconds("interval", "Time between two looks (watch 0.2, record 0.1)."),
        whole("count", "N", 1, 1000000, "End after so many looks."),
        seconds("seconds", "End after that time."),
        text("output", "FILE", "What to draw into, .svg or .png (the recording's name, .svg).",
             "o"),
    };
    return rows;
}

} // namespace gripperctl
