#include "bootloaderkind.h"
#include "framelog.h"
#include "tst_simulatorbench.h"

#include <QTest>

// The bytes do not come from the code under test. The bytes of the master are a recording of
// stm32flash 0.7. The bytes of the bootloader follow the application note AN3155, with checksums
// computed by hand. A Python script computed the CRCs of the Modbus frames.
namespace {
const char *const ack = "79";
const char *const nack = "1f";
const char *const romBootloaderRequest = "09 10 01 90 00 01 02 2a 00 d3 60";
const char *const ownBootloaderRequest = "09 10 01 90 00 01 02 35 00 db 50";
const char *const resetAnswer = "09 10 01 90 00 01 01 50";
// At 0x08008000, where the third sector begins.
const char *const writeWordRequest = "31 ce 08 00 80 00 88 03 01 02 03 04 07";
const char *const readWordRequest = "11 ee 08 00 80 00 88 03 fc";
constexpr int romBaud = 19200;
constexpr int ownBaud = 115200;

/// A gripper that runs its bootloader.
struct BootloaderBench : SimulatorBench
{
    explicit BootloaderBench(const char *version = "TA3-1.6.13",
                             const sim::GripperTiming &timing = {})
        : SimulatorBench(version, 9, timing)
        , baudRate(gripper.bootloader().baudRate)
    {
        enter();
    }

    void enter()
    {
        gripper.restartIntoBootloader();
        timeline.advanceMs(300);
    }

    QByteArray askBootloader(const char *hex) { return ask(hex, baudRate); }
    void synchronise() { QCOMPARE(askBootloader("7f"), QByteArray(ack)); }

    int baudRate;
};

/// A bootloader with a configured rate, which delays its answers.
struct SlowBench : BootloaderBench
{
    explicit SlowBench(int bitsPerSecond)
        : BootloaderBench("TA3-1.6.13", timingOf(bitsPerSecond))
    {
    }

    static sim::GripperTiming timingOf(int bitsPerSecond)
    {
        sim::GripperTiming timing;
        timing.bootloaderBitsPerSecond = bitsPerSecond;
        return timing;
    }

    QByteArray answeredAfterMs(int ms)
    {
        timeline.advanceMs(ms);
        return answered();
    }
};

QByteArray withChecksum(const QByteArray &bytes)
{
    char sum = 0;
    for (const char byte : bytes)
        sum = static_cast<char>(sum ^ byte);
    return bytes + sum;
}

QByteArray addressBytes(quint32 address)
{
    QByteArray bytes;
    for (int shift = 24; shift >= 0; shift -= 8)
        bytes.append(static_cast<char>(address >> shift & 0xFF));
    return withChecksum(bytes);
}

/// The pieces that a flashing tool sends, in order. The bootloader acknowledges each piece.
QList<QByteArray> upgradePieces(quint32 start, const QByteArray &eraseAll, const QByteArray &image)
{
    QList<QByteArray> pieces{QByteArray::fromHex("7f")};
    pieces << (eraseAll.size() == 2 ? QByteArray::fromHex("43bc") : QByteArray::fromHex("44bb"))
           << eraseAll;
    for (int offset = 0; offset < image.size(); offset += 256) {
        const QByteArray block = image.mid(offset, 256);
        const auto count = static_cast<char>(block.size() - 1);
        pieces << QByteArray::fromHex("31ce") << addressBytes(start + static_cast<quint32>(offset))
               << withChecksum(count + block);
    }
    pieces << QByteArray::fromHex("21de") << addressBytes(start);
    return pieces;
}

QList<QByteArray> upgradePieces(const BootloaderBench &bench, const QString &version)
{
    const bool isRom = bench.baudRate == romBaud;
    return upgradePieces(bench.gripper.bootloader().firmwareStart,
                         QByteArray::fromHex(isRom ? "ffff00" : "ff00"),
                         sim::FirmwareImage::make(version, 1024));
}

/// Sends the pieces until one is not acknowledged. Returns the number of those acknowledged.
int sendPieces(BootloaderBench &bench, const QList<QByteArray> &pieces)
{
    int count = 0;
    for (const QByteArray &piece : pieces) {
        if (bench.askBootloader(piece.toHex().constData()) != ack)
            return count;
        ++count;
    }
    return count;
}

using State = sim::SimulatedGripper::State;
} // namespace

