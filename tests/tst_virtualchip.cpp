// The virtual chip's ROM loader, flash loader and injected faults, seen through a raw serial
// client of the test's own, and the esp-virtual-chip program around it.
#include "protocol/espprotocol.h"
#include "testpaths.h"
#include "virtualchip/virtualesp8266.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <unistd.h>

namespace {

using V = VirtualEsp8266;
constexpr quint32 efuse0 = 0x3FF00050;
constexpr quint32 scratch = 0x60000F00;       // a register without special behaviour
constexpr quint32 loaderAddress = 0x4010E000; // instruction RAM
constexpr quint32 dataRam = 0x3FFE8000;
constexpr int silenceMs = 100; // how long "nothing arrives" is watched for
constexpr quint8 ok = 0;       // status of a successful answer

QByteArray words(std::initializer_list<quint32> values)
{
    QByteArray bytes;
    for (const quint32 value : values) {
        char word[4];
        qToLittleEndian(value, word);
        bytes.append(word, 4);
    }
    return bytes;
}

quint8 checksum(const QByteArray &data)
{
    quint8 sum = 0xEF;
    for (const char c : data)
        sum ^= quint8(c);
    return sum;
}

const QByteArray syncPayload = QByteArray::fromHex("07071220") + QByteArray(32, char(0x55));

// FLASH_BEGIN / MEM_BEGIN payload.
QByteArray begin(quint32 offset, quint32 size, quint32 blockSize)
{
    return words({size, (size + blockSize - 1) / blockSize, blockSize, offset});
}

QByteArray pattern(int size, int seed)
{
    QByteArray data(size, 0);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 7 + seed * 13 + (i >> 8)) & 0xFF);
    return data;
}

struct Answer
{
    bool valid = false; // a frame of at least 10 bytes with direction 1 arrived
    quint8 opcode = 0;
    quint32 value = 0;
    QByteArray body; // including the two status bytes
    quint8 status() const { return body.size() >= 2 ? quint8(body[body.size() - 2]) : 0xFF; }
    quint8 error() const { return body.size() >= 2 ? quint8(body[body.size() - 1]) : 0xFF; }
};

// A deliberately small serial client: a plain file descriptor, requests built by hand, a decoder
// of its own, and every received byte kept, so tests can look at the wire itself.
class RawClient
{
public:
    RawClient() = default;
    ~RawClient() { close(); }
    Q_DISABLE_COPY(RawClient)

