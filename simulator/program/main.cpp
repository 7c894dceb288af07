#include "programoptions.h"
#include "simulatorprogram.h"

#include <QCoreApplication>

#include <csignal>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace {
/// What docs/simulator.md promises.
enum ExitCode { Ended = 0, CannotStart = 1, WrongUsage = 2 };

/// A descriptor of 0 to 2 that is closed would be given to the next thing that is opened.
void occupyStandardDescriptors()
{
    int fd = ::open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO)
        fd = ::open("/dev/null", O_RDWR);
    if (fd >= 0)
        ::close(fd);
}

void complain(const QString &text)
{
    std::fprintf(stderr, "gripper-simulator: %s\n", text.toLocal8Bit().constData());
}

int run(const sim::ProgramOptions &options)
{
    sim::SimulatorProgram program(options);
    if (!program.start()) {
        complain(program.errorString());
        return CannotStart;
    }
    QObject::connect(&program, &sim::SimulatorProgram::quitRequested, QCoreApplication::instance(),
                     &QCoreApplication::quit);
    QCoreApplication::exec();
    return Ended;
}
} // namespace

int main(int argc, char *argv[])
{
    occupyStandardDescriptors();
    // Whoever read our output may go away; the line stays.
    std::signal(SIGPIPE, SIG_IGN);
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("gripper-simulator"));
    const auto options = sim::ProgramOptions::fromArguments(QCoreApplication::arguments());
    switch (options.outcome) {
    case sim::ProgramOptions::Outcome::Explain:
        std::fputs(options.text.toLocal8Bit().constData(), stdout);
        return Ended;
    case sim::ProgramOptions::Outcome::Refuse:
        complain(options.text);
        return WrongUsage;
    case sim::ProgramOptions::Outcome::Run:
        break;
    }
    return run(options);
}
