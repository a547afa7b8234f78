#include "chipfixture.h"
#include "protocol/esptool.h"
#include "scriptedpeer.h"
#include "tools/stubgen/stubelfwriter.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QMutex>
#include <QRandomGenerator>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <algorithm>

#include <sys/resource.h>

namespace {

constexpr unsigned int efuseWord0 = 0x3FF00050;

QByteArray randomBytes(int size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(generator.bounded(256));
    return bytes;
}

QStringList texts(const QSignalSpy &spy)
{
    QStringList result;
    for (const QList<QVariant> &call : spy)
        result << call.at(1).toString();
    return result;
}

double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec)
           + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

int countOpcode(const QVector<VirtualEsp8266::CommandRecord> &log, quint8 opcode)
{
    return int(std::count_if(log.cbegin(), log.cend(),
                             [opcode](const auto &record) { return record.opcode == opcode; }));
}

} // namespace

class TestEspTool : public QObject
{
    Q_OBJECT

private slots:
    void connectSynchronisesOnce();
    void connectRetriesAfterALostAnswer();
    void connectToMissingPortIsSilent();
    void connectToSilentChipFails();
    void readRegisterOfSilentChip();
    void commandErrorCarriesTheLoadersCode_data();
    void commandErrorCarriesTheLoadersCode();
    void malformedAnswers_data();
    void malformedAnswers();
    void strayAnswerEndsTheOnlyWait();
    void dataBlockChecksumInHeader();
    void romEraseCompensationKeepsFlashRight_data();
    void romEraseCompensationKeepsFlashRight();
    void readFlashStreamsWithAcknowledgements_data();
    void readFlashStreamsWithAcknowledgements();
    void readFlashRefusesShortPacketsAndLateDigest_data();
    void readFlashRefusesShortPacketsAndLateDigest();
    void readFlashOfNothingWaitsForDigest();
    void flashMd5_data();
    void flashMd5();
    void identification_data();
    void identification();
    void flashIdentification_data();
    void flashIdentification();
    void flashStatusRegisters_data();
    void flashStatusRegisters();
    void spiCommandRegisters();
    void spiCommandCompletionPolling_data();
    void spiCommandCompletionPolling();
    void eraseRegionRounding_data();
    void eraseRegionRounding();
    void eraseNeedsTheStub();
    void unpluggedPortEndsTheWait();
    void stubUploadInRamBlocks();
    void stubSectionBlockCounts_data();
    void stubSectionBlockCounts();
    void stubRefused_data();
    void stubRefused();
    void stubThatDoesNotGreet();
    void stubWithWrongGreeting();
    void changeBaudrate();

private:
    bool connectTool(ESPTool &tool, ChipFixture &fixture);
    bool loadStub(ESPTool &tool);
};

bool TestEspTool::connectTool(ESPTool &tool, ChipFixture &fixture)
{
    return fixture.start() && tool.esp_connect(fixture.port());
}

bool TestEspTool::loadStub(ESPTool &tool)
{
    return tool.write_loader_stub(loaderStubPath());
}

void TestEspTool::connectSynchronisesOnce()
{
    ChipFixture fixture;
    ESPTool tool;
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QVERIFY(connectTool(tool, fixture));
    QCOMPARE(errors.count(), 0);
    QCOMPARE(fixture.chip().counters().commands.value(ESPTool::ESP_SYNC), 1);
    // No answer to the synchronisation is left to spoil the next command.
    const auto words = VirtualEsp8266::efuseWordsFor(fixture.chip().config());
    QCOMPARE(tool.read_reg(efuseWord0), words[0]);
    QVERIFY(!tool.isFailed());
}

void TestEspTool::connectRetriesAfterALostAnswer()
{
    ChipFixture fixture;
    QVERIFY(fixture.start());
    fixture.chip().armDropAnswer(1);
    ESPTool tool;
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QVERIFY(tool.esp_connect(fixture.port()));
    QCOMPARE(texts(errors), QStringList{"No response for 0x08 command"});
    QCOMPARE(fixture.chip().counters().commands.value(ESPTool::ESP_SYNC), 2);
}

void TestEspTool::connectToMissingPortIsSilent()
{
    ESPTool tool;
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QSignalSpy commandErrors(&tool, &ESPTool::commandError);
    QVERIFY(!tool.esp_connect(QStringLiteral("/dev/no-such-port")));
    QCOMPARE(errors.count(), 0);
    QCOMPARE(commandErrors.count(), 0);
}

