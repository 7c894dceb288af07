#include "gripperbody.h"

#include <QTest>

using sim::BodyCommand;
using sim::GripperBody;
using Status = GripperBody::Status;
using ObjectFlag = GripperBody::ObjectFlag;
using VacuumStatus = GripperBody::VacuumStatus;

Q_DECLARE_METATYPE(ObjectFlag)

namespace {
constexpr qint64 usPerMs = 1000;
constexpr qint64 activationMs = 1500;

BodyCommand active()
{
    BodyCommand command;
    command.activate = true;
    return command;
}

BodyCommand goTo(quint8 position, quint8 speed = 255, quint8 force = 0)
{
    BodyCommand command = active();
    command.goTo = true;
    command.position = position;
    command.speed = speed;
    command.force = force;
    return command;
}

/// A body with its own clock in milliseconds.
struct Bench
{
    explicit Bench(bool isVacuum)
        : body(isVacuum, activationMs * usPerMs)
    {
    }

    static Bench activated(bool isVacuum = false)
    {
        Bench bench(isVacuum);
        bench.command(active());
        bench.advanceMs(activationMs);
        return bench;
    }

    void command(const BodyCommand &command) { body.setCommand(command, nowMs * usPerMs); }
    void object(int position) { body.setObject(position, nowMs * usPerMs); }
    void advanceMs(qint64 ms)
    {
        nowMs += ms;
        body.advance(nowMs * usPerMs);
    }

    GripperBody body;
    qint64 nowMs = 0;
};
} // namespace

class TestSimulatorBody : public QObject
{
    Q_OBJECT

private slots:
    void activationTakesItsTimeAndEndsInStatus3();
    void goToBeforeTheActivationStartsWhenItEnds();
    void speedSetsTheRate_data();
    void speedSetsTheRate();
    void repeatedCommandDoesNotChangeAMovement();
    void withoutGoToTheFingersStop();
    void newSpeedAppliesToTheRestOfTheMovement();
    void objectStopsAClosingMovement();
    void objectDoesNotStopAnOpeningMovement();
    void movementContinuesWhenTheObjectIsRemoved();
    void currentRisesWithTheForceAgainstAnObject();
    void deactivationClearsTheStatus();
    void faultCodeStaysUntilTheDeactivation();
    void autoReleaseOpensAndThenWaitsForADeactivation();
    void autoReleaseClosesWithTheDirectionBit();
    void cyclesCountClosingMovements();
    void fingersCountStepsAndActivations();
    void vacuumBuildsUpAndIsHeldWithThePumpOff();
    void leakKeepsThePumpRunning();
    void withoutGoToTheVacuumFalls();
    void fingersNeverShowAVacuumStatus();
    void restartClearsCommandsAndKeepsCounters();
};

void TestSimulatorBody::activationTakesItsTimeAndEndsInStatus3()
{
    Bench bench(false);
    QCOMPARE(bench.body.status(), Status::Reset);
    bench.command(active());
    QCOMPARE(bench.body.status(), Status::Activating);
    bench.advanceMs(activationMs - 1);
    QCOMPARE(bench.body.status(), Status::Activating);
    bench.advanceMs(1);
    QCOMPARE(bench.body.status(), Status::Active);
    QCOMPARE(static_cast<int>(bench.body.status()), 3);
}

void TestSimulatorBody::goToBeforeTheActivationStartsWhenItEnds()
{
    Bench bench(false);
    bench.command(goTo(100));
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::None);
    bench.advanceMs(activationMs);
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::Moving);
    bench.advanceMs(1000);
    QCOMPARE(bench.body.position(), quint8(100));
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::Arrived);
}

void TestSimulatorBody::speedSetsTheRate_data()
{
    QTest::addColumn<int>("speed");
    QTest::addColumn<int>("positionAfter100Ms");
    QTest::newRow("slowest") << 0 << 5;
    QTest::newRow("middle") << 125 << 30;
    QTest::newRow("fastest") << 255 << 56;
}

void TestSimulatorBody::speedSetsTheRate()
{
    QFETCH(int, speed);
    QFETCH(int, positionAfter100Ms);
    Bench bench = Bench::activated();
    bench.command(goTo(255, static_cast<quint8>(speed)));
    bench.advanceMs(100);
    QCOMPARE(static_cast<int>(bench.body.position()), positionAfter100Ms);
}