class TestSimulatorBootloader : public QObject
{
    Q_OBJECT

private slots:
    void everyResetCommandLeadsIntoTheOnlyBootloader_data();
    void everyResetCommandLeadsIntoTheOnlyBootloader();
    void otherResetCommandsAreRefused();
    void gripperIsSilentUntilTheBootloaderRuns();
    void synchronisationIsAnsweredAtTheRightRateOnly_data();
    void synchronisationIsAnsweredAtTheRightRateOnly();
    void otherBytesDoNotSynchronise();
    void secondAndThirdSynchronisationAreARefusedCommand();
    void requestIsAnswered_data();
    void requestIsAnswered();
    void invalidRequestIsRefused_data();
    void invalidRequestIsRefused();
    void writtenBytesAreReadBack();
    void blockWithAWrongChecksumIsNotWritten();
    void writingClearsBitsAndOnlyErasingSetsThem();
    void erasingTouchesTheNamedSectorsOnly();
    void eraseOfAnUnknownSectorErasesNothing();
    void ownBootloaderCannotBeOverwritten();
    void upgradeEndsInTheNewFirmware_data();
    void upgradeEndsInTheNewFirmware();
    void goToAnotherAddressIsRefused();
    void goWithoutValidFirmwareRestartsTheBootloader();
    void storedSlaveIdAppliesAfterAnUpgrade();
    void secondAttemptSucceedsAfterAPowerCut_data();
    void secondAttemptSucceedsAfterAPowerCut();
    void silentBootloaderOmitsThatManyAnswers();
    void refusedBlockIsNotWritten();
    void badVerifyStoresTheLastByteInverted();
    void refusedGoLeavesTheGripperInTheBootloader();
    void powerFailureWritesHalfABlockAndLastsUntilTheRestart();
    void doubleAckSendsTheByteTwice();
    void modbusRequestsDoNotCountForBootloaderFaults();
    void configuredRateDelaysAnswers();
    void restartCancelsDelayedAnswers();
    void traceShowsTheRateOfBootloaderBytes();
    void foreignImageIsRecognised();
    void damagedImageHasNoVersion_data();
    void damagedImageHasNoVersion();
    void imageHasTheGivenSize();
};

void TestSimulatorBootloader::everyResetCommandLeadsIntoTheOnlyBootloader_data()
{
    QTest::addColumn<QByteArray>("version");
    QTest::addColumn<QByteArray>("word");
    QTest::addColumn<int>("baudRate");
    for (const char *version : {"TA3-1.6.13", "TB1-1.4.2"}) {
        QTest::addRow("%s own", version)
            << QByteArray(version) << QByteArray(ownBootloaderRequest) << romBaud;
        QTest::addRow("%s rom", version)
            << QByteArray(version) << QByteArray(romBootloaderRequest) << romBaud;
    }
    for (const char *version : {"TE1-2.0.1", "TF1-2.0.1"}) {
        QTest::addRow("%s own", version)
            << QByteArray(version) << QByteArray(ownBootloaderRequest) << ownBaud;
        QTest::addRow("%s rom", version)
            << QByteArray(version) << QByteArray(romBootloaderRequest) << ownBaud;
    }
}

void TestSimulatorBootloader::everyResetCommandLeadsIntoTheOnlyBootloader()
{
    QFETCH(QByteArray, version);
    QFETCH(QByteArray, word);
    QFETCH(int, baudRate);
    SimulatorBench bench(version.constData());
    QCOMPARE(bench.ask(word.constData()), QByteArray(resetAnswer));
    bench.timeline.advanceMs(300);
    QCOMPARE(bench.gripper.state(), State::Bootloader);
    QCOMPARE(bench.ask("7f", baudRate), QByteArray(ack));
}

