// The virtual chip once its flash loader runs: flash services, streaming reads, baud changes.
#include "rawchipclient.h"
#include "virtualchip/virtualesp8266.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QThread>
#include <QtTest>

#include <memory>

namespace {

constexpr quint8 opFlashBegin = 0x02;
constexpr quint8 opFlashData = 0x03;
constexpr quint8 opFlashEnd = 0x04;
constexpr quint8 opReadReg = 0x0A;
constexpr quint8 opSetParams = 0x0B;
constexpr quint8 opAttach = 0x0D;
constexpr quint8 opChangeBaud = 0x0F;
constexpr quint8 opMd5 = 0x13;
constexpr quint8 opEraseFlash = 0xD0;
constexpr quint8 opEraseRegion = 0xD1;
constexpr quint8 opReadFlash = 0xD2;
constexpr quint32 loaderAddress = 0x4010E000;
constexpr quint32 efuse0 = 0x3FF00050;
constexpr int silenceMs = 150; // how long "nothing arrives" is watched for

using W = RawChipClient;

QByteArray pattern(int size, int seed)
{
    QByteArray data(size, 0);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 31 + seed * 7 + (i >> 9)) & 0xFF);
    return data;
}

QByteArray md5(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5);
}

} // namespace

class TestVirtualChipStub : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void flashBeginErasesExactRange_data();
    void flashBeginErasesExactRange();
    void writeBlocksAndMd5();
    void md5OutsideFlashRefused();
    void readFlashWindow_data();
    void readFlashWindow();
    void readFlashDigestOnlyAfterLastAck();
    void readFlashAbandonedWithoutAcks();
    void readFlashRefusals_data();
    void readFlashRefusals();
    void eraseRegion_data();
    void eraseRegion();
    void eraseFlash();
    void spiSetup();
    void changeBaudrate();
    void registersStillWork();
    void flashEndRebootHalts();

private:
    bool startStub(const VirtualEsp8266::Config &config);
    bool startStub() { return startStub(VirtualEsp8266::Config()); }

    std::unique_ptr<VirtualEsp8266> m_chip;
    RawChipClient m_client;
};

bool TestVirtualChipStub::startStub(const VirtualEsp8266::Config &config)
{
    m_chip = std::make_unique<VirtualEsp8266>(config);
    return m_chip->start() && m_client.open(m_chip->devicePath()) &&
           m_client.startLoader(loaderAddress, pattern(200, 9), loaderAddress + 8) &&
           m_chip->stubRunning();
}

void TestVirtualChipStub::cleanup()
{
    m_client.close();
    m_chip.reset();
}

void TestVirtualChipStub::flashBeginErasesExactRange_data()
{
    QTest::addColumn<uint>("offset");
    QTest::addColumn<uint>("size");
    QTest::addColumn<uint>("erasedStart");
    QTest::addColumn<uint>("erasedSize");
    QTest::newRow("one sector") << 0u << 0x1000u << 0u << 0x1000u;
    QTest::newRow("one 16K block") << 0xF000u << 0x4000u << 0xF000u << 0x4000u;
    QTest::newRow("partial sector rounds up") << 0x3000u << 0x1001u << 0x3000u << 0x2000u;
    QTest::newRow("unaligned start rounds down") << 0x3800u << 0x800u << 0x3000u << 0x1000u;
    QTest::newRow("nothing") << 0x5000u << 0u << 0x5000u << 0u;
    QTest::newRow("up to the end") << 0x3FC000u << 0x4000u << 0x3FC000u << 0x4000u;
}

void TestVirtualChipStub::flashBeginErasesExactRange()
{
    QFETCH(uint, offset);
    QFETCH(uint, size);
    QFETCH(uint, erasedStart);
    QFETCH(uint, erasedSize);
    QVERIFY(startStub());
    m_chip->setFlash(0, QByteArray(int(m_chip->flashSize()), 0));
    const quint32 blocks = (size + 0x3FFF) / 0x4000;
    const W::Answer answer =
        m_client.command(opFlashBegin, W::words({size, blocks, 0x4000, offset}));
    QCOMPARE(answer.opcode, opFlashBegin);
    QCOMPARE(answer.status(), quint8(0));
    QCOMPARE(answer.error(), quint8(0));
    const QByteArray flash = m_chip->flash(0, m_chip->flashSize());
    QCOMPARE(flash.count(char(0xFF)), int(erasedSize));
    QCOMPARE(flash.mid(int(erasedStart), int(erasedSize)), QByteArray(int(erasedSize), char(0xFF)));
    const auto erases = m_chip->counters().erases;
    QCOMPARE(erases.size(), 1);
    QCOMPARE(erases[0].kind, VirtualEsp8266::EraseKind::StubFlashBegin);
    QCOMPARE(erases[0].offset, erasedStart);
    QCOMPARE(erases[0].size, erasedSize);
}

