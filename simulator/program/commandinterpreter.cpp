#include "commandinterpreter.h"

#include "devicemap.h"
#include "failure.h"
#include "faulttext.h"
#include "gripperbody.h"
#include "gripperoptions.h"
#include "numbers.h"

#include <climits>

namespace sim {

namespace {
constexpr int maxWord = 0xFFFF;
constexpr int maxFaultCode = 15;
constexpr int maxGetCount = 125;

QString wordText(quint16 value)
{
    return QStringLiteral("0x%1").arg(value, 4, 16, QLatin1Char('0'));
}

/// The state as it is appended to a line, empty for a gripper that runs its firmware.
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

int toNumber(const QString &word, int min, int max, const char *name)
{
    const std::optional<int> number = parseNumber(word, min, max);
    if (!number) {
        throw Failure{QStringLiteral("%1 is a number of %2 to %3, not \"%4\"")
                          .arg(QLatin1String(name))
                          .arg(min)
                          .arg(max)
                          .arg(word)};
    }
    return *number;
}

quint16 toWord(const QString &word, const char *name)
{
    return static_cast<quint16>(toNumber(word, 0, maxWord, name));
}
} // namespace

using Self = CommandInterpreter;

const Self::Command Self::commands[] = {
    {"add", "ID=VERSION [serial=TEXT] [year=YEAR]", "adds a gripper", 1, 3, &Self::add},
    {"remove", "ID", "removes a gripper", 1, 1, &Self::remove},
    {"fault", "ID KIND [HOWOFTEN [VALUE]] [on SCOPE]", "makes a gripper misbehave", 2, INT_MAX,
     &Self::fault},
    {"clear", "[ID]", "ends all faults of one gripper, or of all", 0, 1, &Self::clear},
    {"set", "ID REGISTER VALUE", "changes a register, or pins it if its value is computed", 3, 3,
     &Self::set},
    {"pin", "ID REGISTER VALUE", "makes reads of a register return VALUE", 3, 3, &Self::pin},
    {"release", "ID [REGISTER]", "ends one pin of a gripper, or all", 1, 2, &Self::release},
    {"get", "ID REGISTER [COUNT]", "reads registers as a master would", 2, 3, &Self::get},
    {"object", "ID POSITION|none", "puts an object in the way, or removes it", 2, 2, &Self::object},
    {"faultcode", "ID CODE", "sets the fault code until the next deactivation", 2, 2,
     &Self::faultCode},
    {"restart", "ID", "switches a gripper off and on", 1, 1, &Self::restart},
    {"show", "", "prints the port and the grippers", 0, 0, &Self::show},
    {"unplug", "", "removes the link and hangs up the port", 0, 0, &Self::unplug},
    {"plug", "", "opens a new port and makes the link again", 0, 0, &Self::plug},
    {"help", "", "prints the commands and the faults", 0, 0, &Self::help},
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
    try {
        const Reply reply = run(text.split(QLatin1Char(' ')));
        return reply.lines + QStringList{QStringLiteral("ok %1").arg(reply.text).trimmed()};
    } catch (const Failure &failure) {
        return {QStringLiteral("error %1").arg(failure.text)};
    }
}

Self::Reply CommandInterpreter::run(const QStringList &words)
{
    for (const Command &command : commands) {
        if (words.first() != QLatin1String(command.name))
            continue;
        const int count = words.size() - 1;
        if (count < command.minWords || count > command.maxWords) {
            throw Failure{QStringLiteral("usage: %1 %2")
                              .arg(QLatin1String(command.name), QLatin1String(command.arguments))
                              .trimmed()};
        }
        return (this->*command.run)(words.mid(1));
    }
    throw Failure{QStringLiteral("unknown command \"%1\", see help").arg(words.first())};
}

SimulatedGripper &CommandInterpreter::gripperOf(const QString &word) const
{
    const std::optional<int> slaveId = parseNumber(word, map::minSlaveId, map::maxSlaveId);
    SimulatedGripper *gripper =
        slaveId ? m_simulator.gripper(static_cast<quint8>(*slaveId)) : nullptr;
    if (gripper == nullptr)
        throw Failure{QStringLiteral("no gripper has the slave id %1").arg(word)};
    return *gripper;
}

Self::Reply CommandInterpreter::add(const QStringList &words)
{
    const GripperOptions options = GripperOptions::fromWords(words);
    if (m_simulator.addGripper(options.slaveId, options.identity) == nullptr)
        throw Failure{QStringLiteral("slave id %1 is taken").arg(options.slaveId)};
    return {};
}

Self::Reply CommandInterpreter::remove(const QStringList &words)
{
    m_simulator.removeGripper(gripperOf(words.first()).slaveId());
    return {};
}

Self::Reply CommandInterpreter::fault(const QStringList &words)
{
    gripperOf(words.first()).faults().set(parseFault(words.mid(1)));
    return {};
}

Self::Reply CommandInterpreter::clear(const QStringList &words)
{
    const QVector<SimulatedGripper *> grippers =
        words.isEmpty() ? m_simulator.grippers() : QVector{&gripperOf(words.first())};
    for (SimulatedGripper *gripper : grippers)
        gripper->faults().clear();
    return {};
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
    SimulatedGripper &gripper = gripperOf(words.at(0));
    const quint16 address = toWord(words.at(1), "REGISTER");
    const quint16 value = toWord(words.at(2), "VALUE");
    if (!(gripper.registers().*put)(address, value))
        throw Failure{QStringLiteral("no such register: %1").arg(words.at(1))};
    return {};
}

Self::Reply CommandInterpreter::release(const QStringList &words)
{
    RegisterBank &registers = gripperOf(words.first()).registers();
    if (words.size() == 1)
        registers.releaseAll();
    else
        registers.release(toWord(words.at(1), "REGISTER"));
    return {};
}

Self::Reply CommandInterpreter::get(const QStringList &words)
{
    RegisterBank &registers = gripperOf(words.first()).registers();
    const quint16 first = toWord(words.at(1), "REGISTER");
    const int count = toNumber(words.value(2, QStringLiteral("1")), 1, maxGetCount, "COUNT");
    if (!registers.exists(first, count))
        throw Failure{QStringLiteral("no such registers")};
    QStringList values;
    for (const quint16 value : registers.read(first, count))
        values.append(wordText(value));
    return {values.join(QLatin1Char(' '))};
}

Self::Reply CommandInterpreter::object(const QStringList &words)
{
    const quint8 slaveId = gripperOf(words.first()).slaveId();
    const bool isNone = words.at(1) == QLatin1String("none");
    m_simulator.setObject(slaveId,
                          isNone ? GripperBody::noObject
                                 : toNumber(words.at(1), 0, maxPosition, "POSITION (unless none)"));
    return {};
}

Self::Reply CommandInterpreter::faultCode(const QStringList &words)
{
    SimulatedGripper &gripper = gripperOf(words.first());
    const int code = toNumber(words.at(1), 0, maxFaultCode, "CODE");
    gripper.registers().body().setFaultCode(static_cast<quint8>(code));
    return {};
}

Self::Reply CommandInterpreter::restart(const QStringList &words)
{
    gripperOf(words.first()).restart();
    return {};
}

Self::Reply CommandInterpreter::show(const QStringList & /*words*/)
{
    Reply reply;
    reply.lines.append(m_simulator.isPlugged()
                           ? QStringLiteral("port %1").arg(m_simulator.portPath())
                           : QStringLiteral("port unplugged"));
    for (SimulatedGripper *gripper : m_simulator.grippers())
        reply.lines.append(describe(*gripper));
    return reply;
}

QStringList CommandInterpreter::describe(SimulatedGripper &gripper) const
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
    return {};
}

Self::Reply CommandInterpreter::plug(const QStringList & /*words*/)
{
    m_simulator.plug();
    return {m_simulator.portPath()};
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
    return {};
}

} // namespace sim
