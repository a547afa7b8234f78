// The virtual chip's ROM loader side, driven by a raw client of the test's own.
#include "rawchipclient.h"
#include "virtualchip/virtualesp8266.h"

#include <QCryptographicHash>
#include <QtTest>

#include <memory>

namespace {

constexpr quint8 opFlashBegin = 0x02;
constexpr quint8 opFlashData = 0x03;
constexpr quint8 opFlashEnd = 0x04;
constexpr quint8 opMemBegin = 0x05;
constexpr quint8 opMemEnd = 0x06;
constexpr quint8 opMemData = 0x07;
constexpr quint8 opSync = 0x08;
constexpr quint8 opReadReg = 0x0A;
constexpr quint32 efuse0 = 0x3FF00050;
constexpr quint32 spiCmd = 0x60000200;
constexpr quint32 spiUser2 = 0x60000224;
constexpr quint32 spiW0 = 0x60000240;
constexpr quint32 loaderAddress = 0x4010E000; // instruction RAM
constexpr int silenceMs = 150;                // how long "nothing arrives" is watched for

using W = RawChipClient;

// Decoding of the eFuse words, written here from the chip's documented layout.
struct Identity
{
    quint32 chipId = 0;
    QByteArray mac; // empty when the OUI is unknown
    QString model;
};

Identity decode(const std::array<quint32, 4> &w)
{
    Identity id;
    id.chipId = (w[0] >> 24) | ((w[1] & 0xFFFFFF) << 8);
    QByteArray oui;
    if (w[3] != 0)
        oui = QByteArray::fromHex(QByteArray::number(w[3] & 0xFFFFFF, 16).rightJustified(6, '0'));
    else if (((w[1] >> 16) & 0xFF) == 0)
        oui = QByteArray::fromHex("18fe34");
    else if (((w[1] >> 16) & 0xFF) == 1)
        oui = QByteArray::fromHex("acd074");
    if (!oui.isEmpty()) {
        id.mac = oui;
        id.mac.append(char((w[1] >> 8) & 0xFF));
        id.mac.append(char(w[1] & 0xFF));
        id.mac.append(char(w[0] >> 24));
    }
    id.model = ((w[2] & (1u << 16)) || (w[0] & (1u << 4))) ? QStringLiteral("ESP8285")
                                                           : QStringLiteral("ESP8266EX");
    return id;
}

QByteArray pattern(int size, int seed)
{
    QByteArray data(size, 0);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 7 + seed * 13 + (i >> 8)) & 0xFF);
    return data;
}

} // namespace

class TestVirtualChip : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void syncBurst();
    void wrongSyncRefused();
    void efuses_data();
    void efuses();
    void romEraseArithmetic_data();
    void romEraseArithmetic();
    void flashBeginOutsideFlashRefused_data();
    void flashBeginOutsideFlashRefused();
    void flashBeginPastTheEndIsClipped();
    void norWriteOnlyClearsBits();
    void romWritesBlocksAtSequenceOffsets();
    void dataPacketErrors_data();
    void dataPacketErrors();
    void stubOnlyCommandsRefusedByRom_data();
    void stubOnlyCommandsRefusedByRom();
    void unknownOpcodeRefused();
    void loaderUploadGreets();
    void jumpOutsideCodeHalts();
    void memEndWithoutExecuteStaysInRom();
    void memBeginOutsideRamRefused_data();
    void memBeginOutsideRamRefused();
    void memDataChecked();
    void flashEndRebootHaltsUntilReset();
    void spiCommands_data();
    void spiCommands();
    void writeRegMaskAndPlainRegisters();
    void commandLogAndCounters();
    void malformedFramingIgnored();
    void vanishFromObserver();
    void reopenedPortStillAnswers();
    void invalidConfigRefused_data();
    void invalidConfigRefused();

private:
    bool startChip(const VirtualEsp8266::Config &config);
    bool startChip() { return startChip(VirtualEsp8266::Config()); }
    // FLASH_BEGIN {size, blocks, block size, offset}.
    W::Answer flashBegin(quint32 offset, quint32 size, quint32 blockSize = 0x400);

    std::unique_ptr<VirtualEsp8266> m_chip;
    RawChipClient m_client;
};

bool TestVirtualChip::startChip(const VirtualEsp8266::Config &config)
{
    m_chip = std::make_unique<VirtualEsp8266>(config);
    if (!m_chip->start()) {
        qWarning() << m_chip->errorString();
        return false;
    }
    return m_client.open(m_chip->devicePath());
}

