// What only a raw client sees of the virtual chip: the ROM's and the loader's protocol quirks and
// refusals, and the injected faults. The real client's view is checked in its own tests.
#include "protocol/espprotocol.h"
#include "testpaths.h"
#include "tools/imagegen/espimagebuilder.h"
#include "virtualchip/virtualchipbootoutput.h"
#include "virtualchip/virtualesp8266.h"

#include <QtTest>

#include <atomic>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <poll.h>
#include <unistd.h>

namespace {

using V = VirtualEsp8266;
constexpr quint32 efuse0 = 0x3FF00050;
constexpr quint32 chipMagic = 0x40001000;     // tells the chip family to clients
constexpr quint32 scratch = 0x60000F00;       // a register without special behaviour
constexpr quint32 loaderAddress = 0x4010E000; // instruction RAM
constexpr quint32 dataRam = 0x3FFE8000;
constexpr int silenceMs = 100; // how long "nothing arrives" is watched for
constexpr quint8 ok = 0;       // status of a successful answer
const auto pattern = &EspImageBuilder::pseudoRandomBytes;
const QByteArray syncPayload = QByteArray::fromHex("07071220") + QByteArray(32, 0x55);

QByteArray words(std::initializer_list<quint32> values)
{
    QByteArray bytes(int(values.size()) * 4, '\0');
    char *at = bytes.data();
    for (const quint32 value : values)
        qToLittleEndian(value, std::exchange(at, at + 4));
    return bytes;
}

// FLASH_BEGIN / MEM_BEGIN payload.
QByteArray begin(quint32 offset, quint32 size, quint32 blockSize)
{
    return words({size, (size + blockSize - 1) / blockSize, blockSize, offset});
}

// One request of a scripted exchange: opcode, checksum byte, payload.
QByteArray step(quint8 opcode, const QByteArray &payload, quint8 checksum = 0)
{
    return QByteArray(1, char(opcode)) + char(checksum) + payload;
}

// A data block (FLASH_DATA, FLASH_DEFL_DATA, MEM_DATA) with its header; `damage` spoils the
// checksum.
QByteArray dataStep(quint8 opcode, const QByteArray &data, quint32 sequence, quint8 damage = 0)
{
    quint8 sum = 0xEF;
    for (const char c : data)
        sum ^= quint8(c);
    return step(opcode, words({quint32(data.size()), sequence, 0, 0}) + data, sum ^ damage);
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

// A deliberately small serial client on a plain file descriptor, left raw as the chip set the
// terminal up (echoes would show): requests built by hand, a decoder of its own, and every byte
// received kept, so tests can look at the wire itself.
class RawClient
{
public:
    explicit RawClient(const QString &path)
        : m_fd(::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_CLOEXEC))
    {}
    ~RawClient() { ::close(m_fd); }
    Q_DISABLE_COPY(RawClient)

    bool isOpen() const { return m_fd >= 0; }
    bool sendPacket(const QByteArray &packet) // blocking: true once the chip took every byte
    {
        const QByteArray bytes = ESPProtocol::encode(packet);
        return ::write(m_fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
    }
    bool sendCommand(quint8 opcode, const QByteArray &payload, quint32 sum = 0)
    {
        const int size = payload.size();
        return sendPacket(QByteArray(1, 0) + char(opcode) + char(size) + char(size >> 8) +
                          words({sum}) + payload);
    }
    bool send(const QByteArray &step)
    {
        return sendCommand(quint8(step[0]), step.mid(2), quint8(step[1]));
    }
    // The next complete frame, unescaped; empty when none arrives in time. Plain RFC 1055 on
    // whole frames: bytes outside a frame are skipped, every escape byte starts a valid pair or
    // the frame is dropped, and back-to-back delimiters are one boundary.
    QByteArray readFrame(int timeoutMs = 2000)
    {
        const QDeadlineTimer deadline(timeoutMs);
        for (;;) {
            int start = m_wire.indexOf('\xC0', m_decoded);
            while (start >= 0 && m_wire.mid(start + 1, 1) == "\xC0")
                ++start;
            const int end = start < 0 ? -1 : m_wire.indexOf('\xC0', start + 1);
            if (end < 0) {
                if (!receive(deadline))
                    return QByteArray();
                continue;
            }
            m_decoded = end + 1;
            const QByteArray raw = m_wire.mid(start + 1, end - start - 1);
            const QByteArray frame =
                QByteArray(raw).replace("\xDB\xDC", "\xC0").replace("\xDB\xDD", "\xDB");
            if (raw.size() - frame.size() == raw.count('\xDB'))
                return frame;
        }
    }
    // Drops what arrives until the line has been quiet for `quietMs`, as a host drains its
    // input; returns the dropped bytes.
    QByteArray discardInput(int quietMs = silenceMs)
    {
        while (receive(QDeadlineTimer(quietMs))) {
        }
        const QByteArray dropped = m_wire.mid(m_decoded);
        m_decoded = m_wire.size();
        return dropped;
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
        const bool sent = sendCommand(V::Sync, syncPayload);
        int answers = 0; // the burst comes at once: none follow after 100 ms
        while (sent && readAnswer(answers == 0 ? timeoutMs : 100).valid)
            ++answers;
        return answers;
    }
    // Downloads `code` as one RAM block and jumps to its start; true once it greeted.
    bool startLoader(const QByteArray &code)
    {
        const quint32 size = quint32(code.size());
        return command(V::MemBegin, begin(loaderAddress, size, size)).status() == ok &&
               send(dataStep(V::MemData, code, 0)) && readAnswer().status() == ok &&
               command(V::MemEnd, words({0, loaderAddress})).status() == ok &&
               readFrame() == "OHAI";
    }
    QByteArray wire() const { return m_wire; } // every byte received so far
    bool hungUp() const { return m_hungUp; }

private:
    bool receive(const QDeadlineTimer &deadline) // false when nothing arrived in time
    {
        pollfd fd{m_fd, POLLIN, 0};
        char buffer[65536];
        if (m_hungUp || poll(&fd, 1, int(deadline.remainingTime())) <= 0)
            return false;
        const ssize_t n = ::read(m_fd, buffer, sizeof buffer); // poll said it will not block
        m_hungUp = n <= 0;                                     // EOF or EIO
        m_wire.append(buffer, int(qMax<ssize_t>(n, 0)));
        return n > 0;
    }

    int m_fd = -1;
    QByteArray m_wire;
    int m_decoded = 0; // bytes of m_wire already run through the decoder
    bool m_hungUp = false;
};

// A zlib stream (header + deflate data) of `data`.
QByteArray zlibStream(const QByteArray &data)
{
    return qCompress(data, 9).mid(4); // without the length prefix of the Qt format
}

constexpr quint32 sector = 0x1000;
constexpr char untouched = 0x11; // flash filler that no erase or write of a test may reach

} // namespace

class TestVirtualChip : public QObject
{
    Q_OBJECT