void TestSimulatorBootloader::otherResetCommandsAreRefused()
{
    SimulatorBench bench;
    // 0x3501 at register 400.
    QCOMPARE(bench.ask("09 10 01 90 00 01 02 35 01 1a 90"), QByteArray("09 90 03 8d c3"));
    QCOMPARE(bench.gripper.state(), State::Firmware);
}

void TestSimulatorBootloader::gripperIsSilentUntilTheBootloaderRuns()
{
    SimulatorBench bench;
    bench.gripper.restartIntoBootloader();
    bench.timeline.advanceMs(299);
    QCOMPARE(bench.ask("7f", romBaud), QByteArray());
    QVERIFY(bench.gripper.isBooting());
    bench.timeline.advanceMs(1);
    QCOMPARE(bench.ask("7f", romBaud), QByteArray(ack));
}

void TestSimulatorBootloader::synchronisationIsAnsweredAtTheRightRateOnly_data()
{
    QTest::addColumn<QByteArray>("version");
    QTest::addColumn<int>("wrong");
    QTest::addColumn<int>("right");
    QTest::newRow("rom") << QByteArray("TA3-1.6.13") << ownBaud << romBaud;
    QTest::newRow("own") << QByteArray("TE1-2.0.1") << romBaud << ownBaud;
}

void TestSimulatorBootloader::synchronisationIsAnsweredAtTheRightRateOnly()
{
    QFETCH(QByteArray, version);
    QFETCH(int, wrong);
    QFETCH(int, right);
    BootloaderBench bench(version.constData());
    QCOMPARE(bench.ask("7f", wrong), QByteArray());
    QCOMPARE(bench.ask("7f", 57600), QByteArray());
    QCOMPARE(bench.ask("7f", right), QByteArray(ack));
}

void TestSimulatorBootloader::otherBytesDoNotSynchronise()
{
    BootloaderBench bench("TE1-2.0.1");
    QCOMPARE(bench.askBootloader("00 ff"), QByteArray());
    QCOMPARE(bench.askBootloader(versionRequest), QByteArray());
    QCOMPARE(bench.askBootloader("7f"), QByteArray(ack));
}

void TestSimulatorBootloader::secondAndThirdSynchronisationAreARefusedCommand()
{
    BootloaderBench bench;
    QCOMPARE(bench.askBootloader("7f"), QByteArray(ack));
    QCOMPARE(bench.askBootloader("7f"), QByteArray());
    QCOMPARE(bench.askBootloader("7f"), QByteArray(nack));
    QCOMPARE(bench.askBootloader("02 fd"), QByteArray("79 01 04 13 79"));
}

void TestSimulatorBootloader::requestIsAnswered_data()
{
    QTest::addColumn<QByteArray>("version");
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("answer");
    const auto row = [](const char *name, const char *version, const char *request,
                        const char *answer) {
        QTest::newRow(name) << QByteArray(version) << QByteArray(request) << QByteArray(answer);
    };
    const char *const rom = "TA3-1.6.13";
    const char *const own = "TE1-2.0.1";
    row("get, rom", rom, "00 ff", "79 07 31 00 01 02 11 21 31 44 79");
    row("get, own", own, "00 ff", "79 07 22 00 01 02 11 21 31 43 79");
    row("get version", rom, "01 fe", "79 31 00 00 79");
    row("get id", rom, "02 fd", "79 01 04 13 79");
    row("read", rom, "11 ee 08 00 00 00 08 03 fc", "79 79 79 67 72 69 70");
    row("erase all, rom", rom, "44 bb ff ff 00", "79 79");
    row("erase all, own", own, "43 bc ff 00", "79 79");
    row("the other erase, rom", rom, "43 bc 00 01 01", "79 79");
    row("the other erase, own", own, "44 bb 00 00 00 08 08", "79 79");
    row("write", rom, "31 ce 08 00 40 00 48 03 01 02 03 04 07", "79 79 79");
}

