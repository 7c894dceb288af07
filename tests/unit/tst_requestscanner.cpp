#include "requestscanner.h"

#include "patternscanner.h"
#include "scannercomparison.h"

#include <QRandomGenerator>
#include <QTest>

#include <malloc.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <new>

namespace {

std::atomic<std::size_t> allocations = 0; // The number of all allocations so far.
std::atomic<std::size_t> liveBytes = 0;   // The number of heap bytes in use.

} // namespace

void *operator new(std::size_t size)
{
    void *block = std::malloc(size);
    if (block == nullptr)
        throw std::bad_alloc();
    ++allocations;
    liveBytes += malloc_usable_size(block);
    return block;
}

void operator delete(void *block) noexcept
{
    liveBytes -= malloc_usable_size(block);
    std::free(block);
}

void operator delete(void *block, std::size_t) noexcept
{
    operator delete(block);
}

namespace {

QByteArray bytes(std::string_view text)
{
    return {text.data(), static_cast<int>(text.size())};
}

void appendAll(RequestScanner &scanner, const QByteArray &packet)
{
    scanner.append(packet.constData(), static_cast<std::size_t>(packet.size()));
}

QList<QByteArray> takeAll(RequestScanner &scanner)
{
    QList<QByteArray> texts;
    Request request;
    while (scanner.takeNext(request))
        texts.append(bytes(request.text));
    return texts;
}

QList<QByteArray> scan(RequestScanner &scanner, const QByteArray &packet)
{
    appendAll(scanner, packet);
    return takeAll(scanner);
}

QList<QByteArray> scanPackets(const QList<QByteArray> &packets)
{
    RequestScanner scanner;
    QList<QByteArray> texts;
    for (const QByteArray &packet : packets)
        texts += scan(scanner, packet);
    return texts;
}

// Makes texts of the protocol and similar texts from a seed.
class TextMaker
{
public:
    explicit TextMaker(quint32 seed)
        : m_random(seed)
    {
    }

    int below(int limit) { return m_random.bounded(limit); }

    QByteArray text()
    {
        QByteArray made;
        for (int pieces = 1 + below(8); pieces > 0; --pieces)
            made += piece();
        for (int mutations = below(3) == 0 ? 1 + below(4) : 0; mutations > 0; --mutations)
            mutate(made);
        return made;
    }

private:
    using Choices = QList<QByteArray>;

    QByteArray oneOf(const Choices &choices) { return choices[below(choices.size())]; }

    QByteArray piece()
    {
        switch (below(8)) {
        case 0:
        case 1:
        case 2:
            return setLine();
        case 3:
        case 4:
            return keyword() + token() + spaces(0) + ending();
        case 5:
            return keyword() + spaces(0);
        case 6:
            return token() + spaces(0);
        default:
            return oddity();
        }
    }

    QByteArray setLine()
    {
        static const Choices keywords{"SET", "SET", "set", "Set", "SETSET", "xSET", "\u017FET"};
        QByteArray line = oneOf(keywords);
        for (int pairs = 1 + below(5); pairs > 0; --pairs) {
            line += spaces(1) + (below(6) == 0 ? keyword() : name());
            if (below(2) == 0)
                line += spaces(1) + value();
        }
        return line + (below(8) == 0 ? token() : QByteArray()) + spaces(0) + ending();
    }

    QByteArray keyword()
    {
        static const Choices keywords{"GET ", "GET ",     "GET ",    "get ",    "GET  ", "GET",
                                      "SET ", "SET",      "set ",    "S",       "SE",    "G",
                                      "GE",   "GET SET ", "GETSET ", "SETGET ", "GET G", "GET GE"};
        return oneOf(keywords);
    }

    QByteArray spaces(int least) { return {least + (below(6) == 0 ? below(4) : 0), ' '}; }

    QByteArray ending()
    {
        static const Choices endings{"\n", "\n", "\r\n", "\r", "", "\n\n", "\r\r\n", "\n\r", " \n"};
        return oneOf(endings);
    }

    QByteArray tokenOf(const QByteArray &alphabet, int length)
    {
        QByteArray made;
        while (made.size() < length)
            made += alphabet[below(alphabet.size())];
        return made;
    }

    QByteArray name()
    {
        if (below(4) == 0)
            return tokenOf("0123456789", 3 + below(7));
        return tokenOf("ABCSETGsetg_019", 3 + below(7));
    }

    QByteArray value() { return tokenOf("-0123456789", 1 + below(3)); }

    QByteArray token()
    {
        switch (below(4)) {
        case 0:
            return tokenOf("0123456789", below(12));
        case 1:
            return tokenOf("-01", below(5));
        default:
            return tokenOf("ABSETGsetg_01", below(12));
        }
    }