    bool startChip(const V::Config &config = V::Config(), bool loader = false)
    {
        m_chip = std::make_unique<V>(config);
        return m_chip->start() && m_client.emplace(m_chip->devicePath()).isOpen() &&
               (!loader || m_client->startLoader(pattern(64, 2)));
    }

    std::unique_ptr<V> m_chip;
    std::optional<RawClient> m_client;

private slots:
    void flashBeginErase_data()
    {
        QTest::addColumn<bool>("loader");
        QTest::addColumn<uint>("offset");
        QTest::addColumn<uint>("size");
        QTest::addColumn<uint>("erasedStart");
        QTest::addColumn<uint>("erasedSize");
        // The ROM: n + min(16 - s % 16, n) sectors for n sectors asked from sector s.
        QTest::newRow("ROM: 1 sector at 0 -> 2") << false << 0u << 0x1000u << 0u << 0x2000u;
        QTest::newRow("ROM: last sector before 64K -> 2")
            << false << 0xF000u << 0x1000u << 0xF000u << 0x2000u;
        QTest::newRow("ROM: 3 sectors across 64K -> 5")
            << false << 0xE000u << 0x3000u << 0xE000u << 0x5000u;
        QTest::newRow("ROM: 1 MiB -> 272 sectors") << false << 0u << 0x100000u << 0u << 0x110000u;
        QTest::newRow("ROM: unaligned offset starts at its sector")
            << false << 0x1800u << 0x1000u << 0x1000u << 0x2000u;
        QTest::newRow("ROM: clipped at the end of the flash")
            << false << 0x3FF000u << 0x2000u << 0x3FF000u << 0x1000u;
        QTest::newRow("ROM: nothing for size 0") << false << 0u << 0u << 0u << 0u;
        // The flash loader: exactly the sectors that [offset, offset + size) touches.
        QTest::newRow("loader: one byte mid-sector")
            << true << 0x11800u << 1u << 0x11000u << 0x1000u;
        QTest::newRow("loader: across a sector boundary")
            << true << 0x11FFFu << 2u << 0x11000u << 0x2000u;
        QTest::newRow("loader: 64 KiB + 1 unaligned")
            << true << 0x10100u << 0x10001u << 0x10000u << 0x11000u;
        QTest::newRow("loader: nothing for size 0") << true << 0x11000u << 0u << 0u << 0u;
    }

    void flashBeginErase()
    {
        QFETCH(bool, loader);
        QFETCH(uint, offset);
        QFETCH(uint, size);
        QFETCH(uint, erasedStart);
        QFETCH(uint, erasedSize);
        QVERIFY(startChip(V::Config(), loader));
        const quint32 flashSize = m_chip->flashSize();
        m_chip->setFlash(0, QByteArray(int(flashSize), 0));
        const Answer answer = m_client->command(V::FlashBegin, begin(offset, size, 0x400));
        QCOMPARE(answer.opcode, quint8(V::FlashBegin));
        QCOMPARE(answer.body, QByteArray(2, 0)); // status and error 0
        const QByteArray flash = m_chip->flash(0, flashSize);
        QCOMPARE(flash.count(char(0xFF)), int(erasedSize));
        QCOMPARE(flash.mid(int(erasedStart), int(erasedSize)),
                 QByteArray(int(erasedSize), char(0xFF)));
    }

