#include "commandinterpreter.h"

#include "devicemap.h"
#include "faulttext.h"
#include "gripperoptions.h"
#include "numbers.h"

#include <climits>

namespace sim {

namespace {
constexpr int maxWord = 0xFFFF;
constexpr int maxPosition = 255;
constexpr int maxFaultCode = 15;
constexpr int maxGetCount = 125;

QString wordText(quint16 value)
{
    return QStringLiteral("0x%1").arg(value, 4, 16, QLatin1Char('0'));
}

/// What is to be told of a gripper that does not run its firmware, with a blank before it.
QString stateText(const SimulatedGripper &gripper)
{
    switch (gripper.state()) {
    case SimulatedGripper::State::Firmware:
        return QString();
    case SimulatedGripper::State::Bootloader:
        return QStringLiteral(" bootloader");
    case SimulatedGripper::State::Booting:
        return QStringLiteral(" booting");
    case SimulatedGripper::State::Dead:
        return QStringLiteral(" dead");
    }
    return QString();
}

quint8 toSlaveId(const QString &word)
{
    // 0 is nobody's id.
    return static_cast<quint8>(parseNumber(word, map::minSlaveId, map::maxSlaveId).value_or(0));
}
} // namespace

using Self = CommandInterpreter;

const Self::Command Self::commands[] = {
    {"add", "ID=VERSION [serial=TEXT] [year=N]", "puts a gripper on the line", 1, 3, &Self::add},
    {"remove", "ID", "takes it off the line", 1, 1, &Self::remove},
    {"fault", "ID KIND [HOWOFTEN [VALUE]] [on SCOPE]", "makes it misbehave", 2, INT_MAX,
     &Self::fault},
    {"clear", "[ID]", "ends all misbehaviour", 0, 1, &Self::clear},
    {"set", "ID REGISTER VALUE", "changes a register; one that is worked out is pinned", 3, 3,
     &Self::set},
    {"pin", "ID REGISTER VALUE", "makes reads give VALUE, whatever is written", 3, 3, &Self::pin},
    {"release", "ID [REGISTER]", "ends pins", 1, 2, &Self::release},
    {"get", "ID REGISTER [COUNT]", "reads registers as a master would", 2, 3, &Self::get},
    {"object", "ID POSITION|none", "puts an object in the way, or takes it away", 2, 2,
     &Self::object},
    {"faultcode", "ID CODE", "shows a fault code until the next deactivation", 2, 2,
     &Self::faultCode},
    {"restart", "ID", "power off and on", 1, 1, &Self::restart},
    {"show", "", "prints the state of the line", 0, 0, &Self::show},
    {"unplug", "", "hangs the port up", 0, 0, &Self::unplug},
    {"plug", "", "brings the port back", 0, 0, &Self::plug},
    {"help", "", "prints this", 0, 0, &Self::help},
    {"quit", "", "ends the simulator", 0, 0, &Self::quit},
};

CommandInterpreter::CommandInterpreter(BusSimulator &simulator, QObject *parent)
    : QObject(parent)
    , m_simulator(simulator)
{
}

QStringList CommandInterpreter::execute(const QString &line)
{
    const QString text = line.simplified();
    if (text.isEmpty() || text.startsWith(QLatin1Char('#')))
        return {};
    return toLines(run(text.split(QLatin1Char(' '))));
}

QStringList CommandInterpreter::toLines(const Reply &reply)
{
    QStringList lines = reply.lines;
    const QString last = reply.isOk ? QStringLiteral("ok") : QStringLiteral("error");
    lines.append(reply.text.isEmpty() ? last : last + QLatin1Char(' ') + reply.text);
    return lines;
}

Self::Reply CommandInterpreter::run(const QStringList &words)
{
    for (const Command &command : commands) {
        if (words.first() != QLatin1String(command.name))
            continue;
        const int count = words.size() - 1;
        if (count < command.minWords || count > command.maxWords)
            return usage(command);
        return (this->*command.run)(words.mid(1));
    }
    return error(QStringLiteral("no such command: %1, see help").arg(words.first()));
}

Self::Reply CommandInterpreter::usage(const Command &command)
{
    return error(QStringLiteral("usage: %1 %2")
                     .arg(QLatin1String(command.name), QLatin1String(command.arguments))
                     .trimmed());
}

Self::Reply CommandInterpreter::noGripper(const QString &word)
{
    return error(QStringLiteral("no gripper has the slave id %1").arg(word));
}

Self::Reply CommandInterpreter::done(bool isDone, const QString &word)
{
    return isDone ? ok() : noGripper(word);
}

SimulatedGripper *CommandInterpreter::gripperOf(const QString &word) const
{
    return m_simulator.gripper(toSlaveId(word));
}

Self::Reply CommandInterpreter::add(const QStringList &words)
{
    QString problem;
    const std::optional<GripperOptions> options = GripperOptions::fromWords(words, &problem);
    if (!options)
        return error(problem);
    if (m_simulator.addGripper(options->slaveId, options->identity) == nullptr)
        return error(QStringLiteral("slave id %1 is taken").arg(options->slaveId));
    return ok();
}

Self::Reply CommandInterpreter::remove(const QStringList &words)
{
    return done(m_simulator.removeGripper(toSlaveId(words.first())), words.first());
}

Self::Reply CommandInterpreter::fault(const QStringList &words)
{
    QString problem;
    const std::optional<Fault> fault = parseFault(words.mid(1), &problem);
    if (!fault)
        return error(problem);
    return done(m_simulator.setFault(toSlaveId(words.first()), *fault), words.first());
}

Self::Reply CommandInterpreter::clear(const QStringList &words)
{
    if (!words.isEmpty())
        return done(m_simulator.clearFaults(toSlaveId(words.first())), words.first());
    for (SimulatedGripper *gripper : m_simulator.grippers())
        gripper->faults().clear();
    return ok();
}

Self::Reply CommandInterpreter::set(const QStringList &words)
{
    return putRegister(words, &RegisterBank::set);
}

Self::Reply CommandInterpreter::pin(const QStringList &words)
{
    return putRegister(words, &RegisterBank::pin);
}

Self::Reply CommandInterpreter::putRegister(const QStringList &words, PutRegister put)
{
    SimulatedGripper *gripper = gripperOf(words.at(0));
    const std::optional<int> address = parseNumber(words.at(1), 0, maxWord);
    const std::optional<int> value = parseNumber(words.at(2), 0, maxWord);
    if (gripper == nullptr)
        return noGripper(words.at(0));
    if (!address || !value)
        return error(QStringLiteral("a register and its value are numbers of 0 to 65535"));
    if (!(gripper->registers().*put)(static_cast<quint16>(*address), static_cast<quint16>(*value)))
        return error(QStringLiteral("no such register: %1").arg(words.at(1)));
    return ok();
}

Self::Reply CommandInterpreter::release(const QStringList &words)
{
    SimulatedGripper *gripper = gripperOf(words.first());
    if (gripper == nullptr)
        return noGripper(words.first());
    if (words.size() == 1) {
        gripper->registers().releaseAll();
        return ok();
    }
    const std::optional<int> address = parseNumber(words.at(1), 0, maxWord);
    if (!address)
        return error(QStringLiteral("a register is a number of 0 to 65535"));
    gripper->registers().release(static_cast<quint16>(*address));
    return ok();
}

Self::Reply CommandInterpreter::get(const QStringList &words)
{
    SimulatedGripper *gripper = gripperOf(words.first());
    if (gripper == nullptr)
        return noGripper(words.first());
    const std::optional<int> address = parseNumber(words.at(1), 0, maxWord);
    const std::optional<int> count =
        parseNumber(words.value(2, QStringLiteral("1")), 1, maxGetCount);
    if (!address || !count)
        return error(QStringLiteral("a register is 0 to 65535, a count 1 to 125"));
    const auto first = static_cast<quint16>(*address);
    if (!gripper->registers().exists(first, *count))
        return error(QStringLiteral("no such registers"));
    QStringList values;
    for (const quint16 value : gripper->registers().read(first, *count))
        values.append(wordText(value));
    return ok(values.join(QLatin1Char(' ')));
}

Self::Reply CommandInterpreter::object(const QStringList &words)
{
    const bool isNone = words.at(1) == QLatin1String("none");
    const std::optional<int> position = parseNumber(words.at(1), 0, maxPosition);
    if (!isNone && !position)
        return error(QStringLiteral("a position is 0 to 255, or none"));
    return done(
        m_simulator.setObject(toSlaveId(words.first()), position.value_or(GripperBody::noObject)),
        words.first());
}

Self::Reply CommandInterpreter::faultCode(const QStringList &words)
{
    const std::optional<int> code = parseNumber(words.at(1), 0, maxFaultCode);
    if (!code)
        return error(QStringLiteral("a fault code is 0 to 15"));
    return done(m_simulator.setFaultCode(toSlaveId(words.first()), static_cast<quint8>(*code)),
                words.first());
}

Self::Reply CommandInterpreter::restart(const QStringList &words)
{
    return done(m_simulator.restartGripper(toSlaveId(words.first())), words.first());
}

Self::Reply CommandInterpreter::show(const QStringList & /*words*/)
{
    Reply reply;
    reply.lines.append(m_simulator.isPlugged()
                           ? QStringLiteral("port %1").arg(m_simulator.portPath())
                           : QStringLiteral("port unplugged"));
    for (SimulatedGripper *gripper : m_simulator.grippers())
        reply.lines.append(linesOf(*gripper));
    return reply;
}

QStringList CommandInterpreter::linesOf(SimulatedGripper &gripper) const
{
    const GripperIdentity &identity = gripper.identity();
    const GripperBody &body = gripper.registers().body();
    QStringList lines;
    lines.append(QStringLiteral("gripper %1 %2 serial=%3 year=%4%5")
                     .arg(gripper.slaveId())
                     .arg(identity.versionText(), identity.serialText())
                     .arg(identity.year)
                     .arg(stateText(gripper)));
    lines.append(QStringLiteral("  status=%1 position=%2 object=%3 current=%4 fault=%5")
                     .arg(static_cast<int>(body.status()))
                     .arg(body.position())
                     .arg(static_cast<int>(body.objectFlag()))
                     .arg(body.motorCurrent())
                     .arg(body.faultCode()));
    for (const Fault &fault : gripper.faults().faults())
        lines.append(QStringLiteral("  fault %1").arg(faultText(fault)));
    const QMap<quint16, quint16> &pins = gripper.registers().pins();
    for (auto it = pins.begin(); it != pins.end(); ++it)
        lines.append(QStringLiteral("  pin %1 %2").arg(it.key()).arg(wordText(it.value())));
    return lines;
}

Self::Reply CommandInterpreter::unplug(const QStringList & /*words*/)
{
    m_simulator.unplug();
    return ok();
}

Self::Reply CommandInterpreter::plug(const QStringList & /*words*/)
{
    return m_simulator.plug() ? ok(m_simulator.portPath()) : error(m_simulator.errorString());
}

Self::Reply CommandInterpreter::help(const QStringList & /*words*/)
{
    Reply reply;
    for (const Command &command : commands) {
        const QString call = QStringLiteral("%1 %2").arg(QLatin1String(command.name),
                                                         QLatin1String(command.arguments));
        reply.lines.append(
            QStringLiteral("  %1 %2").arg(call, -46).arg(QLatin1String(command.meaning)));
    }
    reply.lines.append(QStringLiteral("kinds of fault:"));
    reply.lines.append(faultHelp());
    return reply;
}

Self::Reply CommandInterpreter::quit(const QStringList & /*words*/)
{
    emit quitRequested();
    return ok();
}

} // namespace sim
