#pragma once

#include "bussimulator.h"
#include "gripperoptions.h"

#include <QMap>

namespace sim {

/// What the command line asks for.
struct ProgramOptions
{
    enum class Outcome {
        Run,     ///< go on with these options
        Explain, ///< print `text` on standard output and end well
        Refuse,  ///< print `text` on standard error and end as a usage error
    };

    Outcome outcome = Outcome::Run;
    QString text;
    BusSimulator::Config config;
    QVector<GripperOptions> grippers;
    QMap<quint8, int> objects; ///< slave id to position
    bool trace = false;
    QString traceFile; ///< empty: standard output
    bool quitAtEndOfInput = false;

    /// `arguments` with the program's name in front.
    static ProgramOptions fromArguments(const QStringList &arguments);
};

} // namespace sim