    void refusals_data()
    {
        QTest::addColumn<bool>("loader");
        QTest::addColumn<int>("opcode");
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<uint>("checksum");
        QTest::addColumn<int>("code"); // the ROM's error or the loader's status
        QTest::addColumn<bool>("compressedWrites");
        const auto row = [](const QByteArray &name, bool loader, int opcode,
                            const QByteArray &payload, int code, uint sum = 0,
                            bool compressedWrites = true) {
            QTest::newRow(name.constData())
                << loader << opcode << payload << sum << code << compressedWrites;
        };
        // Commands of the flash loader: the ROM does not know them.
        row("ROM: SPI_SET_PARAMS", false, V::SpiSetParams,
            words({0, 1 << 22, 1 << 16, 4096, 256, 0}), 0x05);
        row("ROM: SPI_ATTACH", false, V::SpiAttach, words({0}), 0x05);
        row("ROM: CHANGE_BAUDRATE", false, V::ChangeBaudrate, words({921600, 115200}), 0x05);
        row("ROM: SPI_FLASH_MD5", false, V::SpiFlashMd5, words({0, 0x1000, 0, 0}), 0x05);
        row("ROM: ERASE_FLASH", false, V::EraseFlash, QByteArray(), 0x05);
        row("ROM: ERASE_REGION", false, V::EraseRegion, words({0, 0x1000}), 0x05);
        row("ROM: READ_FLASH", false, V::ReadFlash, words({0, 0x1000, 0x1000, 64}), 0x05);
        // The ROM has no compressed download.
        row("ROM: FLASH_DEFL_BEGIN", false, V::FlashDeflBegin, begin(0, 0x1000, 0x400), 0x05);
        row("ROM: FLASH_DEFL_DATA", false, V::FlashDeflData, words({1, 0, 0, 0}) + 'x', 0x05,
            0xEF ^ 'x');
        row("ROM: FLASH_DEFL_END", false, V::FlashDeflEnd, words({1}), 0x05);
        row("loader: FLASH_DEFL_DATA without a begin", true, V::FlashDeflData,
            words({1, 0, 0, 0}) + 'x', 0xC6, 0xEF ^ 'x');
        row("loader: FLASH_DEFL_END without a begin", true, V::FlashDeflEnd, words({1}), 0xC6);
        // A loader without compressed writes does not know them.
        row("old loader: FLASH_DEFL_BEGIN", true, V::FlashDeflBegin, begin(0, 0x1000, 0x4000), 0xC3,
            0, false);
        row("ROM: unknown opcode", false, 0x42, QByteArray(), 0x05);
        row("loader: unknown opcode", true, 0x42, QByteArray(), 0xC3);
        row("loader: region unaligned", true, V::EraseRegion, words({0x1001, 0x1000}), 0xC4);
        // Data blocks of 0x400 bytes 0x3C (checksum 0xEF).
        const QByteArray first = words({0x400, 0, 0, 0}) + QByteArray(0x400, 0x3C);
        const QByteArray second = words({0x400, 1, 0, 0}) + QByteArray(0x400, 0x3C);
        for (const bool loader : {false, true}) {
            const QByteArray name = loader ? "loader: " : "ROM: ";
            const int badSum = loader ? 0xC1 : 7, badSequence = loader ? 0xC7 : 6;
            for (const quint8 opcode : {V::FlashData, V::MemData}) {
                const QByteArray what = name + (opcode == V::MemData ? "RAM, " : "flash, ");
                row(what + "bad checksum", loader, opcode, first, badSum, 0xEE);
                row(what + "out of sequence", loader, opcode, second, badSequence, 0xEF);
            }
        }
    }

    void refusals()
    {
        QFETCH(bool, loader);
        QFETCH(int, opcode);
        QFETCH(QByteArray, payload);
        QFETCH(uint, checksum);
        QFETCH(bool, compressedWrites);
        V::Config config;
        config.compressedWrites = compressedWrites;
        QVERIFY(startChip(config, loader));
        m_chip->setFlash(0, QByteArray(0x1000, 0x11));
        // Data blocks follow their begin (a flash begin of size 0 erases nothing).
        if (opcode == V::MemData)
            QCOMPARE(m_client->command(V::MemBegin, begin(dataRam, 0x400, 0x400)).status(), ok);
        else if (opcode == V::FlashData)
            QCOMPARE(m_client->command(V::FlashBegin, begin(0, 0, 0x400)).status(), ok);
        QVERIFY(m_client->sendCommand(quint8(opcode), payload, checksum));
        const Answer answer = m_client->readAnswer();
        QCOMPARE(int(answer.opcode), opcode);
        QTEST(int(loader ? answer.status() : answer.error()), "code");
        QCOMPARE(loader ? answer.error() : answer.status(), quint8(loader ? 0 : 1));
        // Refused means not done: no data, digest or greeting, nothing written, erased or changed.
        QVERIFY(m_client->readFrame(silenceMs).isEmpty());
        QCOMPARE(m_chip->flash(0, 0x1000), QByteArray(0x1000, 0x11));
        QCOMPARE(m_chip->ram(dataRam, 0x400), QByteArray(0x400, 0));
        QCOMPARE(m_chip->baudRate(), 115200u);
        QCOMPARE(m_chip->stubRunning(), loader);
        QVERIFY(m_client->readReg(efuse0) != 0xFFFFFFFF);
    }

    void memEnd_data()
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

    void memEnd()
    {
        QFETCH(quint32, execute);
        QFETCH(quint32, entry);
        QFETCH(int, state);
        QVERIFY(startChip());
        QCOMPARE(m_client->command(V::MemBegin, begin(loaderAddress, 0x100, 0x1800)).status(), ok);
        QVERIFY(m_client->send(dataStep(V::MemData, pattern(0x100, 4), 0)));
        QCOMPARE(m_client->readAnswer().status(), ok);
        const Answer end = m_client->command(V::MemEnd, words({execute, entry}));
        QCOMPARE(end.opcode, quint8(V::MemEnd));
        QCOMPARE(end.status(), ok);
        const int wireAfterAnswer = m_client->wire().size();
        if (state == int(V::LoaderState::Stub)) {
            // The greeting is a raw frame of its own, after the answer; the loader syncs once.
            QCOMPARE(m_client->readFrame(), QByteArray("OHAI"));
            QCOMPARE(m_client->wire().mid(wireAfterAnswer), QByteArray("\xC0OHAI\xC0"));
            QCOMPARE(m_client->sync(), 1);
        } else { // no greeting from anything but downloaded code; the ROM syncs with a burst of 8
            QVERIFY(m_client->readFrame(silenceMs).isEmpty());
            QCOMPARE(m_client->sync(silenceMs), execute ? 8 : 0);
        }
        QCOMPARE(int(m_chip->loaderState()), state);
    }