    // Letters whose upper case is ASCII, other letters, broken UTF-8, control characters.
    QByteArray oddity()
    {
        // clang-format off
        static const Choices oddities{
            "\xC5\xBF", "\xC3\x9F", "\xC4\xB1", "\xEF\xAC\x85", "\xEF\xAC\x81", "\xC5\x89",
            "\xEF\xBB\xBF", "\xC3\xA9", "\xE2\x84\xAA", "\xF0\x90\x90\xA8", "\xC5", "\xBF",
            "\xEF\xAC", "\xFF", "\xF0\x9F", "!", "-", "\t", "\v", "\x03", "\x7F",
            QByteArray(1, '\0'), "se\xC5\xA7", "GE\xC8\xBE "};
        // clang-format on
        return oneOf(oddities);
    }

    void mutate(QByteArray &made)
    {
        const int at = below(made.size() + 1);
        switch (below(4)) {
        case 0:
            made.remove(at, 1 + below(3));
            break;
        case 1:
            made.insert(at, oddity());
            break;
        case 2:
            made.insert(at, keyword());
            break;
        default:
            made.insert(at, made.mid(below(made.size() + 1), 1 + below(12)));
        }
    }

    QRandomGenerator m_random;
};

QByteArray repeated(const char *unit, int size)
{
    const QByteArray part(unit);
    return part.repeated(size / part.size() + 1);
}

constexpr int megabyte = 1024 * 1024;

} // namespace

class tst_RequestScanner : public QObject
{
    Q_OBJECT

private slots:
    void requestsOfOnePacketAreCutInOrder_data();
    void requestsOfOnePacketAreCutInOrder();
    void requestsOfSeveralPacketsAreCutInOrder_data();
    void requestsOfSeveralPacketsAreCutInOrder();
    void getHasItsVariableAndItsLineEnding_data();
    void getHasItsVariableAndItsLineEnding();
    void setHasNoVariableAndALineEnding();
    void textAfterAZeroByteOfTheSameReadIsDropped();
    void lettersWhoseUpperCaseIsAsciiBecomePartOfRequests_data();
    void lettersWhoseUpperCaseIsAsciiBecomePartOfRequests();
    void lettersThatBecomeLongerAreReadInALongRead();
    void byteOrderMarkAtTheStartOfAReadIsIgnored();
    void characterCutByAPacketBoundaryIsLost();
    void onlyTextThatMayBecomeARequestIsKept_data();
    void onlyTextThatMayBecomeARequestIsKept();
    void failedTakeLeavesTheRequestUnchanged();
    void laterTextDoesNotChangeARequest();
    void bytesAppendedBetweenTakesJoinTheRest();
    void takenRequestsUseNoMemory();

    void patternsReportThatTheyGaveUp();
    void cutsTheMatchesOfThePatterns();
    void cutsTheMatchesOfThePatternsWhileRequestsWait();

    void hostileMegabyteTakesLinearTime_data();
    void hostileMegabyteTakesLinearTime();
    void hostileBytesOneByOneTakeLinearTime_data();
    void hostileBytesOneByOneTakeLinearTime();
    void thousandAmbiguousLinesAreGarbage();
    void garbageIsNotKept_data();
    void garbageIsNotKept();
    void requestOfMaximumLengthIsCut();
    void requestOverTheMaximumLengthIsGarbage();
    void lineWithoutEndIsDroppedAtTheMaximumLength();
    void requestAfterADroppedLineIsCut_data();
    void requestAfterADroppedLineIsCut();
    void plainGetAllocatesNothing();
    void shortSetsAllocateOnlyOnce();
    void longRequestFreesItsMemory();
};

