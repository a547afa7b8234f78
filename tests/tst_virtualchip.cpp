// The virtual chip's ROM loader, flash loader and injected faults, driven by a raw client.
#include "rawchipclient.h"
#include "virtualchip/virtualesp8266.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>
#include <QtTest>

#include <memory>

namespace {

using W = RawChipClient;
using V = VirtualEsp8266;
constexpr quint32 efuse0 = 0x3FF00050;
constexpr quint32 scratch = 0x60000F00;       // a register without special behaviour
constexpr quint32 loaderAddress = 0x4010E000; // instruction RAM
constexpr quint32 dataRam = 0x3FFE8000;
constexpr int silenceMs = 100; // how long "nothing arrives" is watched for
constexpr quint8 ok = 0;       // status of a successful answer

QByteArray pattern(int size, int seed)
{
    QByteArray data(size, 0);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 7 + seed * 13 + (i >> 8)) & 0xFF);
    return data;
}

QByteArray md5(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5);
}

// FLASH_BEGIN / MEM_BEGIN payload.
QByteArray begin(quint32 offset, quint32 size, quint32 blockSize)
{
    return W::words({size, (size + blockSize - 1) / blockSize, blockSize, offset});
}

} // namespace

class TestVirtualChip : public QObject
{
    Q_OBJECT

private slots:
    void syncBurstAndReopen();
    void erase_data();
    void erase();
    void refusals_data();
    void refusals();
    void norWriteOnlyClearsBits();
    void flashEndRebootHaltsUntilReset_data();
    void flashEndRebootHaltsUntilReset();
    void memEnd_data();
    void memEnd();
    void malformedFramingIgnored();
    void readFlashWindow_data();
    void readFlashWindow();
    void readFlashAbandonedWithoutAcks();
    void invalidConfigRefused();
    void droppedStrayRefusedSilentAndReset();
    void corruptAnswer_data();
    void corruptAnswer();
    void vanish_data();
    void vanish();
    void slowEraseAndThrottledLine();

private:
    bool startChip(const V::Config &config = V::Config(), bool loader = false);

    std::unique_ptr<V> m_chip;
    W m_client;
};

bool TestVirtualChip::startChip(const V::Config &config, bool loader)
{
    m_chip = std::make_unique<V>(config);
    return m_chip->start() && m_client.open(m_chip->devicePath()) &&
           (!loader || m_client.startLoader(loaderAddress, pattern(64, 2)));
}

void TestVirtualChip::syncBurstAndReopen()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.sync(), 8);
    QCOMPARE(m_chip->commandLog().size(), 1);
    // The next command gets exactly its own answer.
    QCOMPARE(m_client.command(V::ReadReg, W::words({efuse0})).opcode, quint8(V::ReadReg));
    QVERIFY(!m_client.readAnswer(silenceMs).valid);
    // The host closing its side is no vanishing: the chip answers the next opener.
    QVERIFY(m_client.open(m_chip->devicePath()));
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QVERIFY(!m_chip->vanished());
}