    bool open(const QString &path)
    {
        close();
        // Left as the chip set the terminal up: raw, so echoes or line editing would show.
        m_fd = ::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        m_wire.clear();
        m_decoded = 0;
        m_frame.clear();
        m_escaped = m_skipping = m_hungUp = false;
        return m_fd >= 0;
    }
    void close()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }
    // Blocking: true once the chip took every byte.
    bool writeRaw(const QByteArray &bytes)
    {
        return m_fd >= 0 && ::write(m_fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
    }
    bool sendPacket(const QByteArray &packet) { return writeRaw(ESPProtocol::encode(packet)); }
    bool sendCommand(quint8 opcode, const QByteArray &payload, quint32 sum = 0)
    {
        const int size = payload.size();
        return sendPacket(QByteArray(1, 0) + char(opcode) + char(size) + char(size >> 8) +
                          words({sum}) + payload);
    }
    // FLASH_DATA / MEM_DATA with its data header and checksum (spoiled on request).
    bool sendData(quint8 opcode, const QByteArray &data, quint32 sequence, bool goodSum = true)
    {
        const QByteArray payload = words({quint32(data.size()), sequence, 0, 0}) + data;
        return sendCommand(opcode, payload, checksum(data) ^ (goodSum ? 0 : 1));
    }
    // The next complete frame, unescaped; empty when none arrives in time.
    QByteArray readFrame(int timeoutMs = 2000)
    {
        QElapsedTimer timer;
        timer.start();
        QByteArray frame;
        while (!takeFrame(&frame)) {
            if (!fill(timeoutMs - int(timer.elapsed())))
                return QByteArray();
        }
        return frame;
    }
    Answer readAnswer(int timeoutMs = 2000)
    {
        const QByteArray frame = readFrame(timeoutMs);
        if (frame.size() < 10 || frame[0] != 0x01)
            return Answer();
        return {true, quint8(frame[1]), qFromLittleEndian<quint32>(frame.constData() + 4),
                frame.mid(8)};
    }
    Answer command(quint8 opcode, const QByteArray &payload, int timeoutMs = 2000)
    {
        return sendCommand(opcode, payload) ? readAnswer(timeoutMs) : Answer();
    }
    quint32 readReg(quint32 address) // 0xFFFFFFFF without a successful answer
    {
        const Answer answer = command(V::ReadReg, words({address}));
        return answer.opcode == V::ReadReg && answer.status() == ok ? answer.value : 0xFFFFFFFF;
    }
    int sync(int timeoutMs = 500) // the number of answers to one SYNC
    {
        constexpr int surplusWaitMs = 100; // the burst comes at once: none follow after this
        int answers = 0;
        if (!sendCommand(V::Sync, syncPayload))
            return 0;
        while (readAnswer(answers == 0 ? timeoutMs : surplusWaitMs).valid)
            ++answers;
        return answers;
    }
    // Downloads `code` as one RAM block and jumps to its start; true once it greeted.
    bool startLoader(const QByteArray &code)
    {
        const quint32 size = quint32(code.size());
        return command(V::MemBegin, begin(loaderAddress, size, size)).status() == ok &&
               sendData(V::MemData, code, 0) && readAnswer().status() == ok &&
               command(V::MemEnd, words({0, loaderAddress})).status() == ok &&
               readFrame() == "OHAI";
    }
    QByteArray wire() const { return m_wire; } // every byte received so far
    bool waitForHangUp(int timeoutMs = 2000)   // true once a read saw EOF or EIO
    {
        QElapsedTimer timer;
        timer.start();
        while (!m_hungUp && timer.elapsed() < timeoutMs)
            fill(10);
        return m_hungUp;
    }

private:
    bool fill(int timeoutMs) // false when nothing arrived in time
    {
        pollfd fd{m_fd, POLLIN, 0};
        if (m_fd < 0 || m_hungUp || timeoutMs <= 0 || poll(&fd, 1, timeoutMs) <= 0)
            return false;
        char buffer[65536];
        const ssize_t n = ::read(m_fd, buffer, sizeof buffer); // poll said it will not block
        m_hungUp = n <= 0;
        if (n > 0)
            m_wire.append(buffer, int(n));
        return n > 0;
    }
    // Plain RFC 1055; a frame with an invalid escape is dropped up to its closing delimiter.
    bool takeFrame(QByteArray *frame)
    {
        while (m_decoded < m_wire.size()) {
            const quint8 byte = quint8(m_wire[m_decoded++]);
            if (m_escaped || m_skipping) {
                const bool valid = m_escaped && (byte == 0xDC || byte == 0xDD);
                m_frame = valid ? m_frame + char(byte == 0xDC ? 0xC0 : 0xDB) : QByteArray();
                m_skipping = !valid && byte != 0xC0;
                m_escaped = false;
            } else if (byte == 0xDB) {
                m_escaped = true;
            } else if (byte != 0xC0) {
                m_frame += char(byte);
            } else if (!m_frame.isEmpty()) {
                *frame = m_frame;
                m_frame.clear();
                return true;
            }
        }
        return false;
    }

    int m_fd = -1;
    QByteArray m_wire;
    int m_decoded = 0; // bytes of m_wire already run through the decoder
    QByteArray m_frame;
    bool m_escaped = false;
    bool m_skipping = false; // inside a frame with an invalid escape
    bool m_hungUp = false;
};