void TestSimulatorBody::repeatedCommandDoesNotChangeAMovement()
{
    Bench bench = Bench::activated();
    for (int i = 0; i < 100; ++i) {
        bench.command(goTo(200, 25));
        bench.advanceMs(10);
    }
    QCOMPARE(bench.body.position(), quint8(100));
    QCOMPARE(bench.body.cycles(), 1U);
}

void TestSimulatorBody::withoutGoToTheFingersStop()
{
    Bench bench = Bench::activated();
    bench.command(goTo(200, 25));
    bench.advanceMs(500);
    bench.command(active());
    bench.advanceMs(5000);
    QCOMPARE(bench.body.position(), quint8(50));
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::None);
    QCOMPARE(bench.body.motorCurrent(), quint8(0));
}

void TestSimulatorBody::newSpeedAppliesToTheRestOfTheMovement()
{
    Bench bench = Bench::activated();
    bench.command(goTo(200, 25));
    bench.advanceMs(500);
    bench.command(goTo(200, 75));
    bench.advanceMs(500);
    QCOMPARE(bench.body.position(), quint8(150));
    QCOMPARE(bench.body.cycles(), 1U);
}

void TestSimulatorBody::objectStopsAClosingMovement()
{
    Bench bench = Bench::activated();
    bench.object(140);
    bench.command(goTo(200));
    bench.advanceMs(100);
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::Moving);
    bench.advanceMs(2000);
    QCOMPARE(bench.body.position(), quint8(140));
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::Held);
}

void TestSimulatorBody::objectDoesNotStopAnOpeningMovement()
{
    Bench bench = Bench::activated();
    bench.command(goTo(200));
    bench.advanceMs(1000);
    bench.object(140);
    bench.command(goTo(10));
    bench.advanceMs(1000);
    QCOMPARE(bench.body.position(), quint8(10));
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::Arrived);
}

void TestSimulatorBody::movementContinuesWhenTheObjectIsRemoved()
{
    Bench bench = Bench::activated();
    bench.object(140);
    bench.command(goTo(200));
    bench.advanceMs(1000);
    bench.object(GripperBody::noObject);
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::Moving);
    bench.advanceMs(1000);
    QCOMPARE(bench.body.position(), quint8(200));
    QCOMPARE(bench.body.cycles(), 1U);
}

void TestSimulatorBody::currentRisesWithTheForceAgainstAnObject()
{
    Bench bench = Bench::activated();
    bench.object(56);
    bench.command(goTo(200, 255, 255));
    bench.advanceMs(50);
    QCOMPARE(bench.body.motorCurrent(), quint8(23));
    bench.advanceMs(150);
    const quint8 early = bench.body.motorCurrent();
    QVERIFY(early > 23);
    QVERIFY(early < 255);
    bench.advanceMs(200);
    QCOMPARE(bench.body.motorCurrent(), quint8(255));
    bench.command(goTo(200, 255, 80));
    QCOMPARE(bench.body.motorCurrent(), quint8(102));
}

void TestSimulatorBody::deactivationClearsTheStatus()
{
    Bench bench = Bench::activated();
    bench.object(100);
    bench.command(goTo(200));
    bench.advanceMs(1000);
    bench.body.setFaultCode(7);
    bench.command(BodyCommand());
    QCOMPARE(bench.body.status(), Status::Reset);
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::None);
    QCOMPARE(bench.body.faultCode(), quint8(0));
    QCOMPARE(bench.body.motorCurrent(), quint8(0));
    bench.advanceMs(1000);
    QCOMPARE(bench.body.position(), quint8(100));
}

void TestSimulatorBody::faultCodeStaysUntilTheDeactivation()
{
    Bench bench(false);
    bench.body.setFaultCode(7);
    bench.command(BodyCommand());
    bench.command(active());
    bench.advanceMs(activationMs);
    QCOMPARE(bench.body.faultCode(), quint8(7));
    bench.command(BodyCommand());
    QCOMPARE(bench.body.faultCode(), quint8(0));
}