W::Answer TestVirtualChip::flashBegin(quint32 offset, quint32 size, quint32 blockSize)
{
    const quint32 blocks = blockSize ? (size + blockSize - 1) / blockSize : 0;
    return m_client.command(opFlashBegin, W::words({size, blocks, blockSize, offset}));
}

void TestVirtualChip::cleanup()
{
    m_client.close();
    m_chip.reset();
}

void TestVirtualChip::syncBurst()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.sync(), 8);
    QCOMPARE(m_chip->counters().framesSent, 8);
    // Every answer of the burst is a plain success for SYNC.
    const auto log = m_chip->commandLog();
    QCOMPARE(log.size(), 1);
    QCOMPARE(log[0].opcode, opSync);
    QCOMPARE(log[0].status, quint8(0));
    // The next command gets exactly its own answer.
    const W::Answer answer = m_client.command(opReadReg, W::words({efuse0}));
    QVERIFY(answer.valid);
    QCOMPARE(answer.opcode, opReadReg);
    QVERIFY(!m_client.readAnswer(silenceMs).valid);
}

void TestVirtualChip::wrongSyncRefused()
{
    QVERIFY(startChip());
    QByteArray payload = W::syncPayload();
    payload[3] = 0x21;
    const W::Answer answer = m_client.command(opSync, payload);
    QVERIFY(answer.valid);
    QCOMPARE(answer.opcode, opSync);
    QCOMPARE(answer.status(), quint8(1));
    QCOMPARE(answer.error(), quint8(0x05));
    QVERIFY(!m_client.readAnswer(silenceMs).valid);
}

void TestVirtualChip::efuses_data()
{
    QTest::addColumn<int>("model");
    QTest::addColumn<QByteArray>("mac");
    QTest::addColumn<bool>("override");
    QTest::addColumn<QByteArray>("words"); // 4 little-endian words when overriding
    QTest::addColumn<QString>("expectedModel");
    QTest::addColumn<QByteArray>("expectedMac");

    QTest::newRow("ESP8266EX, OUI 18FE34")
        << 0 << QByteArray::fromHex("18fe34123456") << false << QByteArray() << "ESP8266EX"
        << QByteArray::fromHex("18fe34123456");
    QTest::newRow("ESP8285, OUI ACD074")
        << 1 << QByteArray::fromHex("acd0749a0bfe") << false << QByteArray() << "ESP8285"
        << QByteArray::fromHex("acd0749a0bfe");
    QTest::newRow("other OUI through word 3")
        << 0 << QByteArray::fromHex("240ac4c0dbff") << false << QByteArray() << "ESP8266EX"
        << QByteArray::fromHex("240ac4c0dbff");
    QTest::newRow("ESP8285 with other OUI")
        << 1 << QByteArray::fromHex("5ccf7f000001") << false << QByteArray() << "ESP8285"
        << QByteArray::fromHex("5ccf7f000001");
    QTest::newRow("raw: unknown OUI selector")
        << 0 << QByteArray() << true << W::words({0x11000000, 0x00022233, 0, 0}) << "ESP8266EX"
        << QByteArray();
    QTest::newRow("raw: ESP8285 by word 0 bit 4")
        << 0 << QByteArray() << true << W::words({0xAB000010, 0x00004455, 0, 0}) << "ESP8285"
        << QByteArray::fromHex("18fe344455ab");
}

void TestVirtualChip::efuses()
{
    QFETCH(int, model);
    QFETCH(QByteArray, mac);
    QFETCH(bool, override);
    QFETCH(QByteArray, words);
    QFETCH(QString, expectedModel);
    QFETCH(QByteArray, expectedMac);

    VirtualEsp8266::Config config;
    config.model = model ? VirtualEsp8266::Model::Esp8285 : VirtualEsp8266::Model::Esp8266EX;
    if (!mac.isEmpty())
        config.mac = mac;
    config.overrideEfuses = override;
    for (int i = 0; i < 4 && override; ++i)
        config.efuseWords[size_t(i)] = qFromLittleEndian<quint32>(words.constData() + 4 * i);
    QVERIFY(startChip(config));

    std::array<quint32, 4> read{};
    for (int i = 0; i < 4; ++i) {
        const W::Answer answer = m_client.command(opReadReg, W::words({efuse0 + 4 * quint32(i)}));
        QVERIFY(answer.valid);
        QCOMPARE(answer.length, quint16(2)); // the value travels in the value word
        QCOMPARE(answer.status(), quint8(0));
        read[size_t(i)] = answer.value;
    }
    QVERIFY(read == VirtualEsp8266::efuseWordsFor(config));
    const Identity id = decode(read);
    QCOMPARE(id.model, expectedModel);
    QCOMPARE(id.mac, expectedMac);
    if (!expectedMac.isEmpty()) {
        // The chip id is built from the same fuse bits as the last three MAC bytes.
        QCOMPARE(id.chipId >> 8 & 0xFFFF,
                 quint32(quint8(expectedMac[3])) << 8 | quint8(expectedMac[4]));
        QCOMPARE(id.chipId & 0xFF, quint32(quint8(expectedMac[5])));
    }
}

