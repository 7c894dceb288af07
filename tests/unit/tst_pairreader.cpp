#include "pairreader.h"

#include "patternreader.h"

#include <QRandomGenerator>
#include <QTest>

namespace {

using Pairs = PatternReader::Pairs;

Pairs pairsOf(const QByteArray &request)
{
    PairReader reader({request.constData(), static_cast<std::size_t>(request.size())});
    PairReader::Pair pair;
    Pairs pairs;
    while (reader.next(pair))
        pairs.append({{pair.name.data(), static_cast<int>(pair.name.size())}, pair.value});
    return pairs;
}

class LineMaker
{
public:
    explicit LineMaker(quint32 seed)
        : m_random(seed)
    {
    }

    int below(int limit) { return m_random.bounded(limit); }

    QByteArray setLine()
    {
        QByteArray line("SET");
        for (int pairs = 1 + below(6); pairs > 0; --pairs) {
            line += spaces() + tokenOf(below(3) == 0 ? "0123456789" : "ABCPOS_019", 3 + below(7));
            if (below(2) == 0)
                line += spaces() + tokenOf("-0123456789", 1 + below(3));
        }
        return line + QByteArray(below(3), ' ') + (below(2) == 0 ? "\n" : "\r\n");
    }

    // Returns any text. Its tokens are short, so the removal of a pair often makes another pair.
    QByteArray anyText()
    {
        QByteArray text;
        for (int tokens = 1 + below(20); tokens > 0; --tokens) {
            text += below(4) == 0 ? QByteArray() : spaces();
            text += tokenOf(below(2) == 0 ? "0123456789-" : "AB\x03_1!\n-", below(13));
        }
        return text;
    }

private:
    QByteArray spaces() { return {1 + (below(5) == 0 ? below(4) : 0), ' '}; }

    QByteArray tokenOf(const QByteArray &alphabet, int length)
    {
        QByteArray made;
        while (made.size() < length)
            made += alphabet[below(alphabet.size())];
        return made;
    }

    QRandomGenerator m_random;
};

} // namespace

class tst_PairReader : public QObject
{
    Q_OBJECT

private slots:
    void pairsAreReadInOrder_data();
    void pairsAreReadInOrder();
    void valueIsTheLowByteOfANumber_data();
    void valueIsTheLowByteOfANumber();
    void nothingIsReadAfterTheLastPair();
    void readsTheMatchesOfThePatternInRequests();
    void readsTheMatchesOfThePatternInAnyText();
    void longRequestTakesLinearTime_data();
    void longRequestTakesLinearTime();
};

void tst_PairReader::pairsAreReadInOrder_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<Pairs>("expected");

    const auto row = [](const char *request, const Pairs &expected) {
        QTest::newRow(QByteArray(request).replace('\n', "\\n").constData())
            << QByteArray(request) << expected;
    };
    row("", {});
    row("SET\n", {});
    row("POS 1", {});
    row("SET ACT 1 GTO 1 POS 255 SPE 255 FOR 255\n",
        {{"ACT", 1}, {"GTO", 1}, {"POS", 255}, {"SPE", 255}, {"FOR", 255}});
    row("SET MOD 2 MOD 1\n", {{"MOD", 2}, {"MOD", 1}});
    row("SET SCN_BLOCK\r\n", {{"SCN_BLOCK", 0}});
    row("SET SCN SCN_BLOCK NID 4\n", {{"SCN", 0}, {"SCN_BLOCK", 0}, {"NID", 4}});
    row("SET   POS   7   GTO   \n", {{"POS", 7}, {"GTO", 0}});
    row("SET POS 1000\n", {{"POS", 100}});
    row("SET POS 10000 GTO 1\n", {{"POS", 100}, {"GTO", 1}});
    row("SET ABC 123456 7 DEF 12345\n", {{"ABC", 123}, {"DEF", 123}, {"745", 0}});
    row("SET ABC 1231 DEF 4567\n", {{"ABC", 123}, {"DEF", 200}});
    row("SET ABC 123 456 1\n", {{"ABC", 123}, {"456", 1}});
    row("SET ABC DEFGHIJKL 1\n", {{"ABC", 0}, {"DEFGHIJKL", 1}});
    row("SET ABCDEFGHIJ 1\n", {{"ABCDEFGHI", 0}});
    row("SET ABCDEFGHIJKLM POS 1 2\n", {{"ABCDEFGHI", 0}, {"POS", 1}});
    row("SET POS 1 2 GTO 34567\n", {{"POS", 1}, {"GTO", 89}, {"267", 0}});
    row("X   1 ABC 123 DEF 123456", {{"ABC", 123}, {"DEF", 123}, {"1456", 0}});
    row("X 1 2 ABC 12345 DEF 12345 GHI 123",
        {{"ABC", 123}, {"245", 0}, {"DEF", 123}, {"145", 0}, {"GHI", 123}});
    row("SET P\x03OS\x03 1\x03"
        "2\n",
        {{"POS", 12}});
    row("SET P\xC3\x96S POS 1\n", {{"POS", 1}});
}

