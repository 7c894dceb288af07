#include "loghandler.h"
#include "processsetup.h"
#include "server.h"
#include "servicenotifier.h"

#include <QCoreApplication>
#include <QLocale>

int main(int argc, char *argv[])
{
    qInstallMessageHandler(myMessageOutput);
    prepareProcess();
    // Qt prefers GLib's event loop, which makes 50 % more system calls in an idle daemon.
    const char *const withoutGlib = "QT_NO_GLIB";
    qputenv(withoutGlib, "1");
    QCoreApplication application(argc, argv);
    // Child processes must not inherit the variable.
    qunsetenv(withoutGlib);
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    ServiceNotifier serviceNotifier;
    Server server;
    serviceNotifier.notifyReady();
    return QCoreApplication::exec();
}