void TestVirtualChip::romEraseArithmetic_data()
{
    QTest::addColumn<uint>("offset");
    QTest::addColumn<uint>("size");
    QTest::addColumn<uint>("erasedStart");
    QTest::addColumn<uint>("erasedSize");

    // n sectors asked from sector s: n + min(16 - s % 16, n) sectors erased from s.
    QTest::newRow("1 sector at 0 -> 2") << 0u << 0x1000u << 0u << 0x2000u;
    QTest::newRow("9 sectors at 0 -> 18") << 0u << 0x9000u << 0u << 0x12000u;
    QTest::newRow("last sector before 64K -> 2") << 0xF000u << 0x1000u << 0xF000u << 0x2000u;
    QTest::newRow("2 sectors at 0x3000 -> 4") << 0x3000u << 0x2000u << 0x3000u << 0x4000u;
    QTest::newRow("3 sectors across 64K -> 5") << 0xE000u << 0x3000u << 0xE000u << 0x5000u;
    QTest::newRow("one 64K block -> 32 sectors") << 0u << 0x10000u << 0u << 0x20000u;
    QTest::newRow("1 MiB -> 272 sectors") << 0u << 0x100000u << 0u << 0x110000u;
    QTest::newRow("partial sector counts whole") << 0x1000u << 0x10u << 0x1000u << 0x2000u;
    QTest::newRow("unaligned offset starts at its sector")
        << 0x1800u << 0x1000u << 0x1000u << 0x2000u;
    QTest::newRow("aligned 64K start, 48 sectors -> 64")
        << 0x20000u << 0x30000u << 0x20000u << 0x40000u;
    QTest::newRow("clipped at the end of the flash")
        << 0x3FF000u << 0x1000u << 0x3FF000u << 0x1000u;
    QTest::newRow("nothing for size 0") << 0u << 0u << 0u << 0u;
}

void TestVirtualChip::romEraseArithmetic()
{
    QFETCH(uint, offset);
    QFETCH(uint, size);
    QFETCH(uint, erasedStart);
    QFETCH(uint, erasedSize);

    QVERIFY(startChip());
    const quint32 flashSize = m_chip->flashSize();
    QCOMPARE(flashSize, 0x400000u);
    m_chip->setFlash(0, QByteArray(int(flashSize), 0));

    const W::Answer answer = flashBegin(offset, size);
    QVERIFY(answer.valid);
    QCOMPARE(answer.opcode, opFlashBegin);
    QCOMPARE(answer.status(), quint8(0));

    const QByteArray flash = m_chip->flash(0, flashSize);
    QCOMPARE(flash.count(char(0xFF)), int(erasedSize));
    QCOMPARE(flash.mid(int(erasedStart), int(erasedSize)), QByteArray(int(erasedSize), char(0xFF)));
    const auto erases = m_chip->counters().erases;
    QCOMPARE(erases.size(), 1);
    QCOMPARE(erases[0].kind, VirtualEsp8266::EraseKind::RomFlashBegin);
    QCOMPARE(erases[0].offset, erasedStart);
    QCOMPARE(erases[0].size, erasedSize);
}

void TestVirtualChip::flashBeginOutsideFlashRefused_data()
{
    QTest::addColumn<uint>("offset");
    QTest::addColumn<uint>("size");
    QTest::newRow("offset at the end") << 0x400000u << 0x1000u;
    QTest::newRow("offset past the end") << 0x500000u << 0u;
}

