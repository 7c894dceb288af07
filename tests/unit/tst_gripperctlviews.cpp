#include "failure.h"
#include "gripperidentity.h"
#include "motion.h"
#include "plotscript.h"
#include "recording.h"
#include "texttable.h"
#include "watchview.h"

#include <QTest>

using namespace gripperctl;

namespace {

/// A gripper that has arrived at 100, except for the given `values`.
GripperState gripperOf(const char *values, int id = 9)
{
    Values all;
    const QString usual = QStringLiteral("STA=3 OBJ=3 FLT=00 GTO=1 PRE=100 POS=100 COU=0 "
                                         "FWV=TA3-1.6.14 DRI=RUNNING ");
    const QStringList words =
        (usual + QLatin1String(values)).split(QLatin1Char(' '), Qt::SkipEmptyParts);
    for (const QString &word : words)
        all.insert(word.section(QLatin1Char('='), 0, 0), word.section(QLatin1Char('='), 1));
    return {id, all};
}

Snapshot snapshotOf(const QVector<GripperState> &grippers, const char *link = "RUNNING")
{
    const QDateTime time(QDate(2024, 5, 6), QTime(7, 8, 9, 10), Qt::UTC);
    return {time, QStringLiteral("1.0"), QString::fromLatin1(link), grippers};
}

QString textFrom(const QStringList &lines)
{
    return (QStringList{recordingHeader()} + lines).join(QLatin1Char('\n'));
}

} // namespace

Q_DECLARE_METATYPE(Motion)

class TestGripperctlViews : public QObject
{
    Q_OBJECT

private slots:
    void columnIsAsWideAsItsWidestWord();
    void secondLetterDecidesTheFamily_data();
    void secondLetterDecidesTheFamily();
    void familiesAreThoseOfTheSimulator();
    void motionIsJudgedByItsOwnRequest_data();
    void motionIsJudgedByItsOwnRequest();
    void barMarksPositionAndRequest_data();
    void barMarksPositionAndRequest();
    void screenIsNeverWiderThanTheTerminal_data();
    void screenIsNeverWiderThanTheTerminal();
    void plainLineHasNoBlanksInItsValues();
    void parsedRecordingEqualsTheWrittenOne();
    void timeWithoutALinkIsAGapInTheCurve();
    void messageNamesTheWrongLineOfARecording();
};

void TestGripperctlViews::columnIsAsWideAsItsWidestWord()
{
    TextTable table({QStringLiteral("ID"), QStringLiteral("NAME")});
    table.addRow({QStringLiteral("1000"), QString()});
    table.addRow({QString(), QStringLiteral("x")});
    QCOMPARE(table.lines().join(QLatin1Char('\n')), QStringLiteral("ID    NAME\n1000\n      x"));
}

void TestGripperctlViews::secondLetterDecidesTheFamily_data()
{
    QTest::addColumn<QString>("family");
    QTest::addColumn<bool>("isVacuum");
    QTest::newRow("FWV=TA3-1.6.14") << "Pello" << false;
    QTest::newRow("FWV=TB1-1.4.3") << "Varno" << false;
    QTest::newRow("FWV=TE1-2.0.2") << "Zentra" << true;
    QTest::newRow("FWV=TF1-2.0.2") << "Sorbix" << true;
    for (const char *version : {"FWV=TX1-0.0.0", "FWV=T", "FWV=", "FWV=?"})
        QTest::newRow(version) << "" << false;
}

void TestGripperctlViews::secondLetterDecidesTheFamily()
{
    const GripperState gripper = gripperOf(QTest::currentDataTag());
    QTEST(gripper.family(), "family");
    QTEST(gripper.isVacuum(), "isVacuum");
}

void TestGripperctlViews::familiesAreThoseOfTheSimulator()
{
    int known = 0;
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        const QString version = QStringLiteral("T%1x-1.0.0").arg(QLatin1Char(letter));
        const auto identity = sim::GripperIdentity::fromVersion(9, version);
        const GripperState gripper = gripperOf(("FWV=" + version.toLatin1()).constData());
        QCOMPARE(!gripper.family().isEmpty(), identity.has_value());
        QCOMPARE(gripper.isVacuum(), identity && identity->isVacuum());
        known += identity ? 1 : 0;
    }
    QVERIFY(known > 0);
}

void TestGripperctlViews::motionIsJudgedByItsOwnRequest_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<Motion>("motion");
    QTest::newRow("") << 100 << Motion::Reached;
    QTest::newRow("OBJ=3 ") << 101 << Motion::NotTaken;
    QTest::newRow("GTO=0") << 100 << Motion::NotTaken;
    QTest::newRow("OBJ=1") << 100 << Motion::UnderWay;
    QTest::newRow("OBJ=0") << 100 << Motion::UnderWay;
    QTest::newRow("OBJ=2 POS=60") << 100 << Motion::Stopped;
    QTest::newRow("FLT=05") << 101 << Motion::Faulty;
    QTest::newRow("STA=0 OBJ=3") << 100 << Motion::Inactive;
    QTest::newRow("STA=2") << 100 << Motion::Inactive;
    QTest::newRow("PRE=007") << 7 << Motion::Reached;
}

