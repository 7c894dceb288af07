#include "options.h"

#include "failure.h"

#include <QCommandLineParser>
#include <QRegularExpression>

namespace flasher {

namespace {

constexpr quint32 flashStart = 0x08000000;
constexpr quint32 flashEnd = 0x08100000;

constexpr BootloaderTarget targetAt(int baudRate, quint32 address)
{
    return {baudRate, address, static_cast<qint64>(flashEnd - address)};
}

constexpr BootloaderTarget targets[] = {
    targetAt(19200, flashStart),  // the ROM bootloader, which no firmware can overwrite
    targetAt(115200, 0x08080000), // the gripper's own bootloader, which is below this address
};

/// The names of the options. declare() and Options::fromArguments() use them.
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
    parser->setApplicationDescription(QStringLiteral(
        "Writes firmware into a gripper that is in its bootloader, with stm32flash, "
        "and verifies it.\n\n"
        "Exit codes: 0 done, 2 cannot begin, 3 port not available, 4 no bootloader answered,\n"
        "5 write or verification failed, 6 written but not started, 7 no progress.\n"
        "With -g, if the image cannot be used, romflasher starts the present "
        "firmware and ends with 2."));
    parser->addOptions({
        {Names::port(), QStringLiteral("The serial port, such as /dev/ttyUSB0."),
         QStringLiteral("DEVICE")},
        {Names::baudRate(),
         QStringLiteral("19200: the ROM bootloader, which writes from 0x08000000 on. 115200: the "
                        "gripper's own bootloader, which writes from 0x08080000 on."),
         QStringLiteral("BAUD")},
        {Names::file(), QStringLiteral("The firmware image, plain binary."),
         QStringLiteral("FILE")},
        {Names::details(), QStringLiteral("Print details and progress.")},
        {Names::go(), QStringLiteral("Start the firmware afterwards.")},
    });
    parser->addHelpOption();
}

[[noreturn]] void refuse(const QString &problem)
{
    throw Failure{ExitCode::CannotBegin, problem + QStringLiteral(", see romflasher --help")};
}

BootloaderTarget targetFor(const QString &baudRate)
{
    for (const BootloaderTarget &target : targets) {
        if (baudRate == QString::number(target.baudRate))
            return target;
    }
    refuse(QStringLiteral("-b takes 19200 or 115200, not \"%1\"").arg(baudRate));
}

void checkWords(const QCommandLineParser &parser)
{
    if (!parser.positionalArguments().isEmpty()) {
        refuse(
            QStringLiteral("unexpected argument \"%1\"").arg(parser.positionalArguments().first()));
    }
    for (const QString &name : {Names::port(), Names::baudRate(), Names::file()}) {
        if (parser.values(name).size() > 1)
            refuse(QStringLiteral("-%1 is given twice").arg(name));
        if (parser.value(name).isEmpty())
            refuse(QStringLiteral("-%1 is missing").arg(name));
    }
}

} // namespace

Options Options::fromArguments(const QStringList &arguments)
{
    QCommandLineParser parser;
    declare(&parser);
    if (!parser.parse(arguments))
        refuse(parser.errorText().remove(QRegularExpression(QStringLiteral("\\.$"))));
    Options options;
    if (parser.isSet(Names::help())) {
        options.helpText = parser.helpText();
        return options;
    }
    checkWords(parser);
    options.device = parser.value(Names::port());
    options.imagePath = parser.value(Names::file());
    options.target = targetFor(parser.value(Names::baudRate()));
    options.isVerbose = parser.isSet(Names::details());
    options.startsFirmware = parser.isSet(Names::go());
    return options;
}

} // namespace flasher
