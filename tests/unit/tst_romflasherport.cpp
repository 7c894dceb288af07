#include "firmwarefile.h"
#include "ptyport.h"
#include "serialdevice.h"
#include "serialportlock.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QSerialPort>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>

#include <sys/sysmacros.h>

class TestRomflasherPort : public QObject
{
    Q_OBJECT

private slots:
    void onlyTheFarEndsOfPseudoTerminalsAreTakenForSuch_data();
    void onlyTheFarEndsOfPseudoTerminalsAreTakenForSuch();
    void frameFormatFollowsTheDevice();
    void whatIsNoDeviceIsRefused();
    void lockFileIsNamedAsTheSerialPortLibraryDoes();
    void openSerialPortKeepsUsOut();
    void weKeepASerialPortOut();
    void lockOfALinkIsOneOfThePortToo();
    void portThatIsLetGoInTimeIsTaken();
    void lockOfADeadProcessIsTakenOver();
    void lockOfALivingProcessIsNotTakenOverHoweverOldItIs();
    void imageIsLookedAt_data();
    void imageIsLookedAt();
};

void TestRomflasherPort::onlyTheFarEndsOfPseudoTerminalsAreTakenForSuch_data()
{
    QTest::addColumn<unsigned>("number");
    QTest::addColumn<bool>("isPty");
    QTest::newRow("first of ptys") << 136U << true;
    QTest::newRow("last of ptys") << 143U << true;
    QTest::newRow("before") << 135U << false;
    QTest::newRow("behind") << 144U << false;
    QTest::newRow("built-in UART") << 4U << false;
    QTest::newRow("near end of a pty") << 5U << false;
    QTest::newRow("USB converter") << 188U << false;
    QTest::newRow("USB modem") << 166U << false;
}

void TestRomflasherPort::onlyTheFarEndsOfPseudoTerminalsAreTakenForSuch()
{
    QFETCH(unsigned, number);
    QFETCH(bool, isPty);
    QCOMPARE(isPseudoTerminalSlave(makedev(number, 3)), isPty);
}

void TestRomflasherPort::frameFormatFollowsTheDevice()
{
    sim::PtyPort pty;
    pty.open();
    const QTemporaryDir folder;
    const QString link = folder.filePath(QStringLiteral("ttyTool"));
    QVERIFY(QFile::link(pty.path(), link));
    QString problem;
    QCOMPARE(serialModeOf(pty.path(), &problem), QStringLiteral("8n1"));
    QCOMPARE(serialModeOf(link, &problem), QStringLiteral("8n1"));
    QCOMPARE(serialModeOf(QStringLiteral("/dev/null"), &problem), QStringLiteral("8e1"));
    QCOMPARE(problem, QString());
}

void TestRomflasherPort::whatIsNoDeviceIsRefused()
{
    const QTemporaryDir folder;
    for (const QString &path : {folder.path(), folder.filePath(QStringLiteral("missing"))}) {
        QString problem;
        QCOMPARE(serialModeOf(path, &problem), QString());
        QVERIFY2(problem.contains(path), qPrintable(problem));
    }
}

void TestRomflasherPort::lockFileIsNamedAsTheSerialPortLibraryDoes()
{
    QVERIFY(SerialPortLock::pathOf(QStringLiteral("/dev/ttyTool"))
                .endsWith(QLatin1String("/LCK..ttyTool")));
    sim::PtyPort pty;
    pty.open();
    const QTemporaryDir folder;
    const QString link = folder.filePath(QStringLiteral("ttyTool"));
    QVERIFY(QFile::link(pty.path(), link));
    for (const QString &name : {pty.path(), link}) {
        const QString lock = SerialPortLock::pathOf(name);
        QVERIFY2(!QFile::exists(lock), qPrintable(lock));
        QSerialPort port(name);
        QVERIFY(port.open(QIODevice::ReadWrite));
        QVERIFY2(QFile::exists(lock), qPrintable(lock));
        port.close();
        QVERIFY(!QFile::exists(lock));
    }
}

void TestRomflasherPort::openSerialPortKeepsUsOut()
{
    sim::PtyPort pty;
    pty.open();
    QSerialPort port(pty.path());
    QVERIFY(port.open(QIODevice::ReadWrite));
    SerialPortLock lock(pty.path());
    QVERIFY(!lock.take(0));
    QVERIFY2(lock.problem().contains(QString::number(QCoreApplication::applicationPid())),
             qPrintable(lock.problem()));
}

void TestRomflasherPort::weKeepASerialPortOut()
{
    sim::PtyPort pty;
    pty.open();
    QSerialPort port(pty.path());
    {
        SerialPortLock lock(pty.path());
        QVERIFY(lock.take(0));
        QVERIFY(!port.open(QIODevice::ReadWrite));
        QCOMPARE(port.error(), QSerialPort::PermissionError);
    }
    QVERIFY(port.open(QIODevice::ReadWrite));
}