// One line of the program's output, without its end.
QByteArray readLine(QProcess &process)
{
    QElapsedTimer timer;
    timer.start();
    while (!process.canReadLine() && timer.elapsed() < 5000)
        process.waitForReadyRead(100);
    return process.readLine().trimmed();
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
    void flashEndRebootHaltsUntilReset();
    void memEnd_data();
    void memEnd();
    void malformedFramingIgnored();
    void readFlashWindow_data();
    void readFlashWindow();
    void readFlashAbandonedWithoutAcks();
    void faults();
    void vanish_data();
    void vanish();
    void programRefusesBadOptions_data();
    void programRefusesBadOptions();
    void programServesLoadsAndDumps();
    void programQuietPrintsOnlyThePath();

private:
    bool startChip(const V::Config &config = V::Config(), bool loader = false);
    // Runs esp-virtual-chip; for a server, the device path line is taken and a client opened.
    QByteArray startProgram(const QStringList &arguments, bool server = true);

    std::unique_ptr<V> m_chip;
    RawClient m_client;
    QProcess m_program;
};

bool TestVirtualChip::startChip(const V::Config &config, bool loader)
{
    m_chip = std::make_unique<V>(config);
    return m_chip->start() && m_client.open(m_chip->devicePath()) &&
           (!loader || m_client.startLoader(pattern(64, 2)));
}

QByteArray TestVirtualChip::startProgram(const QStringList &arguments, bool server)
{
    m_program.start(testBuildDir() + "/virtualchip/esp-virtual-chip", arguments);
    if (!server)
        return m_program.waitForFinished() ? m_program.readAllStandardError() : QByteArray();
    const QByteArray path = readLine(m_program);
    return path.startsWith("/dev/") && m_client.open(QString::fromLocal8Bit(path)) ? path
                                                                                   : QByteArray();
}