void tst_RequestScanner::requestsOfOnePacketAreCutInOrder_data()
{
    using Texts = QList<QByteArray>;
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<Texts>("expected");

    const auto row = [](const char *name, const char *packet, const Texts &expected) {
        QTest::newRow(name) << QByteArray(packet) << expected;
    };
    row("GET without ending", "GET POS", {"GET POS"});
    row("GET with line feed", "GET POS\n", {"GET POS\n"});
    row("GET with both", "GET POS\r\n", {"GET POS\r\n"});
    row("GET includes spaces and endings", "GET POS  \r\n\n\rGET STA",
        {"GET POS  \r\n\n\r", "GET STA"});
    row("GET ends at a space after endings", "GET POS \n \nGET STA", {"GET POS \n", "GET STA"});
    row("GET includes three of more", "GET POSITION\n", {"GET POS"});
    row("GET of digits", "GET 123", {"GET 123"});
    row("GET of underscores", "GET ___", {"GET ___"});
    row("GET of GET", "GET GET POS", {"GET GET "});
    row("GET with two spaces", "GET  POS\n", {});
    row("GET with two characters", "GET PO\n", {});
    row("GET with a minus sign", "GET P-S\n", {});
    row("GET with a tab", "GET\tPOS\n", {});
    row("GETGET", "GETGET POS\n", {"GET POS\n"});
    row("two GETs", "GET STA\nGET POS\n", {"GET STA\n", "GET POS\n"});
    row("two GETs without endings", "GET STAGET POS", {"GET STA", "GET POS"});
    row("lower case", "get act\nset act 1\n", {"GET ACT\n", "SET ACT 1\n"});
    row("text before GET", "xyzGET STA\n", {"GET STA\n"});
    row("text before SET", "xyzSET POS 1\n", {"SET POS 1\n"});
    row("lines of garbage before", "abc\n\r\n SET\nSET POS 1\n", {"SET POS 1\n"});
    row("SET without ending", "SET POS 100", {});
    row("SET with both", "SET POS 100\r\n", {"SET POS 100\r\n"});
    row("SET includes all endings", "SET POS 100\n\r\r\n\nx", {"SET POS 100\n\r\r\n\n"});
    row("SET with many spaces", "SET   POS   100   \n", {"SET   POS   100   \n"});
    row("SET without name", "SET\n", {});
    row("SET with spaces only", "SET   \n", {});
    row("SET of a value only", "SET 1\n", {});
    row("SET of digits", "SET 100\n", {"SET 100\n"});
    row("SET of two names", "SET POS GTO\n", {"SET POS GTO\n"});
    row("SET of five pairs", "SET ACT 1 GTO 1 POS 255 SPE 255 FOR 255\n",
        {"SET ACT 1 GTO 1 POS 255 SPE 255 FOR 255\n"});
    row("SET with two values", "SET POS 1 2\n", {});
    row("SET with three digits twice", "SET POS 100 200 1\n", {"SET POS 100 200 1\n"});
    row("SET with three digits for both", "SET POS 1 100 1\n", {"SET POS 1 100 1\n"});
    row("SET of four digits", "SET POS 1000\n", {"SET POS 1000\n"});
    row("SET of minus one", "SET POS -1\n", {"SET POS -1\n"});
    row("SET of minus signs", "SET POS ---\n", {"SET POS ---\n"});
    row("SET of too many minus signs", "SET POS ----\n", {});
    row("SET of minus sign and digits", "SET POS -100\n", {});
    row("SET with a name of two", "SET PO 1\n", {});
    row("SET with a name of nine", "SET SCN_BLOCK\n", {"SET SCN_BLOCK\n"});
    row("SET with a name of ten", "SET SCN_BLOCKS\n", {});
    row("SET with punctuation", "SET POS 1!\n", {});
    row("SET with code 3", "SET PO\x03S 1\n", {});
    row("SET with a tab", "SET\tPOS 1\n", {});
    row("two SETs", "SET POS 1\nSET GTO 1\n", {"SET POS 1\n", "SET GTO 1\n"});
    row("SETSET", "SETSET POS 1\n", {"SET POS 1\n"});
    row("SET as a name", "SET SET POS 1\n", {"SET SET POS 1\n"});
    row("SET after too long a name", "SET ABCDEFGSET POS 1\n", {"SET POS 1\n"});
    row("SET after SET that fails", "SET POS 1 2 SET POS 3\n", {"SET POS 3\n"});
    row("SET within a name", "SET ABCSET POS 1\n", {"SET ABCSET POS 1\n"});
    row("GET of SET", "GET SET POS 1\n", {"GET SET "});
    row("GET includes the start of SET", "GET XSET POS 1\n", {"GET XSE"});
    row("GET includes one letter of SET", "GET XXSET POS 1\n", {"GET XXS"});
    row("SET directly after GET", "GET ABCSET POS 1\n", {"GET ABC", "SET POS 1\n"});
    row("GET of SET, then SET", "GET SET GET SET POS 1\n", {"GET SET ", "GET SET "});
    row("GET within a complete SET", "SET POS GET STA\n", {"SET POS GET STA\n"});
    row("GET within a SET without ending", "SET POS GET STA", {"GET STA"});
    row("GET within a SET that fails", "SET POS GET STA!\n", {"GET STA"});
    row("GET as the only name of a SET", "SET GET POS 1\n", {"SET GET POS 1\n"});
    row("GET and SET on one line", "GET STA SET POS 1\n", {"GET STA ", "SET POS 1\n"});
    row("SET and GET on two lines", "SET POS 1\nGET STA", {"SET POS 1\n", "GET STA"});
    row("SET broken by an ending", "SET POS\n1\n", {"SET POS\n"});
    row("character that is not ASCII", "SET P\xC3\x96S 1\n", {});
}