void TestVirtualChip::erase_data()
{
    QTest::addColumn<bool>("loader");
    QTest::addColumn<int>("opcode");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<uint>("erasedStart");
    QTest::addColumn<uint>("erasedSize");
    QTest::addColumn<int>("kind");

    // The ROM erases n + min(16 - s % 16, n) sectors for n sectors asked from sector s.
    const auto rom = [](const char *name, uint offset, uint size, uint start, uint erased) {
        QTest::newRow(name) << false << int(V::FlashBegin) << begin(offset, size, 0x400) << start
                            << erased << int(V::EraseKind::RomFlashBegin);
    };
    rom("ROM: 1 sector at 0 -> 2", 0, 0x1000, 0, 0x2000);
    rom("ROM: 9 sectors at 0 -> 18", 0, 0x9000, 0, 0x12000);
    rom("ROM: last sector before 64K -> 2", 0xF000, 0x1000, 0xF000, 0x2000);
    rom("ROM: 2 sectors at 0x3000 -> 4", 0x3000, 0x2000, 0x3000, 0x4000);
    rom("ROM: 3 sectors across 64K -> 5", 0xE000, 0x3000, 0xE000, 0x5000);
    rom("ROM: one 64K block -> 32 sectors", 0, 0x10000, 0, 0x20000);
    rom("ROM: 1 MiB -> 272 sectors", 0, 0x100000, 0, 0x110000);
    rom("ROM: partial sector counts whole", 0x1000, 0x10, 0x1000, 0x2000);
    rom("ROM: unaligned offset starts at its sector", 0x1800, 0x1000, 0x1000, 0x2000);
    rom("ROM: aligned 64K start, 48 sectors -> 64", 0x20000, 0x30000, 0x20000, 0x40000);
    rom("ROM: clipped at the end of the flash", 0x3FF000, 0x2000, 0x3FF000, 0x1000);
    rom("ROM: nothing for size 0", 0, 0, 0, 0);
    // The flash loader erases exactly the sectors the data covers.
    const auto stub = [](const char *name, int opcode, const QByteArray &payload, uint start,
                         uint erased, V::EraseKind kind) {
        QTest::newRow(name) << true << opcode << payload << start << erased << int(kind);
    };
    stub("loader: partial sector rounds up", V::FlashBegin, begin(0x3000, 0x1001, 0x4000), 0x3000,
         0x2000, V::EraseKind::StubFlashBegin);
    stub("loader: unaligned start rounds down", V::FlashBegin, begin(0x3800, 0x800, 0x4000), 0x3000,
         0x1000, V::EraseKind::StubFlashBegin);
    stub("loader: region", V::EraseRegion, W::words({0x10000, 0x20000}), 0x10000, 0x20000,
         V::EraseKind::Region);
    stub("loader: whole chip", V::EraseFlash, QByteArray(), 0, 0x400000, V::EraseKind::Chip);
}

void TestVirtualChip::erase()
{
    QFETCH(bool, loader);
    QFETCH(int, opcode);
    QFETCH(QByteArray, payload);
    QFETCH(uint, erasedStart);
    QFETCH(uint, erasedSize);
    QVERIFY(startChip(V::Config(), loader));
    const quint32 flashSize = m_chip->flashSize();
    m_chip->setFlash(0, QByteArray(int(flashSize), 0));
    const W::Answer answer = m_client.command(quint8(opcode), payload);
    QCOMPARE(int(answer.opcode), opcode);
    QCOMPARE(answer.body, QByteArray(2, 0)); // status and error 0
    const QByteArray flash = m_chip->flash(0, flashSize);
    QCOMPARE(flash.count(char(0xFF)), int(erasedSize));
    QCOMPARE(flash.mid(int(erasedStart), int(erasedSize)), QByteArray(int(erasedSize), char(0xFF)));
    const auto erases = m_chip->counters().erases;
    QCOMPARE(erases.size(), 1);
    QTEST(int(erases[0].kind), "kind");
    QCOMPARE(erases[0].offset, erasedStart);
    QCOMPARE(erases[0].size, erasedSize);
}

