#include "endpoint.h"
#include "failure.h"
#include "protocol.h"
#include "session.h"

#include <QTest>

using namespace gripperctl;

class TestGripperctlProtocol : public QObject
{
    Q_OBJECT

private slots:
    void hostTextGivesHostAndPort_data();
    void hostTextGivesHostAndPort();
    void wrongHostTextIsRefused_data();
    void wrongHostTextIsRefused();
    void replyIsSplitAtTheFirstBlank();
    void wrongReplyIsRefused_data();
    void wrongReplyIsRefused();
    void listOfIdsIsRead_data();
    void listOfIdsIsRead();
    void wordsOfASetAreChecked_data();
    void wordsOfASetAreChecked();
    void chosenGripperIsTheWantedOne_data();
    void chosenGripperIsTheWantedOne();
};

void TestGripperctlProtocol::hostTextGivesHostAndPort_data()
{
    QTest::addColumn<QString>("host");
    QTest::addColumn<int>("port");
    QTest::addColumn<QString>("shown");
    QTest::newRow("robot") << "robot" << 63352 << "robot:63352";
    QTest::newRow("10.0.0.7:1") << "10.0.0.7" << 1 << "10.0.0.7:1";
    QTest::newRow("robot:65535") << "robot" << 65535 << "robot:65535";
    QTest::newRow("[::1]") << "::1" << 63352 << "[::1]:63352";
    QTest::newRow("[fe80::2%eth0]") << "fe80::2%eth0" << 63352 << "[fe80::2%eth0]:63352";
    QTest::newRow("[fe80::2]:80") << "fe80::2" << 80 << "[fe80::2]:80";
}

void TestGripperctlProtocol::hostTextGivesHostAndPort()
{
    QFETCH(QString, host);
    QFETCH(int, port);
    const auto endpoint = Endpoint::fromText(QString::fromLatin1(QTest::currentDataTag()));
    QVERIFY(endpoint);
    QCOMPARE(endpoint->host, host);
    QCOMPARE(int(endpoint->port), port);
    QTEST(endpoint->text(), "shown");
}

void TestGripperctlProtocol::wrongHostTextIsRefused_data()
{
    QTest::addColumn<QString>("text");
    for (const char *text :
         {"", ":1", "a:", "a:0", "a:65536", "a:b", "::1", "[a b]", "a b", "[::1]x"})
        QTest::newRow(text) << text;
}

void TestGripperctlProtocol::wrongHostTextIsRefused()
{
    QFETCH(QString, text);
    QVERIFY(!Endpoint::fromText(text));
}

void TestGripperctlProtocol::replyIsSplitAtTheFirstBlank()
{
    const auto reply = parseReply(QStringLiteral("DRI ERR_SCANNING (EIO)"));
    QVERIFY(reply);
    QCOMPARE(reply->name, QStringLiteral("DRI"));
    QCOMPARE(reply->value, QStringLiteral("ERR_SCANNING (EIO)"));
    // The daemon sends an empty serial number if it could not read it.
    QCOMPARE(parseReply(QStringLiteral("SNU "))->value, QString());
}

void TestGripperctlProtocol::wrongReplyIsRefused_data()
{
    QTest::addColumn<QString>("line");
    for (const char *line : {"", "POS", "ackPOS 1", "PO 1", " POS 1", "P.S 1"})
        QTest::newRow(line) << line;
}

void TestGripperctlProtocol::wrongReplyIsRefused()
{
    QFETCH(QString, line);
    QVERIFY(!parseReply(line));
}

void TestGripperctlProtocol::listOfIdsIsRead_data()
{
    QTest::addColumn<bool>("isList");
    QTest::addColumn<QVector<int>>("ids");
    QTest::newRow("[]") << true << QVector<int>();
    QTest::newRow("[9]") << true << QVector<int>{9};
    QTest::newRow("[2, 3, 9]") << true << QVector<int>{2, 3, 9};
    for (const char *text : {"", "9", "[9", "[2,9]", "[2, ]", "[a]", "?"})
        QTest::newRow(text) << false << QVector<int>();
}

void TestGripperctlProtocol::listOfIdsIsRead()
{
    QFETCH(bool, isList);
    const auto ids = parseIds(QString::fromLatin1(QTest::currentDataTag()));
    QCOMPARE(ids.has_value(), isList);
    QTEST(ids.value_or(QVector<int>()), "ids");
}

void TestGripperctlProtocol::wordsOfASetAreChecked_data()
{
    QTest::addColumn<bool>("isRequest");
    for (const char *words :
         {"POS 0", "POS 007", "pos 255 GTO 1", "SCN_BLOCK", "SCN SCN", "MUTE 1 THROTTLE 0"})
        QTest::newRow(words) << true;
    for (const char *words : {"1", "POS 256", "POS 0100", "POS 1000", "POS -1", "POS 1 2", "POS 1x",
                              "POZ 1", "PO", "GET 1"})
        QTest::newRow(words) << false;
}

void TestGripperctlProtocol::wordsOfASetAreChecked()
{
    QFETCH(bool, isRequest);
    const QString words = QString::fromLatin1(QTest::currentDataTag());
    try {
        checkPairs(words.split(QLatin1Char(' ')));
        QVERIFY(isRequest);
    } catch (const Failure &failure) {
        QVERIFY(!isRequest);
        QCOMPARE(failure.code, ExitCode::WrongUsage);
        QVERIFY2(failure.text.endsWith(QLatin1String("; see gripperctl set --help")),
                 qPrintable(failure.text));
    }
}

void TestGripperctlProtocol::chosenGripperIsTheWantedOne_data()
{
    QTest::addColumn<QVector<int>>("found");
    QTest::addColumn<int>("wanted");
    QTest::addColumn<int>("chosen");
    QTest::addColumn<int>("exitCode");
    QTest::newRow("9 is the default") << QVector<int>{2, 9} << 0 << 9 << 0;
    QTest::newRow("the only one is not 9") << QVector<int>{4} << 0 << 0 << 5;
    QTest::newRow("wanted and found") << QVector<int>{2, 3, 9} << 3 << 3 << 0;
    QTest::newRow("none is 9") << QVector<int>{2, 3} << 0 << 0 << 5;
    QTest::newRow("wanted and not found") << QVector<int>{2, 9} << 3 << 0 << 5;
    QTest::newRow("none found") << QVector<int>() << 9 << 0 << 5;
}

void TestGripperctlProtocol::chosenGripperIsTheWantedOne()
{
    QFETCH(QVector<int>, found);
    QFETCH(int, wanted);
    QFETCH(int, exitCode);
    try {
        const auto id = wanted == 0 ? std::optional<int>() : std::optional<int>(wanted);
        QTEST(chooseGripper(found, id, QString()), "chosen");
        QCOMPARE(0, exitCode);
    } catch (const Failure &failure) {
        QCOMPARE(int(failure.code), exitCode);
    }
}

QTEST_APPLESS_MAIN(TestGripperctlProtocol)
#include "tst_gripperctlprotocol.moc"