void tst_RequestScanner::requestsOfOnePacketAreCutInOrder()
{
    QFETCH(QByteArray, packet);
    QFETCH(QList<QByteArray>, expected);

    QCOMPARE(scanPackets({packet}), expected);
}

void tst_RequestScanner::requestsOfSeveralPacketsAreCutInOrder_data()
{
    using Texts = QList<QByteArray>;
    QTest::addColumn<Texts>("packets");
    QTest::addColumn<Texts>("expected");

    QTest::newRow("GET in two") << Texts{"GE", "T POS\n"} << Texts{"GET POS\n"};
    QTest::newRow("GET in letters") << Texts{"G", "E", "T", " ", "P", "O", "S"} << Texts{"GET POS"};
    QTest::newRow("GET and its ending")
        << Texts{"GET POS", "\nGET STA\n"} << Texts{"GET POS", "GET STA\n"};
    QTest::newRow("GET, ending in two")
        << Texts{"GET POS\r", "\nGET STA\n"} << Texts{"GET POS\r", "GET STA\n"};
    QTest::newRow("GET twice broken") << Texts{"GET G", "ET POS", " 1"} << Texts{"GET GET "};
    QTest::newRow("SET and its ending") << Texts{"SET POS 100", "\n"} << Texts{"SET POS 100\n"};
    QTest::newRow("SET, ending in two")
        << Texts{"SET POS 1\r", "\nGET STA\n"} << Texts{"SET POS 1\r", "GET STA\n"};
    QTest::newRow("SET in a token")
        << Texts{"SET PO", "S 1", "00 GT", "O 1\n"} << Texts{"SET POS 100 GTO 1\n"};
    QTest::newRow("SET in letters")
        << Texts{"x", "S", "E", "T", " ", "P", "O", "S", "\n"} << Texts{"SET POS\n"};
    QTest::newRow("SETSET in two") << Texts{"SETSE", "T POS 1\n"} << Texts{"SET POS 1\n"};
    QTest::newRow("SET after a name that grows too long")
        << Texts{"SET ABCDEFG", "SET", " POS 1\n"} << Texts{"SET POS 1\n"};
    QTest::newRow("GET within an incomplete SET")
        << Texts{"SET POS GET STA", "\nSET GTO 1\n"} << Texts{"GET STA", "SET GTO 1\n"};
    QTest::newRow("GET begun within a SET")
        << Texts{"SET POS GET ST", "A\n"} << Texts{"SET POS GET STA\n"};
    QTest::newRow("GET completed within a SET")
        << Texts{"SET POS GET ST", "A 1", "\n"} << Texts{"GET STA "};
    QTest::newRow("SET fails in a later packet")
        << Texts{"SET POS 1 ", "2 ", "SET GTO 1", "\n"} << Texts{"SET GTO 1\n"};
}

void tst_RequestScanner::requestsOfSeveralPacketsAreCutInOrder()
{
    QFETCH(QList<QByteArray>, packets);
    QFETCH(QList<QByteArray>, expected);

    QCOMPARE(scanPackets(packets), expected);
}

void tst_RequestScanner::getHasItsVariableAndItsLineEnding_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QByteArray>("variable");
    QTest::addColumn<bool>("hasLineEnding");

    QTest::newRow("bare") << QByteArray("get pos") << QByteArray("POS") << false;
    QTest::newRow("spaces") << QByteArray("GET POS   ") << QByteArray("POS") << false;
    QTest::newRow("carriage return") << QByteArray("GET A_1\r") << QByteArray("A_1") << true;
    QTest::newRow("spaces, line feed") << QByteArray("GET 123  \n") << QByteArray("123") << true;
    QTest::newRow("longer name") << QByteArray("GET POSI\n") << QByteArray("POS") << false;
}

void tst_RequestScanner::getHasItsVariableAndItsLineEnding()
{
    QFETCH(QByteArray, packet);
    RequestScanner scanner;
    appendAll(scanner, packet);
    Request request;

    QVERIFY(scanner.takeNext(request));
    QVERIFY(request.kind == Request::Kind::Get);
    QTEST(bytes(request.variable()), "variable");
    QTEST(request.hasLineEnding, "hasLineEnding");
}

void tst_RequestScanner::setHasNoVariableAndALineEnding()
{
    RequestScanner scanner;
    appendAll(scanner, "SET POS 1\n");
    Request request;

    QVERIFY(scanner.takeNext(request));
    QVERIFY(request.kind == Request::Kind::Set);
    QVERIFY(request.variable().empty());
    QVERIFY(request.hasLineEnding);
}