void TestRomflasherPort::lockOfALinkIsOneOfThePortToo()
{
    sim::PtyPort pty;
    pty.open();
    const QTemporaryDir folder;
    const QString link = folder.filePath(QStringLiteral("ttyTool"));
    QVERIFY(QFile::link(pty.path(), link));
    for (const QString &name : {pty.path(), link}) {
        QSerialPort port(name);
        {
            SerialPortLock lock(link);
            QVERIFY2(lock.take(0), qPrintable(lock.problem()));
            QVERIFY2(!port.open(QIODevice::ReadWrite), qPrintable(name));
        }
        QVERIFY(port.open(QIODevice::ReadWrite));
        SerialPortLock lock(link);
        QVERIFY2(!lock.take(0), qPrintable(name));
    }
}

void TestRomflasherPort::portThatIsLetGoInTimeIsTaken()
{
    const QString device = QStringLiteral("/dev/ttyWaited");
    QFile file(SerialPortLock::pathOf(device));
    QLockFile holder(file.fileName());
    QVERIFY(holder.tryLock(0));
    const std::unique_ptr<QThread> thread(QThread::create([&holder] {
        QThread::msleep(200);
        holder.unlock();
    }));
    thread->start();
    SerialPortLock lock(device);
    const bool isTaken = lock.take(5000);
    thread->wait();
    QVERIFY2(isTaken, qPrintable(lock.problem()));
}

void TestRomflasherPort::lockOfADeadProcessIsTakenOver()
{
    const QString device = QStringLiteral("/dev/ttyDead");
    QFile file(SerialPortLock::pathOf(device));
    QVERIFY(file.open(QIODevice::WriteOnly));
    // Beyond the largest process id that there can be.
    file.write("4194305\ngripperd\n");
    file.write(QSysInfo::machineHostName().toUtf8() + '\n');
    file.close();
    SerialPortLock lock(device);
    QVERIFY2(lock.take(0), qPrintable(lock.problem()));
}

void TestRomflasherPort::lockOfALivingProcessIsNotTakenOverHoweverOldItIs()
{
    // Without the kernel's lock on it: only what it says keeps us out.
    const QString device = QStringLiteral("/dev/ttyLiving");
    QFile file(SerialPortLock::pathOf(device));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QByteArray::number(QCoreApplication::applicationPid()) + "\ntst_romflasherport\n" +
               QSysInfo::machineHostName().toUtf8() + '\n');
    QVERIFY(file.flush());
    QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(-3600),
                             QFileDevice::FileModificationTime));
    SerialPortLock lock(device);
    const bool isTaken = lock.take(0);
    file.remove();
    QVERIFY(!isTaken);
    QVERIFY2(lock.problem().contains(QLatin1String("held by process")), qPrintable(lock.problem()));
}

void TestRomflasherPort::imageIsLookedAt_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<QString>("problem");
    const QString own;
    QTest::newRow("just fits") << own << qint64(1000) << QString();
    QTest::newRow("small") << own << qint64(1) << QString();
    QTest::newRow("too large") << own << qint64(1001)
                               << QStringLiteral("has 1001 bytes, and there is room for 1000");
    QTest::newRow("empty") << own << qint64(0) << QStringLiteral("is empty");
    QTest::newRow("missing") << QStringLiteral("/nowhere/image.bin") << qint64(0)
                             << QStringLiteral("is not there");
    QTest::newRow("folder") << QDir::tempPath() << qint64(0) << QStringLiteral("is not a file");
    // Opens, and fails when it is read, even for root.
    QTest::newRow("unreadable") << QStringLiteral("/proc/self/mem") << qint64(0)
                                << QStringLiteral("cannot be read: Input/output error");
}

void TestRomflasherPort::imageIsLookedAt()
{
    QFETCH(QString, path);
    QFETCH(qint64, size);
    QFETCH(QString, problem);
    const QTemporaryDir folder;
    if (path.isEmpty()) {
        path = folder.filePath(QStringLiteral("image.bin"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(static_cast<int>(size), 'x'));
    }
    const FirmwareFile image(path, 1000);
    QCOMPARE(image.problem(),
             problem.isEmpty() ? QString() : QStringLiteral("the image %1 ").arg(path) + problem);
    if (!problem.isEmpty())
        return;
    QCOMPARE(image.size(), size);
    // What happens to the file from now on does not reach the copy.
    QVERIFY(QFile::remove(path));
    QFile copy(image.pathOfCopy());
    QVERIFY(copy.open(QIODevice::ReadOnly));
    QCOMPARE(copy.readAll(), QByteArray(static_cast<int>(size), 'x'));
}

QTEST_GUILESS_MAIN(TestRomflasherPort)
#include "tst_romflasherport.moc"