void TestVirtualChipStub::writeBlocksAndMd5()
{
    QVERIFY(startStub());
    const QByteArray image = pattern(0x9000, 1);
    QCOMPARE(m_client.command(opFlashBegin, W::words({0xC000, 3, 0x4000, 0x20000})).status(),
             quint8(0));
    for (int seq = 0; seq < 3; ++seq) {
        const QByteArray block = image.mid(seq * 0x4000, 0x4000).leftJustified(0x4000, char(0xFF));
        QVERIFY(m_client.sendData(opFlashData, block, quint32(seq)));
        const W::Answer answer = m_client.readAnswer();
        QCOMPARE(answer.opcode, opFlashData);
        QCOMPARE(answer.status(), quint8(0));
    }
    QCOMPARE(m_client.command(opFlashEnd, W::words({1})).status(), quint8(0));
    QCOMPARE(m_chip->flash(0x20000, 0x9000), image);

    const W::Answer digest = m_client.command(opMd5, W::words({0x20000, 0x9000, 0, 0}));
    QVERIFY(digest.valid);
    QCOMPARE(digest.opcode, opMd5);
    QCOMPARE(digest.length, quint16(18));
    QCOMPARE(digest.body.left(16), md5(image));
    QCOMPARE(digest.status(), quint8(0));
    const QByteArray sector = md5(QByteArray(0x1000, char(0xFF)));
    QCOMPARE(m_client.command(opMd5, W::words({0x30000, 0x1000, 0, 0})).body.left(16), sector);
}

void TestVirtualChipStub::md5OutsideFlashRefused()
{
    QVERIFY(startStub());
    const W::Answer answer = m_client.command(opMd5, W::words({0x3FF000, 0x2000, 0, 0}));
    QCOMPARE(answer.length, quint16(2));
    QCOMPARE(answer.status(), quint8(0xC4));
}

void TestVirtualChipStub::readFlashWindow_data()
{
    QTest::addColumn<uint>("size");
    QTest::addColumn<uint>("packetSize");
    QTest::addColumn<uint>("inFlight");
    QTest::newRow("last packet short, window 3") << 10u * 1024 + 100 << 1024u << 3u;
    QTest::newRow("whole packets, window 1") << 4u * 512 << 512u << 1u;
    QTest::newRow("window larger than the read") << 3u * 4096 << 4096u << 64u;
    QTest::newRow("single short packet") << 100u << 4096u << 2u;
}

void TestVirtualChipStub::readFlashWindow()
{
    QFETCH(uint, size);
    QFETCH(uint, packetSize);
    QFETCH(uint, inFlight);
    QVERIFY(startStub());
    const QByteArray contents = pattern(int(size), 5);
    m_chip->setFlash(0x1000, contents);

    const W::Answer answer =
        m_client.command(opReadFlash, W::words({0x1000, size, packetSize, inFlight}));
    QCOMPARE(answer.opcode, opReadFlash);
    QCOMPARE(answer.status(), quint8(0));
    const quint32 packets = (size + packetSize - 1) / packetSize;
    QByteArray received;
    quint32 packetsReceived = 0;
    while (packetsReceived < packets) {
        // The chip sends as much as the window allows, and not one packet more.
        const quint32 window = qMin(inFlight, packets - packetsReceived);
        QList<QByteArray> batch;
        for (quint32 i = 0; i < window; ++i) {
            const QByteArray packet = m_client.readFrame();
            QVERIFY2(!packet.isEmpty(), "a packet inside the window did not arrive");
            batch.append(packet);
        }
        QVERIFY(m_client.readFrame(silenceMs).isEmpty());
        for (const QByteArray &packet : qAsConst(batch)) {
            ++packetsReceived;
            QCOMPARE(quint32(packet.size()),
                     packetsReceived < packets ? packetSize : size - (packets - 1) * packetSize);
            received += packet;
            QVERIFY(m_client.sendAck(quint32(received.size())));
        }
    }
    QCOMPARE(received, contents);
    QCOMPARE(m_client.readFrame(), md5(contents));
    QCOMPARE(m_chip->counters().acksReceived, int(packets));
    // Back in command mode.
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
}