void tst_RequestScanner::textAfterAZeroByteOfTheSameReadIsDropped()
{
    const QByteArray zero(1, '\0');

    QCOMPARE(scanPackets({"GET P" + zero + "XX", "OS\n"}), QList<QByteArray>{"GET POS\n"});
    QCOMPARE(scanPackets({zero + "GET POS"}), QList<QByteArray>{});
    QCOMPARE(scanPackets({"\xC5\xBF" + zero + "x", "ET POS 1\n"}),
             QList<QByteArray>{"SET POS 1\n"});
}

void tst_RequestScanner::lettersWhoseUpperCaseIsAsciiBecomePartOfRequests_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("long s") << QByteArray("\xC5\xBF"
                                          "et pos 1\n")
                            << QByteArray("SET POS 1\n");
    QTest::newRow("sharp s") << QByteArray("set po\xC3\x9F 1\n") << QByteArray("SET POSS 1\n");
    QTest::newRow("sharp s before") << QByteArray("\xC3\x9F"
                                                  "et pos\n")
                                    << QByteArray("SET POS\n");
    QTest::newRow("dotless i") << QByteArray("get s\xC4\xB1"
                                             "d")
                               << QByteArray("GET SID");
    QTest::newRow("st ligature") << QByteArray("get \xEF\xAC\x85"
                                               "a")
                                 << QByteArray("GET STA");
    QTest::newRow("fi ligature") << QByteArray("get \xEF\xAC\x81"
                                               "x")
                                 << QByteArray("GET FIX");
}

void tst_RequestScanner::lettersWhoseUpperCaseIsAsciiBecomePartOfRequests()
{
    QFETCH(QByteArray, packet);
    QFETCH(QByteArray, expected);

    QCOMPARE(scanPackets({packet}), QList<QByteArray>{expected});
}

void tst_RequestScanner::lettersThatBecomeLongerAreReadInALongRead()
{
    const QByteArray line = "\xC3\x9F\xF0\x90\x90\xA8\n\xC5\xBF"
                            "et pos 1 gto 1\n";

    QCOMPARE(scanPackets({line.repeated(1000)}).count("SET POS 1 GTO 1\n"), 1000);
}

void tst_RequestScanner::byteOrderMarkAtTheStartOfAReadIsIgnored()
{
    QCOMPARE(scanPackets({"GET P", "\xEF\xBB\xBFOS"}), QList<QByteArray>{"GET POS"});
    QCOMPARE(scanPackets({"GET P\xEF\xBB\xBFOS"}), QList<QByteArray>{});
}

void tst_RequestScanner::characterCutByAPacketBoundaryIsLost()
{
    QCOMPARE(scanPackets({"\xC5", "\xBF"
                                  "et pos 1\n"}),
             QList<QByteArray>{});
}

void tst_RequestScanner::onlyTextThatMayBecomeARequestIsKept_data()
{
    QTest::addColumn<QByteArray>("packet");
    QTest::addColumn<QByteArray>("kept");

    const auto row = [](const char *packet, const char *kept) {
        QTest::newRow(QByteArray(packet).replace('\n', "\\n").constData())
            << QByteArray(packet) << QByteArray(kept);
    };
    row("", "");
    row("xyz", "");
    row("xS", "S");
    row("xSE", "SE");
    row("xSET", "SET");
    row("xSET ", "SET ");
    row("SETX", "");
    row("SET!", "");
    row("SETS", "S");
    row("GE", "GE");
    row("xGET", "GET");
    row("xGET A", "GET A");
    row("xGET SE", "GET SE");
    row("xGET  ", "");
    row("GET G!G", "G");
    row("GET POS", "");
    row("SET POS", "SET POS");
    row("SET PO ", "");
    row("SET -", "");
    row("SET POS 1", "SET POS 1");
    row("SET POS -", "SET POS -");
    row("SET POS 1-1", "SET POS 1-1");
    row("SET POS 1-1-", "");
    row("SET POS 1 2", "SET POS 1 2");
    row("SET POS 1 2 ", "");
    row("SET POS 1 -", "");
    row("SET ABCDEFGHI", "SET ABCDEFGHI");
    row("SET ABCDEFGHIJ", "");
    row("SET ABCDEFGSET", "SET");
    row("SET ABCDEFGSET ABC", "SET ABC");
    row("SET POS SET ", "SET POS SET ");
    row("SET POS 1\n", "");
    row("SET POS 1 2\n", "");
    row("GET POS\nSET PO", "SET PO");
    row("SET P\xC3\x96", "");
}