void TestVirtualChip::refusals_data()
{
    QTest::addColumn<bool>("loader");
    QTest::addColumn<QByteArray>("beginPayload"); // FLASH_BEGIN / MEM_BEGIN sent first
    QTest::addColumn<int>("opcode");
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<uint>("checksum");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("error");

    const auto row = [](const QByteArray &name, bool loader, int opcode, const QByteArray &payload,
                        int status, const QByteArray &beginPayload = {}, uint sum = 0) {
        QTest::newRow(name.constData()) << loader << beginPayload << opcode << payload << sum
                                        << (loader ? status : 1) << (loader ? 0 : status);
    };
    row("ROM: wrong SYNC", false, V::Sync, W::syncPayload().replace(3, 1, "\x21"), 0x05);
    // Commands of the flash loader: the ROM does not know them.
    row("ROM: SPI_SET_PARAMS", false, V::SpiSetParams,
        W::words({0, 1 << 22, 1 << 16, 4096, 256, 0}), 0x05);
    row("ROM: SPI_ATTACH", false, V::SpiAttach, W::words({0}), 0x05);
    row("ROM: CHANGE_BAUDRATE", false, V::ChangeBaudrate, W::words({921600, 115200}), 0x05);
    row("ROM: SPI_FLASH_MD5", false, V::SpiFlashMd5, W::words({0, 0x1000, 0, 0}), 0x05);
    row("ROM: ERASE_FLASH", false, V::EraseFlash, QByteArray(), 0x05);
    row("ROM: ERASE_REGION", false, V::EraseRegion, W::words({0, 0x1000}), 0x05);
    row("ROM: READ_FLASH", false, V::ReadFlash, W::words({0, 0x1000, 0x1000, 64}), 0x05);
    row("ROM: unknown opcode", false, 0x42, QByteArray(), 0x05);
    row("ROM: flash begin at the end", false, V::FlashBegin, begin(0x400000, 0x1000, 0x400), 0x06);
    row("ROM: RAM outside RAM", false, V::MemBegin, begin(0x4010FFF0, 0x20, 0x1800), 0x06);
    row("loader: unknown opcode", true, 0x42, QByteArray(), 0xC3);
    row("loader: MD5 past the end", true, V::SpiFlashMd5, W::words({0x3FF000, 0x2000, 0, 0}), 0xC4);
    row("loader: read packet size 0", true, V::ReadFlash, W::words({0, 0x1000, 0, 64}), 0xC2);
    row("loader: region unaligned", true, V::EraseRegion, W::words({0x1001, 0x1000}), 0xC4);
    row("loader: baud rate 0", true, V::ChangeBaudrate, W::words({0, 921600}), 0xC0);
    // Data blocks of 0x400 bytes 0x3C (checksum 0xEF).
    const QByteArray block = QByteArray(0x400, 0x3C);
    const QByteArray first = W::words({0x400, 0, 0, 0}) + block;
    const QByteArray second = W::words({0x400, 1, 0, 0}) + block;
    const QByteArray wrongSize = W::words({0x404, 0, 0, 0}) + block;
    for (const bool loader : {false, true}) {
        const QByteArray flash = begin(0, 0, 0x400); // erases nothing
        const QByteArray ram = begin(dataRam, 0x400, 0x400);
        const QByteArray smallBlocks = begin(0, 0, 0x200);
        const auto name = [loader](const char *what) {
            return QByteArray(loader ? "loader: " : "ROM: ") + what;
        };
        row(name("bad checksum"), loader, V::FlashData, first, loader ? 0xC1 : 7, flash, 0xEE);
        row(name("out of sequence"), loader, V::FlashData, second, loader ? 0xC7 : 6, flash, 0xEF);
        row(name("without begin"), loader, V::FlashData, first, loader ? 0xC6 : 6, {}, 0xEF);
        row(name("larger than a block"), loader, V::FlashData, first, loader ? 0xC2 : 6,
            smallBlocks, 0xEF);
        row(name("size field wrong"), loader, V::FlashData, wrongSize, loader ? 0xC0 : 5, flash,
            0xEF);
        row(name("RAM, bad checksum"), loader, V::MemData, first, loader ? 0xC1 : 7, ram, 0xEE);
        row(name("RAM, out of sequence"), loader, V::MemData, second, loader ? 0xC7 : 6, ram, 0xEF);
    }
}

void TestVirtualChip::refusals()
{
    QFETCH(bool, loader);
    QFETCH(QByteArray, beginPayload);
    QFETCH(int, opcode);
    QFETCH(QByteArray, payload);
    QFETCH(uint, checksum);
    QVERIFY(startChip(V::Config(), loader));
    m_chip->setFlash(0, QByteArray(0x1000, 0x11));
    if (!beginPayload.isEmpty()) {
        const quint8 beginOpcode = opcode == V::MemData ? V::MemBegin : V::FlashBegin;
        QCOMPARE(m_client.command(beginOpcode, beginPayload).status(), ok);
    }
    QVERIFY(m_client.sendCommand(quint8(opcode), payload, checksum));
    const W::Answer answer = m_client.readAnswer();
    QCOMPARE(int(answer.opcode), opcode);
    QTEST(int(answer.status()), "status");
    QTEST(int(answer.error()), "error");
    // Refused means not done: no data, digest or greeting, nothing written, erased or changed.
    QVERIFY(m_client.readFrame(silenceMs).isEmpty());
    QCOMPARE(m_chip->flash(0, 0x1000), QByteArray(0x1000, 0x11));
    QCOMPARE(m_chip->ram(dataRam, 0x400), QByteArray(0x400, 0));
    QCOMPARE(m_chip->baudRate(), 115200u);
    QCOMPARE(m_chip->stubRunning(), loader);
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
}