void TestSimulatorBody::autoReleaseOpensAndThenWaitsForADeactivation()
{
    Bench bench = Bench::activated();
    bench.command(goTo(200));
    bench.advanceMs(1000);
    BodyCommand release = goTo(200);
    release.autoRelease = true;
    bench.command(release);
    QCOMPARE(bench.body.status(), Status::Releasing);
    bench.advanceMs(1000);
    QCOMPARE(bench.body.position(), quint8(100));
    QCOMPARE(bench.body.faultCode(), GripperBody::releasingFaultCode);
    bench.advanceMs(1000);
    QCOMPARE(bench.body.position(), quint8(0));
    QCOMPARE(bench.body.faultCode(), GripperBody::releasedFaultCode);
    bench.command(goTo(100));
    bench.advanceMs(1000);
    QCOMPARE(bench.body.position(), quint8(0));
    bench.command(BodyCommand());
    bench.command(active());
    bench.advanceMs(activationMs);
    QCOMPARE(bench.body.status(), Status::Active);
}

void TestSimulatorBody::autoReleaseClosesWithTheDirectionBit()
{
    Bench bench = Bench::activated();
    BodyCommand release = active();
    release.autoRelease = true;
    release.autoReleaseCloses = true;
    bench.command(release);
    bench.advanceMs(3000);
    QCOMPARE(bench.body.position(), quint8(255));
}

void TestSimulatorBody::cyclesCountClosingMovements()
{
    Bench bench = Bench::activated();
    for (int i = 0; i < 3; ++i) {
        bench.command(goTo(200));
        bench.advanceMs(1000);
        bench.command(goTo(0));
        bench.advanceMs(1000);
    }
    QCOMPARE(bench.body.cycles(), 3U);
}

void TestSimulatorBody::fingersCountStepsAndActivations()
{
    Bench bench = Bench::activated();
    bench.command(goTo(200));
    bench.advanceMs(1000);
    bench.command(goTo(150));
    bench.advanceMs(1000);
    QCOMPARE(bench.body.usage(), 250U);
    QCOMPARE(bench.body.starts(), 1U);
}

void TestSimulatorBody::vacuumBuildsUpAndIsHeldWithThePumpOff()
{
    Bench bench = Bench::activated(true);
    QCOMPARE(bench.body.vacuumStatus(), VacuumStatus::None);
    bench.command(goTo(200, 25)); // 100 a second
    bench.advanceMs(1900);
    QCOMPARE(bench.body.vacuumStatus(), VacuumStatus::Building);
    QCOMPARE(bench.body.position(), quint8(190));
    bench.advanceMs(100);
    QCOMPARE(bench.body.vacuumStatus(), VacuumStatus::Holding);
    bench.advanceMs(60000);
    QCOMPARE(bench.body.usage(), 2U);
    QCOMPARE(bench.body.starts(), 1U);
}

void TestSimulatorBody::leakKeepsThePumpRunning()
{
    Bench bench = Bench::activated(true);
    bench.object(100);
    bench.command(goTo(200, 25));
    bench.advanceMs(61000);
    QCOMPARE(bench.body.vacuumStatus(), VacuumStatus::Leaking);
    QCOMPARE(bench.body.objectFlag(), ObjectFlag::Held);
    QCOMPARE(bench.body.usage(), 61U);
}

void TestSimulatorBody::withoutGoToTheVacuumFalls()
{
    Bench bench = Bench::activated(true);
    bench.command(goTo(200));
    bench.advanceMs(1000);
    bench.command(active());
    QCOMPARE(bench.body.vacuumStatus(), VacuumStatus::None);
    bench.advanceMs(5000);
    QCOMPARE(bench.body.position(), quint8(0));
}

void TestSimulatorBody::fingersNeverShowAVacuumStatus()
{
    Bench bench = Bench::activated(false);
    bench.command(goTo(200));
    bench.advanceMs(100);
    QCOMPARE(bench.body.vacuumStatus(), VacuumStatus::None);
}

void TestSimulatorBody::restartClearsCommandsAndKeepsCounters()
{
    Bench bench = Bench::activated();
    bench.command(goTo(200));
    bench.advanceMs(1000);
    bench.body.restart(bench.nowMs * usPerMs);
    QCOMPARE(bench.body.status(), Status::Reset);
    QVERIFY(!bench.body.command().goTo);
    QCOMPARE(bench.body.cycles(), 1U);
    QCOMPARE(bench.body.usage(), 200U);
}

QTEST_GUILESS_MAIN(TestSimulatorBody)
#include "tst_simulatorbody.moc"
