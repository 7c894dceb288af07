#pragma once

#include "bussimulator.h"
#include "gripperoptions.h"

#include <QMap>

namespace sim {

/// What the command line asks for.
struct ProgramOptions
{
    /// The text that --help asks for. When it is not empty, nothing else counts.
    QString helpText;
    BusSimulator::Config config;
    QVector<GripperOptions> grippers;
    QMap<quint8, int> objects; ///< slave id to position
    bool trace = false;
    QString traceFile; ///< empty: standard output
    bool quitAtEndOfInput = false;

    /// `arguments` begin with the name of the program. Throws Failure for a wrong command line.
    static ProgramOptions fromArguments(const QStringList &arguments);
};

} // namespace sim