void TestEspTool::connectToSilentChipFails()
{
    ChipFixture fixture;
    QVERIFY(fixture.start());
    fixture.chip().armSilence(0);
    ESPTool tool;
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QVERIFY(!tool.esp_connect(fixture.port()));
    QStringList expected;
    for (int i = 0; i < 4; ++i)
        expected << "No response for 0x08 command";
    for (int i = 0; i < 6; ++i)
        expected << "No response for 0x00 command";
    QCOMPARE(texts(errors), expected);
    QVERIFY(tool.isFailed());
}

void TestEspTool::readRegisterOfSilentChip()
{
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    fixture.chip().armSilence(0);
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QCOMPARE(tool.read_reg(efuseWord0), 0xFFFFFFFFu);
    QCOMPARE(texts(errors),
             (QStringList{"No response for 0x0a command",
                          "Invalid reply to the READ_REG command - expected 4 bytes, received 0"}));
    QCOMPARE(errors.at(0).at(0).toInt(), int(ESPTool::NoAnswer));
    QCOMPARE(errors.at(1).at(0).toInt(), int(ESPTool::MalformedAnswer));
}

void TestEspTool::commandErrorCarriesTheLoadersCode_data()
{
    QTest::addColumn<bool>("stub");
    QTest::addColumn<int>("code");
    QTest::newRow("ROM: code in the last byte") << false << 0x05;
    QTest::newRow("stub: code in the status byte") << true << 0xC4;
}

void TestEspTool::commandErrorCarriesTheLoadersCode()
{
    QFETCH(bool, stub);
    QFETCH(int, code);
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    if (stub)
        QVERIFY(loadStub(tool));
    fixture.chip().armErrorStatus(1, quint8(code));
    QSignalSpy commandErrors(&tool, &ESPTool::commandError);
    tool.write_reg(0x60000240, 1, 0xFFFFFFFF, 0);
    QCOMPARE(commandErrors.count(), 1);
    QCOMPARE(commandErrors.first().first().toInt(), code);
    QVERIFY(tool.isFailed());
}

void TestEspTool::malformedAnswers_data()
{
    QTest::addColumn<int>("corruption");
    QTest::addColumn<QStringList>("messages");
    const QString invalid = "Invalid reply to the READ_REG command - expected 4 bytes, received 0";
    // A wrong length is refused without a report of its own.
    QTest::newRow("wrong body length")
        << int(VirtualEsp8266::Corruption::WrongLength) << QStringList{invalid};
    // A packet too short to be an answer still ends the one wait.
    QTest::newRow("shorter than a header") << int(VirtualEsp8266::Corruption::Truncated)
                                           << QStringList{"No response for 0x0a command", invalid};
    QTest::newRow("garbled") << int(VirtualEsp8266::Corruption::GarbledBytes)
                             << QStringList{"No response for 0x0a command", invalid};
}

void TestEspTool::malformedAnswers()
{
    QFETCH(int, corruption);
    QFETCH(QStringList, messages);
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    fixture.chip().armCorruptAnswer(1, VirtualEsp8266::Corruption(corruption));
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(tool.read_reg(efuseWord0), 0xFFFFFFFFu);
    QCOMPARE(texts(errors), messages);
    // None of these waits out the three-second time-out.
    QVERIFY(timer.elapsed() < 2500);
}

void TestEspTool::strayAnswerEndsTheOnlyWait()
{
    ScriptedPeer peer([](const QByteArray &request) -> QList<ScriptedPeer::Reply> {
        const quint8 op = quint8(request.at(1));
        if (op == ESPTool::ESP_SYNC)
            return ScriptedPeer::syncBurst();
        if (op == ESPTool::ESP_READ_REG) {
            // An answer to another command arrives first; the right one follows too late.
            return {
                {ScriptedPeer::frame(ScriptedPeer::response(0x09, QByteArray(2, '\0'))), 0},
                {ScriptedPeer::frame(ScriptedPeer::response(0x0A, QByteArray(2, '\0'), 7)), 100}};
        }
        return {};
    });
    QVERIFY(peer.isValid());
    ESPTool tool;
    QVERIFY(tool.esp_connect(peer.port()));
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QCOMPARE(tool.read_reg(efuseWord0), 0xFFFFFFFFu);
    QCOMPARE(texts(errors).value(0), QStringLiteral("No response for 0x0a command"));
}

