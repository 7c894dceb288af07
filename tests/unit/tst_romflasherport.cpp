#include "firmwarefile.h"
#include "flasherfailure.h"
#include "ptypair.h"
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

using namespace flasher;

class TestRomflasherPort : public QObject
{
    Q_OBJECT

private slots:
    void majorNumberIdentifiesASlavePty_data();
    void majorNumberIdentifiesASlavePty();
    void frameFormatFollowsTheDevice();
    void pathWithoutADeviceIsRefused();
    void lockFileHasTheNameThatQSerialPortUses();
    void openQSerialPortRefusesTheLock();
    void lockRefusesAQSerialPort();
    void lockOfALinkIsALockOfItsTarget();
    void lockThatIsReleasedInTimeIsTaken();
    void lockOfADeadProcessIsTakenOver();
    void oldLockOfALivingProcessIsNotTakenOver();
    void imageIsCheckedAndCopied_data();
    void imageIsCheckedAndCopied();
};

void TestRomflasherPort::majorNumberIdentifiesASlavePty_data()
{
    QTest::addColumn<unsigned>("number");
    QTest::addColumn<bool>("isPty");
    QTest::newRow("first slave pty") << 136U << true;
    QTest::newRow("last slave pty") << 143U << true;
    QTest::newRow("number before") << 135U << false;
    QTest::newRow("number after") << 144U << false;
    QTest::newRow("built-in UART") << 4U << false;
    QTest::newRow("master pty") << 5U << false;
    QTest::newRow("USB converter") << 188U << false;
    QTest::newRow("USB modem") << 166U << false;
}

void TestRomflasherPort::majorNumberIdentifiesASlavePty()
{
    QFETCH(unsigned, number);
    QFETCH(bool, isPty);
    QCOMPARE(isPseudoTerminalSlave(makedev(number, 3)), isPty);
}

void TestRomflasherPort::frameFormatFollowsTheDevice()
{
    const PtyPair pty;
    const QTemporaryDir folder;
    const QString link = folder.filePath(QStringLiteral("ttyTool"));
    QVERIFY(QFile::link(pty.portName(), link));
    QCOMPARE(serialModeOf(pty.portName()), QStringLiteral("8n1"));
    QCOMPARE(serialModeOf(link), QStringLiteral("8n1"));
    QCOMPARE(serialModeOf(QStringLiteral("/dev/null")), QStringLiteral("8e1"));
}

void TestRomflasherPort::pathWithoutADeviceIsRefused()
{
    const QTemporaryDir folder;
    for (const QString &path : {folder.path(), folder.filePath(QStringLiteral("missing"))}) {
        const Failure failure = failureOf([&] { serialModeOf(path); });
        QCOMPARE(failure.code, ExitCode::PortFailed);
        QVERIFY2(failure.cause.contains(path), qPrintable(failure.cause));
    }
}

void TestRomflasherPort::lockFileHasTheNameThatQSerialPortUses()
{
    QVERIFY(SerialPortLock::pathOf(QStringLiteral("/dev/ttyTool"))
                .endsWith(QLatin1String("/LCK..ttyTool")));
    const PtyPair pty;
    const QTemporaryDir folder;
    const QString link = folder.filePath(QStringLiteral("ttyTool"));
    QVERIFY(QFile::link(pty.portName(), link));
    for (const QString &name : {pty.portName(), link}) {
        const QString lock = SerialPortLock::pathOf(name);
        QVERIFY2(!QFile::exists(lock), qPrintable(lock));
        QSerialPort port(name);
        QVERIFY(port.open(QIODevice::ReadWrite));
        QVERIFY2(QFile::exists(lock), qPrintable(lock));
        port.close();
        QVERIFY(!QFile::exists(lock));
    }
}

void TestRomflasherPort::openQSerialPortRefusesTheLock()
{
    const PtyPair pty;
    QSerialPort port(pty.portName());
    QVERIFY(port.open(QIODevice::ReadWrite));
    SerialPortLock lock(pty.portName());
    const Failure failure = failureOf([&] { lock.take(0); });
    QCOMPARE(failure.code, ExitCode::PortFailed);
    QVERIFY2(failure.cause.contains(QString::number(QCoreApplication::applicationPid())),
             qPrintable(failure.cause));
}

void TestRomflasherPort::lockRefusesAQSerialPort()
{
    const PtyPair pty;
    QSerialPort port(pty.portName());
    {
        SerialPortLock lock(pty.portName());
        lock.take(0);
        QVERIFY(!port.open(QIODevice::ReadWrite));
        QCOMPARE(port.error(), QSerialPort::PermissionError);
    }
    QVERIFY(port.open(QIODevice::ReadWrite));
}