void TestGripperctlViews::motionIsJudgedByItsOwnRequest()
{
    QFETCH(int, position);
    QTEST(judgeMotion(gripperOf(QTest::currentDataTag()), position), "motion");
}

void TestGripperctlViews::barMarksPositionAndRequest_data()
{
    QTest::addColumn<int>("position");
    QTest::addColumn<int>("requested");
    QTest::addColumn<QString>("drawn");
    QTest::newRow("open") << 0 << 0 << "|---------";
    QTest::newRow("closed") << 255 << 255 << "#########|";
    QTest::newRow("closing") << 57 << 255 << "###------|";
    QTest::newRow("opening") << 255 << 0 << "|#########";
    QTest::newRow("held") << 113 << 170 << "#####-|---";
    QTest::newRow("just moving") << 1 << 255 << "#--------|";
}

void TestGripperctlViews::barMarksPositionAndRequest()
{
    QFETCH(int, position);
    QFETCH(int, requested);
    QTEST(positionBar(position, requested, 10), "drawn");
}

void TestGripperctlViews::screenIsNeverWiderThanTheTerminal_data()
{
    QTest::addColumn<int>("width");
    for (const int width : {1, 40, 80, 81, 200, 500})
        QTest::addRow("%d", width) << width;
}

void TestGripperctlViews::screenIsNeverWiderThanTheTerminal()
{
    QFETCH(int, width);
    const Snapshot snapshot = snapshotOf({gripperOf("FWV=TE1-2.0.2", 2), gripperOf("OBJ=1")});
    const QStringList lines = watchScreen(snapshot, QStringLiteral("robot:1"), width);
    QCOMPARE(lines.size(), 3);
    for (const QString &line : lines)
        QVERIFY2(line.size() <= width, qPrintable(line));
    if (width >= 80) {
        QVERIFY(lines.at(2).contains(QLatin1String("] 100 -> 100  current   0  moving  fault 00")));
        QVERIFY(lines.at(1).startsWith(QLatin1String(" 2 Zentra active     [")));
    }
}

void TestGripperctlViews::plainLineHasNoBlanksInItsValues()
{
    const QStringList lines = watchLines(snapshotOf({gripperOf("")}, "ERR_SCANNING (EIO)"));
    QCOMPARE(lines, QStringList{QStringLiteral(
                        "2024-05-06T07:08:09.010Z link=ERR_SCANNING_(EIO) gripper=9 status=active "
                        "position=100 requested=100 current=0 object=reached fault=0")});
    const QStringList empty = watchLines(snapshotOf({}));
    QCOMPARE(empty.first(),
             QStringLiteral("2024-05-06T07:08:09.010Z link=RUNNING no grippers found"));
}

void TestGripperctlViews::parsedRecordingEqualsTheWrittenOne()
{
    const Snapshot snapshot =
        snapshotOf({gripperOf("POS=1 PRE=255 COU=33", 2), gripperOf("DRI=ERR_TIMEOUT")});
    const QStringList lines = recordingLines(snapshot, 1.25);
    QCOMPARE(lines.first(),
             QStringLiteral("2024-05-06T07:08:09.010Z,1.250,2,1,255,33,reached,0,RUNNING"));
    const QVector<Sample> samples = parseRecording(textFrom(lines));
    QCOMPARE(samples.size(), 2);
    QCOMPARE(samples.at(0).seconds, 1.25);
    QCOMPARE(samples.at(0).gripper, 2);
    QCOMPARE(samples.at(0).position, 1);
    QCOMPARE(samples.at(0).requested, 255);
    QCOMPARE(samples.at(0).current, 33);
    QVERIFY(samples.at(0).isLive);
    QVERIFY(!samples.at(1).isLive);
    const QString asSpreadsheetsWrite =
        textFrom(lines).replace(QLatin1Char('\n'), QLatin1String("\r\n"));
    QVERIFY(parseRecording(asSpreadsheetsWrite).first().isLive);
}

void TestGripperctlViews::timeWithoutALinkIsAGapInTheCurve()
{
    const QByteArray script = plotScript({{0.0, 9, 1, 2, 3, true},
                                          {0.1, 9, 1, 2, 3, false},
                                          {0.2, 2, 7, 7, 0, true},
                                          {0.2, 9, 4, 5, 6, true}},
                                         true);
    QVERIFY(script.contains("$g9 << EOD\n0.000 1 2 3\n\n0.200 4 5 6\nEOD\n"));
    QVERIFY(script.contains("$g2 << EOD\n0.200 7 7 0\nEOD\n"));
    QVERIFY(script.startsWith("set terminal pngcairo"));
}

void TestGripperctlViews::messageNamesTheWrongLineOfARecording()
{
    const QString good = QStringLiteral("t,0.1,9,1,2,3,-,0,RUNNING");
    try {
        parseRecording(textFrom({good, QStringLiteral("t,0.1,9,1,2,x,-,0,RUNNING")}));
        QFAIL("no failure");
    } catch (const Failure &failure) {
        QCOMPARE(failure.code, ExitCode::LocalProblem);
        QVERIFY(failure.text.startsWith(QLatin1String("line 3 ")));
    }
}

QTEST_APPLESS_MAIN(TestGripperctlViews)
#include "tst_gripperctlviews.moc"