void TestEspTool::dataBlockChecksumInHeader()
{
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    fixture.chip().clearCommandLog();
    const QByteArray block = randomBytes(1024, 7);
    tool.write_flash_prep(0, 1024);
    tool.write_flash(block);
    tool.read_reg(efuseWord0);
    QVERIFY(!tool.isFailed());

    const auto log = fixture.chip().commandLog();
    QCOMPARE(log.size(), 3);
    QCOMPARE(log.at(1).opcode, quint8(ESPTool::ESP_FLASH_DATA));
    QCOMPARE(log.at(1).payloadLength, quint16(1040));
    QCOMPARE(log.at(1).checksum, ESPTool::esp_crc(block));
    QCOMPARE(log.at(1).sequence, 0u);
    QCOMPARE(log.at(2).opcode, quint8(ESPTool::ESP_READ_REG));
    QCOMPARE(log.at(2).checksum, quint8(0));
}

void TestEspTool::romEraseCompensationKeepsFlashRight_data()
{
    QTest::addColumn<uint>("offset");
    QTest::addColumn<uint>("size");
    QTest::addColumn<uint>("erased"); // what the ROM erases for the compensated request

    // The ROM erases n + min(16 - start sector mod 16, n) sectors for a request of n.
    QTest::newRow("one sector at 0") << 0u << 0x1000u << 0x2000u;
    QTest::newRow("17 sectors at 0") << 0u << 0x11000u << 0x12000u;
    QTest::newRow("one sector at 0x3000") << 0x3000u << 0x1000u << 0x2000u;
    QTest::newRow("two sectors across a 64 KiB boundary") << 0xF000u << 0x2000u << 0x2000u;
    QTest::newRow("half block then two blocks") << 0x8000u << 0x20000u << 0x20000u;
    QTest::newRow("one whole block on a boundary") << 0x10000u << 0x10000u << 0x10000u;
    QTest::newRow("odd size off a boundary") << 0x1F400u << 0x3456u << 0x4000u;
}

void TestEspTool::romEraseCompensationKeepsFlashRight()
{
    QFETCH(uint, offset);
    QFETCH(uint, size);
    ChipFixture fixture;
    // Old contents of all zero bits: anything left unerased shows.
    fixture.chip().setFlash(0, QByteArray(0x60000, '\0'));
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    const QByteArray data = randomBytes(int(size), offset ^ size);
    tool.write_flash_prep(offset, size);
    for (uint done = 0; done < size; done += 0x400) {
        QByteArray block = data.mid(int(done), 0x400);
        block.append(0x400 - block.size(), char(0xFF));
        tool.write_flash(block);
    }
    QVERIFY(!tool.isFailed());
    QCOMPARE(fixture.chip().flash(offset, size), data);
    // Without the compensation the ROM would erase far beyond the region.
    QFETCH(uint, erased);
    const uint sectorStart = offset / 0x1000 * 0x1000;
    const auto erases = fixture.chip().counters().erases;
    QCOMPARE(erases.size(), 1);
    QCOMPARE(erases.first().kind, VirtualEsp8266::EraseKind::RomFlashBegin);
    QCOMPARE(erases.first().offset, sectorStart);
    QCOMPARE(erases.first().size, erased);
    QCOMPARE(fixture.chip().flash(sectorStart + erased, 0x1000), QByteArray(0x1000, '\0'));

    // Read it back through the flash loader, as a user would.
    QVERIFY(loadStub(tool));
    QBuffer readBack;
    readBack.open(QIODevice::WriteOnly);
    QByteArray digest;
    tool.read_flash(offset, size, &readBack, &digest);
    QVERIFY(!tool.isFailed());
    QCOMPARE(readBack.data(), data);
    QCOMPARE(digest, QCryptographicHash::hash(data, QCryptographicHash::Md5));
}

void TestEspTool::readFlashStreamsWithAcknowledgements_data()
{
    QTest::addColumn<uint>("offset");
    QTest::addColumn<uint>("size");
    QTest::newRow("1 MiB, many packets in flight") << 0u << 0x100000u;
    QTest::newRow("odd region") << 0x1234u << 10000u;
    QTest::newRow("less than a packet") << 0x20000u << 100u;
}

void TestEspTool::readFlashStreamsWithAcknowledgements()
{
    QFETCH(uint, offset);
    QFETCH(uint, size);
    ChipFixture fixture;
    const QByteArray contents = randomBytes(int(offset + size), size);
    fixture.chip().setFlash(0, contents);
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    QVERIFY(loadStub(tool));
    QSignalSpy progress(&tool, &ESPTool::operationProgress);
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    QByteArray digest;
    tool.read_flash(offset, size, &out, &digest);
    QVERIFY(!tool.isFailed());
    QCOMPARE(out.data(), contents.mid(int(offset)));
    QCOMPARE(digest, QCryptographicHash::hash(out.data(), QCryptographicHash::Md5));
    QCOMPARE(progress.first().at(1).toInt(), 0);
    QCOMPARE(progress.last().at(1).toUInt(), size);
    QCOMPARE(fixture.chip().counters().acksReceived, int((size + 4095) / 4096));
}

