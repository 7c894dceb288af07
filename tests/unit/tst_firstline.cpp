#include "firstline.h"

#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTest>

#include <array>

using Protocol = FirstLine::Protocol;

Q_DECLARE_METATYPE(FirstLine::Protocol)

namespace {

std::string_view view(const QByteArray &bytes)
{
    return {bytes.constData(), static_cast<std::size_t>(bytes.size())};
}

// Returns the protocol that patterns find in the whole text.
Protocol protocolByPattern(const QByteArray &text)
{
    static const QRegularExpression tls(QStringLiteral("^\\x16\\x03"));
    static const QRegularExpression http(QStringLiteral(
        "^[!#$%&'*+.^_`|~0-9A-Za-z-]+ [^\\x00-\\x20\\x7f]+ HTTP/[0-9]\\.[0-9][\\r\\n]"));
    const auto match = [&](const QRegularExpression &pattern) {
        return pattern.match(QString::fromLatin1(text.constData(), text.size()), 0,
                             QRegularExpression::PartialPreferCompleteMatch);
    };
    // PCRE has no partial match for an empty text.
    if (text.isEmpty())
        return Protocol::Undecided;
    const QRegularExpressionMatch tlsMatch = match(tls);
    const QRegularExpressionMatch httpMatch = match(http);
    if (tlsMatch.hasMatch())
        return Protocol::Tls;
    if (httpMatch.hasMatch())
        return Protocol::Http;
    const bool isUndecided = tlsMatch.hasPartialMatch() || httpMatch.hasPartialMatch();
    return isUndecided ? Protocol::Undecided : Protocol::Gripper;
}

// Makes request lines and similar texts from a seed.
class TextMaker
{
public:
    int below(int limit) { return m_random.bounded(limit); }

    QByteArray text()
    {
        QByteArray made =
            oneOf({"GET", "POST", "get", "M-SEARCH", "SET", "", "\x16\x03", "\x16", "G(T"}) +
            oneOf({" ", " ", " ", "  ", "\t", ""}) +
            oneOf({"/", "/a?b=c", "*", "http://a/", "POS", "\xC3\xA9", "", "a\x7F"}) +
            oneOf({" ", " ", " ", "  ", "\n", ""}) +
            oneOf({"HTTP/1.1", "HTTP/1.0", "HTTP/2.0", "http/1.1", "HTTP/11", "HTTP/1.", "HTTP/a.1",
                   "POS", ""}) +
            oneOf({"\r\n", "\n", "\r", "", " \n", "0\n"}) + oneOf({"", "SET POS 1\n"});
        if (below(3) == 0)
            made.truncate(below(made.size() + 1));
        if (below(4) == 0)
            made.insert(below(made.size() + 1), static_cast<char>(below(256)));
        return made;
    }

private:
    QByteArray oneOf(const QList<QByteArray> &choices) { return choices[below(choices.size())]; }

    QRandomGenerator m_random{20'260'101};
};

} // namespace

class tst_FirstLine : public QObject
{
    Q_OBJECT

private slots:
    void protocolIsRecognised_data();
    void protocolIsRecognised();
    void piecesMakeNoDifference_data() { protocolIsRecognised_data(); }
    void piecesMakeNoDifference();
    void everyFirstByteIsDecided();
    void textAfterTheDecisionChangesNothing();
    void longTargetIsRecognised();
    void manyTextsAreDecidedAsByThePattern();
};