void TestVirtualChipStub::readFlashDigestOnlyAfterLastAck()
{
    QVERIFY(startStub());
    const QByteArray contents = pattern(3000, 2);
    m_chip->setFlash(0x8000, contents);
    QCOMPARE(m_client.command(opReadFlash, W::words({0x8000, 3000, 1000, 64})).status(), quint8(0));
    QByteArray received;
    for (int i = 0; i < 3; ++i)
        received += m_client.readFrame();
    QCOMPARE(received, contents);
    // Partial acknowledgements do not release the digest.
    QVERIFY(m_client.sendAck(1000));
    QVERIFY(m_client.sendAck(2000));
    QVERIFY(m_client.readFrame(silenceMs).isEmpty());
    QVERIFY(m_client.sendAck(3000));
    QCOMPARE(m_client.readFrame(), md5(contents));

    // A read of nothing sends the digest right after the answer.
    QCOMPARE(m_client.command(opReadFlash, W::words({0x8000, 0, 4096, 64})).status(), quint8(0));
    QCOMPARE(m_client.readFrame(), md5(QByteArray()));
}

void TestVirtualChipStub::readFlashAbandonedWithoutAcks()
{
    VirtualEsp8266::Config config;
    config.readAckTimeoutMs = 100;
    QVERIFY(startStub(config));
    QCOMPARE(m_client.command(opReadFlash, W::words({0, 0x4000, 0x1000, 2})).status(), quint8(0));
    QCOMPARE(m_client.readFrame().size(), 0x1000);
    QCOMPARE(m_client.readFrame().size(), 0x1000);
    // No acknowledgement: the loader gives up and takes commands again.
    QThread::msleep(300);
    QVERIFY(m_client.readFrame(silenceMs).isEmpty());
    QCOMPARE(m_client.command(opReadReg, W::words({efuse0})).opcode, opReadReg);
}

void TestVirtualChipStub::readFlashRefusals_data()
{
    QTest::addColumn<QByteArray>("payload");
    QTest::addColumn<int>("status");
    QTest::newRow("past the end") << W::words({0x3FF000, 0x2000, 0x1000, 64}) << 0xC4;
    QTest::newRow("packet size 0") << W::words({0, 0x1000, 0, 64}) << 0xC2;
    QTest::newRow("no packets in flight") << W::words({0, 0x1000, 0x1000, 0}) << 0xC2;
    QTest::newRow("short request") << W::words({0, 0x1000, 0x1000}) << 0xC0;
}

void TestVirtualChipStub::readFlashRefusals()
{
    QFETCH(QByteArray, payload);
    QFETCH(int, status);
    QVERIFY(startStub());
    const W::Answer answer = m_client.command(opReadFlash, payload);
    QCOMPARE(int(answer.status()), status);
    QVERIFY(m_client.readFrame(silenceMs).isEmpty());
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
}

void TestVirtualChipStub::eraseRegion_data()
{
    QTest::addColumn<uint>("start");
    QTest::addColumn<uint>("length");
    QTest::addColumn<bool>("accepted");
    QTest::newRow("one sector") << 0x1000u << 0x1000u << true;
    QTest::newRow("two blocks") << 0x10000u << 0x20000u << true;
    QTest::newRow("unaligned start") << 0x1001u << 0x1000u << false;
    QTest::newRow("unaligned length") << 0x1000u << 0x800u << false;
    QTest::newRow("past the end") << 0x3FF000u << 0x2000u << false;
    QTest::newRow("whole flash") << 0u << 0x400000u << true;
}