void TestVirtualChip::syncBurstAndReopen()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.sync(), 8);
    // The next command gets exactly its own answer.
    QCOMPARE(m_client.command(V::ReadReg, words({efuse0})).opcode, quint8(V::ReadReg));
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
    rom("ROM: 3 sectors across 64K -> 5", 0xE000, 0x3000, 0xE000, 0x5000);
    rom("ROM: one 64K block -> 32 sectors", 0, 0x10000, 0, 0x20000);
    rom("ROM: 1 MiB -> 272 sectors", 0, 0x100000, 0, 0x110000);
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
    stub("loader: region", V::EraseRegion, words({0x10000, 0x20000}), 0x10000, 0x20000,
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
    const Answer answer = m_client.command(quint8(opcode), payload);
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
    row("ROM: wrong SYNC", false, V::Sync, QByteArray(syncPayload).replace(3, 1, "\x21"), 0x05);
    // Commands of the flash loader: the ROM does not know them.
    row("ROM: SPI_SET_PARAMS", false, V::SpiSetParams, words({0, 1 << 22, 1 << 16, 4096, 256, 0}),
        0x05);
    row("ROM: SPI_ATTACH", false, V::SpiAttach, words({0}), 0x05);
    row("ROM: CHANGE_BAUDRATE", false, V::ChangeBaudrate, words({921600, 115200}), 0x05);
    row("ROM: SPI_FLASH_MD5", false, V::SpiFlashMd5, words({0, 0x1000, 0, 0}), 0x05);
    row("ROM: ERASE_FLASH", false, V::EraseFlash, QByteArray(), 0x05);
    row("ROM: ERASE_REGION", false, V::EraseRegion, words({0, 0x1000}), 0x05);
    row("ROM: READ_FLASH", false, V::ReadFlash, words({0, 0x1000, 0x1000, 64}), 0x05);
    row("ROM: unknown opcode", false, 0x42, QByteArray(), 0x05);
    row("ROM: flash begin at the end", false, V::FlashBegin, begin(0x400000, 0x1000, 0x400), 0x06);
    row("ROM: RAM download past IRAM", false, V::MemBegin, begin(0x4010FFF0, 0x20, 0x1800), 0x06);
    row("loader: unknown opcode", true, 0x42, QByteArray(), 0xC3);
    row("loader: MD5 past the end", true, V::SpiFlashMd5, words({0x3FF000, 0x2000, 0, 0}), 0xC4);
    row("loader: read packet size 0", true, V::ReadFlash, words({0, 0x1000, 0, 64}), 0xC2);
    row("loader: region unaligned", true, V::EraseRegion, words({0x1001, 0x1000}), 0xC4);
    row("loader: baud rate 0", true, V::ChangeBaudrate, words({0, 921600}), 0xC0);
    // Data blocks of 0x400 bytes 0x3C (checksum 0xEF).
    const QByteArray block = QByteArray(0x400, 0x3C);
    const QByteArray first = words({0x400, 0, 0, 0}) + block;
    const QByteArray second = words({0x400, 1, 0, 0}) + block;
    const QByteArray wrongSize = words({0x404, 0, 0, 0}) + block;
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
    const Answer answer = m_client.readAnswer();
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

void TestVirtualChip::flashEndRebootHaltsUntilReset()
{
    for (const bool loader : {false, true}) {
        QVERIFY(startChip(V::Config(), loader));
        m_chip->setFlash(0, QByteArray(0x400, 0x5A));
        QCOMPARE(m_client.command(V::FlashEnd, words({1})).status(), ok); // stays
        if (loader) {
            QCOMPARE(m_client.command(V::ChangeBaudrate, words({921600, 115200})).status(), ok);
            QCOMPARE(m_chip->baudRate(), 921600u);
        }
        // FLASH_END {0} runs the user program, which does not answer, until a reset brings back
        // the ROM at its baud rate with the flash kept.
        QCOMPARE(m_client.command(V::FlashEnd, words({0})).status(), ok);
        QCOMPARE(m_client.sync(silenceMs), 0);
        m_chip->reset();
        QCOMPARE(m_chip->baudRate(), 115200u);
        QCOMPARE(m_client.sync(), 8);
        QCOMPARE(m_chip->flash(0, 0x400), QByteArray(0x400, 0x5A));
    }
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
    const Answer end = m_client.command(V::MemEnd, words({execute, entry}));
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
         {words({0x6000C0DB, 0x12345678, ~0u, 0}), words({0x6000C0DB, 0xABCDEF00, 0xFF00, 0}),
          words({efuse0, 0x12345678, ~0u, 0})})
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
    QCOMPARE(m_client.command(V::ReadFlash, words({0x1000, size, packetSize, inFlight})).status(),
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
            QVERIFY(m_client.sendPacket(words({quint32(received.size())})));
        }
    }
    QCOMPARE(received, contents);
    QCOMPARE(m_client.readFrame(), QCryptographicHash::hash(contents, QCryptographicHash::Md5));
    QCOMPARE(m_chip->counters().acksReceived, int(packets));
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF); // back in command mode
}

void TestVirtualChip::readFlashAbandonedWithoutAcks()
{
    V::Config config;
    config.readAckTimeoutMs = 100;
    QVERIFY(startChip(config, true));
    QCOMPARE(m_client.command(V::ReadFlash, words({0, 0x4000, 0x1000, 2})).status(), ok);
    QCOMPARE(m_client.readFrame().size() + m_client.readFrame().size(), 0x2000);
    // No acknowledgement: the loader gives up and takes commands again.
    QThread::msleep(300);
    QVERIFY(m_client.readFrame(silenceMs).isEmpty());
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
}

