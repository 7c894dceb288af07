#include "loghandler.h"
#include "processsetup.h"
#include "server.h"

#include <QCoreApplication>
#include <QLocale>

int main(int argc, char *argv[])
{
    qInstallMessageHandler(myMessageOutput);
    prepareProcess();
    // With GLib's event loop, which Qt would take, an idle daemon makes half as many system calls
    // more.
    const char *const withoutGlib = "QT_NO_GLIB";
    qputenv(withoutGlib, "1");
    QCoreApplication application(argc, argv);
    // Child processes choose for themselves.
    qunsetenv(withoutGlib);
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    Server server;
    return QCoreApplication::exec();
}
