#pragma once

#include "bussimulator.h"
#include "commandinterpreter.h"
#include "programoptions.h"
#include "signalwatcher.h"
#include "standardinput.h"

#include <QFile>

namespace sim {

/// The program gripper-simulator. It reads commands from standard input, prints answers and the
/// trace, and emits quitRequested() on a signal or a command.
class SimulatorProgram : public QObject
{
    Q_OBJECT

public:
    explicit SimulatorProgram(const ProgramOptions &options, QObject *parent = nullptr);

    /// Plugs the simulator in and prints the ready line. Throws Failure when it cannot.
    void start();

signals:
    void quitRequested();

private:
    void openOutput();
    void addGrippers();
    void onLine(const QString &line);
    void onEndOfInput();
    QString readyLine() const;
    void print(const QString &line);

    ProgramOptions m_options;
    BusSimulator m_simulator;
    CommandInterpreter m_interpreter;
    StandardInput m_input;
    SignalWatcher m_signals;
    QFile m_output;
    QFile m_trace;
};

} // namespace sim