void TestSimulatorBootloader::requestIsAnswered()
{
    QFETCH(QByteArray, version);
    QFETCH(QByteArray, request);
    QFETCH(QByteArray, answer);
    BootloaderBench bench(version.constData());
    bench.synchronise();
    QCOMPARE(bench.askBootloader(request.constData()), answer);
}

void TestSimulatorBootloader::invalidRequestIsRefused_data()
{
    QTest::addColumn<QByteArray>("request");
    QTest::addColumn<QByteArray>("answer");
    const auto row = [](const char *name, const char *request, const char *answer) {
        QTest::newRow(name) << QByteArray(request) << QByteArray(answer);
    };
    row("no complement", "00 fe", "1f");
    row("unknown command", "63 9c", "1f");
    row("wrong checksum of an address", "11 ee 08 00 00 00 09", "79 1f");
    row("read outside the flash", "11 ee 20 00 00 00 20", "79 1f");
    row("read below the flash", "11 ee 00 00 00 00 00", "79 1f");
    row("read beyond the flash", "11 ee 08 0f ff fc 04 07 f8", "79 79 1f");
    row("write outside the flash", "31 ce 08 10 00 00 18", "79 1f");
    row("write between words", "31 ce 08 00 00 02 0a", "79 1f");
    row("count without complement", "11 ee 08 00 00 00 08 03 fd", "79 79 1f");
    row("block of half a word", "31 ce 08 00 40 00 48 01 01 02 02", "79 79 1f");
    row("unknown sector", "44 bb 00 00 00 0c 0c", "79 1f");
    row("wrong checksum of sectors", "44 bb 00 00 00 01 00", "79 1f");
    row("erase of a bank", "44 bb ff fe 01", "79 1f");
    row("go with a wrong checksum", "21 de 08 00 00 00 00", "79 1f");
}

void TestSimulatorBootloader::invalidRequestIsRefused()
{
    QFETCH(QByteArray, request);
    QFETCH(QByteArray, answer);
    BootloaderBench bench;
    bench.synchronise();
    QCOMPARE(bench.askBootloader(request.constData()), answer);
    QCOMPARE(bench.askBootloader("01 fe"), QByteArray("79 31 00 00 79"));
}

void TestSimulatorBootloader::writtenBytesAreReadBack()
{
    BootloaderBench bench;
    bench.synchronise();
    QCOMPARE(bench.askBootloader("31 ce 08 0f ff fc 04 03 a1 b2 c3 d4 07"), QByteArray("79 79 79"));
    QCOMPARE(bench.askBootloader("11 ee 08 0f ff fc 04 03 fc"), QByteArray("79 79 79 a1 b2 c3 d4"));
}

void TestSimulatorBootloader::blockWithAWrongChecksumIsNotWritten()
{
    BootloaderBench bench;
    bench.synchronise();
    QCOMPARE(bench.askBootloader("31 ce 08 00 80 00 88 03 01 02 03 04 00"), QByteArray("79 79 1f"));
    QCOMPARE(bench.askBootloader(readWordRequest), QByteArray("79 79 79 ff ff ff ff"));
}

void TestSimulatorBootloader::writingClearsBitsAndOnlyErasingSetsThem()
{
    BootloaderBench bench;
    bench.synchronise();
    bench.askBootloader("31 ce 08 00 80 00 88 03 f0 f0 f0 f0 03");
    bench.askBootloader("31 ce 08 00 80 00 88 03 3c 3c 3c 3c 03");
    QCOMPARE(bench.askBootloader(readWordRequest), QByteArray("79 79 79 30 30 30 30"));
    bench.askBootloader("44 bb 00 00 00 02 02");
    QCOMPARE(bench.askBootloader(readWordRequest), QByteArray("79 79 79 ff ff ff ff"));
}