    void readFlashWindow_data()
    {
        QTest::addColumn<uint>("size");
        QTest::addColumn<uint>("packetSize");
        QTest::addColumn<uint>("inFlight");
        QTest::newRow("last packet short, window 3") << 10u * 1024 + 100 << 1024u << 3u;
        QTest::newRow("whole packets, window 1") << 4u * 512 << 512u << 1u;
        QTest::newRow("window larger than the read") << 3u * 4096 << 4096u << 64u;
        QTest::newRow("nothing: the digest at once") << 0u << 4096u << 64u;
    }

    void readFlashWindow()
    {
        QFETCH(uint, size);
        QFETCH(uint, packetSize);
        QFETCH(uint, inFlight);
        QVERIFY(startChip(V::Config(), true));
        const QByteArray contents = pattern(int(size), 5);
        m_chip->setFlash(0x1000, contents);
        QCOMPARE(
            m_client->command(V::ReadFlash, words({0x1000, size, packetSize, inFlight})).status(),
            ok);
        const quint32 packets = (size + packetSize - 1) / packetSize;
        QByteArray received;
        for (quint32 done = 0; done < packets;) {
            // As much as the window allows, and not one packet more.
            QList<QByteArray> batch;
            while (quint32(batch.size()) < qMin(inFlight, packets - done))
                batch.append(m_client->readFrame());
            QVERIFY(m_client->readFrame(silenceMs).isEmpty());
            for (const QByteArray &packet : qAsConst(batch)) {
                QCOMPARE(quint32(packet.size()), qMin(packetSize, size - quint32(received.size())));
                received += packet;
                if (++done == packets) // the digest waits for the last acknowledgement
                    QVERIFY(m_client->readFrame(silenceMs).isEmpty());
                QVERIFY(m_client->sendPacket(words({quint32(received.size())})));
            }
        }
        QCOMPARE(received, contents);
        QCOMPARE(m_client->readFrame(),
                 QCryptographicHash::hash(contents, QCryptographicHash::Md5));
        QCOMPARE(m_chip->counters().acksReceived, int(packets));
        QVERIFY(m_client->readReg(efuse0) != 0xFFFFFFFF); // back in command mode
    }

    void faults()
    {
        QVERIFY(startChip());
        // A command refused by an armed error does not take effect (code 0: failed to act).
        for (const quint8 code : {0, 0x09}) {
            m_chip->armErrorStatus(1, code);
            const Answer refused = m_client->command(V::FlashBegin, begin(0, 0x1000, 0x400));
            QCOMPARE(refused.opcode, quint8(V::FlashBegin));
            QCOMPARE(refused.body, QByteArray(1, 1) + char(code ? code : 0x06));
        }
        QVERIFY(m_chip->counters().erases.isEmpty());
        // The command whose answer is dropped still takes effect.
        m_chip->armDropAnswer(2);
        QVERIFY(m_client->readReg(efuse0) != 0xFFFFFFFF);
        QVERIFY(!m_client->command(V::WriteReg, words({scratch, 0x55AA, ~0u, 0}), silenceMs).valid);
        QCOMPARE(m_client->readReg(scratch), 0x55AAu);
        // An ignored command neither answers nor takes effect.
        m_chip->armIgnoreCommand(1);
        QVERIFY(!m_client->command(V::WriteReg, words({scratch, 0x1234, ~0u, 0}), silenceMs).valid);
        QCOMPARE(m_client->readReg(scratch), 0x55AAu);
        // A stray answer to another opcode comes just before the real one.
        m_chip->armStrayAnswer(1);
        QVERIFY(m_client->sendCommand(V::ReadReg, words({scratch})));
        QVERIFY(m_client->readAnswer().opcode != V::ReadReg);
        QCOMPARE(m_client->readAnswer().value, 0x55AAu);
        QVERIFY(!m_client->readAnswer(silenceMs).valid);
        // A damaged answer arrives but is no well-formed answer (a broken escape drops the whole
        // frame); the next one is whole again.
        for (const auto kind : {V::Corruption::BrokenEscape, V::Corruption::GarbledBytes,
                                V::Corruption::Truncated, V::Corruption::WrongLength}) {
            m_chip->armCorruptAnswer(1, kind);
            const int wireBefore = m_client->wire().size();
            QVERIFY(m_client->sendCommand(V::ReadReg, words({scratch})));
            const QByteArray frame = m_client->readFrame(silenceMs);
            QVERIFY(m_client->wire().size() > wireBefore);
            QVERIFY(frame.size() < 10 || frame[0] != 1 || quint8(frame[2]) != frame.size() - 8);
            QCOMPARE(frame.isEmpty(), kind == V::Corruption::BrokenEscape);
            QVERIFY(m_client->sendCommand(V::ReadReg, words({scratch})));
            QCOMPARE(m_client->readFrame(), QByteArray::fromHex("010a0200aa5500000000"));
        }
        // Silence after one more answer, for good; a reset ends it, disarmFaults() ends the others.
        m_chip->armSilence(1);
        QVERIFY(m_client->readReg(efuse0) != 0xFFFFFFFF);
        QCOMPARE(m_client->sync(silenceMs), 0);
        QCOMPARE(m_chip->commandLog().size(), 17);
        m_chip->reset();
        m_chip->armDropAnswer(1);
        m_chip->disarmFaults();
        QCOMPARE(m_client->sync(), 8);
    }