void tst_RequestScanner::onlyTextThatMayBecomeARequestIsKept()
{
    QFETCH(QByteArray, packet);
    QFETCH(QByteArray, kept);
    RequestScanner scanner;
    scan(scanner, packet);

    QCOMPARE(scanner.bytesKept(), static_cast<std::size_t>(kept.size()));
}

void tst_RequestScanner::failedTakeLeavesTheRequestUnchanged()
{
    RequestScanner scanner;
    appendAll(scanner, "GET POS\nSET GTO 1");
    Request request;

    QVERIFY(scanner.takeNext(request));
    QVERIFY(!scanner.takeNext(request));
    QCOMPARE(bytes(request.text), QByteArray("GET POS\n"));
}

void tst_RequestScanner::laterTextDoesNotChangeARequest()
{
    RequestScanner scanner;
    appendAll(scanner, "SET POS 1 GTO 1 ACT 1\nGET STA\n");
    Request request;
    QVERIFY(scanner.takeNext(request));

    scan(scanner, QByteArray(100000, 'x'));

    QCOMPARE(bytes(request.text), QByteArray("SET POS 1 GTO 1 ACT 1\n"));
}

void tst_RequestScanner::bytesAppendedBetweenTakesJoinTheRest()
{
    RequestScanner scanner;
    appendAll(scanner, "GET STA\nSET POS 1\r");
    Request request;
    QVERIFY(scanner.takeNext(request));

    appendAll(scanner, "\nSET GTO");
    QCOMPARE(takeAll(scanner), QList<QByteArray>{"SET POS 1\r\n"});
    QCOMPARE(scan(scanner, " 1\n"), QList<QByteArray>{"SET GTO 1\n"});
}

void tst_RequestScanner::takenRequestsUseNoMemory()
{
    RequestScanner scanner;
    appendAll(scanner, repeated("GET POS\n", 100));
    Request request;
    const std::size_t before = liveBytes;
    for (int i = 0; i < 100000; ++i) {
        appendAll(scanner, "GET STA\n");
        QVERIFY(scanner.takeNext(request));
    }

    QVERIFY(liveBytes <= before + 1024);
    QCOMPARE(scanner.bytesKept(), std::size_t(104));
    QCOMPARE(takeAll(scanner).size(), 13);
}

void tst_RequestScanner::patternsReportThatTheyGaveUp()
{
    PatternScanner patterns;
    PatternScanner::Cut cut;
    patterns.append("SET AAA 111 111");
    QVERIFY(!patterns.takeNext(cut));
    QVERIFY(!patterns.gaveUp());

    patterns.append(repeated(" 111", 28 * 4));
    QVERIFY(!patterns.takeNext(cut));
    QVERIFY(patterns.gaveUp());
}

void tst_RequestScanner::cutsTheMatchesOfThePatterns()
{
    constexpr int texts = 110000;
    TextMaker maker(20240611);
    int requests = 0;
    int packets = 0;
    int givenUp = 0;
    for (int i = 0; i < texts; ++i) {
        ScannerComparison comparison;
        QString difference;
        const QByteArray text = maker.text();
        for (int at = 0; at < text.size() && !comparison.gaveUp(); ++packets) {
            const int size = 1 + maker.below(maker.below(3) == 0 ? 4 : 80);
            QVERIFY2(comparison.feed(text.mid(at, size), INT_MAX, difference),
                     qPrintable(difference));
            at += size;
        }
        givenUp += comparison.gaveUp() ? 1 : 0;
        requests += comparison.gaveUp() ? 0 : comparison.equalRequests();
    }
    qInfo("%d texts in %d packets, %d requests equal, %d texts given up by the patterns",
          texts - givenUp, packets, requests, givenUp);
    QVERIFY(requests > texts / 2);
    QVERIFY(givenUp < texts / 1000);
}

void tst_RequestScanner::cutsTheMatchesOfThePatternsWhileRequestsWait()
{
    constexpr int texts = 6000;
    TextMaker maker(7);
    int requests = 0;
    int givenUp = 0;
    for (int i = 0; i < texts; ++i) {
        ScannerComparison comparison;
        QString difference;
        for (int packets = 6; packets > 0 && !comparison.gaveUp(); --packets) {
            const int takes = packets == 1 ? INT_MAX : maker.below(3);
            QVERIFY2(comparison.feed(maker.text(), takes, difference), qPrintable(difference));
        }
        givenUp += comparison.gaveUp() ? 1 : 0;
        requests += comparison.gaveUp() ? 0 : comparison.equalRequests();
    }
    qInfo("%d texts, %d requests equal, %d texts given up by the patterns", texts - givenUp,
          requests, givenUp);
    QVERIFY(requests > texts);
    QVERIFY(givenUp < texts / 100);
}

