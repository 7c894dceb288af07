#pragma once

#include "bussimulator.h"
#include "gripperoptions.h"

#include <QMap>

namespace sim {

/// The settings from the command line.
struct ProgramOptions
{
    /// The text to print for --help. If it is not empty, the other settings are not read.
    QString helpText;
    BusSimulator::Config config;
    QVector<GripperOptions> grippers;
    QMap<quint8, int> objects; ///< position of the object for a slave id
    bool trace = false;
    QString traceFile; ///< empty means standard output
    bool quitAtEndOfInput = false;

    /// Reads `arguments`, the first of which is the name of the program. Throws Failure when they
    /// are wrong.
    static ProgramOptions fromArguments(const QStringList &arguments);
};

} // namespace sim