void TestVirtualChip::faults()
{
    QVERIFY(startChip());
    // A command refused by an armed error does not take effect (code 0: failed to act).
    for (const quint8 code : {0, 0x09}) {
        m_chip->armErrorStatus(1, code);
        const Answer refused = m_client.command(V::FlashBegin, begin(0, 0x1000, 0x400));
        QCOMPARE(refused.opcode, quint8(V::FlashBegin));
        QCOMPARE(refused.body, QByteArray(1, 1) + char(code ? code : 0x06));
    }
    QVERIFY(m_chip->counters().erases.isEmpty());
    // Slow: two sectors by the ROM's arithmetic, 45 ms each, four times as slow.
    m_chip->armSlowErase(4);
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(m_client.command(V::FlashBegin, begin(0, 0x1000, 0x400), 3000).status(), ok);
    QVERIFY2(timer.elapsed() >= 360, qPrintable(QString::number(timer.elapsed())));
    // The command whose answer is dropped still takes effect.
    m_chip->armDropAnswer(2);
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QVERIFY(!m_client.command(V::WriteReg, words({scratch, 0x55AA, ~0u, 0}), silenceMs).valid);
    QCOMPARE(m_client.readReg(scratch), 0x55AAu);
    // A stray answer to another opcode comes just before the real one.
    m_chip->armStrayAnswer(1);
    QVERIFY(m_client.sendCommand(V::ReadReg, words({scratch})));
    QVERIFY(m_client.readAnswer().opcode != V::ReadReg);
    QCOMPARE(m_client.readAnswer().value, 0x55AAu);
    QVERIFY(!m_client.readAnswer(silenceMs).valid);
    // A damaged answer arrives but is no well-formed answer (a broken escape drops the whole
    // frame); the next one is whole again.
    for (const auto kind : {V::Corruption::BrokenEscape, V::Corruption::GarbledBytes,
                            V::Corruption::Truncated, V::Corruption::WrongLength}) {
        m_chip->armCorruptAnswer(1, kind);
        const int wireBefore = m_client.wire().size();
        QVERIFY(m_client.sendCommand(V::ReadReg, words({scratch})));
        const QByteArray frame = m_client.readFrame(silenceMs);
        QVERIFY(m_client.wire().size() > wireBefore);
        QVERIFY(frame.size() < 10 || frame[0] != 1 || quint8(frame[2]) != frame.size() - 8);
        QCOMPARE(frame.isEmpty(), kind == V::Corruption::BrokenEscape);
        QVERIFY(m_client.sendCommand(V::ReadReg, words({scratch})));
        QCOMPARE(m_client.readFrame(), QByteArray::fromHex("010a0200aa550000") + QByteArray(2, 0));
    }
    // Silence after one more answer, for good; a reset ends it, disarmFaults() ends the others.
    m_chip->armSilence(1);
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QCOMPARE(m_client.sync(silenceMs), 0);
    QCOMPARE(m_chip->commandLog().size(), 16);
    m_chip->reset();
    m_chip->armDropAnswer(1);
    m_chip->disarmFaults();
    QCOMPARE(m_client.sync(), 8);
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
        QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF && !m_client.waitForHangUp(silenceMs));
        QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    } else if (how == "after bytes") { // mid-transfer
        m_chip->armVanishAfterBytes(100);
        m_client.sendData(V::FlashData, QByteArray(0x400, 0x22), 0); // fails once the port is gone
    } else if (how == "now") {
        m_chip->vanishNow();
    } else { // on the chip's own thread
        V *chip = m_chip.get();
        m_chip->setCommandObserver([chip](const V::CommandRecord &) { chip->vanishNow(); });
        QVERIFY(m_client.sendCommand(V::ReadReg, words({efuse0})));
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

void TestVirtualChip::programRefusesBadOptions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("unknown chip") << QStringList{"--chip", "esp32"};
    QTest::newRow("bad MAC") << QStringList{"--mac", "18:FE:34:00:01"};
    QTest::newRow("flash size not whole sectors") << QStringList{"--flash-size", "1000"};
    QTest::newRow("load without address") << QStringList{"--load", "/etc/hostname"};
    QTest::newRow("load of a missing file") << QStringList{"--load", "0x0:/nonexistent/file"};
    QTest::newRow("unexpected argument") << QStringList{"extra"};
}

