#include "commandinterpreter.h"
#include "faulttext.h"
#include "programoptions.h"

#include <QFile>
#include <QRegularExpression>
#include <QTest>

using Rows = QList<QStringList>;

namespace {
/// An option, in the words that the manuals must repeat.
struct Option
{
    QString call; ///< such as "--boot-ms MS"
    QString defaultValue;
};

QString textOf(const char *path)
{
    QFile file(QStringLiteral(GRIPPERD_SOURCE_DIR "/") + QLatin1String(path));
    if (!file.open(QIODevice::ReadOnly))
        qFatal("cannot read %s", qPrintable(file.fileName()));
    return QString::fromUtf8(file.readAll());
}

/// The options in the output of --help, without those for the help itself.
QList<Option> helpOptions()
{
    const QStringList arguments{QStringLiteral("gripper-simulator"), QStringLiteral("--help")};
    const QString help = sim::ProgramOptions::fromArguments(arguments).helpText;
    static const QRegularExpression option(QStringLiteral("^  (--(?!help)[a-z-]+)(?: <([^>]+)>)?"
                                                          "((?: .*\n(?!  -))*.*)"),
                                           QRegularExpression::MultilineOption);
    static const QRegularExpression value(QStringLiteral("Default: (\\S+)\\."));
    QList<Option> options;
    for (auto it = option.globalMatch(help); it.hasNext();) {
        const QRegularExpressionMatch match = it.next();
        const QString call = QStringLiteral("%1 %2").arg(match.captured(1), match.captured(2));
        options.append({call.trimmed(), value.match(match.captured(3).simplified()).captured(1)});
    }
    return options;
}

QStringList helpLines()
{
    sim::BusSimulator simulator;
    return sim::CommandInterpreter(simulator).execute(QStringLiteral("help"));
}

/// The table rows whose first cell is code, below this heading of docs/simulator.md.
Rows tableRows(const char *heading)
{
    const QString page = textOf("docs/simulator.md");
    const QString section = page.section(QStringLiteral("\n## %1\n").arg(QLatin1String(heading)), 1)
                                .section(QStringLiteral("\n## "), 0, 0);
    static const QRegularExpression separator(QStringLiteral("(?<!\\\\)\\|"));
    Rows rows;
    for (const QString &line : section.split(QLatin1Char('\n'))) {
        if (!line.startsWith(QLatin1String("| `")))
            continue;
        QStringList cells;
        for (const QString &cell : line.mid(1).split(separator))
            cells.append(cell.trimmed().remove(QLatin1Char('`')).remove(QLatin1Char('\\')));
        cells.removeLast();
        rows.append(cells);
    }
    return rows;
}

/// Compares the two columns of a line of help with a row of the page, which may say more.
void compareWithHelp(const QString &line, const QString &call, const QString &meaning)
{
    QVERIFY2(line.simplified().startsWith(QStringLiteral("%1 ").arg(call)), qPrintable(line));
    const QString helpMeaning = line.simplified().mid(call.size() + 1);
    QVERIFY2(meaning.startsWith(helpMeaning), qPrintable(helpMeaning));
}
} // namespace

class TestSimulatorManual : public QObject
{
    Q_OBJECT

private slots:
    void optionsOfThePageAreThoseOfTheProgram();
    void optionsOfTheManualPageAreThoseOfTheProgram();
    void commandsOfThePageAreThoseOfTheProgram();
    void faultsOfThePageAreThoseOfTheProgram();
};

void TestSimulatorManual::optionsOfThePageAreThoseOfTheProgram()
{
    Rows rows = tableRows("Options");
    QCOMPARE(rows.takeLast().first(), QStringLiteral("-h, --help"));
    const QList<Option> options = helpOptions();
    QCOMPARE(rows.size(), options.size());
    for (int i = 0; i < rows.size(); ++i) {
        QCOMPARE(rows.at(i).first(), options.at(i).call);
        if (!options.at(i).defaultValue.isEmpty())
            QCOMPARE(rows.at(i).last(), options.at(i).defaultValue);
    }
}

void TestSimulatorManual::optionsOfTheManualPageAreThoseOfTheProgram()
{
    QString page = textOf("man/gripper-simulator.1");
    page.replace(QLatin1String("\\-"), QLatin1String("-")).replace(QLatin1String("\\~"), QString());
    static const QRegularExpression option(
        QStringLiteral("^\\.BI? (--.*)\n((?:(?!\\.TP|\\.SH).*\n)*)"),
        QRegularExpression::MultilineOption);
    auto it = option.globalMatch(page);
    for (const Option &expected : helpOptions()) {
        QVERIFY2(it.hasNext(), qPrintable(expected.call));
        const QRegularExpressionMatch match = it.next();
        const QString call = match.captured(1).replace(QLatin1String(" = "), QLatin1String("="));
        QCOMPARE(call, expected.call);
        if (!expected.defaultValue.isEmpty()) {
            const QString text = QStringLiteral("Default: %1.").arg(expected.defaultValue);
            QVERIFY2(match.captured(2).contains(text), qPrintable(call));
        }
    }
    QVERIFY(!it.hasNext());
}

void TestSimulatorManual::commandsOfThePageAreThoseOfTheProgram()
{
    const QStringList lines = helpLines();
    const Rows rows = tableRows("Commands");
    QCOMPARE(rows.size(), lines.indexOf(QStringLiteral("kinds of fault:")));
    for (int i = 0; i < rows.size(); ++i)
        compareWithHelp(lines.at(i), rows.at(i).first(), rows.at(i).last());
}

void TestSimulatorManual::faultsOfThePageAreThoseOfTheProgram()
{
    const QStringList lines = sim::faultHelp();
    const Rows rows = tableRows("Faults");
    QCOMPARE(rows.size(), lines.size());
    for (int i = 0; i < rows.size(); ++i) {
        const QStringList &row = rows.at(i);
        // Only the table of the bootloader's faults has a column that says when the fault acts.
        const sim::Fault fault = sim::parseFault({row.first()});
        QCOMPARE(row.size(), sim::isOfBootloader(fault.kind) ? 4 : 3);
        QString line = lines.at(i);
        if (!row.last().isEmpty()) {
            const QString value = QStringLiteral(" (%1)").arg(row.last());
            QVERIFY2(line.endsWith(value), qPrintable(line));
            line.chop(value.size());
        }
        compareWithHelp(line, row.first(), row.at(row.size() - 2));
    }
    QCOMPARE(helpLines().mid(helpLines().size() - 1 - lines.size(), lines.size()), lines);
}

QTEST_GUILESS_MAIN(TestSimulatorManual)
#include "tst_simulatormanual.moc"