void TestVirtualChip::flashBeginPastTheEndIsClipped()
{
    // A begin may ask to erase beyond the end (loaders round up to whole blocks): the erase
    // stops at the end of the flash.
    QVERIFY(startChip());
    const W::Answer answer = flashBegin(0x3FF000, 0x2000);
    QVERIFY(answer.valid);
    QCOMPARE(answer.status(), quint8(0));
    const auto erases = m_chip->counters().erases;
    QCOMPARE(erases.size(), 1);
    QCOMPARE(erases.first().offset, 0x3FF000u);
    QCOMPARE(erases.first().size, 0x1000u);
}

void TestVirtualChip::flashBeginOutsideFlashRefused()
{
    QFETCH(uint, offset);
    QFETCH(uint, size);
    QVERIFY(startChip());
    const W::Answer answer = flashBegin(offset, size);
    QVERIFY(answer.valid);
    QCOMPARE(answer.status(), quint8(1));
    QCOMPARE(answer.error(), quint8(0x06));
    QVERIFY(m_chip->counters().erases.isEmpty());
    // Without a begin, data is refused too.
    QVERIFY(m_client.sendData(opFlashData, QByteArray(0x400, 0), 0));
    QCOMPARE(m_client.readAnswer().error(), quint8(0x06));
}

void TestVirtualChip::norWriteOnlyClearsBits()
{
    QVERIFY(startChip());
    m_chip->setFlash(0x2000, QByteArray(0x400, char(0xF0)));
    // A begin of size 0 erases nothing, so the block lands on the old contents.
    QCOMPARE(flashBegin(0x2000, 0).status(), quint8(0));
    QVERIFY(m_client.sendData(opFlashData, QByteArray(0x400, char(0x3C)), 0));
    QCOMPARE(m_client.readAnswer().status(), quint8(0));
    QCOMPARE(m_chip->flash(0x2000, 0x400), QByteArray(0x400, char(0x30)));
    // After an erase the same data arrives unchanged.
    QCOMPARE(flashBegin(0x2000, 0x400).status(), quint8(0));
    QVERIFY(m_client.sendData(opFlashData, QByteArray(0x400, char(0x3C)), 0));
    QCOMPARE(m_client.readAnswer().status(), quint8(0));
    QCOMPARE(m_chip->flash(0x2000, 0x400), QByteArray(0x400, char(0x3C)));
}

void TestVirtualChip::romWritesBlocksAtSequenceOffsets()
{
    QVERIFY(startChip());
    const QByteArray image = pattern(0x1000, 1);
    QCOMPARE(flashBegin(0x10000, quint32(image.size())).status(), quint8(0));
    for (int seq = 0; seq < 4; ++seq) {
        QVERIFY(m_client.sendData(opFlashData, image.mid(seq * 0x400, 0x400), quint32(seq)));
        const W::Answer answer = m_client.readAnswer();
        QCOMPARE(answer.opcode, opFlashData);
        QCOMPARE(answer.status(), quint8(0));
    }
    QCOMPARE(m_chip->flash(0x10000, 0x1000), image);
    const auto log = m_chip->commandLog();
    QCOMPARE(log.size(), 5);
    QVERIFY(log[3].dataPacket);
    QCOMPARE(log[3].sequence, 2u);
    QCOMPARE(log[3].dataSize, 0x400u);
    QCOMPARE(log[3].payloadLength, quint16(0x410));
    QCOMPARE(log[3].checksum, W::checksum(image.mid(0x800, 0x400)));
    // Stay in the loader: the chip keeps answering.
    QCOMPARE(m_client.command(opFlashEnd, W::words({1})).status(), quint8(0));
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
}

void TestVirtualChip::dataPacketErrors_data()
{
    QTest::addColumn<bool>("stub");
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("error");

    const QStringList faults = {"checksum", "sequence", "short", "size field", "no begin"};
    const QList<int> romErrors = {0x07, 0x06, 0x05, 0x05, 0x06};
    const QList<int> stubStatus = {0xC1, 0xC7, 0xC0, 0xC0, 0xC6};
    for (int i = 0; i < faults.size(); ++i) {
        QTest::addRow("ROM, %s", qPrintable(faults[i])) << false << faults[i] << 1 << romErrors[i];
        QTest::addRow("loader, %s", qPrintable(faults[i]))
            << true << faults[i] << stubStatus[i] << 0;
    }
}

