#include "bussimulator.h"
#include "failure.h"
#include "tst_simulatorbench.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSerialPort>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

using sim::BusSimulator;

namespace {
constexpr int ordinaryUserId = 65534;

/// A line with one gripper and with a link in a temporary directory.
struct Bench
{
    Bench()
        : simulator(configFor(directory.filePath(QStringLiteral("ttyTool"))))
    {
        simulator.addGripper(9, QStringLiteral("TA3-1.6.14"));
    }

    static BusSimulator::Config configFor(const QString &link)
    {
        BusSimulator::Config config;
        config.linkPath = link;
        return config;
    }

    QByteArray path() const { return QFile::encodeName(simulator.portPath()); }

    QTemporaryDir directory;
    BusSimulator simulator;
};

/// Plugs the simulator in. Returns the text of the failure, or nothing on success.
QString failureOfPlugging(BusSimulator &simulator)
{
    try {
        simulator.plug();
    } catch (const sim::Failure &failure) {
        return failure.text;
    }
    return QString();
}

void openAsMaster(QSerialPort &port, const QString &name)
{
    port.setPortName(name);
    port.setBaudRate(QSerialPort::Baud115200);
    QVERIFY2(port.open(QIODevice::ReadWrite), qPrintable(port.errorString()));
}

/// Sends the version request and waits for the complete answer.
QByteArray askVersion(QSerialPort &port)
{
    port.write(QByteArray::fromHex(versionRequest));
    const int expected = QByteArray::fromHex(versionAnswer).size();
    QByteArray answer;
    QElapsedTimer clock;
    clock.start();
    while (answer.size() < expected && clock.elapsed() < 2000) {
        QTest::qWait(1);
        answer += port.readAll();
    }
    return answer.toHex(' ');
}

/// Calls `action` as an ordinary user, if the test runs as root.
template <typename Action>
auto asOrdinaryUser(Action action)
{
    const bool isRoot = ::geteuid() == 0;
    if (isRoot && ::seteuid(ordinaryUserId) != 0)
        qFatal("cannot become an ordinary user");
    const auto result = action();
    if (isRoot && ::seteuid(0) != 0)
        qFatal("cannot become root again");
    return result;
}
} // namespace

class TestSimulatorPort : public QObject
{
    Q_OBJECT

private slots:
    void portCanBeOpenedManyTimes();
    void answerIsSentWithinAMillisecond();
    void requestAtAnotherRateIsNotAnswered();
    void newPortRunsAt9600Baud();
    void unreadAnswersAreDroppedWhenThePortCloses();
    void idleClosedPortCausesNoEvents();
    void onlyTheMasterHoldsThePort();
    void exclusiveUseEndsWhenTheMasterDies();
    void stuckPortIsReplacedForAnOrdinaryUser();
    void linkExistsWhilePluggedIn();
    void unplugHangsTheMasterUp();
    void plugBringsTheGrippersBack();
    void existingFileIsNotReplaced();
    void foreignDanglingLinkIsNotReplaced();
    void liveLinkOfAnotherSimulatorIsNotReplaced();
    void staleLinkOfAKilledSimulatorIsReplaced();
    void foreignLinkThatReplacedTheLinkIsNotRemoved();
    void framesAreKeptUntilCleared();
};

void TestSimulatorPort::portCanBeOpenedManyTimes()
{
    Bench bench;
    bench.simulator.plug();
    for (int i = 0; i < 20; ++i) {
        QSerialPort port;
        openAsMaster(port, bench.simulator.portPath());
        QCOMPARE(askVersion(port), QByteArray(versionAnswer));
        port.close();
        if (i % 2 == 0)
            QTest::qWait(5);
    }
}

void TestSimulatorPort::answerIsSentWithinAMillisecond()
{
    Bench bench;
    bench.simulator.plug();
    QSerialPort port;
    openAsMaster(port, bench.simulator.portPath());
    for (int i = 0; i < 20; ++i)
        askVersion(port);
    QVector<qint64> delaysUs;
    const QList<sim::FrameRecord> frames = bench.simulator.frames();
    for (int i = 1; i < frames.size(); i += 2)
        delaysUs.append(frames.at(i).timeUs - frames.at(i - 1).timeUs);
    QCOMPARE(delaysUs.size(), 20);
    std::sort(delaysUs.begin(), delaysUs.end());
    // The median, because a loaded machine delays some answers.
    QVERIFY2(delaysUs.at(10) < 1000, qPrintable(QString::number(delaysUs.at(10))));
}

void TestSimulatorPort::requestAtAnotherRateIsNotAnswered()
{
    Bench bench;
    bench.simulator.plug();
    QSerialPort port;
    openAsMaster(port, bench.simulator.portPath());
    port.setBaudRate(QSerialPort::Baud19200);
    QSignalSpy seen(&bench.simulator, &BusSimulator::frameSeen);
    port.write(QByteArray::fromHex(versionRequest));
    QTRY_COMPARE(seen.size(), 1);
    QTest::qWait(50);
    QCOMPARE(port.readAll(), QByteArray());
    QCOMPARE(seen.size(), 1);
}