void TestVirtualChip::norWriteOnlyClearsBits()
{
    QVERIFY(startChip());
    m_chip->setFlash(0x2000, QByteArray(0x400, char(0xF0)));
    // A begin of size 0 erases nothing, so the block lands on the old contents.
    for (const quint32 eraseSize : {0u, 0x400u}) {
        QCOMPARE(m_client.command(V::FlashBegin, begin(0x2000, eraseSize, 0x400)).status(), ok);
        QVERIFY(m_client.sendData(V::FlashData, QByteArray(0x400, char(0x3C)), 0));
        QCOMPARE(m_client.readAnswer().status(), ok);
        QCOMPARE(m_chip->flash(0x2000, 0x400), QByteArray(0x400, eraseSize ? 0x3C : 0x30));
    }
}

void TestVirtualChip::flashEndRebootHaltsUntilReset_data()
{
    QTest::addColumn<bool>("loader");
    QTest::newRow("ROM") << false;
    QTest::newRow("loader") << true;
}

void TestVirtualChip::flashEndRebootHaltsUntilReset()
{
    QFETCH(bool, loader);
    QVERIFY(startChip(V::Config(), loader));
    m_chip->setFlash(0, QByteArray(0x400, 0x5A));
    QCOMPARE(m_client.command(V::FlashEnd, W::words({1})).status(), ok); // stays
    if (loader) {
        QCOMPARE(m_client.command(V::ChangeBaudrate, W::words({921600, 115200})).status(), ok);
        QCOMPARE(m_chip->baudRate(), 921600u);
    }
    // FLASH_END {0} runs the user program, which does not answer, until a reset brings back the
    // ROM at its baud rate with the flash kept.
    QCOMPARE(m_client.command(V::FlashEnd, W::words({0})).status(), ok);
    QCOMPARE(m_client.sync(silenceMs), 0);
    m_chip->reset();
    QCOMPARE(m_chip->baudRate(), 115200u);
    QCOMPARE(m_client.sync(), 8);
    QCOMPARE(m_chip->flash(0, 0x400), QByteArray(0x400, 0x5A));
}

void TestVirtualChip::memEnd_data()
{
    QTest::addColumn<quint32>("execute"); // 0 jumps to the entry
    QTest::addColumn<quint32>("entry");
    QTest::addColumn<int>("state");
    QTest::newRow("entry at the last byte")
        << 0u << loaderAddress + 0xFF << int(V::LoaderState::Stub);
    QTest::newRow("entry past the code")
        << 0u << loaderAddress + 0x100 << int(V::LoaderState::Halted);
    QTest::newRow("no jump") << 1u << loaderAddress << int(V::LoaderState::RomLoader);
}