void TestVirtualChip::dataPacketErrors()
{
    QFETCH(bool, stub);
    QFETCH(QString, fault);
    QFETCH(int, status);
    QFETCH(int, error);

    QVERIFY(startChip());
    if (stub)
        QVERIFY(m_client.startLoader(loaderAddress, pattern(64, 2), loaderAddress));
    const quint32 blockSize = stub ? 0x4000 : 0x400;
    if (fault != QLatin1String("no begin"))
        QCOMPARE(flashBegin(0, blockSize, blockSize).status(), quint8(0));
    const QByteArray data = pattern(int(blockSize), 3);
    if (fault == QLatin1String("checksum")) {
        QVERIFY(m_client.sendData(opFlashData, data, 0, false));
    } else if (fault == QLatin1String("sequence")) {
        QVERIFY(m_client.sendData(opFlashData, data, 1));
    } else if (fault == QLatin1String("short")) {
        // What a FLASH_END sent with the data opcode looks like.
        QVERIFY(m_client.sendCommand(opFlashData, W::words({0})));
    } else if (fault == QLatin1String("size field")) {
        const QByteArray payload = W::words({blockSize + 4, 0, 0, 0}) + data;
        QVERIFY(m_client.sendCommand(opFlashData, payload, W::checksum(data)));
    } else {
        QVERIFY(m_client.sendData(opFlashData, data, 0));
    }
    const W::Answer answer = m_client.readAnswer();
    QVERIFY(answer.valid);
    QCOMPARE(answer.opcode, opFlashData);
    QCOMPARE(int(answer.status()), status);
    QCOMPARE(int(answer.error()), error);
    QCOMPARE(m_chip->flash(0, blockSize), QByteArray(int(blockSize), char(0xFF)));
}

void TestVirtualChip::stubOnlyCommandsRefusedByRom_data()
{
    QTest::addColumn<int>("opcode");
    QTest::addColumn<QByteArray>("payload");
    QTest::newRow("SPI_SET_PARAMS")
        << 0x0B << W::words({0, 0x400000, 0x10000, 0x1000, 256, 0xFFFF});
    QTest::newRow("SPI_ATTACH") << 0x0D << W::words({0});
    QTest::newRow("CHANGE_BAUDRATE") << 0x0F << W::words({921600, 115200});
    QTest::newRow("SPI_FLASH_MD5") << 0x13 << W::words({0, 0x1000, 0, 0});
    QTest::newRow("ERASE_FLASH") << 0xD0 << QByteArray();
    QTest::newRow("ERASE_REGION") << 0xD1 << W::words({0, 0x1000});
    QTest::newRow("READ_FLASH") << 0xD2 << W::words({0, 0x1000, 0x1000, 64});
}

void TestVirtualChip::stubOnlyCommandsRefusedByRom()
{
    QFETCH(int, opcode);
    QFETCH(QByteArray, payload);
    QVERIFY(startChip());
    m_chip->setFlash(0, QByteArray(0x1000, 0x11));
    const W::Answer answer = m_client.command(quint8(opcode), payload);
    QVERIFY(answer.valid);
    QCOMPARE(int(answer.opcode), opcode);
    QCOMPARE(answer.status(), quint8(1));
    QCOMPARE(answer.error(), quint8(0x05));
    QVERIFY(!m_client.readFrame(silenceMs).size()); // no data, no digest
    QCOMPARE(m_chip->flash(0, 0x1000), QByteArray(0x1000, 0x11));
    QCOMPARE(m_chip->baudRate(), 115200u);
}

void TestVirtualChip::unknownOpcodeRefused()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.command(0x42, QByteArray()).error(), quint8(0x05));
    QVERIFY(m_client.startLoader(loaderAddress, pattern(32, 1), loaderAddress + 4));
    const W::Answer answer = m_client.command(0x42, QByteArray());
    QCOMPARE(answer.status(), quint8(0xC3));
    QCOMPARE(answer.error(), quint8(0));
}

