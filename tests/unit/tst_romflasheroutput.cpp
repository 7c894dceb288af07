#include "stm32flashoutput.h"

#include <QTest>

using namespace flasher;

Q_DECLARE_METATYPE(ExitCode)

// These texts are recordings of stm32flash 0.7.
namespace {
const QByteArray head("stm32flash 0.7\n\nhttp://stm32flash.sourceforge.net/\n\n"
                      "Using Parser : Raw BINARY\nLocation     : 0x8000000\n"
                      "Size         : 3001\n");
const QByteArray portLine("Interface serial_posix: 19200 8N1\n");
const QByteArray device("Version      : 0x31\nOption 1     : 0x00\nOption 2     : 0x00\n"
                        "Device ID    : 0x0413 (STM32F40xxx/41xxx)\n"
                        "- RAM        : Up to 128KiB  (12288b reserved by bootloader)\n"
                        "- Flash      : Up to 1024KiB (size first sector: 1x16384)\n"
                        "- Option RAM : 16b\n- System RAM : 30KiB\n");
const QByteArray erasing("Write to memory\nErasing memory\n");
const QByteArray firstBlocks("\rWrote and verified address 0x08000100 (8.53%) "
                             "\rWrote and verified address 0x08000200 (17.06%) "
                             "\rWrote and verified address 0x08000300 (25.59%) "
                             "\rWrote and verified address 0x08000400 (34.12%) ");
const QByteArray lastBlocks("\rWrote and verified address 0x08000500 (42.65%) "
                            "\rWrote and verified address 0x08000800 (68.24%) "
                            "\rWrote and verified address 0x08000b00 (93.84%) "
                            "\rWrote and verified address 0x08000bb9 (100.00%) Done.\n\n");
const QByteArray written = head + portLine + device + erasing + firstBlocks + lastBlocks;
const QByteArray started("Starting execution at address 0x08000000... done.\n\n");
const QByteArray notStarted("Starting execution at address 0x08000000... failed.\n\n");
constexpr quint32 endAddress = 0x08000000 + 3001;
} // namespace

class TestRomflasherOutput : public QObject
{
    Q_OBJECT

private slots:
    void resultFollowsFromTheOutput_data();
    void resultFollowsFromTheOutput();
    void progressIsOneLinePerTenPercent();
    void piecesOfTheOutputGiveTheSameLines();
    void errorsAreShownLineByLine();
    void imageLargerThanTheFlashIsNotDone();
    void startOfAnIncompleteFirmwareIsNotDone();
    void startWithoutWritingIsDone();
    void writingWithoutVerificationIsNotDone();
};

void TestRomflasherOutput::resultFollowsFromTheOutput_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("errors");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<bool>("startsFirmware");
    QTest::addColumn<ExitCode>("result");
    QTest::addColumn<QString>("lastError");
    const QByteArray none;
    const QString fine;
    QTest::newRow("started") << written + started << none << 0 << true << ExitCode::Done << fine;
    QTest::newRow("written, no start wanted")
        << written << none << 0 << false << ExitCode::Done << fine;
    QTest::newRow("synchronised before")
        << written + started << QByteArray("Warning: the interface was not closed properly.\n") << 0
        << true << ExitCode::Done << fine;
    QTest::newRow("start refused")
        << written + notStarted << QByteArray("Warning: the interface was not closed properly.\n")
        << 0 << true << ExitCode::NotStarted
        << QStringLiteral("the bootloader refused to start the firmware");
    QTest::newRow("port missing") << head
                                  << QByteArray("Error probing interface \"serial_posix\"\n"
                                                "Cannot handle device \"/dev/ttyNone\"\n"
                                                "Failed to open port: /dev/ttyNone\n")
                                  << 1 << true << ExitCode::PortFailed
                                  << QStringLiteral("Failed to open port: /dev/ttyNone");
    QTest::newRow("no answer") << head + portLine << QByteArray("Failed to init device, timeout.\n")
                               << 1 << true << ExitCode::NoBootloader
                               << QStringLiteral("Failed to init device, timeout");
    QTest::newRow("erasing refused")
        << head + portLine + device + erasing
        << QByteArray("Erase failed.\nFailed to erase memory\n") << 1 << true
        << ExitCode::WriteFailed << QStringLiteral("Failed to erase memory");
    QTest::newRow("block refused")
        << head + portLine + device + erasing
        << QByteArray("Failed to write memory at address 0x08000000\n") << 1 << true
        << ExitCode::WriteFailed << QStringLiteral("Failed to write memory at address 0x08000000");
    QTest::newRow("wrong content")
        << head + portLine + device + erasing
        << QByteArray("Failed to verify at address 0x080000ff, expected 0xd2 and found 0x2d\n") << 1
        << true << ExitCode::WriteFailed
        << QStringLiteral("Failed to verify at address 0x080000ff, expected 0xd2 and found 0x2d");
    QTest::newRow("power cut")
        << head + portLine + device + erasing + firstBlocks
        << QByteArray("Failed to read ACK byte\nFailed to write memory at address 0x08000400\n")
        << 1 << true << ExitCode::WriteFailed
        << QStringLiteral("Failed to write memory at address 0x08000400");
    QTest::newRow("killed while it writes") << head + portLine + device + erasing + firstBlocks
                                            << none << -1 << true << ExitCode::WriteFailed << fine;
    QTest::newRow("killed before it starts the firmware")
        << written << none << -1 << true << ExitCode::NotStarted << fine;
    QTest::newRow("silent success") << none << none << 0 << true << ExitCode::PortFailed << fine;
}