void TestSimulatorBootloader::erasingTouchesTheNamedSectorsOnly()
{
    BootloaderBench bench;
    sim::FlashMemory &flash = bench.gripper.flash();
    flash.eraseAll();
    const QByteArray zeros(sim::FlashMemory::sizeBytes, '\0');
    flash.write(sim::FlashMemory::startAddress, zeros);
    bench.synchronise();
    // Sectors 1 and 4: 16 KiB from 0x4000, and 64 KiB from 0x10000.
    QCOMPARE(bench.askBootloader("44 bb 00 01 00 01 00 04 04"), QByteArray("79 79"));
    QByteArray expected = zeros;
    expected.replace(0x4000, 0x4000, QByteArray(0x4000, '\xFF'));
    expected.replace(0x10000, 0x10000, QByteArray(0x10000, '\xFF'));
    QVERIFY(flash.from(sim::FlashMemory::startAddress) == expected);
}

void TestSimulatorBootloader::eraseOfAnUnknownSectorErasesNothing()
{
    BootloaderBench bench;
    const QByteArray before = bench.gripper.flash().from(sim::FlashMemory::startAddress);
    bench.synchronise();
    QCOMPARE(bench.askBootloader("44 bb 00 01 00 00 00 0c 0d"), QByteArray("79 1f"));
    QVERIFY(bench.gripper.flash().from(sim::FlashMemory::startAddress) == before);
}

void TestSimulatorBootloader::ownBootloaderCannotBeOverwritten()
{
    BootloaderBench bench("TE1-2.0.1");
    bench.synchronise();
    QCOMPARE(bench.askBootloader("31 ce 08 07 ff fc 0c"), QByteArray("79 1f"));
    QCOMPARE(bench.askBootloader("31 ce 08 08 00 00 00 03 00 00 00 00 03"), QByteArray("79 79 79"));
    // Sector 7 ends where the firmware begins.
    QCOMPARE(bench.askBootloader("43 bc 00 07 07"), QByteArray("79 1f"));
    QCOMPARE(bench.askBootloader("43 bc 00 08 08"), QByteArray("79 79"));
}

void TestSimulatorBootloader::upgradeEndsInTheNewFirmware_data()
{
    QTest::addColumn<QByteArray>("from");
    QTest::addColumn<QByteArray>("to");
    QTest::addColumn<QByteArray>("answer");

    QTest::newRow("rom") << QByteArray("TA3-1.6.13") << QByteArray("TA3-1.6.14")
                         << QByteArray("09 03 06 54 41 33 01 06 0e ab 8e");
    QTest::newRow("own") << QByteArray("TE1-2.0.1") << QByteArray("TE1-2.0.2")
                         << QByteArray("09 03 06 54 45 31 02 00 02 a8 53");
}

void TestSimulatorBootloader::upgradeEndsInTheNewFirmware()
{
    QFETCH(QByteArray, from);
    QFETCH(QByteArray, to);
    QFETCH(QByteArray, answer);
    BootloaderBench bench(from.constData());
    const QList<QByteArray> pieces = upgradePieces(bench, QString::fromLatin1(to));
    QCOMPARE(sendPieces(bench, pieces), pieces.size());
    QVERIFY(bench.gripper.isBooting());
    bench.timeline.advanceMs(800);
    QCOMPARE(bench.gripper.state(), State::Firmware);
    QCOMPARE(bench.ask(versionRequest), answer);
    QCOMPARE(bench.gripper.identity().versionText(), QString::fromLatin1(to));
    // The new firmware also starts after a restart.
    bench.gripper.restart();
    bench.timeline.advanceMs(800);
    QCOMPARE(bench.ask(versionRequest), answer);
}