void TestVirtualChip::loaderUploadGreets()
{
    QVERIFY(startChip());
    const QByteArray code = pattern(0x1900, 4); // two RAM blocks, the second short
    QCOMPARE(
        m_client.command(opMemBegin, W::words({quint32(code.size()), 2, 0x1800, loaderAddress}))
            .status(),
        quint8(0));
    QVERIFY(m_client.sendData(opMemData, code.left(0x1800), 0));
    QCOMPARE(m_client.readAnswer().status(), quint8(0));
    QVERIFY(m_client.sendData(opMemData, code.mid(0x1800), 1));
    QCOMPARE(m_client.readAnswer().status(), quint8(0));
    QCOMPARE(m_chip->ram(loaderAddress, quint32(code.size())), code);
    QVERIFY(!m_chip->stubRunning());

    const W::Answer end = m_client.command(opMemEnd, W::words({0, loaderAddress + 0x1880}));
    QVERIFY(end.valid);
    QCOMPARE(end.opcode, opMemEnd);
    QCOMPARE(end.status(), quint8(0));
    // The greeting is a raw frame of its own, after the answer.
    const int wireAfterAnswer = m_client.wire().size();
    QCOMPARE(m_client.readFrame(), QByteArrayLiteral("OHAI"));
    QCOMPARE(m_client.wire().mid(wireAfterAnswer), QByteArrayLiteral("\xC0OHAI\xC0"));
    QVERIFY(m_chip->stubRunning());
    // The loader answers a SYNC once.
    QCOMPARE(m_client.sync(), 1);
    QVERIFY(m_chip->commandLog().last().byStub);
}

void TestVirtualChip::jumpOutsideCodeHalts()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.command(opMemBegin, W::words({16, 1, 0x1800, loaderAddress})).status(),
             quint8(0));
    QVERIFY(m_client.sendData(opMemData, pattern(16, 5), 0));
    QCOMPARE(m_client.readAnswer().status(), quint8(0));
    // Just past the downloaded bytes: nothing runs there.
    QCOMPARE(m_client.command(opMemEnd, W::words({0, loaderAddress + 16})).status(), quint8(0));
    QVERIFY(m_client.readFrame(silenceMs).isEmpty());
    QCOMPARE(m_chip->loaderState(), VirtualEsp8266::LoaderState::Halted);
    QVERIFY(!m_client.command(opReadReg, W::words({efuse0}), silenceMs).valid);

    m_chip->reset();
    QCOMPARE(m_chip->loaderState(), VirtualEsp8266::LoaderState::RomLoader);
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
}

void TestVirtualChip::memEndWithoutExecuteStaysInRom()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.command(opMemBegin, W::words({16, 1, 0x1800, loaderAddress})).status(),
             quint8(0));
    QVERIFY(m_client.sendData(opMemData, pattern(16, 5), 0));
    QCOMPARE(m_client.readAnswer().status(), quint8(0));
    QCOMPARE(m_client.command(opMemEnd, W::words({1, 0})).status(), quint8(0));
    QVERIFY(m_client.readFrame(silenceMs).isEmpty());
    QCOMPARE(m_chip->loaderState(), VirtualEsp8266::LoaderState::RomLoader);
}

void TestVirtualChip::memBeginOutsideRamRefused_data()
{
    QTest::addColumn<uint>("address");
    QTest::addColumn<uint>("size");
    QTest::newRow("flash mapping") << 0x40200000u << 16u;
    QTest::newRow("below data RAM") << 0x3FFE7FF0u << 0x20u;
    QTest::newRow("past instruction RAM") << 0x4010FFF0u << 0x20u;
    QTest::newRow("registers") << 0x60000200u << 4u;
}

void TestVirtualChip::memBeginOutsideRamRefused()
{
    QFETCH(uint, address);
    QFETCH(uint, size);
    QVERIFY(startChip());
    const W::Answer answer = m_client.command(opMemBegin, W::words({size, 1, 0x1800, address}));
    QCOMPARE(answer.status(), quint8(1));
    QCOMPARE(answer.error(), quint8(0x06));
}

void TestVirtualChip::memDataChecked()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.command(opMemBegin, W::words({0x40, 2, 0x20, 0x3FFE8000})).status(),
             quint8(0));
    QVERIFY(m_client.sendData(opMemData, pattern(0x20, 6), 0, false));
    QCOMPARE(m_client.readAnswer().error(), quint8(0x07));
    QVERIFY(m_client.sendData(opMemData, pattern(0x20, 6), 1));
    QCOMPARE(m_client.readAnswer().error(), quint8(0x06));
    QVERIFY(m_client.sendData(opMemData, pattern(0x21, 6), 0)); // larger than the block
    QCOMPARE(m_client.readAnswer().error(), quint8(0x06));
    QVERIFY(m_client.sendData(opMemData, pattern(0x20, 6), 0));
    QCOMPARE(m_client.readAnswer().status(), quint8(0));
    QCOMPARE(m_chip->ram(0x3FFE8000, 0x20), pattern(0x20, 6));
}

