#include "failure.h"
#include "programoptions.h"
#include "simulatorprogram.h"
#include "standarddescriptors.h"

#include <QCoreApplication>

#include <csignal>
#include <cstdio>

namespace {
/// Documented in docs/simulator.md.
enum ExitCode { Ended = 0, CannotStart = 1, WrongUsage = 2 };

int run(const sim::ProgramOptions &options)
{
    sim::SimulatorProgram program(options);
    program.start();
    QObject::connect(&program, &sim::SimulatorProgram::quitRequested, QCoreApplication::instance(),
                     &QCoreApplication::quit);
    QCoreApplication::exec();
    return Ended;
}
} // namespace

int main(int argc, char *argv[])
{
    tools::occupyStandardDescriptors();
    // The simulated line continues when the reader of the output closes its pipe.
    std::signal(SIGPIPE, SIG_IGN);
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("gripper-simulator"));
    // A wrong command line and a failure to make the serial line have different exit codes.
    ExitCode codeOfFailure = WrongUsage;
    try {
        const auto options = sim::ProgramOptions::fromArguments(QCoreApplication::arguments());
        if (!options.helpText.isEmpty()) {
            std::fputs(options.helpText.toLocal8Bit().constData(), stdout);
            return Ended;
        }
        codeOfFailure = CannotStart;
        return run(options);
    } catch (const sim::Failure &failure) {
        std::fprintf(stderr, "gripper-simulator: %s\n", failure.text.toLocal8Bit().constData());
        return codeOfFailure;
    }
}
