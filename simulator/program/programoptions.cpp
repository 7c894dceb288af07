#include "programoptions.h"

#include "failure.h"
#include "gripperbody.h"
#include "numbers.h"

#include <QCommandLineParser>

#include <climits>

namespace sim {

namespace {
constexpr int maxTimeMs = 600000;
constexpr int maxPortMode = 0777;
constexpr int maxBitsPerSecond = 10000000;

/// The names of the options. declare() and Reader use them.
struct Names
{
    static QString gripper() { return QStringLiteral("gripper"); }
    static QString serial() { return QStringLiteral("serial"); }
    static QString year() { return QStringLiteral("year"); }
    static QString object() { return QStringLiteral("object"); }
    static QString link() { return QStringLiteral("link"); }
    static QString noLink() { return QStringLiteral("no-link"); }
    static QString mode() { return QStringLiteral("mode"); }
    static QString boot() { return QStringLiteral("boot-ms"); }
    static QString bootloaderBoot() { return QStringLiteral("bootloader-boot-ms"); }
    static QString bootloaderSpeed() { return QStringLiteral("bootloader-bps"); }
    static QString activation() { return QStringLiteral("activation-ms"); }
    static QString seed() { return QStringLiteral("seed"); }
    static QString trace() { return QStringLiteral("trace"); }
    static QString traceFile() { return QStringLiteral("trace-file"); }
    static QString quit() { return QStringLiteral("quit-at-eof"); }
    static QString help() { return QStringLiteral("help"); }
};

QCommandLineOption withDefault(const QString &name, const QString &description,
                               const QString &valueName, const QString &value)
{
    return {name, QStringLiteral("%1 Default: %2.").arg(description, value), valueName, value};
}

QCommandLineOption durationMs(const QString &name, const QString &what, int value)
{
    return withDefault(name, QStringLiteral("Duration of %1.").arg(what), QStringLiteral("MS"),
                       QString::number(value));
}

void declare(QCommandLineParser *parser)
{
    const BusSimulator::Config defaults;
    parser->setApplicationDescription(QStringLiteral(
        "Simulates a serial line with grippers. It reads commands from standard input; the command "
        "\"help\" lists them."));
    parser->addOptions({
        {Names::gripper(),
         QStringLiteral("A gripper on the line, such as 9=TA3-1.6.14. Can be repeated."),
         QStringLiteral("ID=VERSION")},
        {Names::serial(), QStringLiteral("Serial number of a gripper, such as 9=ABC-0042."),
         QStringLiteral("ID=TEXT")},
        {Names::year(), QStringLiteral("Production year of a gripper, such as 9=2023."),
         QStringLiteral("ID=YEAR")},
        {Names::object(),
         QStringLiteral("An object that stops a gripper at a position of 0 to 255."),
         QStringLiteral("ID=POSITION")},
        withDefault(Names::link(), QStringLiteral("Path of the link to the pty."),
                    QStringLiteral("PATH"), QStringLiteral("/dev/ttyTool")),
        {Names::noLink(), QStringLiteral("Makes no link.")},
        {Names::mode(), QStringLiteral("Octal permission bits of the pty, such as 666."),
         QStringLiteral("MODE")},
        durationMs(Names::boot(), QStringLiteral("a restart"), defaults.timing.bootMs),
        durationMs(Names::bootloaderBoot(), QStringLiteral("a restart into the bootloader"),
                   defaults.timing.bootloaderBootMs),
        withDefault(Names::bootloaderSpeed(),
                    QStringLiteral("Bits per second of the bootloader, which delay its answers; 0 "
                                   "means no delay."),
                    QStringLiteral("BITS"),
                    QString::number(defaults.timing.bootloaderBitsPerSecond)),
        durationMs(Names::activation(), QStringLiteral("an activation"),
                   defaults.timing.activationMs),
        withDefault(Names::seed(), QStringLiteral("Seed of all random decisions."),
                    QStringLiteral("N"), QString::number(defaults.seed)),
        {Names::trace(), QStringLiteral("Prints every frame on standard output.")},
        {Names::traceFile(), QStringLiteral("Writes every frame to FILE."), QStringLiteral("FILE")},
        {Names::quit(), QStringLiteral("Ends the simulator when standard input ends.")},
    });
    parser->addHelpOption();
}

/// Reads a parsed command line into the options. Throws Failure at the first wrong value.
class Reader
{
public:
    Reader(const QCommandLineParser &parser, ProgramOptions *options)
        : m_parser(parser)
        , m_options(*options)
    {
    }