void TestRomflasherPort::lockOfALinkIsALockOfItsTarget()
{
    const PtyPair pty;
    const QTemporaryDir folder;
    const QString link = folder.filePath(QStringLiteral("ttyTool"));
    QVERIFY(QFile::link(pty.portName(), link));
    for (const QString &name : {pty.portName(), link}) {
        QSerialPort port(name);
        {
            SerialPortLock lock(link);
            lock.take(0);
            QVERIFY2(!port.open(QIODevice::ReadWrite), qPrintable(name));
        }
        QVERIFY(port.open(QIODevice::ReadWrite));
        SerialPortLock lock(link);
        QCOMPARE(failureOf([&] { lock.take(0); }).code, ExitCode::PortFailed);
    }
}

void TestRomflasherPort::lockThatIsReleasedInTimeIsTaken()
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
    const Failure failure = failureOf([&] { lock.take(5000); });
    thread->wait();
    QVERIFY2(failure.code == ExitCode::Done, qPrintable(failure.cause));
}

void TestRomflasherPort::lockOfADeadProcessIsTakenOver()
{
    const QString device = QStringLiteral("/dev/ttyDead");
    QFile file(SerialPortLock::pathOf(device));
    QVERIFY(file.open(QIODevice::WriteOnly));
    // This number exceeds the largest process id.
    file.write("4194305\ngripperd\n");
    file.write(QSysInfo::machineHostName().toUtf8() + '\n');
    file.close();
    SerialPortLock lock(device);
    lock.take(0);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readLine().trimmed(), QByteArray::number(QCoreApplication::applicationPid()));
}

void TestRomflasherPort::oldLockOfALivingProcessIsNotTakenOver()
{
    // No process holds a kernel lock on this file. Only its content reserves the port.
    const QString device = QStringLiteral("/dev/ttyLiving");
    QFile file(SerialPortLock::pathOf(device));
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QByteArray::number(QCoreApplication::applicationPid()) + "\ntst_romflasherport\n" +
               QSysInfo::machineHostName().toUtf8() + '\n');
    QVERIFY(file.flush());
    QVERIFY(file.setFileTime(QDateTime::currentDateTime().addSecs(-3600),
                             QFileDevice::FileModificationTime));
    SerialPortLock lock(device);
    const Failure failure = failureOf([&] { lock.take(0); });
    file.remove();
    QCOMPARE(failure.cause,
             QStringLiteral("process %1 (tst_romflasherport) has the port, according to %2")
                 .arg(QCoreApplication::applicationPid())
                 .arg(file.fileName()));
}

void TestRomflasherPort::imageIsCheckedAndCopied_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<qint64>("size");
    QTest::addColumn<QString>("problem");
    const QString own;
    QTest::newRow("just fits") << own << qint64(1000) << QString();
    QTest::newRow("small") << own << qint64(1) << QString();
    QTest::newRow("too large") << own << qint64(1001)
                               << QStringLiteral("has 1001 bytes, but there is room for 1000 only");
    QTest::newRow("empty") << own << qint64(0) << QStringLiteral("is empty");
    QTest::newRow("missing") << QStringLiteral("/nowhere/image.bin") << qint64(0)
                             << QStringLiteral("does not exist");
    QTest::newRow("folder") << QDir::tempPath() << qint64(0)
                            << QStringLiteral("is not a regular file");
    // open() succeeds and read() fails, for root as well.
    QTest::newRow("unreadable") << QStringLiteral("/proc/self/mem") << qint64(0)
                                << QStringLiteral("cannot be read: Input/output error");
}

void TestRomflasherPort::imageIsCheckedAndCopied()
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
    if (!problem.isEmpty()) {
        const Failure failure = failureOf([&] { FirmwareFile(path, 1000); });
        QCOMPARE(failure.code, ExitCode::CannotBegin);
        QCOMPARE(failure.cause, QStringLiteral("the image %1 %2").arg(path, problem));
        return;
    }
    const FirmwareFile image(path, 1000);
    QCOMPARE(image.size(), size);
    // Later changes of the file do not reach the copy.
    QVERIFY(QFile::remove(path));
    QFile copy(image.pathOfCopy());
    QVERIFY(copy.open(QIODevice::ReadOnly));
    QCOMPARE(copy.readAll(), QByteArray(static_cast<int>(size), 'x'));
}

QTEST_GUILESS_MAIN(TestRomflasherPort)
#include "tst_romflasherport.moc"