void TestRomflasherOutput::resultFollowsFromTheOutput()
{
    QFETCH(QByteArray, output);
    QFETCH(QByteArray, errors);
    QFETCH(int, exitCode);
    QFETCH(bool, startsFirmware);
    QFETCH(ExitCode, result);
    QFETCH(QString, lastError);
    Stm32FlashOutput reader(endAddress);
    reader.takeOutput(output);
    reader.takeErrors(errors);
    QCOMPARE(reader.result(exitCode, startsFirmware), result);
    QCOMPARE(reader.lastError(), lastError);
}

void TestRomflasherOutput::progressIsOneLinePerTenPercent()
{
    Stm32FlashOutput reader(endAddress);
    QCOMPARE(reader.takeOutput(written + started),
             (QStringList{
                 QStringLiteral("Version : 0x31"),
                 QStringLiteral("Device ID : 0x0413 (STM32F40xxx/41xxx)"),
                 QStringLiteral("Erasing memory"),
                 QStringLiteral("Wrote and verified 10 % (up to 0x08000200)"),
                 QStringLiteral("Wrote and verified 20 % (up to 0x08000300)"),
                 QStringLiteral("Wrote and verified 30 % (up to 0x08000400)"),
                 QStringLiteral("Wrote and verified 40 % (up to 0x08000500)"),
                 QStringLiteral("Wrote and verified 60 % (up to 0x08000800)"),
                 QStringLiteral("Wrote and verified 90 % (up to 0x08000b00)"),
                 QStringLiteral("Wrote and verified 100 % (up to 0x08000bb9)"),
                 QStringLiteral("Starting execution at address 0x08000000... done."),
             }));
}

void TestRomflasherOutput::piecesOfTheOutputGiveTheSameLines()
{
    Stm32FlashOutput whole(endAddress);
    Stm32FlashOutput pieces(endAddress);
    QStringList lines;
    for (const char byte : written + started)
        lines += pieces.takeOutput(QByteArray(1, byte));
    QCOMPARE(lines, whole.takeOutput(written + started));
    QCOMPARE(pieces.result(0, true), ExitCode::Done);
}

void TestRomflasherOutput::errorsAreShownLineByLine()
{
    Stm32FlashOutput reader(endAddress);
    QCOMPARE(reader.takeErrors("Erase failed.\nFailed to"),
             QStringList{QStringLiteral("Erase failed.")});
    QCOMPARE(reader.takeErrors(" erase memory\n"),
             QStringList{QStringLiteral("Failed to erase memory")});
}

void TestRomflasherOutput::imageLargerThanTheFlashIsNotDone()
{
    // A recording: stm32flash writes 600 KiB to a flash with room for 512 KiB, and exits with 0.
    Stm32FlashOutput reader(0x08080000 + 614400);
    reader.takeOutput(head + portLine + device + erasing +
                      "\rWrote and verified address 0x080fff00 (85.29%) "
                      "\rWrote and verified address 0x08100000 (85.33%) Done.\n\n");
    QCOMPARE(reader.result(0, false), ExitCode::WriteFailed);
}

void TestRomflasherOutput::startOfAnIncompleteFirmwareIsNotDone()
{
    // A recording: the image shrinks to 1000 bytes during the flash, and stm32flash exits with 0.
    Stm32FlashOutput reader(endAddress);
    reader.takeOutput(head + portLine + device + erasing +
                      "\rWrote and verified address 0x08000300 (25.59%) "
                      "\rWrote and verified address 0x080003e8 (33.32%) Done.\n\n" +
                      started);
    QCOMPARE(reader.result(0, true), ExitCode::WriteFailed);
}

void TestRomflasherOutput::startWithoutWritingIsDone()
{
    Stm32FlashOutput reader;
    reader.takeOutput(head + portLine + device);
    QCOMPARE(reader.result(0, true), ExitCode::WriteFailed);
    reader.takeOutput(started);
    QCOMPARE(reader.result(0, true), ExitCode::Done);
}

void TestRomflasherOutput::writingWithoutVerificationIsNotDone()
{
    Stm32FlashOutput reader(endAddress);
    reader.takeOutput(head + portLine + device + erasing +
                      "\rWrote address 0x08000bb9 (100.00%) Done.\n\n");
    QCOMPARE(reader.result(0, false), ExitCode::WriteFailed);
}

QTEST_GUILESS_MAIN(TestRomflasherOutput)
#include "tst_romflasheroutput.moc"