void tst_FirstLine::protocolIsRecognised_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<Protocol>("protocol");

    const auto row = [](const char *name, const QByteArray &text, Protocol protocol) {
        QTest::newRow(name) << text << protocol;
    };
    row("nothing", "", Protocol::Undecided);

    row("carriage return", "GET / HTTP/1.1\r", Protocol::Http);
    row("line feed", "POST /a HTTP/1.0\nHost: a\n", Protocol::Http);
    row("other version", "PRI * HTTP/2.0\r\n", Protocol::Http);
    row("lower case method", "patch / HTTP/1.1\r\n", Protocol::Http);
    row("every kind of method character", "aZ09!#$%&'*+-.^_`|~ / HTTP/1.1\r\n", Protocol::Http);
    row("name of the host", "CONNECT a:63352 HTTP/1.1\r\n", Protocol::Http);
    row("letters that are not ASCII", "GET /\xC3\xA9 HTTP/1.1\r\n", Protocol::Http);
    row("variable as target", "GET POS HTTP/1.1\r\n", Protocol::Http);

    row("no line ending", "GET / HTTP/1.1", Protocol::Undecided);
    row("half a version", "GET / HTT", Protocol::Undecided);
    row("target", "GET /", Protocol::Undecided);
    row("GET request", "GET POS", Protocol::Undecided);
    row("method", "SET", Protocol::Undecided);

    row("GET request with its line ending", "GET POS\n", Protocol::Gripper);
    row("two GET requests", "GET POSGET STA", Protocol::Gripper);
    row("two GET requests of HTT", "GET HTTGET HTT", Protocol::Undecided);
    row("GET requests with spaces", "GET POS GET", Protocol::Gripper);
    row("SET request", "SET POS 1", Protocol::Gripper);
    row("lower case version", "GET / http/1.1\r\n", Protocol::Gripper);
    row("no version", "GET /\r\n", Protocol::Gripper);
    row("no digit in the version", "GET / HTTP/1.x\r\n", Protocol::Gripper);
    row("longer version", "GET / HTTP/1.10\r\n", Protocol::Gripper);
    row("space after the version", "GET / HTTP/1.1 \r\n", Protocol::Gripper);
    row("two spaces before the target", "GET  / HTTP/1.1\r\n", Protocol::Gripper);
    row("two spaces after the target", "GET /  HTTP/1.1\r\n", Protocol::Gripper);
    row("space before the line", " GET / HTTP/1.1\r\n", Protocol::Gripper);
    row("line ending before the line", "\r\nGET / HTTP/1.1\r\n", Protocol::Gripper);
    row("line ending in the method", "GE\nT / HTTP/1.1\r\n", Protocol::Gripper);
    row("bracket in the method", "GE(T / HTTP/1.1\r\n", Protocol::Gripper);
    row("zero byte in the target", QByteArray("GET /\0 HTTP/1.1\r\n", 17), Protocol::Gripper);
    row("tab in the target", "GET /\t HTTP/1.1\r\n", Protocol::Gripper);

    row("TLS 1.0 and later", QByteArray("\x16\x03\x01\x02\x00", 5), Protocol::Tls);
    row("TLS record type", "\x16", Protocol::Undecided);
    row("garbage like TLS", "\x16 ", Protocol::Gripper);
    row("TLS version alone", "\x03\x01", Protocol::Gripper);
    row("TLS after garbage", "a\x16\x03", Protocol::Gripper);
}

void tst_FirstLine::protocolIsRecognised()
{
    QFETCH(QByteArray, text);
    QTEST(FirstLine().read(view(text)), "protocol");
    QTEST(protocolByPattern(text), "protocol");
}

void tst_FirstLine::piecesMakeNoDifference()
{
    QFETCH(QByteArray, text);
    for (int cut = 0; cut <= text.size(); ++cut) {
        FirstLine line;
        line.read(view(text.left(cut)));
        QTEST(line.read(view(text.mid(cut))), "protocol");
    }
    FirstLine byteByByte;
    for (const char c : text)
        byteByByte.read({&c, 1});
    QTEST(byteByByte.read({}), "protocol");
}

void tst_FirstLine::everyFirstByteIsDecided()
{
    for (int byte = 0; byte < 256; ++byte) {
        const QByteArray text(1, static_cast<char>(byte));
        QCOMPARE(FirstLine().read(view(text)), protocolByPattern(text));
    }
}

void tst_FirstLine::textAfterTheDecisionChangesNothing()
{
    FirstLine gripper;
    QCOMPARE(gripper.read("\n"), Protocol::Gripper);
    QCOMPARE(gripper.read("GET / HTTP/1.1\r\n"), Protocol::Gripper);
    FirstLine http;
    QCOMPARE(http.read("GET / HTTP/1.1\r\n"), Protocol::Http);
    QCOMPARE(http.read("SET POS 1\n"), Protocol::Http);
}

void tst_FirstLine::longTargetIsRecognised()
{
    FirstLine line;
    QCOMPARE(line.read("POST /"), Protocol::Undecided);
    const QByteArray part(1 << 20, 'x');
    for (int i = 0; i < 8; ++i)
        QCOMPARE(line.read(view(part)), Protocol::Undecided);
    QCOMPARE(line.read(" HTTP/1.1\r\n"), Protocol::Http);
}

void tst_FirstLine::manyTextsAreDecidedAsByThePattern()
{
    TextMaker maker;
    std::array<int, 4> counts{};
    for (int i = 0; i < 100'000; ++i) {
        const QByteArray text = maker.text();
        const Protocol expected = protocolByPattern(text);
        ++counts.at(static_cast<std::size_t>(expected));
        FirstLine line;
        Protocol found = Protocol::Undecided;
        for (int at = 0; at < text.size();) {
            const int length = 1 + maker.below(text.size());
            found = line.read(view(text.mid(at, length)));
            at += length;
        }
        QVERIFY2(found == expected, text.toPercentEncoding().constData());
    }
    for (const int count : counts)
        QVERIFY(count > 1000);
}

QTEST_APPLESS_MAIN(tst_FirstLine)

#include "tst_firstline.moc"