    void resample_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<uint>("txBaud");
        QTest::addColumn<QByteArray>("received");
        QTest::newRow("same rate: the text itself")
            << QByteArray("ets\r\n\xC0") << 115200u << QByteArray("ets\r\n\xC0");
        // At 74880 a bit lasts 13.4 us, at 115200 8.7 us; a receiver samples bit n at
        // (n + 1.5) * 8.7 us after the start edge.
        // ' ': start + 5 low bits = 80 us low: bits 0..7 (13..74 us) all low, stop bit (83 us)
        // high; bits 6 and 7 (93..120 us) then look like a start bit, two low bits and the rest
        // high.
        QTest::newRow("space at 74880") << QByteArray(" ") << 74880u << QByteArray("\x00\xFC", 2);
        // '0': 67 us low: bit 7 (74 us) high; its last two bits as above.
        QTest::newRow("'0' at 74880") << QByteArray("0") << 74880u << QByteArray("\x80\xFC");
        // 0xFF: only the start bit is low (13.4 us): bit 0 (13.0 us) still low.
        QTest::newRow("two 0xFF at 74880")
            << QByteArray(2, char(0xFF)) << 74880u << QByteArray(2, char(0xFE));
        QTest::newRow("nothing") << QByteArray() << 74880u << QByteArray();
    }

    void resample()
    {
        QFETCH(QByteArray, sent);
        QFETCH(uint, txBaud);
        QTEST(VirtualChipBootOutput::resample(sent, txBaud, 115200), "received");
    }

    void boot_data()
    {
        QTest::addColumn<int>("powerUp");
        QTest::addColumn<QVector<int>>("lines"); // dtr * 2 + rts, in order
        QTest::addColumn<bool>("glitch");        // output led by the reset glitch
        QTest::addColumn<int>("runs");           // LoaderState afterwards
        QTest::addColumn<int>("resets");
        const int download = int(V::BootMode::Download), firmware = int(V::BootMode::Firmware);
        const int rom = int(V::LoaderState::RomLoader), loader = int(V::LoaderState::Stub);
        const int program = int(V::LoaderState::Firmware);
        const int rts = 1, dtr = 2;
        QTest::newRow("power-up into download") << download << QVector<int>{} << false << rom << 0;
        QTest::newRow("power-up into firmware")
            << firmware << QVector<int>{} << false << program << 0;
        QTest::newRow("classic reset into download")
            << firmware << QVector<int>{rts, dtr, 0} << true << rom << 1;
        QTest::newRow("hard reset into firmware")
            << download << QVector<int>{rts, 0} << true << program << 1;
        QTest::newRow("GPIO0 counts only when EN rises")
            << firmware << QVector<int>{dtr | rts, rts, 0, dtr} << true << program << 1;
        QTest::newRow("DTR alone changes nothing")
            << download << QVector<int>{dtr, 0} << false << loader << 0;
    }

    void boot()
    {
        QFETCH(int, powerUp);
        QFETCH(QVector<int>, lines);
        QFETCH(bool, glitch);
        QFETCH(int, runs);
        V::Config config;
        config.powerUpMode = V::BootMode(powerUp);
        QVERIFY(startChip(config));
        m_chip->setFlash(0x10000, QByteArray(0x100, untouched));
        QByteArray output = m_client->discardInput(); // power-up messages
        if (!lines.isEmpty()) {
            // Lines change while the flash loader runs, if the ROM loader lets one start.
            if (powerUp == int(V::BootMode::Download))
                QVERIFY(m_client->startLoader(pattern(64, 2)));
            for (const int state : qAsConst(lines))
                m_chip->setModemLines(state & 2, state & 1);
            output = m_client->discardInput();
        }
        QTEST(m_chip->resetCount(), "resets");
        QCOMPARE(int(m_chip->loaderState()), runs);
        const bool userProgram = runs == int(V::LoaderState::Firmware);
        QCOMPARE(m_chip->bootMode() == V::BootMode::Firmware, userProgram);
        // The ROM's message is garbled (74880 baud seen at 115200); a reset glitch leads it,
        // and no other frame delimiter follows, so a decoder sees a frame start and half a frame.
        QCOMPARE(output.startsWith('\xC0'), glitch);
        QCOMPARE(output.count('\xC0'), int(glitch));
        QVERIFY(!output.contains("ets Jan"));
        QCOMPARE(output.contains("user program"), userProgram);
        const int romBytes = userProgram ? output.indexOf("\r\nuser") : output.size();
        if (runs == int(V::LoaderState::Stub)) // no boot at all
            QCOMPARE(romBytes, 0);
        else // about what a board prints
            QVERIFY2(romBytes > 40 && romBytes < 200, output.toHex().constData());
        // The user program never answers; the ROM loader answers SYNC with its burst, the flash
        // loader once. A boot clears the RAM and keeps the flash.
        const int answers = runs == int(V::LoaderState::RomLoader) ? 8
                            : runs == int(V::LoaderState::Stub)    ? 1
                                                                   : 0;
        QCOMPARE(m_client->sync(silenceMs), answers);
        QCOMPARE(m_chip->ram(loaderAddress, 64) == pattern(64, 2),
                 runs == int(V::LoaderState::Stub));
        QCOMPARE(m_chip->flash(0x10000, 0x100), QByteArray(0x100, untouched));
    }