void TestVirtualChip::programRefusesBadOptions()
{
    QFETCH(QStringList, arguments);
    QVERIFY(startProgram(arguments, false).startsWith("esp-virtual-chip: "));
    QVERIFY(m_program.exitCode() != 0);
    QVERIFY(m_program.readAllStandardOutput().isEmpty()); // no device path
}

void TestVirtualChip::programServesLoadsAndDumps()
{
    QTemporaryDir dir;
    QFile image(dir.filePath("image.bin"));
    QVERIFY(image.open(QIODevice::WriteOnly) && image.write(QByteArray(0x1800, 0x5A)) == 0x1800);
    image.close();
    const QString dump = dir.filePath("dump.bin");
    QVERIFY(!startProgram({"--chip", "esp8285", "--mac", "AC:D0:74:01:02:03", "--flash-size", "1MB",
                           "--load", "0x3000:" + image.fileName(), "--dump", dump})
                 .isEmpty());
    QCOMPARE(m_client.sync(), 8);
    QCOMPARE(readLine(m_program), QByteArray("SYNC len=36 [ROM] -> ok"));
    V::Config expected; // what the options ask for
    expected.model = V::Model::Esp8285;
    expected.mac = QByteArray::fromHex("acd074010203");
    for (quint32 i = 0; i < 4; ++i)
        QCOMPARE(m_client.readReg(efuse0 + 4 * i), V::efuseWordsFor(expected)[i]);
    for (int i = 0; i < 4; ++i)
        QCOMPARE(readLine(m_program), QByteArray("READ_REG len=4 [ROM] -> ok"));
    QCOMPARE(m_client.command(V::FlashBegin, begin(0x10000, 0x400, 0x400)).status(), ok);
    QCOMPARE(readLine(m_program), QByteArray("FLASH_BEGIN len=16 [ROM] -> ok"));
    QVERIFY(m_client.sendData(V::FlashData, QByteArray(0x400, 0x42), 0, false));
    QCOMPARE(m_client.readAnswer().error(), quint8(0x07));
    QCOMPARE(readLine(m_program),
             QByteArray("FLASH_DATA len=1040 size=1024 seq=0 sum=0xee [ROM] -> status 01 07"));
    QVERIFY(m_client.sendData(V::FlashData, QByteArray(0x400, 0x42), 0));
    QCOMPARE(m_client.readAnswer().status(), ok);
    m_program.terminate(); // SIGTERM: the flash is dumped on the way out
    QVERIFY(m_program.waitForFinished());
    QCOMPARE(m_program.exitStatus(), QProcess::NormalExit);
    QCOMPARE(m_program.exitCode(), 0);
    QFile file(dump);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray flash = file.readAll();
    QCOMPARE(flash.size(), 0x100000);
    QCOMPARE(flash.mid(0x3000, 0x1800), QByteArray(0x1800, 0x5A));
    QCOMPARE(flash.mid(0x10000, 0x400), QByteArray(0x400, 0x42));
    QCOMPARE(flash.count(char(0xFF)), 0x100000 - 0x1C00);
}

void TestVirtualChip::programQuietPrintsOnlyThePath()
{
    QVERIFY(!startProgram({"--quiet"}).isEmpty());
    QCOMPARE(m_client.sync(), 8);
    ::kill(pid_t(m_program.processId()), SIGINT);
    QVERIFY(m_program.waitForFinished());
    QCOMPARE(m_program.exitCode(), 0);
    QVERIFY(m_program.readAllStandardOutput().isEmpty());
}

QTEST_GUILESS_MAIN(TestVirtualChip)
#include "tst_virtualchip.moc"