namespace {
// A peer that plays ROM and stub just enough to reach READ_FLASH, then sends `dataReplies`.
ScriptedPeer::Script readFlashScript(QList<ScriptedPeer::Reply> dataReplies,
                                     QByteArray greeting = "OHAI")
{
    return [dataReplies, greeting](const QByteArray &request) -> QList<ScriptedPeer::Reply> {
        const quint8 op = quint8(request.at(1));
        const QByteArray ok(2, '\0');
        switch (op) {
        case ESPTool::ESP_SYNC:
            return ScriptedPeer::syncBurst();
        case ESPTool::ESP_MEM_BEGIN:
        case ESPTool::ESP_MEM_DATA:
            return {{ScriptedPeer::frame(ScriptedPeer::response(op, ok)), 0}};
        case ESPTool::ESP_MEM_END:
            return {{ScriptedPeer::frame(ScriptedPeer::response(op, ok)), 0},
                    {ScriptedPeer::frame(greeting), 20}};
        case ESPTool::ESP_READ_FLASH: {
            QList<ScriptedPeer::Reply> replies{
                {ScriptedPeer::frame(ScriptedPeer::response(op, ok)), 0}};
            return replies + dataReplies;
        }
        default:
            return {};
        }
    };
}
} // namespace

void TestEspTool::readFlashRefusesShortPacketsAndLateDigest_data()
{
    QTest::addColumn<uint>("size");
    QTest::addColumn<QByteArray>("stream");
    QTest::addColumn<QString>("message");

    const QByteArray full = ScriptedPeer::frame(QByteArray(4096, 'a'));
    const QByteArray half = ScriptedPeer::frame(QByteArray(2048, 'b'));
    const QByteArray digest = ScriptedPeer::frame(QByteArray(16, 'd'));
    QTest::newRow("short packet before the last")
        << 3u * 4096 << full + half
        << "Corrupt data, received 0x00000800 of expected 0x00001000 bytes";
    QTest::newRow("digest in the batch of the last packet")
        << 2u * 4096 << full + full + digest
        << "Corrupt data, received 0x00000010 of expected 0x00001000 bytes";
}

void TestEspTool::readFlashRefusesShortPacketsAndLateDigest()
{
    QFETCH(uint, size);
    QFETCH(QByteArray, stream);
    QFETCH(QString, message);
    ScriptedPeer peer(readFlashScript({{stream, 20}}));
    ESPTool tool;
    QVERIFY(tool.esp_connect(peer.port()));
    QVERIFY(loadStub(tool));
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    QByteArray digest;
    tool.read_flash(0, size, &out, &digest);
    QCOMPARE(texts(errors), QStringList{message});
    QCOMPARE(errors.first().first().toInt(), int(ESPTool::MalformedAnswer));
    QVERIFY(digest.isEmpty());
}

void TestEspTool::readFlashOfNothingWaitsForDigest()
{
    const QByteArray digest(16, char(0x5A));
    ScriptedPeer peer(readFlashScript({{ScriptedPeer::frame(digest), 50}}));
    ESPTool tool;
    QVERIFY(tool.esp_connect(peer.port()));
    QVERIFY(loadStub(tool));
    QSignalSpy progress(&tool, &ESPTool::operationProgress);
    QBuffer out;
    out.open(QIODevice::WriteOnly);
    QByteArray received;
    tool.read_flash(0x1000, 0, &out, &received);
    QVERIFY(!tool.isFailed());
    QCOMPARE(received, digest);
    QCOMPARE(progress.count(), 1);
    QCOMPARE(progress.first().at(0).toInt(), 0);
    QCOMPARE(progress.first().at(1).toInt(), 0);
    QCOMPARE(quint8(peer.requests().last().at(1)), quint8(ESPTool::ESP_READ_FLASH));
}

void TestEspTool::flashMd5_data()
{
    QTest::addColumn<bool>("stub");
    QTest::newRow("stub") << true;
    QTest::newRow("ROM loader") << false;
}

void TestEspTool::flashMd5()
{
    QFETCH(bool, stub);
    ChipFixture fixture;
    const QByteArray contents = randomBytes(0x4000, 11);
    fixture.chip().setFlash(0x1000, contents);
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    if (stub)
        QVERIFY(loadStub(tool));
    QSignalSpy errors(&tool, &ESPTool::operationError);
    fixture.chip().clearCommandLog();
    const QByteArray md5 = tool.get_flash_md5(0x1000, 0x3000);
    if (stub) {
        QCOMPARE(md5, QCryptographicHash::hash(contents.left(0x3000), QCryptographicHash::Md5));
        QCOMPARE(errors.count(), 0);
    } else {
        QVERIFY(md5.isEmpty());
        QCOMPARE(texts(errors), QStringList{"MD5 checksum is not supported by the ROM loader"});
        QCOMPARE(errors.first().first().toInt(), int(ESPTool::WrongLoader));
        QCOMPARE(fixture.chip().commandLog().size(), 0); // nothing was sent
    }
}