void tst_RequestScanner::hostileMegabyteTakesLinearTime_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("requests");

    const auto row = [](const char *name, const QByteArray &text, int requests) {
        QTest::newRow(name) << text << requests;
    };
    const QByteArray setGet = repeated("SET AAA GET AAA ", megabyte / 2);
    const QByteArray getSet = repeated("GET SET ", megabyte / 2);
    const int units = megabyte / 32 + 1;
    row("values, no ending", "SET AAA" + repeated(" 111", megabyte), 0);
    row("values, ending", "SET AAA" + repeated(" 111", megabyte / 2) + "\n", 1);
    row("values, garbage at the end", "SET AAA" + repeated(" 111", megabyte) + "!\n", 0);
    row("SET and GET, no ending", setGet, units);
    row("SET and GET, ending", setGet + "\n", 1);
    row("SET and GET, garbage at the end", setGet + "!\n", units);
    row("GET and SET, no ending", getSet, megabyte / 16 + 1);
    row("GET and SET, ending", getSet + "\n", megabyte / 16 + 1);
    row("GET and SET, SET at the end", getSet + "AAA SET POS 1\n", megabyte / 16 + 2);
    row("SETs", repeated("SET ", megabyte / 2) + "\n", 1);
    row("SETs, garbage at the end", repeated("SET ", megabyte) + "!\n", 0);
    row("SETs without spaces", repeated("SET", megabyte) + "\n", 0);
    row("GETs without variable", repeated("GET ! ", megabyte) + "\n", 0);
    row("G", repeated("G", megabyte), 0);
    row("spaces", "SET" + repeated(" ", megabyte) + "\n", 0);
    row("GET and spaces", "GET AAA" + repeated(" ", megabyte) + "\n", 1);
    row("carriage returns", repeated("\r", megabyte), 0);
    row("GET and line endings", "GET AAA" + repeated("\r\n", megabyte), 1);
    row("letters that become longer", repeated("\xC3\x9F", 4 * megabyte), 0);
    row("lines", repeated("SET AAA 1\n", megabyte), megabyte / 10 + 1);
    row("foreign characters",
        repeated("\xC3\x9F\xC5\xBF"
                 "ET ",
                 megabyte),
        0);
}

void tst_RequestScanner::hostileMegabyteTakesLinearTime()
{
    QFETCH(QByteArray, text);
    RequestScanner scanner;

    QTEST(scan(scanner, text).size(), "requests");
}

void tst_RequestScanner::hostileBytesOneByOneTakeLinearTime_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<int>("requests");

    constexpr int size = 200 * 1024;
    QTest::newRow("values") << "SET AAA" + repeated(" 111", size) + "\n" << 1;
    QTest::newRow("SETs") << repeated("SET ", size) + "\n" << 1;
    QTest::newRow("SETs and values") << repeated("SET AAA 1 ", size) + "!\n" << 0;
    QTest::newRow("spaces") << "SET" + repeated(" ", size) + "AAA\n" << 1;
    QTest::newRow("one token") << "SET " + repeated("A", size) + "\n" << 0;
    QTest::newRow("SET and GET") << repeated("SET AAA GET AAA ", size) + "\n" << size / 16 + 1;
}

void tst_RequestScanner::hostileBytesOneByOneTakeLinearTime()
{
    QFETCH(QByteArray, text);
    RequestScanner scanner;
    int requests = 0;
    for (const char c : text)
        requests += scan(scanner, QByteArray(1, c)).size();

    QTEST(requests, "requests");
}

void tst_RequestScanner::thousandAmbiguousLinesAreGarbage()
{
    const QByteArray line = "SET AAA" + repeated(" 111", 30 * 4) + "!";
    RequestScanner scanner;

    QCOMPARE(scan(scanner, (line + "\n").repeated(1000)), QList<QByteArray>{});
    QCOMPARE(scan(scanner, line.repeated(1000)), QList<QByteArray>{});
    QCOMPARE(scanner.bytesKept(), std::size_t(0));
}

void tst_RequestScanner::garbageIsNotKept_data()
{
    QTest::addColumn<QByteArray>("unit");
    QTest::addColumn<int>("megabytes");

    QTest::newRow("letters") << QByteArray("lorem ipsum dolor ") << 92;
    QTest::newRow("lines") << QByteArray("lorem ipsum\r\n") << 2;
    QTest::newRow("SETs that fail") << QByteArray("SET AAA 1 2 3 ") << 2;
    QTest::newRow("foreign letters") << QByteArray("\xD0\x96\xD1\x83\xD0\xBA ") << 2;
    QTest::newRow("broken UTF-8") << QByteArray("\xFF\xC3\x28") << 2;
}

