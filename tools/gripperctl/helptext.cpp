#include "helptext.h"

#include "commandtable.h"
#include "optiontable.h"

namespace gripperctl {

namespace {

constexpr int column = 26;

QString entry(const QString &left, const char *right)
{
    return QStringLiteral("  %1 %2\n").arg(left, -column).arg(QLatin1String(right));
}

QString optionEntry(const OptionRow &row)
{
    QString left = QStringLiteral("--") + row.nameText();
    if (row.shortName != nullptr)
        left.prepend(QStringLiteral("-%1, ").arg(QLatin1String(row.shortName)));
    if (row.valueName != nullptr)
        left += QLatin1Char(' ') + QLatin1String(row.valueName);
    return entry(left, row.help);
}

QString optionsText(const CommandRow *command)
{
    QString text;
    for (const OptionRow &row : commandOptions()) {
        if (command != nullptr && command->takes(row.name))
            text += optionEntry(row);
    }
    for (const OptionRow &row : generalOptions())
        text += optionEntry(row);
    return text;
}

QString commandsText()
{
    QString text;
    for (const CommandRow &row : commandTable()) {
        const QString left = QStringLiteral("%1 %2").arg(row.nameText(), row.argumentsText());
        text += entry(left.trimmed(), row.summary);
    }
    return text;
}

const char *const examples =
    "  gripperctl status\n"
    "  gripperctl activate --wait && gripperctl move 120 --speed 100 --wait\n"
    "  gripperctl --gripper 2 --host robot:63352 watch\n"
    "  gripperctl record grip.csv --seconds 30 && gripperctl plot grip.csv -o grip.png\n";

const char *const exitCodes =
    "  0 done\n"
    "  1 refused by the daemon or the gripper, or the gripper has a fault\n"
    "  2 wrong usage\n"
    "  3 cannot connect, or connection lost\n"
    "  4 not done in time\n"
    "  5 the daemon does not list the gripper\n"
    "  6 a problem with a file or a program on this computer\n"
    "  130 interrupted\n";

} // namespace

QString generalHelp()
{
    return QStringLiteral("Usage: gripperctl [OPTION]... COMMAND [ARGUMENT]...\n"
                          "Shows, moves and maintains the grippers of a running gripperd.\n\n"
                          "Commands:\n%1\nOptions:\n%2\nExamples:\n%3\nExit codes:\n%4\n"
                          "gripperctl COMMAND --help explains one command.\n")
        .arg(commandsText(), optionsText(nullptr), QString::fromLatin1(examples),
             QString::fromLatin1(exitCodes));
}

QString helpFor(const CommandRow &command)
{
    const QString usage = QStringLiteral("%1 %2").arg(command.nameText(), command.argumentsText());
    return QStringLiteral("Usage: gripperctl [OPTION]... %1\n%2\n%3\n\nOptions:\n%4\nExample:\n"
                          "  gripperctl %5\n")
        .arg(usage.trimmed(), QString::fromLatin1(command.summary),
             QString::fromLatin1(command.details), optionsText(&command),
             QString::fromLatin1(command.example));
}

} // namespace gripperctl
