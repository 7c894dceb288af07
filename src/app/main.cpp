#include "loghandler.h"
#include "processsetup.h"
#include "server.h"

#include <QCoreApplication>
#include <QLocale>

int main(int argc, char *argv[])
{
    qInstallMessageHandler(myMessageOutput);
    prepareProcess();
    QCoreApplication application(argc, argv);
    QLocale::setDefault(QLocale(QLocale::English, QLocale::UnitedStates));
    Server server;
    return QCoreApplication::exec();
}
