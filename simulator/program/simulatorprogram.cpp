#include "simulatorprogram.h"

#include "failure.h"

#include <cstdio>

namespace sim {

namespace {
void writeLine(QFile *file, const QString &line)
{
    // Write the line at once and in one piece, because a reader may wait at a pipe.
    file->write(line.toUtf8() + '\n');
    file->flush();
}
} // namespace

SimulatorProgram::SimulatorProgram(const ProgramOptions &options, QObject *parent)
    : QObject(parent)
    , m_options(options)
    , m_simulator(options.config)
    , m_interpreter(m_simulator)
{
    connect(&m_input, &StandardInput::lineRead, this, &SimulatorProgram::onLine);
    connect(&m_input, &StandardInput::ended, this, &SimulatorProgram::onEndOfInput);
    connect(&m_signals, &SignalWatcher::quitRequested, this, &SimulatorProgram::quitRequested);
    connect(&m_interpreter, &CommandInterpreter::quitRequested, this,
            &SimulatorProgram::quitRequested);
    addGrippers();
}

void SimulatorProgram::start()
{
    openOutput();
    if (m_options.trace) {
        QFile *trace = m_options.traceFile.isEmpty() ? &m_output : &m_trace;
        connect(&m_simulator, &BusSimulator::frameSeen, this,
                [trace](const FrameRecord &frame) { writeLine(trace, traceLine(frame)); });
    }
    m_simulator.plug();
    print(readyLine());
}

void SimulatorProgram::openOutput()
{
    m_output.open(stdout, QIODevice::WriteOnly);
    if (m_options.traceFile.isEmpty())
        return;
    m_trace.setFileName(m_options.traceFile);
    if (!m_trace.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        throw Failure{
            QStringLiteral("cannot write %1: %2").arg(m_options.traceFile, m_trace.errorString())};
    }
}

void SimulatorProgram::addGrippers()
{
    for (const GripperOptions &gripper : m_options.grippers)
        m_simulator.addGripper(gripper.slaveId, gripper.identity);
    for (auto it = m_options.objects.cbegin(); it != m_options.objects.cend(); ++it)
        m_simulator.setObject(it.key(), it.value());
}

void SimulatorProgram::onLine(const QString &line)
{
    const QStringList answers = m_interpreter.execute(line);
    for (const QString &answer : answers)
        print(answer);
}

void SimulatorProgram::onEndOfInput()
{
    if (m_options.quitAtEndOfInput)
        emit quitRequested();
}

QString SimulatorProgram::readyLine() const
{
    QStringList ids;
    for (const SimulatedGripper *gripper : m_simulator.grippers())
        ids.append(QString::number(gripper->slaveId()));
    const QString link = m_simulator.linkPath();
    return QStringLiteral("ready port=%1 link=%2 grippers=%3")
        .arg(m_simulator.portPath(), link.isEmpty() ? QStringLiteral("none") : link,
             ids.isEmpty() ? QStringLiteral("none") : ids.join(QLatin1Char(',')));
}

void SimulatorProgram::print(const QString &line)
{
    writeLine(&m_output, line);
}

} // namespace sim