void TestSimulatorBootloader::goToAnotherAddressIsRefused()
{
    BootloaderBench bench("TE1-2.0.1");
    bench.synchronise();
    QCOMPARE(bench.askBootloader("21 de 08 00 00 00 08"), QByteArray("79 1f"));
    QCOMPARE(bench.gripper.state(), State::Bootloader);
    QCOMPARE(bench.askBootloader("21 de 08 08 00 00 00"), QByteArray("79 79"));
    QVERIFY(bench.gripper.isBooting());
}

void TestSimulatorBootloader::goWithoutValidFirmwareRestartsTheBootloader()
{
    BootloaderBench bench;
    bench.synchronise();
    bench.askBootloader("44 bb ff ff 00");
    QCOMPARE(bench.askBootloader("21 de 08 00 00 00 08"), QByteArray("79 79"));
    bench.timeline.advanceMs(300);
    QCOMPARE(bench.gripper.state(), State::Bootloader);
    // After the restart it needs a new synchronisation.
    QCOMPARE(bench.askBootloader("01 fe"), QByteArray());
    bench.synchronise();
}

void TestSimulatorBootloader::storedSlaveIdAppliesAfterAnUpgrade()
{
    BootloaderBench bench;
    bench.gripper.registers().set(434, 0x0104);
    sendPieces(bench, upgradePieces(bench, QStringLiteral("TA3-1.6.14")));
    bench.timeline.advanceMs(800);
    QCOMPARE(int(bench.gripper.slaveId()), 4);
}

void TestSimulatorBootloader::secondAttemptSucceedsAfterAPowerCut_data()
{
    QTest::addColumn<QByteArray>("from");
    QTest::addColumn<QByteArray>("to");
    QTest::addColumn<int>("piece");
    QTest::addColumn<bool>("isComplete");
    // An upgrade of 1024 bytes has 17 pieces: 0 synchronises, 1 and 2 erase, 3 to 14 write, 15 and
    // 16 start. The flash has the old firmware until the erase and the new one after the last
    // block.
    for (const int piece : {0, 1, 2, 3, 4, 5, 6, 10, 14, 15, 16}) {
        const bool isComplete = piece <= 2 || piece >= 15;
        QTest::addRow("rom, before piece %d", piece)
            << QByteArray("TA3-1.6.13") << QByteArray("TA3-1.6.14") << piece << isComplete;
        QTest::addRow("own, before piece %d", piece)
            << QByteArray("TE1-2.0.1") << QByteArray("TE1-2.0.2") << piece << isComplete;
    }
}

void TestSimulatorBootloader::secondAttemptSucceedsAfterAPowerCut()
{
    QFETCH(QByteArray, from);
    QFETCH(QByteArray, to);
    QFETCH(int, piece);
    QFETCH(bool, isComplete);
    BootloaderBench bench(from.constData());
    const QList<QByteArray> pieces = upgradePieces(bench, QString::fromLatin1(to));
    QCOMPARE(pieces.size(), 17);
    QCOMPARE(sendPieces(bench, pieces.mid(0, piece)), piece);
    bench.gripper.restart();
    QCOMPARE(bench.askBootloader(pieces.at(piece).toHex().constData()), QByteArray());
    bench.timeline.advanceMs(800);
    QCOMPARE(bench.gripper.state(), isComplete ? State::Firmware : State::Bootloader);
    bench.enter();
    QCOMPARE(sendPieces(bench, pieces), pieces.size());
    bench.timeline.advanceMs(800);
    QCOMPARE(bench.gripper.state(), State::Firmware);
    QCOMPARE(bench.gripper.identity().versionText(), QString::fromLatin1(to));
}

void TestSimulatorBootloader::silentBootloaderOmitsThatManyAnswers()
{
    BootloaderBench bench;
    bench.setFault("silentBootloader 2");
    QCOMPARE(bench.askBootloader("7f"), QByteArray());
    QCOMPARE(bench.askBootloader("01 fe"), QByteArray());
    QCOMPARE(bench.askBootloader("01 fe"), QByteArray("79 31 00 00 79"));
}