void TestEspTool::identification_data()
{
    QTest::addColumn<int>("model");
    QTest::addColumn<QByteArray>("mac");
    QTest::addColumn<QString>("description");

    QTest::newRow("ESP8266EX, OUI 18FE34") << int(VirtualEsp8266::Model::Esp8266EX)
                                           << QByteArray::fromHex("18fe34a1b2c3") << "ESP8266EX";
    QTest::newRow("ESP8285, OUI ACD074")
        << int(VirtualEsp8266::Model::Esp8285) << QByteArray::fromHex("acd074010203") << "ESP8285";
    QTest::newRow("custom OUI from word 3") << int(VirtualEsp8266::Model::Esp8266EX)
                                            << QByteArray::fromHex("aabbcc102030") << "ESP8266EX";
}

void TestEspTool::identification()
{
    QFETCH(int, model);
    QFETCH(QByteArray, mac);
    QFETCH(QString, description);
    VirtualEsp8266::Config config;
    config.model = VirtualEsp8266::Model(model);
    config.mac = mac;
    ChipFixture fixture(config);
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    const auto words = VirtualEsp8266::efuseWordsFor(config);

    QCOMPARE(tool.get_chip_description(), description);
    QCOMPARE(tool.get_chip_id(), (words[0] >> 24) | ((words[1] & 0xFFFFFF) << 8));
    QCOMPARE(tool.get_chip_mac(), mac);
    QCOMPARE(tool.get_efuses().toHex(),
             QByteArray::number(words[3], 16).rightJustified(8, '0') +
                 QByteArray::number(words[2], 16).rightJustified(8, '0') +
                 QByteArray::number(words[1], 16).rightJustified(8, '0') +
                 QByteArray::number(words[0], 16).rightJustified(8, '0'));
    QVERIFY(!tool.isFailed());
}

void TestEspTool::flashIdentification_data()
{
    QTest::addColumn<QByteArray>("jedec");
    QTest::addColumn<bool>("stub");
    QTest::addColumn<QString>("text");
    QTest::addColumn<uint>("guess");

    QTest::newRow("known, ROM") << QByteArray::fromHex("ef4016") << false
                                << "W25Q32FV (0xef:0x4016) 4Mb" << 4194304u;
    QTest::newRow("known, stub") << QByteArray::fromHex("ef4016") << true
                                 << "W25Q32FV (0xef:0x4016) 4Mb" << 4194304u;
    QTest::newRow("known 16 MiB") << QByteArray::fromHex("ef4018") << false
                                  << "W25Q128FV (0xef:0x4018) 16Mb" << 16777216u;
    QTest::newRow("unknown maker, guessed")
        << QByteArray::fromHex("c84016") << false << "NONAME (0xc8:0x4016) 4Mb(?)" << 4194304u;
    QTest::newRow("capacity 15 guesses 64 KiB")
        << QByteArray::fromHex("c8400f") << true << "NONAME (0xc8:0x400f) 64Kb(?)" << 65536u;
    QTest::newRow("capacity too small")
        << QByteArray::fromHex("ef400a") << false << "NONAME (0xef:0x400a) ?K" << 0u;
}

void TestEspTool::flashIdentification()
{
    QFETCH(QByteArray, jedec);
    QFETCH(bool, stub);
    VirtualEsp8266::Config config;
    config.jedecId = jedec;
    ChipFixture fixture(config);
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    if (stub)
        QVERIFY(loadStub(tool));
    const ESPTool::SPIFLASH_IDENTIFIER id = tool.get_flash_id();
    QVERIFY(!tool.isFailed());
    QTEST(id.toString(), "text");
    QTEST(id.flashSizeGuess(), "guess");
    QCOMPARE(id.manufacturer, quint8(jedec.at(0)));
}

void TestEspTool::flashStatusRegisters_data()
{
    QTest::addColumn<int>("count");
    QTest::addColumn<uint>("status");
    QTest::newRow("none") << 0 << 0xFFFFFFu;
    QTest::newRow("one") << 1 << 0xFFFF12u;
    QTest::newRow("two") << 2 << 0xFF3412u;
    QTest::newRow("three") << 3 << 0x563412u;
}