void tst_PairReader::pairsAreReadInOrder()
{
    QFETCH(QByteArray, request);

    QTEST(pairsOf(request), "expected");
}

void tst_PairReader::valueIsTheLowByteOfANumber_data()
{
    QTest::addColumn<QByteArray>("value");
    QTest::addColumn<int>("expected");

    const auto row = [](const char *value, int expected) {
        QTest::newRow(value) << QByteArray(value) << expected;
    };
    row("", 0);
    row("0", 0);
    row("7", 7);
    row("007", 7);
    row("010", 10);
    row("255", 255);
    row("256", 0);
    row("300", 44);
    row("999", 231);
    row("-1", 255);
    row("-0", 0);
    row("-99", 157);
    row("-100", 246); // Reads "-10". The last digit stays in the text.
    row("-", 0);
    row("--", 0);
    row("1-", 0);
    row("--1", 0);
    row("-1-", 0);
    row("1-1", 0);
}

void tst_PairReader::valueIsTheLowByteOfANumber()
{
    QFETCH(QByteArray, value);
    QFETCH(int, expected);

    QCOMPARE(pairsOf("SET POS " + value + "\n"), (Pairs{{"POS", expected}}));
}

void tst_PairReader::nothingIsReadAfterTheLastPair()
{
    PairReader reader("SET POS 1 2 \n");
    PairReader::Pair pair;
    QVERIFY(reader.next(pair));

    for (int i = 0; i < 3; ++i)
        QVERIFY(!reader.next(pair));
    QCOMPARE(int(pair.value), 1);
}

void tst_PairReader::readsTheMatchesOfThePatternInRequests()
{
    constexpr int lines = 110000;
    LineMaker maker(20240611);
    PatternReader patterns;
    int compared = 0;
    int pairs = 0;
    for (int i = 0; i < lines; ++i) {
        const QByteArray line = maker.setLine();
        if (!patterns.isRequest(line))
            continue;
        const Pairs expected = patterns.pairsOf(line);
        QVERIFY2(pairsOf(line) == expected, line.constData());
        pairs += expected.size();
        ++compared;
    }
    qInfo("%d requests, %d pairs equal, %d requests given up by the pattern", compared, pairs,
          patterns.linesGivenUp());
    QVERIFY(!patterns.gaveUp());
    QVERIFY(compared >= 100000);
}

void tst_PairReader::readsTheMatchesOfThePatternInAnyText()
{
    constexpr int texts = 50000;
    LineMaker maker(7);
    PatternReader patterns;
    int pairs = 0;
    for (int i = 0; i < texts; ++i) {
        const QByteArray text = maker.anyText();
        const Pairs expected = patterns.pairsOf(text);
        QVERIFY2(pairsOf(text) == expected, text.toPercentEncoding(" -").constData());
        pairs += expected.size();
    }
    qInfo("%d texts, %d pairs equal", texts, pairs);
    QVERIFY(!patterns.gaveUp());
}

void tst_PairReader::longRequestTakesLinearTime_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<int>("pairs");

    constexpr int count = 100000;
    QTest::newRow("pairs") << "SET" + QByteArray(" POS 100").repeated(count) + "\n" << count;
    QTest::newRow("names") << "SET" + QByteArray(" POS").repeated(count) + "\n" << count;
    QTest::newRow("cut values") << "SET" + QByteArray(" POS 1000").repeated(count) + "\n" << count;
    QTest::newRow("joined names") << "SET" + QByteArray(" POS 1 2").repeated(count) + "\n" << count;
    QTest::newRow("spaces") << "SET POS" + QByteArray(1000000, ' ') + "GTO\n" << 2;
    QTest::newRow("spaces, no pair") << "SET 1" + QByteArray(1000000, ' ') + "\n" << 0;
    QTest::newRow("short tokens, then joined")
        << "X" + QByteArray(" 1").repeated(count) + QByteArray(" ABC 12345").repeated(count)
        << 2 * count;
}

void tst_PairReader::longRequestTakesLinearTime()
{
    QFETCH(QByteArray, request);

    QTEST(pairsOf(request).size(), "pairs");
}

QTEST_APPLESS_MAIN(tst_PairReader)

#include "tst_pairreader.moc"
