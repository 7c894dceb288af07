#include "stm32flashoutput.h"

#include <QTest>

Q_DECLARE_METATYPE(FlasherOutcome)

// What stm32flash prints was recorded from version 0.7.
namespace {
const QByteArray kHead("stm32flash 0.7\n\nhttp://stm32flash.sourceforge.net/\n\n"
                       "Using Parser : Raw BINARY\nLocation     : 0x8000000\n"
                       "Size         : 3001\n");
const QByteArray kPort("Interface serial_posix: 19200 8N1\n");
const QByteArray kDevice("Version      : 0x31\nOption 1     : 0x00\nOption 2     : 0x00\n"
                         "Device ID    : 0x0413 (STM32F40xxx/41xxx)\n"
                         "- RAM        : Up to 128KiB  (12288b reserved by bootloader)\n"
                         "- Flash      : Up to 1024KiB (size first sector: 1x16384)\n"
                         "- Option RAM : 16b\n- System RAM : 30KiB\n");
const QByteArray kErase("Write to memory\nErasing memory\n");
const QByteArray kBlocks("\rWrote and verified address 0x08000100 (8.53%) "
                         "\rWrote and verified address 0x08000200 (17.06%) "
                         "\rWrote and verified address 0x08000300 (25.59%) "
                         "\rWrote and verified address 0x08000400 (34.12%) ");
const QByteArray kMoreBlocks("\rWrote and verified address 0x08000500 (42.65%) "
                             "\rWrote and verified address 0x08000800 (68.24%) "
                             "\rWrote and verified address 0x08000b00 (93.84%) "
                             "\rWrote and verified address 0x08000bb9 (100.00%) Done.\n\n");
const QByteArray kAll = kHead + kPort + kDevice + kErase + kBlocks + kMoreBlocks;
const QByteArray kStarted("Starting execution at address 0x08000000... done.\n\n");
const QByteArray kNotStarted("Starting execution at address 0x08000000... failed.\n\n");
constexpr quint32 kEnd = 0x08000000 + 3001;
} // namespace

class TestRomflasherOutput : public QObject
{
    Q_OBJECT

private slots:
    void endIsUnderstood_data();
    void endIsUnderstood();
    void progressIsOneLineForTenPercent();
    void piecesMakeTheSameLines();
    void complaintsAreShownAsTheyCome();
    void imageThatEndsBeyondTheFlashIsNotDone();
    void startOfAnIncompleteFirmwareIsNotDone();
    void startWithoutWritingIsDone();
    void writingWithoutVerificationIsNotDone();
};

void TestRomflasherOutput::endIsUnderstood_data()
{
    QTest::addColumn<QByteArray>("output");
    QTest::addColumn<QByteArray>("errors");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<bool>("startsFirmware");
    QTest::addColumn<FlasherOutcome>("outcome");
    QTest::addColumn<QString>("complaint");
    const QByteArray none;
    const QString fine;
    QTest::newRow("started") << kAll + kStarted << none << 0 << true << FlasherOutcome::Done
                             << fine;
    QTest::newRow("written, no start wanted")
        << kAll << none << 0 << false << FlasherOutcome::Done << fine;
    QTest::newRow("synchronised before")
        << kAll + kStarted << QByteArray("Warning: the interface was not closed properly.\n") << 0
        << true << FlasherOutcome::Done << fine;
    QTest::newRow("start refused")
        << kAll + kNotStarted << QByteArray("Warning: the interface was not closed properly.\n")
        << 0 << true << FlasherOutcome::NotStarted
        << QStringLiteral("the bootloader refused to start the firmware");
    QTest::newRow("port missing") << kHead
                                  << QByteArray("Error probing interface \"serial_posix\"\n"
                                                "Cannot handle device \"/dev/ttyNone\"\n"
                                                "Failed to open port: /dev/ttyNone\n")
                                  << 1 << true << FlasherOutcome::PortFailed
                                  << QStringLiteral("Failed to open port: /dev/ttyNone");
    QTest::newRow("nobody answers")
        << kHead + kPort << QByteArray("Failed to init device, timeout.\n") << 1 << true
        << FlasherOutcome::NoBootloader << QStringLiteral("Failed to init device, timeout");
    QTest::newRow("erasing refused")
        << kHead + kPort + kDevice + kErase << QByteArray("Erase failed.\nFailed to erase memory\n")
        << 1 << true << FlasherOutcome::WriteFailed << QStringLiteral("Failed to erase memory");
    QTest::newRow("block refused")
        << kHead + kPort + kDevice + kErase
        << QByteArray("Failed to write memory at address 0x08000000\n") << 1 << true
        << FlasherOutcome::WriteFailed
        << QStringLiteral("Failed to write memory at address 0x08000000");
    QTest::newRow("wrong content")
        << kHead + kPort + kDevice + kErase
        << QByteArray("Failed to verify at address 0x080000ff, expected 0xd2 and found 0x2d\n") << 1
        << true << FlasherOutcome::WriteFailed
        << QStringLiteral("Failed to verify at address 0x080000ff, expected 0xd2 and found 0x2d");
    QTest::newRow("power cut")
        << kHead + kPort + kDevice + kErase + kBlocks
        << QByteArray("Failed to read ACK byte\nFailed to write memory at address 0x08000400\n")
        << 1 << true << FlasherOutcome::WriteFailed
        << QStringLiteral("Failed to write memory at address 0x08000400");
    QTest::newRow("killed while it writes") << kHead + kPort + kDevice + kErase + kBlocks << none
                                            << -1 << true << FlasherOutcome::WriteFailed << fine;
    QTest::newRow("killed before it starts the firmware")
        << kAll << none << -1 << true << FlasherOutcome::NotStarted << fine;
    QTest::newRow("silent success")
        << none << none << 0 << true << FlasherOutcome::PortFailed << fine;
}