void tst_RequestScanner::garbageIsNotKept()
{
    QFETCH(QByteArray, unit);
    QFETCH(int, megabytes);
    const QByteArray packet = repeated(unit.constData(), megabyte / 16);
    RequestScanner scanner;
    for (int i = 0; i < megabytes * 16; ++i) {
        QVERIFY(scan(scanner, packet).isEmpty());
        QVERIFY(scanner.bytesKept() <= 10);
    }
}

void tst_RequestScanner::requestOfMaximumLengthIsCut()
{
    QByteArray text = "SET POS" + repeated(" 111", megabyte);
    text.truncate(static_cast<int>(RequestScanner::maxRequestLength));

    QCOMPARE(scanPackets({text + "\n"}), QList<QByteArray>{text + "\n"});
    QCOMPARE(scanPackets({text, "\n"}), QList<QByteArray>{text + "\n"});
}

void tst_RequestScanner::requestOverTheMaximumLengthIsGarbage()
{
    QByteArray text = "SET POS" + repeated(" 111", megabyte);
    text.truncate(static_cast<int>(RequestScanner::maxRequestLength) + 1);

    QCOMPARE(scanPackets({text + "\n"}), QList<QByteArray>{});
    QCOMPARE(scanPackets({text, "\n"}), QList<QByteArray>{});
}

void tst_RequestScanner::lineWithoutEndIsDroppedAtTheMaximumLength()
{
    const QByteArray packet = repeated(" POS 100", megabyte / 16);
    RequestScanner scanner;
    scan(scanner, "SET");
    std::size_t most = 0;
    for (int i = 0; i < 16 * 4; ++i) {
        scan(scanner, packet);
        most = std::max(most, scanner.bytesKept());
    }

    QVERIFY(most > RequestScanner::maxRequestLength / 2);
    QVERIFY(most <= RequestScanner::maxRequestLength);
    QCOMPARE(scanner.bytesKept(), std::size_t(0));
}

void tst_RequestScanner::requestAfterADroppedLineIsCut_data()
{
    QTest::addColumn<QByteArray>("end");
    QTest::addColumn<QByteArray>("rest");
    QTest::addColumn<QByteArray>("expected");

    const auto row = [](const char *name, const char *end, const char *rest, const char *expected) {
        QTest::newRow(name) << QByteArray(end) << QByteArray(rest) << QByteArray(expected);
    };
    row("on the next line", "", "\nSET GTO 1\n", "SET GTO 1\n");
    row("on the same line", " ", "SET GTO 1\n", "SET GTO 1\n");
    row("begun when the line is dropped", " SE", "T GTO 1\n", "SET GTO 1\n");
    row("GET begun when the line is dropped", " GET P", "OS", "GET POS");
}

void tst_RequestScanner::requestAfterADroppedLineIsCut()
{
    QFETCH(QByteArray, end);
    QFETCH(QByteArray, rest);
    QFETCH(QByteArray, expected);
    RequestScanner scanner;
    scan(scanner, "SET POS" + repeated(" 111", megabyte) + end);
    QVERIFY(scanner.bytesKept() < 10);

    QByteArray taken;
    for (const char c : rest)
        taken += scan(scanner, QByteArray(1, c)).join();

    QCOMPARE(taken, expected);
}

void tst_RequestScanner::plainGetAllocatesNothing()
{
    RequestScanner scanner;
    Request request;
    const std::size_t before = allocations;
    for (int i = 0; i < 1000; ++i) {
        scanner.append("GET POS\r\n", 9);
        QVERIFY(scanner.takeNext(request));
        QVERIFY(!scanner.takeNext(request));
    }

    QCOMPARE(allocations.load(), before);
}

void tst_RequestScanner::shortSetsAllocateOnlyOnce()
{
    const std::string text = "SET ACT 1 GTO 1 POS 255 SPE 255 FOR 255\n";
    RequestScanner scanner;
    Request request;
    scanner.append(text.data(), text.size());
    QVERIFY(scanner.takeNext(request));
    const std::size_t before = allocations;
    for (int i = 0; i < 1000; ++i) {
        scanner.append(text.data(), text.size());
        QVERIFY(scanner.takeNext(request));
        QVERIFY(!scanner.takeNext(request));
    }

    QCOMPARE(allocations.load(), before);
}

void tst_RequestScanner::longRequestFreesItsMemory()
{
    const QByteArray text = repeated("SET ", megabyte / 2) + "\n";
    RequestScanner scanner;
    const std::size_t before = liveBytes;

    QCOMPARE(scan(scanner, text).size(), 1);
    QVERIFY(liveBytes <= before + 1024);
}

QTEST_APPLESS_MAIN(tst_RequestScanner)

#include "tst_requestscanner.moc"