void TestSimulatorBootloader::refusedBlockIsNotWritten()
{
    BootloaderBench bench;
    bench.synchronise();
    bench.setFault("nackWrite 1");
    QCOMPARE(bench.askBootloader(writeWordRequest), QByteArray("79 79 1f"));
    QCOMPARE(bench.askBootloader(readWordRequest), QByteArray("79 79 79 ff ff ff ff"));
    QCOMPARE(bench.askBootloader(writeWordRequest), QByteArray("79 79 79"));
}

void TestSimulatorBootloader::badVerifyStoresTheLastByteInverted()
{
    BootloaderBench bench;
    bench.synchronise();
    bench.setFault("badVerify 1");
    QCOMPARE(bench.askBootloader(writeWordRequest), QByteArray("79 79 79"));
    QCOMPARE(bench.askBootloader(readWordRequest), QByteArray("79 79 79 01 02 03 fb"));
}

void TestSimulatorBootloader::refusedGoLeavesTheGripperInTheBootloader()
{
    BootloaderBench bench;
    bench.synchronise();
    bench.setFault("refuseGo 1");
    QCOMPARE(bench.askBootloader("21 de 08 00 00 00 08"), QByteArray("79 1f"));
    QCOMPARE(bench.gripper.state(), State::Bootloader);
    QCOMPARE(bench.askBootloader("21 de 08 00 00 00 08"), QByteArray("79 79"));
}

void TestSimulatorBootloader::powerFailureWritesHalfABlockAndLastsUntilTheRestart()
{
    BootloaderBench bench;
    bench.setFault("diesDuringWrite 1 2");
    bench.synchronise();
    bench.askBootloader("44 bb ff ff 00");
    QCOMPARE(bench.askBootloader("31 ce 08 00 00 00 08 03 01 02 03 04 07"), QByteArray("79 79 79"));
    QCOMPARE(bench.askBootloader("31 ce 08 00 00 04 0c 03 05 06 07 08 0f"), QByteArray("79 79"));
    QCOMPARE(bench.gripper.state(), State::Dead);
    QCOMPARE(bench.gripper.flash().read(0x08000000, 8), QByteArray::fromHex("010203040506ffff"));
    bench.timeline.advanceMs(10000);
    QCOMPARE(bench.askBootloader("7f"), QByteArray());
    bench.gripper.restart();
    bench.timeline.advanceMs(300);
    bench.synchronise();
}

void TestSimulatorBootloader::doubleAckSendsTheByteTwice()
{
    BootloaderBench bench;
    bench.setFault("doubleAck");
    QCOMPARE(bench.askBootloader("7f"), QByteArray("79 79"));
    QCOMPARE(bench.askBootloader("7f 7f"), QByteArray("1f 1f"));
    QCOMPARE(bench.askBootloader("01 fe"), QByteArray("79 31 00 00 79"));
}

void TestSimulatorBootloader::modbusRequestsDoNotCountForBootloaderFaults()
{
    SimulatorBench bench;
    bench.setFault("nackWrite 1");
    QVERIFY(!bench.ask(versionRequest).isEmpty());
    QCOMPARE(bench.gripper.faults().faults().size(), 1);
}

void TestSimulatorBootloader::configuredRateDelaysAnswers()
{
    // With eleven bits per byte, each byte of request and answer takes a millisecond.
    SlowBench bench(11000);
    QCOMPARE(bench.askBootloader("7f"), QByteArray());
    QCOMPARE(bench.answeredAfterMs(1), QByteArray());
    QCOMPARE(bench.answeredAfterMs(1), QByteArray(ack));
    QCOMPARE(bench.askBootloader("02 fd"), QByteArray());
    QCOMPARE(bench.answeredAfterMs(6), QByteArray());
    QCOMPARE(bench.answeredAfterMs(1), QByteArray("79 01 04 13 79"));
    QCOMPARE(bench.askBootloader("21 de"), QByteArray());
    QCOMPARE(bench.answeredAfterMs(3), QByteArray(ack));
    QCOMPARE(bench.askBootloader("08 00 00 00 08"), QByteArray());
    QCOMPARE(bench.answeredAfterMs(5), QByteArray());
    QCOMPARE(bench.gripper.state(), State::Bootloader);
    QCOMPARE(bench.answeredAfterMs(1), QByteArray(ack));
    QCOMPARE(bench.gripper.state(), State::Booting);
}