void TestVirtualChip::flashEndRebootHaltsUntilReset()
{
    QVERIFY(startChip());
    QCOMPARE(flashBegin(0, 0x400).status(), quint8(0));
    QVERIFY(m_client.sendData(opFlashData, QByteArray(0x400, 0x5A), 0));
    QCOMPARE(m_client.readAnswer().status(), quint8(0));
    const W::Answer end = m_client.command(opFlashEnd, W::words({0}));
    QCOMPARE(end.opcode, opFlashEnd);
    QCOMPARE(end.status(), quint8(0));
    QCOMPARE(m_chip->loaderState(), VirtualEsp8266::LoaderState::Halted);
    QCOMPARE(m_client.sync(silenceMs), 0);

    m_chip->reset();
    QCOMPARE(m_client.sync(), 8);
    QCOMPARE(m_chip->flash(0, 0x400), QByteArray(0x400, 0x5A));
}

void TestVirtualChip::spiCommands_data()
{
    QTest::addColumn<int>("busyReads");
    QTest::addColumn<int>("command");
    QTest::addColumn<uint>("expected");

    for (const int busy : {0, 1, 3, 12}) {
        QTest::addRow("JEDEC id, %d busy", busy) << busy << 0x9F << 0x1640EFu;
        QTest::addRow("status 1, %d busy", busy) << busy << 0x05 << 0x9Cu;
        QTest::addRow("status 2, %d busy", busy) << busy << 0x35 << 0x02u;
        QTest::addRow("status 3, %d busy", busy) << busy << 0x15 << 0x61u;
    }
}

void TestVirtualChip::spiCommands()
{
    QFETCH(int, busyReads);
    QFETCH(int, command);
    QFETCH(uint, expected);

    VirtualEsp8266::Config config;
    config.spiBusyReads = busyReads;
    config.statusRegisters = {{0x9C, 0x02, 0x61}};
    QVERIFY(startChip(config));
    QVERIFY(m_client.writeReg(spiW0, 0));
    QVERIFY(m_client.writeReg(spiUser2, 0x70000000u | quint32(command)));
    QVERIFY(m_client.writeReg(spiCmd, 0x40000));
    int busySeen = 0;
    for (int poll = 0; poll < 20; ++poll) {
        const quint32 value = m_client.readReg(spiCmd);
        QVERIFY(value != 0xFFFFFFFF);
        if (!(value & 0x40000))
            break;
        ++busySeen;
    }
    QCOMPARE(busySeen, qMin(busyReads, 20));
    QCOMPARE(m_client.readReg(spiW0), expected);
    // The command byte register keeps what was written.
    QCOMPARE(m_client.readReg(spiUser2), 0x70000000u | quint32(command));
}

void TestVirtualChip::writeRegMaskAndPlainRegisters()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.readReg(0x60000F00), 0u);
    QCOMPARE(m_client.command(0x09, W::words({0x60000F00, 0x12345678, 0xFFFFFFFF, 0})).status(),
             quint8(0));
    QCOMPARE(m_client.command(0x09, W::words({0x60000F00, 0xABCDEF00, 0x0000FF00, 0})).status(),
             quint8(0));
    QCOMPARE(m_client.readReg(0x60000F00), 0x1234EF78u);
    // eFuses cannot be written.
    const quint32 fuse = m_client.readReg(efuse0);
    QCOMPARE(m_client.command(0x09, W::words({efuse0, ~fuse, 0xFFFFFFFF, 0})).status(), quint8(0));
    QCOMPARE(m_client.readReg(efuse0), fuse);
    // A register write with a payload that is not whole records is refused.
    QCOMPARE(m_client.command(0x09, W::words({0x60000F00, 1, 2})).error(), quint8(0x05));
}

