#include "commandtable.h"
#include "failure.h"
#include "helptext.h"
#include "options.h"
#include "optiontable.h"

#include <QTest>

using namespace gripperctl;

namespace {

Options optionsOf(const char *words)
{
    return Options::fromWords(QString::fromLatin1(words).split(QLatin1Char(' ')));
}

/// Empty if the command takes all words.
QString problemWith(const char *words)
{
    try {
        const Options options = optionsOf(words);
        checkAgainst(*findCommand(options.command), options);
    } catch (const Failure &failure) {
        return failure.text;
    }
    return QString();
}

} // namespace

class TestGripperctlOptions : public QObject
{
    Q_OBJECT

private slots:
    void optionsHaveTheGivenValues();
    void optionsMayBeAnywhere();
    void messageNamesTheWordThatACommandDoesNotTake_data();
    void messageNamesTheWordThatACommandDoesNotTake();
    void everyCommandTakesItsExample();
    void everyOptionOfACommandExists();
    void everyOptionIsTakenBySomeCommand();
    void helpNamesEveryCommandAndOption();
    void helpOfACommandNamesItsOwnOptionsOnly();
};

void TestGripperctlOptions::optionsHaveTheGivenValues()
{
    const Options options =
        optionsOf("--host robot:9 --gripper=3 move 120 --speed 0 --timeout 0.25");
    QCOMPARE(options.endpoint.text(), QStringLiteral("robot:9"));
    QCOMPARE(options.command, QStringLiteral("move"));
    QCOMPARE(options.arguments, QStringList{QStringLiteral("120")});
    QCOMPARE(options.whole("gripper"), std::optional<int>(3));
    QCOMPARE(options.whole("speed"), std::optional<int>(0));
    QCOMPARE(options.whole("force"), std::optional<int>());
    QCOMPARE(options.milliseconds("timeout"), std::optional<int>(250));
    QVERIFY(!options.has("wait"));
}

void TestGripperctlOptions::optionsMayBeAnywhere()
{
    QVERIFY(optionsOf("--wait activate").has("wait"));
    QCOMPARE(optionsOf("plot -o a.svg b.csv").text("output"), QStringLiteral("a.svg"));
    QCOMPARE(optionsOf("plot b.csv --output=a.svg").arguments,
             QStringList{QStringLiteral("b.csv")});
}

void TestGripperctlOptions::messageNamesTheWordThatACommandDoesNotTake_data()
{
    QTest::addColumn<QString>("problem");
    QTest::newRow("scan --wait") << "scan does not take --wait; see gripperctl scan --help";
    QTest::newRow("scan 9") << "scan does not take \"9\"; see gripperctl scan --help";
    QTest::newRow("rename 9") << "rename needs OLD NEW; see gripperctl rename --help";
    QTest::newRow("move 1 --speed 300")
        << "--speed takes a number from 0 to 255, not \"300\"; see gripperctl --help";
    QTest::newRow("move 1 --speed 1.5")
        << "--speed takes a number from 0 to 255, not \"1.5\"; see gripperctl --help";
    QTest::newRow("move -1") << "Unknown option '1'; see gripperctl --help";
    QTest::newRow("open --json --json") << "";
}

void TestGripperctlOptions::messageNamesTheWordThatACommandDoesNotTake()
{
    QTEST(problemWith(QTest::currentDataTag()), "problem");
}

void TestGripperctlOptions::everyCommandTakesItsExample()
{
    for (const CommandRow &command : commandTable()) {
        QCOMPARE(problemWith(command.example), QString());
        QCOMPARE(optionsOf(command.example).command, command.nameText());
    }
}

void TestGripperctlOptions::everyOptionOfACommandExists()
{
    for (const CommandRow &command : commandTable()) {
        std::size_t known = 0;
        for (const OptionRow &option : commandOptions())
            known += command.takes(option.name) ? 1 : 0;
        QCOMPARE(known, command.options.size());
    }
}

void TestGripperctlOptions::everyOptionIsTakenBySomeCommand()
{
    for (const OptionRow &option : commandOptions()) {
        bool isTaken = false;
        for (const CommandRow &command : commandTable())
            isTaken = isTaken || command.takes(option.name);
        QVERIFY2(isTaken, option.name);
    }
}

void TestGripperctlOptions::helpNamesEveryCommandAndOption()
{
    const QString help = generalHelp();
    for (const CommandRow &command : commandTable())
        QVERIFY2(help.contains(QStringLiteral("\n  %1").arg(command.nameText())), command.name);
    for (const OptionRow &option : generalOptions())
        QVERIFY2(help.contains(QStringLiteral("--%1").arg(option.nameText())), option.name);
    for (const QString &line : help.split(QLatin1Char('\n')))
        QVERIFY2(line.size() <= 100, qPrintable(line));
}

void TestGripperctlOptions::helpOfACommandNamesItsOwnOptionsOnly()
{
    const QString help = helpFor(*findCommand(QStringLiteral("upgrade")));
    QVERIFY(help.contains(QLatin1String("--expect VERSION")));
    QVERIFY(help.contains(QLatin1String("--host")));
    QVERIFY(!help.contains(QLatin1String("--speed")));
}

QTEST_APPLESS_MAIN(TestGripperctlOptions)
#include "tst_gripperctloptions.moc"