void TestEspTool::flashStatusRegisters()
{
    QFETCH(int, count);
    VirtualEsp8266::Config config;
    config.statusRegisters = {{0x12, 0x34, 0x56}};
    ChipFixture fixture(config);
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    QTEST(tool.spiflash_status(count), "status");
    QVERIFY(!tool.isFailed());
}

void TestEspTool::spiCommandRegisters()
{
    QMap<quint32, quint32> registers;
    QMutex mutex;
    ScriptedPeer peer([&](const QByteArray &request) -> QList<ScriptedPeer::Reply> {
        const quint8 op = quint8(request.at(1));
        const QByteArray ok(2, '\0');
        if (op == ESPTool::ESP_SYNC)
            return ScriptedPeer::syncBurst();
        QMutexLocker lock(&mutex);
        const quint32 address = qFromLittleEndian<quint32>(request.constData() + 8);
        if (op == ESPTool::ESP_WRITE_REG)
            registers[address] = qFromLittleEndian<quint32>(request.constData() + 12);
        const quint32 value = address == 0x60000200 ? 0 : registers.value(address, 0xAB);
        return {{ScriptedPeer::frame(ScriptedPeer::response(op, ok, value)), 0}};
    });
    ESPTool tool;
    QVERIFY(tool.esp_connect(peer.port()));
    tool.run_spiflash_command(0x9F, QByteArray(), 24);
    QVERIFY(!tool.isFailed());
    QMutexLocker lock(&mutex);
    QCOMPARE(registers.value(0x60000220), 0x1700u);  // user 1: 24 read bits
    QCOMPARE(registers.value(0x60000240), 0u);       // no data
    QCOMPARE(registers.value(0x60000200), 0x40000u); // started
    // User and user 2 end restored to what they held before.
    QCOMPARE(registers.value(0x6000021C), 0xABu);
    QCOMPARE(registers.value(0x60000224), 0xABu);
    // The values written while the command ran are in the request log.
    QStringList writes;
    for (const QByteArray &request : peer.requests()) {
        if (quint8(request.at(1)) == ESPTool::ESP_WRITE_REG)
            writes << QStringLiteral("%1=%2")
                          .arg(qFromLittleEndian<quint32>(request.constData() + 8), 0, 16)
                          .arg(qFromLittleEndian<quint32>(request.constData() + 12), 0, 16);
    }
    QCOMPARE(writes.mid(0, 5), (QStringList{"60000220=1700", "6000021c=90000000",
                                            "60000224=7000009f", "60000240=0", "60000200=40000"}));
}

void TestEspTool::spiCommandCompletionPolling_data()
{
    QTest::addColumn<int>("busyReads");
    QTest::addColumn<QStringList>("messages");
    QTest::newRow("finishes at once") << 0 << QStringList{};
    QTest::newRow("finishes on the ninth poll") << 8 << QStringList{};
    // Only a command that finishes on the tenth poll is reported; one that never does is not.
    QTest::newRow("finishes on the tenth poll")
        << 9 << QStringList{"SPI command did not complete in time"};
    QTest::newRow("never finishes") << 20 << QStringList{};
}

void TestEspTool::spiCommandCompletionPolling()
{
    QFETCH(int, busyReads);
    VirtualEsp8266::Config config;
    config.spiBusyReads = busyReads;
    ChipFixture fixture(config);
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    QSignalSpy errors(&tool, &ESPTool::operationError);
    tool.run_spiflash_command(0x05, QByteArray(), 8);
    QTEST(texts(errors), "messages");
}

void TestEspTool::eraseRegionRounding_data()
{
    QTest::addColumn<uint>("offset");
    QTest::addColumn<uint>("size");
    QTest::addColumn<uint>("start");
    QTest::addColumn<uint>("length");
    QTest::newRow("inside one sector") << 0x1234u << 0x100u << 0x1000u << 0x1000u;
    QTest::newRow("across a sector end") << 0x1F00u << 0x200u << 0x1000u << 0x2000u;
    QTest::newRow("aligned") << 0x10000u << 0x8000u << 0x10000u << 0x8000u;
}

void TestEspTool::eraseRegionRounding()
{
    QFETCH(uint, offset);
    QFETCH(uint, size);
    ChipFixture fixture;
    fixture.chip().setFlash(0, QByteArray(0x30000, '\0'));
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    QVERIFY(loadStub(tool));
    fixture.chip().clearCounters();
    tool.erase_flash_region(offset, size);
    QVERIFY(!tool.isFailed());
    const auto erases = fixture.chip().counters().erases;
    QCOMPARE(erases.size(), 1);
    QCOMPARE(erases.first().kind, VirtualEsp8266::EraseKind::Region);
    QTEST(erases.first().offset, "start");
    QTEST(erases.first().size, "length");
    QFETCH(uint, start);
    QFETCH(uint, length);
    QCOMPARE(fixture.chip().flash(start, length), QByteArray(int(length), char(0xFF)));
    QCOMPARE(fixture.chip().flash(start + length, 16), QByteArray(16, '\0'));
}