    void gpio0SampleDelay_data()
    {
        QTest::addColumn<int>("heldMs"); // GPIO0 kept low after EN rose; -1: until the chip booted
        QTest::addColumn<bool>("busy");  // a command holds the chip's thread meanwhile
        QTest::addColumn<int>("bootMode");
        QTest::newRow("GPIO0 released right after EN") << 0 << false << int(V::BootMode::Firmware);
        QTest::newRow("GPIO0 held until the boot") << -1 << false << int(V::BootMode::Download);
        QTest::newRow("chip busy: GPIO0 still read at its time")
            << 400 << true << int(V::BootMode::Download);
    }

    void gpio0SampleDelay()
    {
        QFETCH(int, heldMs);
        QFETCH(bool, busy);
        V::Config config;
        config.gpio0SampleDelayMs = 300;
        QVERIFY(startChip(config));
        m_client->discardInput(); // power-up messages
        // Holds the chip's thread at the first record it hands over; shared with the observer,
        // which may run on after this function.
        struct Hold
        {
            QSemaphore reached, release;
            std::atomic_bool taken{false};
        };
        const auto hold = std::make_shared<Hold>();
        const auto unblock = qScopeGuard([hold] { hold->release.release(); });
        if (busy) {
            m_chip->setCommandObserver([hold](const V::CommandRecord &) {
                if (!hold->taken.exchange(true)) {
                    hold->reached.release();
                    hold->release.acquire();
                }
            });
            QVERIFY(m_client->sendCommand(V::Sync, syncPayload));
            QVERIFY(hold->reached.tryAcquire(1, 5000));
        }
        m_chip->setModemLines(false, true);
        m_chip->setModemLines(true, false);
        QCOMPARE(m_chip->resetCount(), 0); // GPIO0 not read yet: silent
        QVERIFY(busy || m_client->discardInput().isEmpty());
        if (heldMs < 0)
            QTRY_COMPARE(m_chip->resetCount(), 1);
        QThread::msleep(ulong(qMax(heldMs, 0)));
        m_chip->setModemLines(false, false);
        hold->release.release();
        QTRY_COMPARE(m_chip->resetCount(), 1);
        QTEST(int(m_chip->bootMode()), "bootMode");
    }

    void wireSizeOfRequests()
    {
        QVERIFY(startChip());
        // Two bytes to escape in the address, one in the checksum word: three more on the line.
        QVERIFY(m_client->sendCommand(V::ReadReg, words({0x00C000DB}), 0xC0));
        QVERIFY(m_client->readAnswer().valid);
        QCOMPARE(m_chip->commandLog().last().wireBytes, 2 + 12 + 3);
    }

    void resetLines()
    {
        V::Config config;
        config.throttle = true; // a flash read still streams when the reset comes
        QVERIFY(startChip(config, true));
        m_chip->setFlash(0, QByteArray(0x1000, untouched));
        QVERIFY(m_client->sendCommand(V::ReadFlash, words({0, 0x100000, 0x1000, 64})));
        QVERIFY(!m_client->readFrame().isEmpty());
        // EN held low: output stops at once, nothing is answered or done.
        m_chip->setModemLines(false, true);
        m_client->discardInput(); // what was already on its way
        QVERIFY(m_client->sendCommand(V::Sync, syncPayload));
        QVERIFY(m_client->sendCommand(V::FlashBegin, begin(0, 0x1000, 0x400)));
        QVERIFY(m_client->discardInput(2 * silenceMs).isEmpty());
        QCOMPARE(int(m_chip->loaderState()), int(V::LoaderState::InReset));
        QCOMPARE(m_chip->flash(0, 0x1000), QByteArray(0x1000, untouched));
        QCOMPARE(m_chip->resetCount(), 0);
        // Released with GPIO0 low: the ROM's boot message, and a decoder that does not
        // resynchronise takes it for the frame that the first answer closes.
        m_chip->setModemLines(true, false);
        QVERIFY(m_client->sendCommand(V::Sync, syncPayload));
        const QByteArray noise = m_client->readFrame();
        QVERIFY(!noise.isEmpty() && noise[0] != 0x01);
        m_client->discardInput();
        QCOMPARE(m_client->sync(), 8);
        QCOMPARE(m_client->readReg(chipMagic), 0xFFF0C101u);
        QCOMPARE(m_chip->resetCount(), 1);
        QCOMPARE(m_chip->flash(0, 0x1000), QByteArray(0x1000, untouched));
    }

