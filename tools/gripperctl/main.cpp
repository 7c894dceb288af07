// The command-line client of the daemon.
#include "commandtable.h"
#include "failure.h"
#include "helptext.h"
#include "options.h"
#include "session.h"
#include "standarddescriptors.h"

#include <QCoreApplication>

#include <exception>

namespace gripperctl {

namespace {

int numberOf(ExitCode code)
{
    return static_cast<int>(code);
}

const CommandRow &commandOf(const Options &options)
{
    if (options.command.isEmpty()) {
        throw Failure{ExitCode::WrongUsage,
                      QStringLiteral("no command given; gripperctl --help lists the commands")};
    }
    const CommandRow *command = findCommand(options.command);
    if (command == nullptr) {
        throw Failure{
            ExitCode::WrongUsage,
            QStringLiteral("there is no command \"%1\"; gripperctl --help lists the commands")
                .arg(options.command)};
    }
    return *command;
}

void run(const Options &options, Output &output)
{
    if (options.has("version")) {
        writeOut("gripperctl " GRIPPERCTL_VERSION "\n");
        return;
    }
    if (options.has("help") && options.command.isEmpty()) {
        writeOut(generalHelp().toLocal8Bit());
        return;
    }
    const CommandRow &command = commandOf(options);
    if (options.has("help")) {
        writeOut(helpFor(command).toLocal8Bit());
        return;
    }
    checkAgainst(command, options);
    Session session(options, output);
    command.run(session);
}

int runWith(const QStringList &words)
{
    Output output(words.contains(QStringLiteral("--json")));
    try {
        run(Options::fromWords(words), output);
    } catch (const Failure &failure) {
        output.problem(failure.text, numberOf(failure.code), failure.known);
        return numberOf(failure.code);
    }
    return numberOf(ExitCode::Done);
}

} // namespace

} // namespace gripperctl

int main(int argc, char *argv[])
{
    tools::occupyStandardDescriptors();
    try {
        const QCoreApplication application(argc, argv);
        return gripperctl::runWith(QCoreApplication::arguments().mid(1));
    } catch (const std::exception &exception) {
        qCritical("gripperctl: %s", exception.what());
        return static_cast<int>(gripperctl::ExitCode::LocalProblem);
    }
}