void TestEspTool::eraseNeedsTheStub()
{
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QSignalSpy commandErrors(&tool, &ESPTool::commandError);
    tool.erase_flash_region(0, 0x1000);
    // Reported, and still sent: the ROM's own refusal follows.
    QCOMPARE(texts(errors), QStringList{"Flash erase command is unsupported in ROM loader"});
    QCOMPARE(errors.first().first().toInt(), int(ESPTool::WrongLoader));
    QCOMPARE(commandErrors.count(), 1);
    QCOMPARE(fixture.chip().counters().commands.value(ESPTool::ESP_ERASE_REGION), 1);
}

void TestEspTool::unpluggedPortEndsTheWait()
{
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    QVERIFY(loadStub(tool));
    fixture.chip().armSilence(0);
    QElapsedTimer sinceUnplug;
    QTimer::singleShot(200, [&] {
        fixture.chip().vanishNow();
        sinceUnplug.start();
    });
    QSignalSpy errors(&tool, &ESPTool::operationError);
    tool.erase_flash(); // waits up to two minutes for an answer
    QVERIFY(sinceUnplug.isValid());
    qInfo("wait ended %lld ms after the port vanished", sinceUnplug.elapsed());
    QVERIFY(sinceUnplug.elapsed() < 1000);
    QCOMPARE(texts(errors), QStringList{"No response for 0xd0 command"});
    QVERIFY(!tool.isConnected());

    // The hung-up terminal no longer drives an error loop: the process idles.
    const double before = processCpuSeconds();
    QTest::qWait(1000);
    const double spent = processCpuSeconds() - before;
    QVERIFY2(spent < 0.25, qPrintable(QStringLiteral("CPU seconds while idle: %1").arg(spent)));
    QCOMPARE(errors.count(), 1);
}

void TestEspTool::stubUploadInRamBlocks()
{
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    fixture.chip().clearCommandLog();
    QSignalSpy progress(&tool, &ESPTool::operationProgress);
    QVERIFY(tool.write_loader_stub(generatedStubPath()));
    QVERIFY(tool.isStubRunning());
    QVERIFY(fixture.chip().stubRunning());

    // The generated stub: .text of 0x2100 bytes (two RAM blocks), .data of 0x200 (one).
    const auto log = fixture.chip().commandLog();
    QVector<quint32> sequences;
    QVector<quint32> sizes;
    for (const auto &record : log) {
        if (record.opcode == ESPTool::ESP_MEM_DATA) {
            sequences << record.sequence;
            sizes << record.dataSize;
        }
    }
    QCOMPARE(countOpcode(log, ESPTool::ESP_MEM_BEGIN), 2);
    QCOMPARE(sequences, (QVector<quint32>{0, 1, 0}));
    QCOMPARE(sizes, (QVector<quint32>{0x1800, 0x900, 0x200}));
    QCOMPARE(countOpcode(log, ESPTool::ESP_MEM_END), 1);
    QCOMPARE(progress.last().at(0).toInt(), 0x2300);
    QCOMPARE(progress.last().at(1).toInt(), 0x2300);

    // A running stub is never replaced, and nothing is sent for the attempt.
    fixture.chip().clearCommandLog();
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QVERIFY(!loadStub(tool));
    QCOMPARE(texts(errors), QStringList{"Cannot re-load stub"});
    QCOMPARE(errors.first().first().toInt(), int(ESPTool::WrongLoader));
    QCOMPARE(fixture.chip().commandLog().size(), 0);
}

void TestEspTool::stubSectionBlockCounts_data()
{
    QTest::addColumn<int>("dataSize");
    QTest::addColumn<QVector<quint32>>("dataBlocks");
    QTest::newRow("exactly one block") << 0x1800 << QVector<quint32>{0x1800};
    QTest::newRow("one byte more") << 0x1801 << QVector<quint32>{0x1800, 1};
}