void TestVirtualChipStub::eraseRegion()
{
    QFETCH(uint, start);
    QFETCH(uint, length);
    QFETCH(bool, accepted);
    QVERIFY(startStub());
    m_chip->setFlash(0, QByteArray(int(m_chip->flashSize()), 0));
    const W::Answer answer = m_client.command(opEraseRegion, W::words({start, length}));
    QCOMPARE(answer.opcode, opEraseRegion);
    const QByteArray flash = m_chip->flash(0, m_chip->flashSize());
    if (!accepted) {
        QCOMPARE(answer.status(), quint8(0xC4));
        QCOMPARE(flash.count(char(0xFF)), 0);
        return;
    }
    QCOMPARE(answer.status(), quint8(0));
    QCOMPARE(flash.count(char(0xFF)), int(length));
    QCOMPARE(flash.mid(int(start), int(length)), QByteArray(int(length), char(0xFF)));
    QCOMPARE(m_chip->counters().erases.last().kind, VirtualEsp8266::EraseKind::Region);
}

void TestVirtualChipStub::eraseFlash()
{
    QVERIFY(startStub());
    m_chip->setFlash(0x123000, pattern(0x5000, 3));
    const W::Answer answer = m_client.command(opEraseFlash, QByteArray());
    QCOMPARE(answer.opcode, opEraseFlash);
    QCOMPARE(answer.status(), quint8(0));
    QCOMPARE(m_chip->flash(0, m_chip->flashSize()).count(char(0xFF)), int(m_chip->flashSize()));
    const auto erase = m_chip->counters().erases.last();
    QCOMPARE(erase.kind, VirtualEsp8266::EraseKind::Chip);
    QCOMPARE(erase.size, m_chip->flashSize());
}

void TestVirtualChipStub::spiSetup()
{
    QVERIFY(startStub());
    QVERIFY(!m_chip->spiParams().attached);
    QCOMPARE(m_client.command(opAttach, W::words({0})).status(), quint8(0));
    QCOMPARE(m_client.command(opSetParams, W::words({0, 0x100000, 0x10000, 0x1000, 256, 0xFFFF}))
                 .status(),
             quint8(0));
    const VirtualEsp8266::SpiParams params = m_chip->spiParams();
    QVERIFY(params.attached);
    QVERIFY(params.paramsSet);
    QCOMPARE(params.totalSize, 0x100000u);
    QCOMPARE(params.blockSize, 0x10000u);
    QCOMPARE(params.sectorSize, 0x1000u);
    QCOMPARE(params.pageSize, 256u);
    QCOMPARE(params.statusMask, 0xFFFFu);
    QCOMPARE(m_client.command(opSetParams, W::words({0, 0x100000})).status(), quint8(0xC0));
}

void TestVirtualChipStub::changeBaudrate()
{
    QVERIFY(startStub());
    QCOMPARE(m_chip->baudRate(), 115200u);
    const W::Answer answer = m_client.command(opChangeBaud, W::words({921600, 115200}));
    QCOMPARE(answer.opcode, opChangeBaud);
    QCOMPARE(answer.status(), quint8(0));
    QCOMPARE(m_chip->baudRate(), 921600u);
    QCOMPARE(m_client.command(opChangeBaud, W::words({0, 921600})).status(), quint8(0xC0));
    QCOMPARE(m_chip->baudRate(), 921600u);
    m_chip->reset();
    QCOMPARE(m_chip->baudRate(), 115200u);
}

void TestVirtualChipStub::registersStillWork()
{
    QVERIFY(startStub());
    const auto fuses = VirtualEsp8266::efuseWordsFor(m_chip->config());
    QCOMPARE(m_client.readReg(efuse0 + 4), fuses[1]);
    // RAM downloads keep working too, outside the running loader.
    QCOMPARE(m_client.command(0x05, W::words({16, 1, 0x1800, 0x3FFF0000})).status(), quint8(0));
    QVERIFY(m_client.sendData(0x07, pattern(16, 4), 0));
    QCOMPARE(m_client.readAnswer().status(), quint8(0));
    QCOMPARE(m_chip->ram(0x3FFF0000, 16), pattern(16, 4));
}

void TestVirtualChipStub::flashEndRebootHalts()
{
    QVERIFY(startStub());
    QCOMPARE(m_client.command(opFlashEnd, W::words({0})).status(), quint8(0));
    QCOMPARE(m_chip->loaderState(), VirtualEsp8266::LoaderState::Halted);
    QVERIFY(!m_client.command(opReadReg, W::words({efuse0}), silenceMs).valid);
}

QTEST_GUILESS_MAIN(TestVirtualChipStub)
#include "tst_virtualchipstub.moc"
