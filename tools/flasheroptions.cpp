#include "flasheroptions.h"

#include <QCommandLineParser>

namespace {
constexpr quint32 kFlashStart = 0x08000000;
constexpr quint32 kFlashEnd = 0x08100000;

constexpr BootloaderTarget targetAt(int baudRate, quint32 address)
{
    return {baudRate, address, static_cast<qint64>(kFlashEnd - address)};
}

constexpr BootloaderTarget kTargets[] = {
    targetAt(19200, kFlashStart), // the ROM bootloader, which no firmware can overwrite
    targetAt(115200, 0x08080000), // the gripper's own, which lies below the firmware
};

/// The options by name, so that declaring and asking cannot differ.
struct Names
{
    static QString port() { return QStringLiteral("p"); }
    static QString baudRate() { return QStringLiteral("b"); }
    static QString file() { return QStringLiteral("f"); }
    static QString details() { return QStringLiteral("d"); }
    static QString go() { return QStringLiteral("g"); }
    static QString help() { return QStringLiteral("help"); }
};

void declare(QCommandLineParser *parser)
{
    parser->setApplicationDescription(
        QStringLiteral("Writes firmware into a gripper that is in its bootloader, with stm32flash, "
                       "and verifies it.\n\n"
                       "Exit codes: 0 done, 2 cannot begin, 3 port, 4 no bootloader answered,\n"
                       "5 write or verification failed, 6 written but not started, 7 no progress.\n"
                       "With -g, 2 starts the firmware that is there if it can."));
    parser->addOptions({
        {Names::port(), QStringLiteral("The serial port, such as /dev/ttyUSB0."),
         QStringLiteral("DEVICE")},
        {Names::baudRate(),
         QStringLiteral("19200 for the ROM bootloader, which writes from 0x08000000 on; 115200 "
                        "for the gripper's own, which writes from 0x08080000 on."),
         QStringLiteral("BAUD")},
        {Names::file(), QStringLiteral("The firmware image, plain binary."),
         QStringLiteral("FILE")},
        {Names::details(), QStringLiteral("Print details and progress.")},
        {Names::go(), QStringLiteral("Start the firmware afterwards.")},
    });
    parser->addHelpOption();
}

const BootloaderTarget *targetOf(const QString &baudRate)
{
    for (const BootloaderTarget &target : kTargets) {
        if (baudRate == QString::number(target.baudRate))
            return &target;
    }
    return nullptr;
}

/// What is wrong with the words on the command line, empty for nothing.
QString problemIn(const QCommandLineParser &parser)
{
    if (!parser.positionalArguments().isEmpty())
        return QStringLiteral("what is \"%1\"?").arg(parser.positionalArguments().first());
    for (const QString &name : {Names::port(), Names::baudRate(), Names::file()}) {
        if (parser.values(name).size() > 1)
            return QStringLiteral("-%1 is given twice").arg(name);
        if (parser.value(name).isEmpty())
            return QStringLiteral("-%1 is missing").arg(name);
    }
    if (targetOf(parser.value(Names::baudRate())) == nullptr) {
        return QStringLiteral("-b is 19200 or 115200, not \"%1\"")
            .arg(parser.value(Names::baudRate()));
    }
    return QString();
}

FlasherOptions refuse(const QString &problem)
{
    FlasherOptions options;
    options.outcome = FlasherOptions::Outcome::Refuse;
    options.text = problem + QStringLiteral(", see --help");
    return options;
}

FlasherOptions explain(const QString &text)
{
    FlasherOptions options;
    options.outcome = FlasherOptions::Outcome::Explain;
    options.text = text;
    return options;
}
} // namespace

FlasherOptions FlasherOptions::fromArguments(const QStringList &arguments)
{
    QCommandLineParser parser;
    declare(&parser);
    if (!parser.parse(arguments))
        return refuse(parser.errorText());
    if (parser.isSet(Names::help()))
        return explain(parser.helpText());
    const QString problem = problemIn(parser);
    if (!problem.isEmpty())
        return refuse(problem);
    FlasherOptions options;
    options.device = parser.value(Names::port());
    options.imagePath = parser.value(Names::file());
    options.target = *targetOf(parser.value(Names::baudRate()));
    options.isVerbose = parser.isSet(Names::details());
    options.startsFirmware = parser.isSet(Names::go());
    return options;
}