void TestVirtualChip::memEnd()
{
    QFETCH(quint32, execute);
    QFETCH(quint32, entry);
    QFETCH(int, state);
    QVERIFY(startChip());
    const QByteArray code = pattern(0x100, 4);
    QCOMPARE(m_client.command(V::MemBegin, begin(loaderAddress, 0x100, 0x1800)).status(), ok);
    QVERIFY(m_client.sendData(V::MemData, code, 0));
    QCOMPARE(m_client.readAnswer().status(), ok);
    QCOMPARE(m_chip->ram(loaderAddress, 0x100), code);
    const W::Answer end = m_client.command(V::MemEnd, W::words({execute, entry}));
    QCOMPARE(end.opcode, quint8(V::MemEnd));
    QCOMPARE(end.status(), ok);
    const int wireAfterAnswer = m_client.wire().size();
    if (state == int(V::LoaderState::Stub)) {
        // The greeting is a raw frame of its own, after the answer; the loader syncs once.
        QCOMPARE(m_client.readFrame(), QByteArray("OHAI"));
        QCOMPARE(m_client.wire().mid(wireAfterAnswer), QByteArray("\xC0OHAI\xC0"));
        QCOMPARE(m_client.sync(), 1);
        QVERIFY(m_chip->commandLog().last().byStub);
    } else { // no greeting from anything but downloaded code
        QVERIFY(m_client.readFrame(silenceMs).isEmpty());
        QCOMPARE(m_client.readReg(efuse0) != 0xFFFFFFFF, execute != 0);
    }
    QCOMPARE(int(m_chip->loaderState()), state);
}

void TestVirtualChip::malformedFramingIgnored()
{
    QVERIFY(startChip());
    // Line noise before a frame, a frame with an invalid escape, a header-less scrap and an
    // answer instead of a request: none of them is answered.
    QVERIFY(m_client.writeRaw(QByteArray::fromHex("55aa00c0000a0400db01c0")));
    QVERIFY(m_client.sendPacket(QByteArray::fromHex("000a04")));
    QVERIFY(m_client.sendPacket(QByteArray::fromHex("010a0400000000005000f03f")));
    QVERIFY(m_client.readFrame(silenceMs).isEmpty());
    QVERIFY(m_chip->commandLog().isEmpty());
    // A request whose length field lies is refused.
    QVERIFY(m_client.sendPacket(QByteArray::fromHex("000a0800000000005000f03f")));
    QCOMPARE(m_client.readAnswer().body, QByteArray::fromHex("0105"));
    // Escaped bytes in a request are taken apart (0xC0 and 0xDB in the address); masks apply;
    // eFuses stay read-only.
    for (const auto &write :
         {W::words({0x6000C0DB, 0x12345678, ~0u, 0}), W::words({0x6000C0DB, 0xABCDEF00, 0xFF00, 0}),
          W::words({efuse0, 0x12345678, ~0u, 0})})
        QCOMPARE(m_client.command(V::WriteReg, write).status(), ok);
    QCOMPARE(m_client.readReg(0x6000C0DB), 0x1234EF78u);
    QCOMPARE(m_client.readReg(efuse0), V::efuseWordsFor(m_chip->config())[0]);
}

void TestVirtualChip::readFlashWindow_data()
{
    QTest::addColumn<uint>("size");
    QTest::addColumn<uint>("packetSize");
    QTest::addColumn<uint>("inFlight");
    QTest::newRow("last packet short, window 3") << 10u * 1024 + 100 << 1024u << 3u;
    QTest::newRow("whole packets, window 1") << 4u * 512 << 512u << 1u;
    QTest::newRow("window larger than the read") << 3u * 4096 << 4096u << 64u;
    QTest::newRow("nothing: the digest at once") << 0u << 4096u << 64u;
}

void TestVirtualChip::readFlashWindow()
{
    QFETCH(uint, size);
    QFETCH(uint, packetSize);
    QFETCH(uint, inFlight);
    QVERIFY(startChip(V::Config(), true));
    const QByteArray contents = pattern(int(size), 5);
    m_chip->setFlash(0x1000, contents);
    QCOMPARE(
        m_client.command(V::ReadFlash, W::words({0x1000, size, packetSize, inFlight})).status(),
        ok);
    const quint32 packets = (size + packetSize - 1) / packetSize;
    QByteArray received;
    for (quint32 done = 0; done < packets;) {
        // As much as the window allows, and not one packet more.
        QList<QByteArray> batch;
        while (quint32(batch.size()) < qMin(inFlight, packets - done))
            batch.append(m_client.readFrame());
        QVERIFY(m_client.readFrame(silenceMs).isEmpty());
        for (const QByteArray &packet : qAsConst(batch)) {
            QCOMPARE(quint32(packet.size()), qMin(packetSize, size - quint32(received.size())));
            received += packet;
            if (++done == packets) // the digest waits for the last acknowledgement
                QVERIFY(m_client.readFrame(silenceMs).isEmpty());
            QVERIFY(m_client.sendAck(quint32(received.size())));
        }
    }
    QCOMPARE(received, contents);
    QCOMPARE(m_client.readFrame(), md5(contents));
    QCOMPARE(m_chip->counters().acksReceived, int(packets));
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF); // back in command mode
}