void TestEspTool::stubSectionBlockCounts()
{
    QFETCH(int, dataSize);
    QFETCH(QVector<quint32>, dataBlocks);
    StubElfWriter writer;
    writer.setText(0x4010E000, randomBytes(0x100, 1));
    writer.setData(0x3FFE8000, randomBytes(dataSize, 2));
    writer.setEntry(0x4010E004);
    QString error;
    QByteArray elf = writer.toBytes(&error);
    QVERIFY2(!elf.isEmpty(), qPrintable(error));

    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    fixture.chip().clearCommandLog();
    QBuffer buffer(&elf);
    buffer.open(QIODevice::ReadOnly);
    QVERIFY(tool.write_loader_stub(&buffer));
    QVector<quint32> sizes;
    for (const auto &record : fixture.chip().commandLog()) {
        if (record.opcode == ESPTool::ESP_MEM_DATA)
            sizes << record.dataSize;
    }
    QCOMPARE(sizes.mid(1), dataBlocks);
    QCOMPARE(fixture.chip().ram(0x3FFE8000, quint32(dataSize)),
             randomBytes(dataSize, 2)); // the bytes arrived where the ELF put them
}

void TestEspTool::stubRefused_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("messageStart");

    StubElfWriter noData;
    noData.setText(0x4010E000, QByteArray(64, 'x'));
    noData.removeData();
    noData.setEntry(0x4010E004);
    QString error;
    QTest::newRow("no .data section")
        << noData.toBytes(&error) << "Invalid flash loader: the .data section is missing";
    QTest::newRow("not an ELF file") << QByteArray("just some text") << "Invalid flash loader: ";
    QTest::newRow("empty") << QByteArray() << "Invalid flash loader: ";
}

void TestEspTool::stubRefused()
{
    QFETCH(QByteArray, content);
    QFETCH(QString, messageStart);
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    fixture.chip().clearCommandLog();
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QBuffer buffer(&content);
    buffer.open(QIODevice::ReadOnly);
    QVERIFY(!tool.write_loader_stub(&buffer));
    QCOMPARE(errors.count(), 1);
    QCOMPARE(errors.first().first().toInt(), int(ESPTool::BadRequest));
    QVERIFY2(errors.first().at(1).toString().startsWith(messageStart),
             qPrintable(errors.first().at(1).toString()));
    QCOMPARE(fixture.chip().commandLog().size(), 0);
    QVERIFY(!tool.isStubRunning());

    QTemporaryDir dir;
    errors.clear();
    const QString missing = dir.filePath(QStringLiteral("missing.elf"));
    QVERIFY(!tool.write_loader_stub(missing));
    QVERIFY(errors.first().at(1).toString().startsWith(
        QStringLiteral("Cannot read stub data from %1: ").arg(missing)));
}

void TestEspTool::stubThatDoesNotGreet()
{
    StubElfWriter writer;
    writer.setText(0x4010E000, QByteArray(64, 'x'));
    writer.setData(0x3FFE8000, QByteArray(16, 'y'));
    writer.setEntry(0x40000000); // not inside the downloaded code
    QString error;
    QByteArray elf = writer.toBytes(&error);
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QBuffer buffer(&elf);
    buffer.open(QIODevice::ReadOnly);
    QVERIFY(!tool.write_loader_stub(&buffer));
    QCOMPARE(texts(errors).last(), QStringLiteral("Stub failed to start - OHAI not received"));
    QVERIFY(!tool.isStubRunning());
}

void TestEspTool::stubWithWrongGreeting()
{
    ScriptedPeer peer(readFlashScript({}, "HELLO"));
    ESPTool tool;
    QVERIFY(tool.esp_connect(peer.port()));
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QVERIFY(!loadStub(tool));
    QCOMPARE(texts(errors), QStringList{"Stub failed to start - OHAI not received"});
    QCOMPARE(errors.first().first().toInt(), int(ESPTool::NoAnswer));
    QVERIFY(!tool.isStubRunning());
}

void TestEspTool::changeBaudrate()
{
    ChipFixture fixture;
    ESPTool tool;
    QVERIFY(connectTool(tool, fixture));
    fixture.chip().clearCommandLog();
    tool.change_baudrate(921600); // the ROM cannot: nothing happens
    QCOMPARE(fixture.chip().commandLog().size(), 0);
    QCOMPARE(tool.portInfo().section(QLatin1Char('@'), 1), QStringLiteral("115200"));

    QVERIFY(loadStub(tool));
    tool.change_baudrate(921600);
    QCOMPARE(fixture.chip().baudRate(), 921600u);
    QCOMPARE(tool.portInfo().section(QLatin1Char('@'), 1), QStringLiteral("921600"));
    const auto words = VirtualEsp8266::efuseWordsFor(fixture.chip().config());
    QCOMPARE(tool.read_reg(efuseWord0), words[0]);
    QVERIFY(!tool.isFailed());
}

QTEST_GUILESS_MAIN(TestEspTool)
#include "tst_esptool.moc"