void TestVirtualChip::commandLogAndCounters()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.sync(), 8);
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QVERIFY(m_client.readReg(efuse0 + 4) != 0xFFFFFFFF);
    const VirtualEsp8266::Counters counters = m_chip->counters();
    QCOMPARE(counters.commands.value(opSync), 1);
    QCOMPARE(counters.commands.value(opReadReg), 2);
    QCOMPARE(counters.framesSent, 10);
    QCOMPARE(counters.bytesOut, qint64(m_client.wire().size()));
    QCOMPARE(counters.bytesIn, qint64(46 + 2 * 14)); // framed requests, no escapes needed
    const auto log = m_chip->commandLog();
    QCOMPARE(log.size(), 3);
    QCOMPARE(log[1].opcode, opReadReg);
    QCOMPARE(log[1].payloadLength, quint16(4));
    QVERIFY(log[1].answered);
    QVERIFY(!log[1].byStub);
    m_chip->clearCommandLog();
    m_chip->clearCounters();
    QVERIFY(m_chip->commandLog().isEmpty());
    QCOMPARE(m_chip->counters().framesSent, 0);
}

void TestVirtualChip::malformedFramingIgnored()
{
    QVERIFY(startChip());
    // Line noise before a frame, a frame with an invalid escape, a header-less scrap, an answer
    // instead of a request and a request whose length field lies: none of them is answered.
    QVERIFY(
        m_client.writeRaw(QByteArray::fromHex("55aa00") + QByteArray::fromHex("c0000a0400db01c0")));
    QVERIFY(m_client.sendPacket(QByteArray::fromHex("000a04")));
    QVERIFY(m_client.sendPacket(QByteArray::fromHex("010a0400000000005000f03f")));
    QVERIFY(!m_client.readFrame(silenceMs).size());
    QVERIFY(m_chip->commandLog().isEmpty());
    QVERIFY(m_client.sendPacket(QByteArray::fromHex("000a0800000000005000f03f")));
    const W::Answer lying = m_client.readAnswer();
    QCOMPARE(lying.opcode, opReadReg);
    QCOMPARE(lying.error(), quint8(0x05));
    // Escaped bytes inside a request are taken apart correctly: 0xC0 and 0xDB in the address.
    QCOMPARE(m_client.command(0x09, W::words({0x6000C0DB, 0xDBC0, 0xFFFFFFFF, 0})).status(),
             quint8(0));
    QCOMPARE(m_client.readReg(0x6000C0DB), 0xDBC0u);
}

void TestVirtualChip::vanishFromObserver()
{
    VirtualEsp8266::Config config;
    m_chip = std::make_unique<VirtualEsp8266>(config);
    VirtualEsp8266 *chip = m_chip.get();
    m_chip->setCommandObserver([chip](const VirtualEsp8266::CommandRecord &record) {
        if (record.opcode == opSync)
            chip->vanishNow();
    });
    QVERIFY(m_chip->start());
    QVERIFY(m_client.open(m_chip->devicePath()));
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QVERIFY(m_client.sendCommand(opSync, W::syncPayload()));
    QVERIFY(m_client.waitForHangUp(2000));
    QVERIFY(m_chip->vanished());
}

void TestVirtualChip::reopenedPortStillAnswers()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.sync(), 8);
    m_client.close();
    QVERIFY(m_client.open(m_chip->devicePath()));
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QVERIFY(!m_chip->vanished());
}

void TestVirtualChip::invalidConfigRefused_data()
{
    QTest::addColumn<uint>("flashSize");
    QTest::addColumn<QByteArray>("mac");
    QTest::addColumn<QByteArray>("jedec");
    QTest::newRow("flash size 0") << 0u << QByteArray::fromHex("18fe34000001")
                                  << QByteArray::fromHex("ef4016");
    QTest::newRow("flash size not whole sectors")
        << 0x1800u << QByteArray::fromHex("18fe34000001") << QByteArray::fromHex("ef4016");
    QTest::newRow("short MAC") << 0x100000u << QByteArray::fromHex("18fe34")
                               << QByteArray::fromHex("ef4016");
    QTest::newRow("long JEDEC id")
        << 0x100000u << QByteArray::fromHex("18fe34000001") << QByteArray::fromHex("ef401600");
}

void TestVirtualChip::invalidConfigRefused()
{
    QFETCH(uint, flashSize);
    QFETCH(QByteArray, mac);
    QFETCH(QByteArray, jedec);
    VirtualEsp8266::Config config;
    config.flashSize = flashSize;
    config.mac = mac;
    config.jedecId = jedec;
    VirtualEsp8266 chip(config);
    QVERIFY(!chip.start());
    QVERIFY(!chip.errorString().isEmpty());
    QVERIFY(chip.devicePath().isEmpty());
    QVERIFY(!chip.isRunning());
}

QTEST_GUILESS_MAIN(TestVirtualChip)
#include "tst_virtualchip.moc"