void TestVirtualChip::readFlashAbandonedWithoutAcks()
{
    V::Config config;
    config.readAckTimeoutMs = 100;
    QVERIFY(startChip(config, true));
    QCOMPARE(m_client.command(V::ReadFlash, W::words({0, 0x4000, 0x1000, 2})).status(), ok);
    QCOMPARE(m_client.readFrame().size() + m_client.readFrame().size(), 0x2000);
    // No acknowledgement: the loader gives up and takes commands again.
    QThread::msleep(300);
    QVERIFY(m_client.readFrame(silenceMs).isEmpty());
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
}

void TestVirtualChip::invalidConfigRefused()
{
    for (int fault = 0; fault < 4; ++fault) {
        V::Config config;
        config.flashSize = fault == 0 ? 0 : fault == 1 ? 0x1800 : config.flashSize;
        config.mac = fault == 2 ? config.mac.left(3) : config.mac;
        config.jedecId = fault == 3 ? config.jedecId + '\0' : config.jedecId;
        V chip(config);
        QVERIFY(!chip.start());
        QVERIFY(!chip.errorString().isEmpty());
        QVERIFY(chip.devicePath().isEmpty());
    }
}

void TestVirtualChip::droppedStrayRefusedSilentAndReset()
{
    QVERIFY(startChip());
    // A command refused by an armed error does not take effect (code 0: failed to act).
    for (const quint8 code : {0, 0x09}) {
        m_chip->armErrorStatus(1, code);
        const W::Answer refused = m_client.command(V::FlashBegin, begin(0, 0x1000, 0x400));
        QCOMPARE(refused.opcode, quint8(V::FlashBegin));
        QCOMPARE(refused.body, QByteArray(1, 1) + char(code ? code : 0x06));
    }
    QVERIFY(m_chip->counters().erases.isEmpty());
    // The command whose answer is dropped still takes effect.
    m_chip->armDropAnswer(2);
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QVERIFY(!m_client.command(V::WriteReg, W::words({scratch, 0x55AA, ~0u, 0}), silenceMs).valid);
    QCOMPARE(m_client.readReg(scratch), 0x55AAu);
    // A stray answer to another opcode comes just before the real one.
    m_chip->armStrayAnswer(1);
    QVERIFY(m_client.sendCommand(V::ReadReg, W::words({scratch})));
    QVERIFY(m_client.readAnswer().opcode != V::ReadReg);
    QCOMPARE(m_client.readAnswer().value, 0x55AAu);
    QVERIFY(!m_client.readAnswer(silenceMs).valid);
    // Silence after one more answer, for good; a reset ends it, disarmFaults() ends the others.
    m_chip->armSilence(1);
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QCOMPARE(m_client.sync(silenceMs), 0);
    QCOMPARE(m_chip->commandLog().size(), 7);
    m_chip->reset();
    m_chip->armDropAnswer(1);
    m_chip->disarmFaults();
    QCOMPARE(m_client.sync(), 8);
}

void TestVirtualChip::corruptAnswer_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("broken escape") << int(V::Corruption::BrokenEscape);
    QTest::newRow("garbled bytes") << int(V::Corruption::GarbledBytes);
    QTest::newRow("truncated") << int(V::Corruption::Truncated);
    QTest::newRow("wrong length") << int(V::Corruption::WrongLength);
}