    void baudChange()
    {
        V::Config config;
        config.throttle = true;
        QVERIFY(startChip(config, true));
        constexpr quint32 uartDivider = 0x60000014;
        QCOMPARE(m_client->readReg(uartDivider), 451u); // 52 MHz / 115200
        m_chip->clearCounters();
        // The answer still leaves at the old rate; then both directions move at the new one.
        const QByteArray request = words({921600, 115200});
        const Answer answer = m_client->command(V::ChangeBaudrate, request);
        QCOMPARE(answer.opcode, quint8(V::ChangeBaudrate));
        QCOMPARE(answer.status(), ok);
        const QByteArray readRequest = words({chipMagic});
        QCOMPARE(m_client->readReg(chipMagic), 0xFFF0C101u);
        QCOMPARE(m_client->readReg(uartDivider), 56u);
        // Framed size of a request (direction 0) or of an answer with status 0 0 (direction 1).
        const auto wire = [](char direction, quint8 opcode, const QByteArray &body, quint32 value) {
            return qint64(ESPProtocol::encode(QByteArray(1, direction) + char(opcode) +
                                              char(body.size()) + char(0) + words({value}) + body)
                              .size());
        };
        const QByteArray status(2, 0);
        const V::Counters counters = m_chip->counters();
        QCOMPARE(counters.bytesInByBaud.value(115200), wire(0, V::ChangeBaudrate, request, 0));
        QCOMPARE(counters.bytesOutByBaud.value(115200), wire(1, V::ChangeBaudrate, status, 0));
        QCOMPARE(counters.bytesInByBaud.value(921600), 2 * wire(0, V::ReadReg, readRequest, 0));
        QCOMPARE(counters.bytesOutByBaud.value(921600),
                 wire(1, V::ReadReg, status, 0xFFF0C101) + wire(1, V::ReadReg, status, 56));
        QCOMPARE(m_chip->baudRate(), 921600u);
        // A reset brings the ROM back at the initial rate.
        m_chip->setModemLines(false, true);
        m_chip->setModemLines(true, false);
        m_client->discardInput();
        QCOMPARE(m_chip->baudRate(), 115200u);
        QCOMPARE(m_client->readReg(uartDivider), 451u);
    }

    void controlInput_data()
    {
        QTest::addColumn<QString>("bootMode");
        QTest::addColumn<QByteArray>("input");
        QTest::addColumn<QStringList>("confirmed");
        QTest::addColumn<bool>("refused"); // a line was refused on stderr
        QTest::addColumn<int>("answers");  // to a SYNC afterwards
        QTest::newRow("classic reset into the ROM loader")
            << "firmware" << QByteArray("dtr=0 rts=1\ndtr=1 rts=0\ndtr=0\n")
            << QStringList{"dtr=0 rts=1 -> held in reset", "dtr=1 rts=0 -> ROM loader",
                           "dtr=0 rts=0 -> ROM loader"}
            << false << 8;
        QTest::newRow("hard reset, one line omitted")
            << "download" << QByteArray("rts=1\n\nrts=0\n")
            << QStringList{"dtr=0 rts=1 -> held in reset", "dtr=0 rts=0 -> user program"} << false
            << 0;
        QTest::newRow("bad lines change nothing")
            << "download" << QByteArray("dtr=2\nrts=1 reset\nRTS=1\n") << QStringList() << true
            << 8;
    }

    // The program: --boot-mode and the reset lines on standard input.
    void controlInput()
    {
        QFETCH(QString, bootMode);
        QFETCH(QByteArray, input);
        QFETCH(QStringList, confirmed);
        QProcess program;
        program.start(testBuildDir() + "/virtualchip/esp-virtual-chip",
                      {"--boot-mode", bootMode, "--throttle"});
        QVERIFY(program.waitForStarted());
        QVERIFY(program.waitForReadyRead());
        const QString path = QString::fromLocal8Bit(program.readLine()).trimmed();
        QVERIFY(path.startsWith("/dev/"));
        program.write(input);
        QVERIFY(program.waitForBytesWritten());
        program.closeWriteChannel(); // the chip runs on without its input
        QStringList lines;
        while (lines.size() < confirmed.size() && program.waitForReadyRead(2000)) {
            while (program.canReadLine())
                lines << QString::fromLocal8Bit(program.readLine()).trimmed();
        }
        for (QString &line : lines)
            line.remove(QRegularExpression("^LINES "));
        QCOMPARE(lines, confirmed);
        RawClient client(path);
        QVERIFY(client.isOpen());
        client.discardInput();
        QTEST(client.sync(silenceMs), "answers");
        program.terminate();
        QVERIFY(program.waitForFinished());
        QCOMPARE(program.exitCode(), 0);
        QTEST(program.readAllStandardError().contains("ignored control line"), "refused");
    }

