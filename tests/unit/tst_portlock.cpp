#include "portlock.h"

#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QSysInfo>
#include <QTest>

/// Runs with its own /run/lock, because the files have the names of real ports.
class tst_PortLock : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void onlyAStaleLockOfThisProcessIsRemoved_data();
    void onlyAStaleLockOfThisProcessIsRemoved();
    void lockOfAPortInAFolderIsFound();
    void lockThatIsHeldStays();
    void missingLockIsNotCreated();

private:
    static void leaveLock(const QByteArray &content, const QString &name = QStringLiteral("ttyX"))
    {
        QFile file(pathOf(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), content.size());
    }
    static QString pathOf(const QString &name) { return QStringLiteral("/var/lock/LCK..") + name; }

    /// The content of a lock file, in the format of QLockFile.
    static QByteArray lockOf(qint64 processId)
    {
        return QByteArray::number(processId) + "\ntst_portlock\n" +
               QSysInfo::machineHostName().toUtf8() + '\n' + QSysInfo::machineUniqueId() + '\n' +
               QSysInfo::bootUniqueId() + '\n';
    }
};

void tst_PortLock::cleanup()
{
    for (const char *const name : {"ttyX", "pts_7"})
        QFile::remove(pathOf(QLatin1String(name)));
}

void tst_PortLock::onlyAStaleLockOfThisProcessIsRemoved_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<bool>("isRemoved");
    const qint64 own = QCoreApplication::applicationPid();
    QTest::newRow("this process") << lockOf(own) << true;
    QTest::newRow("another process") << lockOf(own + 1) << false;
    QTest::newRow("a process of other software") << QByteArray("         1\n") << false;
    QTest::newRow("no process") << QByteArray("nothing\n") << false;
    QTest::newRow("empty") << QByteArray() << false;
}

void tst_PortLock::onlyAStaleLockOfThisProcessIsRemoved()
{
    QFETCH(QByteArray, content);
    QFETCH(bool, isRemoved);
    leaveLock(content);
    removeStaleLockOfOwnProcess(QStringLiteral("ttyX"));
    QCOMPARE(!QFileInfo::exists(pathOf(QStringLiteral("ttyX"))), isRemoved);
}

void tst_PortLock::lockOfAPortInAFolderIsFound()
{
    leaveLock(lockOf(QCoreApplication::applicationPid()), QStringLiteral("pts_7"));
    removeStaleLockOfOwnProcess(QStringLiteral("pts/7"));
    QVERIFY(!QFileInfo::exists(pathOf(QStringLiteral("pts_7"))));
}

void tst_PortLock::lockThatIsHeldStays()
{
    const QString path = pathOf(QStringLiteral("ttyX"));
    QLockFile lock(path);
    QVERIFY(lock.tryLock());
    removeStaleLockOfOwnProcess(QStringLiteral("ttyX"));
    QVERIFY(QFileInfo::exists(path));
}

void tst_PortLock::missingLockIsNotCreated()
{
    removeStaleLockOfOwnProcess(QStringLiteral("ttyX"));
    QVERIFY(!QFileInfo::exists(pathOf(QStringLiteral("ttyX"))));
}

QTEST_GUILESS_MAIN(tst_PortLock)
#include "tst_portlock.moc"
