#include "unhandledpairs.h"

#include "logcapture.h"

#include <QTest>

#include <memory>

class tst_UnhandledPairs : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void handledRequestLogsNothing();
    void wholeRequestIsLoggedQuotedAndEscaped_data();
    void wholeRequestIsLoggedQuotedAndEscaped();
    void longLineIsCutAndTheRestCounted_data();
    void longLineIsCutAndTheRestCounted();
    void hundredPairsHaveALineEach();
    void moreThanAHundredPairsAreCounted_data();
    void moreThanAHundredPairsAreCounted();

private:
    std::unique_ptr<LogCapture> m_log;
};

void tst_UnhandledPairs::initTestCase()
{
    m_log = std::make_unique<LogCapture>();
}

void tst_UnhandledPairs::init()
{
    m_log->clear();
}

void tst_UnhandledPairs::cleanup()
{
    QCOMPARE(m_log->warnings(), QStringList());
}

void tst_UnhandledPairs::cleanupTestCase()
{
    m_log.reset();
}

void tst_UnhandledPairs::handledRequestLogsNothing()
{
    {
        const UnhandledPairs pairs("SET ACT 1\n");
    }
    QCOMPARE(m_log->infos(), QStringList());
}

void tst_UnhandledPairs::wholeRequestIsLoggedQuotedAndEscaped_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QString>("line");

    QTest::newRow("line feed") << QByteArray("SET XYZ 1\n")
                               << R"(SET UNHANDLED REQUEST : "SET XYZ 1\n")";
    QTest::newRow("both endings") << QByteArray("SET XYZ 1\r\n")
                                  << R"(SET UNHANDLED REQUEST : "SET XYZ 1\r\n")";
    QTest::newRow("many endings") << QByteArray("SET  XYZ  \n\r\n")
                                  << R"(SET UNHANDLED REQUEST : "SET  XYZ  \n\r\n")";
}

void tst_UnhandledPairs::wholeRequestIsLoggedQuotedAndEscaped()
{
    QFETCH(QByteArray, request);
    QFETCH(QString, line);
    UnhandledPairs({request.constData(), static_cast<std::size_t>(request.size())}).log();
    QCOMPARE(m_log->infos(), QStringList(line));
}

void tst_UnhandledPairs::longLineIsCutAndTheRestCounted_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("loggedLength");
    QTest::addColumn<QString>("remark");
    QTest::newRow("at the limit") << 1000 << 1000 << "";
    QTest::newRow("one more") << 1001 << 1000 << "... (1 more characters)";
    QTest::newRow("far longer") << 160'000 << 1000 << "... (159000 more characters)";
}

void tst_UnhandledPairs::longLineIsCutAndTheRestCounted()
{
    QFETCH(int, length);
    QFETCH(int, loggedLength);
    QFETCH(QString, remark);
    // The log line has the request's digits between these texts, and an escaped line feed.
    const QString start = QStringLiteral(R"(SET UNHANDLED REQUEST : "SET XYZ )");
    const QString end = QStringLiteral(R"(\n")");
    const QString digits(length - start.size() - end.size(), QLatin1Char('1'));
    const QByteArray request = "SET XYZ " + digits.toLatin1() + '\n';
    UnhandledPairs({request.constData(), static_cast<std::size_t>(request.size())}).log();
    QCOMPARE(m_log->infos(), QStringList((start + digits + end).left(loggedLength) + remark));
}

void tst_UnhandledPairs::hundredPairsHaveALineEach()
{
    {
        UnhandledPairs pairs("SET AAA\n");
        for (int pair = 0; pair < 100; ++pair)
            pairs.log();
    }
    const QString line = QStringLiteral(R"(SET UNHANDLED REQUEST : "SET AAA\n")");
    QCOMPARE(m_log->infos().size(), 100);
    QCOMPARE(m_log->infos().count(line), 100);
}

void tst_UnhandledPairs::moreThanAHundredPairsAreCounted_data()
{
    QTest::addColumn<int>("pairs");
    QTest::addColumn<QString>("lastLine");

    QTest::newRow("one more") << 101 << "SET UNHANDLED REQUEST : 1 more pairs";
    QTest::newRow("many more") << 20'000 << "SET UNHANDLED REQUEST : 19900 more pairs";
}

void tst_UnhandledPairs::moreThanAHundredPairsAreCounted()
{
    QFETCH(int, pairs);
    {
        UnhandledPairs unhandled("SET AAA\n");
        for (int pair = 0; pair < pairs; ++pair)
            unhandled.log();
        QCOMPARE(m_log->infos().size(), 100);
    }
    QCOMPARE(m_log->infos().size(), 101);
    QTEST(m_log->infos().last(), "lastLine");
}

QTEST_GUILESS_MAIN(tst_UnhandledPairs)
#include "tst_unhandledpairs.moc"