void TestSimulatorPort::newPortRunsAt9600Baud()
{
    Bench bench;
    bench.simulator.plug();
    const int fd = ::open(bench.path().constData(), O_RDWR | O_NOCTTY);
    QVERIFY(fd >= 0);
    termios settings = {};
    QCOMPARE(::tcgetattr(fd, &settings), 0);
    ::close(fd);
    QCOMPARE(::cfgetospeed(&settings), speed_t(B9600));
    QCOMPARE(settings.c_lflag & (ICANON | ECHO | ISIG), tcflag_t(0));
}

void TestSimulatorPort::unreadAnswersAreDroppedWhenThePortCloses()
{
    Bench bench;
    bench.simulator.plug();
    QSignalSpy seen(&bench.simulator, &BusSimulator::frameSeen);
    const int master = ::open(bench.path().constData(), O_RDWR | O_NOCTTY);
    QVERIFY(master >= 0);
    termios settings = {};
    QCOMPARE(::tcgetattr(master, &settings), 0);
    QCOMPARE(::cfsetspeed(&settings, B115200), 0);
    QCOMPARE(::tcsetattr(master, TCSANOW, &settings), 0);
    const QByteArray request = QByteArray::fromHex(versionRequest);
    QCOMPARE(::write(master, request.constData(), static_cast<size_t>(request.size())),
             ssize_t(request.size()));
    QTRY_COMPARE(seen.size(), 2);
    // The answer has arrived, but nothing reads it.
    ::close(master);
    QTest::qWait(20);
    const int fd = ::open(bench.path().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    QVERIFY(fd >= 0);
    int waiting = -1;
    QCOMPARE(::ioctl(fd, FIONREAD, &waiting), 0);
    ::close(fd);
    QCOMPARE(waiting, 0);
}

void TestSimulatorPort::idleClosedPortCausesNoEvents()
{
    Bench bench;
    bench.simulator.plug();
    {
        QSerialPort port;
        openAsMaster(port, bench.simulator.portPath());
        QCOMPARE(askVersion(port), QByteArray(versionAnswer));
    }
    QTest::qWait(50);
    // An idle event loop blocks, so a watchdog ends it.
    int turns = 0;
    QTimer watchdog;
    watchdog.setSingleShot(true);
    watchdog.start(200);
    while (watchdog.isActive()) {
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        ++turns;
    }
    QVERIFY2(turns < 10, qPrintable(QString::number(turns)));
}

void TestSimulatorPort::onlyTheMasterHoldsThePort()
{
    Bench bench;
    bench.simulator.plug();
    const QFileInfoList descriptors =
        QDir(QStringLiteral("/proc/self/fd")).entryInfoList(QDir::Files | QDir::System);
    for (const QFileInfo &descriptor : descriptors)
        QVERIFY(descriptor.symLinkTarget() != bench.simulator.portPath());
}

void TestSimulatorPort::exclusiveUseEndsWhenTheMasterDies()
{
    Bench bench;
    bench.simulator.plug();
    const int fd = ::open(bench.path().constData(), O_RDWR | O_NOCTTY);
    QVERIFY(fd >= 0);
    QCOMPARE(::ioctl(fd, TIOCEXCL), 0);
    // Closes the port without ending the exclusive use, as the kernel does for a killed process.
    ::close(fd);
    QTest::qWait(50);
    QVERIFY(bench.simulator.isPlugged());
    QSerialPort port;
    const QByteArray path = QFile::encodeName(bench.simulator.linkPath());
    const int again = asOrdinaryUser([&] { return ::open(path.constData(), O_RDWR | O_NOCTTY); });
    const int reason = errno;
    // If the test runs as root, the pty belongs to root, and an ordinary user may not open it. Any
    // error other than EBUSY shows that the exclusive use has ended.
    QVERIFY(again >= 0 || reason != EBUSY);
    if (again >= 0)
        ::close(again);
    openAsMaster(port, bench.simulator.linkPath());
    QCOMPARE(askVersion(port), QByteArray(versionAnswer));
}

void TestSimulatorPort::stuckPortIsReplacedForAnOrdinaryUser()
{
    Bench bench;
    QVERIFY(QFile::setPermissions(bench.directory.path(),
                                  QFile::Permissions(0x7777))); // rwx for all
    const bool isPlugged = asOrdinaryUser([&] {
        bench.simulator.plug();
        return bench.simulator.isPlugged();
    });
    QVERIFY(isPlugged);
    QSignalSpy renewed(&bench.simulator, &BusSimulator::portRenewed);
    const int fd = ::open(bench.path().constData(), O_RDWR | O_NOCTTY);
    QVERIFY(fd >= 0);
    QCOMPARE(::ioctl(fd, TIOCEXCL), 0);
    ::close(fd);
    const bool isRenewed = asOrdinaryUser([&] { return renewed.wait(2000); });
    QVERIFY(isRenewed);
    QSerialPort port;
    openAsMaster(port, bench.simulator.linkPath());
    QCOMPARE(askVersion(port), QByteArray(versionAnswer));
}

void TestSimulatorPort::linkExistsWhilePluggedIn()
{
    Bench bench;
    const QString link = bench.simulator.linkPath();
    QVERIFY(!QFileInfo::exists(link));
    bench.simulator.plug();
    QCOMPARE(QFileInfo(link).canonicalFilePath(), bench.simulator.portPath());
    bench.simulator.unplug();
    QVERIFY(!QFileInfo(link).isSymLink());
    bench.simulator.plug();
    {
        BusSimulator other(Bench::configFor(bench.directory.filePath(QStringLiteral("other"))));
        other.plug();
        QVERIFY(QFileInfo(other.linkPath()).isSymLink());
    }
    QVERIFY(!QFileInfo(bench.directory.filePath(QStringLiteral("other"))).isSymLink());
}

void TestSimulatorPort::unplugHangsTheMasterUp()
{
    Bench bench;
    bench.simulator.plug();
    const int fd = ::open(bench.path().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    QVERIFY(fd >= 0);
    char byte = 0;
    QCOMPARE(::read(fd, &byte, 1), ssize_t(-1));
    QCOMPARE(errno, EAGAIN);
    bench.simulator.unplug();
    QCOMPARE(::read(fd, &byte, 1), ssize_t(0));
    QCOMPARE(::write(fd, &byte, 1), ssize_t(-1));
    ::close(fd);
    QVERIFY(bench.simulator.portPath().isEmpty());
}

void TestSimulatorPort::plugBringsTheGrippersBack()
{
    Bench bench;
    bench.simulator.plug();
    bench.simulator.unplug();
    bench.simulator.plug();
    QSerialPort port;
    openAsMaster(port, bench.simulator.linkPath());
    QCOMPARE(askVersion(port), QByteArray(versionAnswer));
}

void TestSimulatorPort::existingFileIsNotReplaced()
{
    Bench bench;
    QFile file(bench.simulator.linkPath());
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("precious");
    file.close();
    QVERIFY(failureOfPlugging(bench.simulator).contains(bench.simulator.linkPath()));
    QVERIFY(!bench.simulator.isPlugged());
    QCOMPARE(file.size(), qint64(8));
}

void TestSimulatorPort::foreignDanglingLinkIsNotReplaced()
{
    Bench bench;
    const QByteArray link = QFile::encodeName(bench.simulator.linkPath());
    QCOMPARE(::symlink("/dev/pts/99999", link.constData()), 0);
    QVERIFY(!failureOfPlugging(bench.simulator).isEmpty());
    QCOMPARE(QFileInfo(bench.simulator.linkPath()).symLinkTarget(),
             QStringLiteral("/dev/pts/99999"));
}

void TestSimulatorPort::liveLinkOfAnotherSimulatorIsNotReplaced()
{
    Bench bench;
    bench.simulator.plug();
    BusSimulator other(Bench::configFor(bench.simulator.linkPath()));
    QVERIFY(!failureOfPlugging(other).isEmpty());
    QCOMPARE(QFileInfo(bench.simulator.linkPath()).canonicalFilePath(), bench.simulator.portPath());
}

void TestSimulatorPort::staleLinkOfAKilledSimulatorIsReplaced()
{
    Bench bench;
    const QByteArray link = QFile::encodeName(bench.simulator.linkPath());
    QCOMPARE(::symlink("/dev/pts/./99999", link.constData()), 0);
    bench.simulator.plug();
    QCOMPARE(QFileInfo(bench.simulator.linkPath()).canonicalFilePath(), bench.simulator.portPath());
}

void TestSimulatorPort::foreignLinkThatReplacedTheLinkIsNotRemoved()
{
    Bench bench;
    bench.simulator.plug();
    const QByteArray link = QFile::encodeName(bench.simulator.linkPath());
    QCOMPARE(::unlink(link.constData()), 0);
    QCOMPARE(::symlink("/dev/null", link.constData()), 0);
    bench.simulator.unplug();
    QCOMPARE(QFileInfo(bench.simulator.linkPath()).symLinkTarget(), QStringLiteral("/dev/null"));
}

void TestSimulatorPort::framesAreKeptUntilCleared()
{
    Bench bench;
    bench.simulator.plug();
    QSerialPort port;
    openAsMaster(port, bench.simulator.portPath());
    askVersion(port);
    QCOMPARE(bench.simulator.frames().size(), 2);
    QCOMPARE(bench.simulator.frames().first().bytes, QByteArray::fromHex(versionRequest));
    QCOMPARE(bench.simulator.frames().last().bytes, QByteArray::fromHex(versionAnswer));
    bench.simulator.clearFrames();
    QVERIFY(bench.simulator.frames().isEmpty());
}

QTEST_GUILESS_MAIN(TestSimulatorPort)
#include "tst_simulatorport.moc"