void TestSimulatorBootloader::restartCancelsDelayedAnswers()
{
    SlowBench bench(110);
    bench.askBootloader("7f");
    bench.gripper.restart();
    QCOMPARE(bench.answeredAfterMs(2000), QByteArray());
    QCOMPARE(bench.gripper.state(), State::Firmware);
}

void TestSimulatorBootloader::traceShowsTheRateOfBootloaderBytes()
{
    BootloaderBench bench;
    bench.askBootloader("7f");
    QCOMPARE(bench.seen.size(), 2);
    QCOMPARE(sim::traceLine(bench.seen.at(0)), QStringLiteral("     300.000 > 7f @19200"));
    QCOMPARE(sim::traceLine(bench.seen.at(1)), QStringLiteral("     300.000 < 79 @19200"));
    bench.waitForSilence();
    SimulatorBench other;
    other.ask(versionRequest);
    QCOMPARE(sim::traceLine(other.seen.at(0)),
             QStringLiteral("       0.000 > 09 03 01 f4 00 03 44 8d"));
    QCOMPARE(sim::traceLine(other.seen.at(1)),
             QStringLiteral("       0.000 < 09 03 06 54 41 33 01 06 0e ab 8e"));
}

namespace {
/// An image made with Python. hashlib computed the digest of the three lines and the body "hello".
QByteArray foreignImage()
{
    const QByteArray head = "gripper-simulator firmware\nversion=TB1-1.4.3\nsize=133\n"
                            "sha1=10ef7bd2bea63e1da4edaa4c40e685d048e1d818\n";
    return head.leftJustified(128, '\0') + "hello";
}
} // namespace

void TestSimulatorBootloader::foreignImageIsRecognised()
{
    QCOMPARE(sim::FirmwareImage::versionIn(foreignImage()), QStringLiteral("TB1-1.4.3"));
    QCOMPARE(sim::FirmwareImage::versionIn(foreignImage() + QByteArray(100, '\xFF')),
             QStringLiteral("TB1-1.4.3"));
}

void TestSimulatorBootloader::damagedImageHasNoVersion_data()
{
    QTest::addColumn<QByteArray>("flash");
    QTest::newRow("erased") << QByteArray(1000, '\xFF');
    QTest::newRow("nothing") << QByteArray();
    QTest::newRow("cut") << foreignImage().chopped(1);
    QTest::newRow("body") << foreignImage().replace("hello", "hallo");
    QTest::newRow("version") << foreignImage().replace("1.4.3", "1.4.4");
    QTest::newRow("size") << foreignImage().replace("size=133", "size=132");
    QTest::newRow("head only") << foreignImage().replace("size=133", "size=128").left(128);
}

void TestSimulatorBootloader::damagedImageHasNoVersion()
{
    QFETCH(QByteArray, flash);
    QCOMPARE(sim::FirmwareImage::versionIn(flash), QString());
}

void TestSimulatorBootloader::imageHasTheGivenSize()
{
    QCOMPARE(sim::FirmwareImage::make(QStringLiteral("TF1-2.0.2")).size(), 16384);
    const QByteArray image = sim::FirmwareImage::make(QStringLiteral("TF1-2.0.2"), 3001);
    QCOMPARE(image.size(), 3001);
    QCOMPARE(sim::FirmwareImage::versionIn(image), QStringLiteral("TF1-2.0.2"));
}

QTEST_GUILESS_MAIN(TestSimulatorBootloader)
#include "tst_simulatorbootloader.moc"