void TestVirtualChip::corruptAnswer()
{
    QFETCH(int, kind);
    QVERIFY(startChip());
    m_chip->armCorruptAnswer(1, V::Corruption(kind));
    QVERIFY(m_client.sendCommand(V::ReadReg, W::words({efuse0})));
    // Something arrives, but no well-formed answer (a broken escape drops the whole frame).
    const QByteArray frame = m_client.readFrame(silenceMs);
    QVERIFY(!m_client.wire().isEmpty());
    QVERIFY(frame.size() < 10 || frame[0] != 1 || quint8(frame[2]) != frame.size() - 8);
    QCOMPARE(frame.isEmpty(), kind == int(V::Corruption::BrokenEscape));
    // Only that one answer is damaged.
    const W::Answer next = m_client.command(V::ReadReg, W::words({efuse0}));
    QCOMPARE(next.length, quint16(2));
    QCOMPARE(next.value, V::efuseWordsFor(m_chip->config())[0]);
}

void TestVirtualChip::vanish_data()
{
    QTest::addColumn<QString>("how");
    for (const char *how : {"after commands", "after bytes", "now", "from the observer"})
        QTest::newRow(how) << QString(how);
}

void TestVirtualChip::vanish()
{
    QFETCH(QString, how);
    QVERIFY(startChip());
    const QString path = m_chip->devicePath();
    m_chip->setFlash(0x10000, QByteArray(0x400, 0x11));
    QCOMPARE(m_client.command(V::FlashBegin, begin(0, 0x400, 0x400)).status(), ok);
    const qint64 bytesBefore = m_chip->counters().bytesIn;
    if (how == "after commands") { // the second answer is delivered, then the device goes
        m_chip->armVanishAfterCommands(2);
        QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF && m_client.readReg(efuse0) != 0xFFFFFFFF);
    } else if (how == "after bytes") { // mid-transfer
        m_chip->armVanishAfterBytes(100);
        m_client.sendData(V::FlashData, QByteArray(0x400, 0x22), 0); // fails once the port is gone
    } else if (how == "now") {
        m_chip->vanishNow();
    } else { // on the chip's own thread
        V *chip = m_chip.get();
        m_chip->setCommandObserver([chip](const V::CommandRecord &) { chip->vanishNow(); });
        QVERIFY(m_client.sendCommand(V::ReadReg, W::words({efuse0})));
    }
    QVERIFY(m_client.waitForHangUp());
    QVERIFY(m_chip->vanished());
    QVERIFY(!QFile::exists(path));
    if (how == "after bytes")
        QCOMPARE(m_chip->counters().bytesIn - bytesBefore, qint64(100));
    QCOMPARE(m_chip->flash(0, 0x400), QByteArray(0x400, char(0xFF)));
    // Back on a new terminal with the flash kept.
    m_chip->setCommandObserver(nullptr);
    m_chip->stop();
    QVERIFY(m_chip->start() && !m_chip->vanished());
    QVERIFY(m_client.open(m_chip->devicePath()));
    QCOMPARE(m_client.sync(), 8);
    QCOMPARE(m_chip->flash(0x10000, 0x400), QByteArray(0x400, 0x11));
}

void TestVirtualChip::slowEraseAndThrottledLine()
{
    V::Config config;
    config.throttle = true;
    QVERIFY(startChip(config));
    // 256 register records: over 4100 bytes at 115200 baud (8N1) take over 355 ms.
    QByteArray records;
    for (quint32 i = 0; i < 256; ++i)
        records += W::words({scratch, i, ~0u, 0});
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(m_client.command(V::WriteReg, records, 3000).status(), ok);
    QVERIFY2(timer.elapsed() >= 355, qPrintable(QString::number(timer.elapsed())));
    // Two sectors by the ROM's arithmetic, 45 ms each, four times as slow.
    m_chip->armSlowErase(4);
    timer.start();
    QCOMPARE(m_client.command(V::FlashBegin, begin(0, 0x1000, 0x400), 3000).status(), ok);
    QVERIFY2(timer.elapsed() >= 360, qPrintable(QString::number(timer.elapsed())));
}

QTEST_GUILESS_MAIN(TestVirtualChip)
#include "tst_virtualchip.moc"