    void read()
    {
        readSwitches();
        readNumbers();
        readMode();
        readGrippers();
        readExtras(Names::serial());
        readExtras(Names::year());
        readObjects();
    }

private:
    [[noreturn]] static void refuse(const QString &name, const QString &value)
    {
        throw Failure{QStringLiteral("wrong value for --%1: \"%2\", see --help").arg(name, value)};
    }

    void readSwitches()
    {
        if (!m_parser.positionalArguments().isEmpty()) {
            throw Failure{QStringLiteral("unexpected argument \"%1\", see --help")
                              .arg(m_parser.positionalArguments().first())};
        }
        if (!m_parser.isSet(Names::noLink()))
            m_options.config.linkPath = m_parser.value(Names::link());
        m_options.traceFile = m_parser.value(Names::traceFile());
        m_options.trace = m_parser.isSet(Names::trace()) || m_parser.isSet(Names::traceFile());
        m_options.quitAtEndOfInput = m_parser.isSet(Names::quit());
    }

    int number(const QString &name, int max)
    {
        const std::optional<int> value = parseNumber(m_parser.value(name), 0, max);
        if (!value)
            refuse(name, m_parser.value(name));
        return *value;
    }

    void readNumbers()
    {
        m_options.config.timing.bootMs = number(Names::boot(), maxTimeMs);
        m_options.config.timing.bootloaderBootMs = number(Names::bootloaderBoot(), maxTimeMs);
        m_options.config.timing.bootloaderBitsPerSecond =
            number(Names::bootloaderSpeed(), maxBitsPerSecond);
        m_options.config.timing.activationMs = number(Names::activation(), maxTimeMs);
        m_options.config.seed = static_cast<quint32>(number(Names::seed(), INT_MAX));
    }

    void readMode()
    {
        if (!m_parser.isSet(Names::mode()))
            return;
        bool ok = false;
        const QString text = m_parser.value(Names::mode());
        m_options.config.portMode = text.toUInt(&ok, 8);
        if (!ok || m_options.config.portMode == 0 || m_options.config.portMode > maxPortMode)
            refuse(Names::mode(), text);
    }

    GripperOptions *gripperOf(quint8 slaveId)
    {
        for (GripperOptions &gripper : m_options.grippers) {
            if (gripper.slaveId == slaveId)
                return &gripper;
        }
        return nullptr;
    }

    void readGrippers()
    {
        const QStringList words = m_parser.values(Names::gripper());
        for (const QString &word : words) {
            const GripperOptions gripper = GripperOptions::fromWords({word});
            if (gripperOf(gripper.slaveId) != nullptr)
                throw Failure{
                    QStringLiteral("two grippers have the slave id %1").arg(gripper.slaveId)};
            m_options.grippers.append(gripper);
        }
    }

    void readExtras(const QString &name)
    {
        const QStringList words = m_parser.values(name);
        for (const QString &word : words) {
            const auto extra = PerGripperText::fromWord(word);
            GripperOptions *gripper = extra ? gripperOf(extra->slaveId) : nullptr;
            const bool isApplied =
                gripper != nullptr && gripper->applyWord(name + QLatin1Char('=') + extra->text);
            if (!isApplied)
                refuse(name, word);
        }
    }

    void readObjects()
    {
        const QStringList words = m_parser.values(Names::object());
        for (const QString &word : words) {
            const auto object = PerGripperText::fromWord(word);
            const auto position = object ? parseNumber(object->text, 0, maxPosition) : std::nullopt;
            if (!position || gripperOf(object->slaveId) == nullptr)
                refuse(Names::object(), word);
            m_options.objects.insert(object->slaveId, *position);
        }
    }

    const QCommandLineParser &m_parser;
    ProgramOptions &m_options;
};
} // namespace

ProgramOptions ProgramOptions::fromArguments(const QStringList &arguments)
{
    QCommandLineParser parser;
    declare(&parser);
    ProgramOptions options;
    if (!parser.parse(arguments))
        throw Failure{parser.errorText()};
    if (parser.isSet(Names::help()))
        options.helpText = parser.helpText();
    else
        Reader(parser, &options).read();
    return options;
}

} // namespace sim