    void deflWrite_data()
    {
        QTest::addColumn<QByteArray>("data"); // what FLASH_DEFL_BEGIN announces
        QTest::addColumn<uint>("offset");
        QTest::addColumn<QByteArrayList>("steps"); // after FLASH_DEFL_BEGIN
        QTest::addColumn<QByteArray>("statuses");  // of the answers to the steps, in order
        QTest::addColumn<bool>("written");         // the flash holds `data` at `offset`
        const QByteArray data = pattern(100 * 1024, 7) + QByteArray(20 * 1024, 'A');
        const QByteArray stream = zlibStream(data);
        const auto slices = [](const QByteArray &bytes, int size, int damaged = -1) {
            QByteArrayList list;
            for (int at = 0; at < bytes.size(); at += size)
                list << dataStep(V::FlashDeflData, bytes.mid(at, size), quint32(at / size),
                                 at / size == damaged ? 0x5A : 0);
            return list;
        };
        const QByteArray stay = step(V::FlashDeflEnd, words({1}));
        const auto row = [](const char *name, const QByteArray &data, uint offset,
                            const QByteArrayList &steps, const QByteArray &statuses, bool written) {
            QTest::newRow(name) << data << offset << steps << statuses << written;
        };
        const auto fine = [](int count) { return QByteArray(count, 0); };
        const QByteArrayList blocks = slices(stream, 0x4000);
        const int n = blocks.size(); // 7: incompressible data does not shrink
        row("multi-block stream, unaligned offset", data, 0x20123, blocks + QByteArrayList{stay},
            fine(n + 1), true);
        const QByteArrayList small = slices(stream, 0x400);
        row("many small blocks", data, 0x30000, small + QByteArrayList{stay},
            fine(small.size() + 1), true);
        const QByteArray emptyStream = QByteArray::fromHex("789c030000000001");
        row("nothing", QByteArray(), 0x20000, slices(emptyStream, 0x4000) + QByteArrayList{stay},
            fine(2), true);
        // A refused block is not taken: sent again, it goes through.
        QByteArrayList retried = slices(stream, 0x4000, 2);
        retried.insert(3, blocks[2]);
        row("bad checksum, then sent again", data, 0x20000, retried + QByteArrayList{stay},
            QByteArray::fromHex("0000c1") + fine(n - 1), true);
        row("out of sequence", data, 0x20000, {blocks[0], blocks[2], blocks[1]},
            QByteArray::fromHex("00c700"), false);
        row("block larger than announced", data, 0x20000,
            {dataStep(V::FlashDeflData, stream.left(0x4001), 0)}, QByteArray::fromHex("c2"), false);
        // More than announced fails instead of running past it (the last block holds data, not
        // just the stream's trailer).
        QVERIFY(stream.size() % 0x4000 > 64);
        row("inflates past the announced size", data.left(data.size() - 1), 0x20000, blocks,
            fine(n - 1) + '\xC9', false);
        const QByteArrayList trailing = slices(stream + "xyz", 0x4000);
        row("bytes after the end of the stream", data, 0x20000, trailing,
            fine(trailing.size() - 1) + '\xC9', false);
        QByteArray badHeader = stream, badTrailer = stream;
        badHeader[0] = char(badHeader[0] ^ 0x0F);
        badTrailer[badTrailer.size() - 1] = char(badTrailer[badTrailer.size() - 1] ^ 0x01);
        // The refused block is not taken, so the next one is out of sequence.
        row("corrupt stream header", data, 0x20000, slices(badHeader, 0x4000).mid(0, 2),
            QByteArray::fromHex("c8c7"), false);
        row("stream checksum wrong", data, 0x20000,
            slices(badTrailer, 0x4000) + QByteArrayList{stay}, fine(n - 1) + "\xC8\xCA", false);
        row("ends before the stream does", data, 0x20000, blocks.mid(0, 3) + QByteArrayList{stay},
            QByteArray::fromHex("000000ca"), false);
        row("FLASH_DATA inside a compressed write", data, 0x20000,
            {dataStep(V::FlashData, data.left(0x4000), 0)}, QByteArray::fromHex("c6"), false);
    }

    void deflWrite()
    {
        QFETCH(QByteArray, data);
        QFETCH(uint, offset);
        QFETCH(QByteArrayList, steps);
        QFETCH(QByteArray, statuses);
        QFETCH(bool, written);
        constexpr int flashSpan = 0x60000;
        QVERIFY(startChip(V::Config(), true));
        m_chip->setFlash(0, QByteArray(flashSpan, untouched));
        const quint32 size = quint32(data.size());
        QCOMPARE(m_client->command(V::FlashDeflBegin, begin(offset, size, 0x4000)).status(), ok);
        QByteArray answered;
        for (const QByteArray &request : qAsConst(steps)) {
            QVERIFY(m_client->send(request));
            const Answer answer = m_client->readAnswer();
            QCOMPARE(answer.opcode, quint8(request[0]));
            answered += char(answer.status());
        }
        QCOMPARE(answered.toHex(), statuses.toHex());
        // Erased exactly the sectors that [offset, offset + size) touches; nothing written
        // outside that range.
        const quint32 start = offset / sector * sector;
        const quint32 end = (offset + size + sector - 1) / sector * sector;
        QByteArray flash = m_chip->flash(0, flashSpan);
        QCOMPARE(flash.mid(int(offset), int(size)) == data, written);
        QByteArray expected(flashSpan, untouched);
        expected.replace(int(start), int(end - start), QByteArray(int(end - start), char(0xFF)));
        QCOMPARE(flash.replace(int(offset), int(size), QByteArray(int(size), char(0xFF))),
                 expected);
        const auto erases = m_chip->counters().erases;
        QCOMPARE(erases.size(), 1);
        QCOMPARE(int(erases[0].kind), int(V::EraseKind::StubDeflBegin));
        QCOMPARE(erases[0].offset, start);
        QCOMPARE(erases[0].size, end - start);
    }

    void vanish()
    {
        QVERIFY(startChip());
        const QString path = m_chip->devicePath();
        m_chip->setFlash(0x10000, QByteArray(0x400, 0x11));
        // The second answer is delivered, then the device goes (clients see the other ways).
        m_chip->armVanishAfterCommands(2);
        QVERIFY(m_client->readReg(efuse0) != 0xFFFFFFFF);
        QVERIFY(m_client->readReg(efuse0) != 0xFFFFFFFF);
        QVERIFY(m_client->readFrame().isEmpty() && m_client->hungUp());
        QVERIFY(m_chip->vanished() && !QFile::exists(path));
        // The unplugged name is not handed to another terminal while this chip still exists,
        // even after the client let go of it: a lock the client may still hold stays harmless.
        m_client.reset();
        V other;
        QVERIFY(other.start());
        QVERIFY2(other.devicePath() != path, qPrintable(path));
        other.stop();
        // Back on a new terminal with the flash kept.
        m_chip->stop();
        QVERIFY(m_chip->start() && !m_chip->vanished());
        QVERIFY(m_client.emplace(m_chip->devicePath()).isOpen());
        QCOMPARE(m_client->sync(), 8);
        QCOMPARE(m_chip->flash(0x10000, 0x400), QByteArray(0x400, 0x11));
    }
};

QTEST_GUILESS_MAIN(TestVirtualChip)
#include "tst_virtualchip.moc"