void TestRomflasherOutput::endIsUnderstood()
{
    QFETCH(QByteArray, output);
    QFETCH(QByteArray, errors);
    QFETCH(int, exitCode);
    QFETCH(bool, startsFirmware);
    QFETCH(FlasherOutcome, outcome);
    QFETCH(QString, complaint);
    Stm32FlashOutput reader(kEnd);
    reader.takeOutput(output);
    reader.takeErrors(errors);
    QCOMPARE(reader.outcome(exitCode, startsFirmware), outcome);
    QCOMPARE(reader.complaint(), complaint);
}

void TestRomflasherOutput::progressIsOneLineForTenPercent()
{
    Stm32FlashOutput reader(kEnd);
    QCOMPARE(reader.takeOutput(kAll + kStarted),
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

void TestRomflasherOutput::piecesMakeTheSameLines()
{
    Stm32FlashOutput whole(kEnd);
    Stm32FlashOutput pieces(kEnd);
    QStringList lines;
    for (const char byte : kAll + kStarted)
        lines += pieces.takeOutput(QByteArray(1, byte));
    QCOMPARE(lines, whole.takeOutput(kAll + kStarted));
    QCOMPARE(pieces.outcome(0, true), FlasherOutcome::Done);
}

void TestRomflasherOutput::complaintsAreShownAsTheyCome()
{
    Stm32FlashOutput reader(kEnd);
    QCOMPARE(reader.takeErrors("Erase failed.\nFailed to"),
             QStringList{QStringLiteral("Erase failed.")});
    QCOMPARE(reader.takeErrors(" erase memory\n"),
             QStringList{QStringLiteral("Failed to erase memory")});
}

void TestRomflasherOutput::imageThatEndsBeyondTheFlashIsNotDone()
{
    // Recorded: 600 KiB for a flash of which 512 are left. stm32flash exits with 0.
    Stm32FlashOutput reader(0x08080000 + 614400);
    reader.takeOutput(kHead + kPort + kDevice + kErase +
                      "\rWrote and verified address 0x080fff00 (85.29%) "
                      "\rWrote and verified address 0x08100000 (85.33%) Done.\n\n");
    QCOMPARE(reader.outcome(0, false), FlasherOutcome::WriteFailed);
}

void TestRomflasherOutput::startOfAnIncompleteFirmwareIsNotDone()
{
    // Recorded: the image was truncated to 1000 bytes during the flash. stm32flash exits with 0.
    Stm32FlashOutput reader(kEnd);
    reader.takeOutput(kHead + kPort + kDevice + kErase +
                      "\rWrote and verified address 0x08000300 (25.59%) "
                      "\rWrote and verified address 0x080003e8 (33.32%) Done.\n\n" +
                      kStarted);
    QCOMPARE(reader.outcome(0, true), FlasherOutcome::WriteFailed);
}

void TestRomflasherOutput::startWithoutWritingIsDone()
{
    Stm32FlashOutput reader;
    reader.takeOutput(kHead + kPort + kDevice);
    QCOMPARE(reader.outcome(0, true), FlasherOutcome::WriteFailed);
    reader.takeOutput(kStarted);
    QCOMPARE(reader.outcome(0, true), FlasherOutcome::Done);
}

void TestRomflasherOutput::writingWithoutVerificationIsNotDone()
{
    Stm32FlashOutput reader(kEnd);
    reader.takeOutput(kHead + kPort + kDevice + kErase +
                      "\rWrote address 0x08000bb9 (100.00%) Done.\n\n");
    QCOMPARE(reader.outcome(0, false), FlasherOutcome::WriteFailed);
}

QTEST_GUILESS_MAIN(TestRomflasherOutput)
#include "tst_romflasheroutput.moc"
