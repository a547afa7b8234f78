#include "chipfixture.h"
#include "protocol/espprotocol.h"
#include "protocol/esptool.h"
#include "scattertestfiles.h"
#include "scriptedpeer.h"
#include "serial/modemlineregistry.h"
#include "tools/imagegen/espimagebuilder.h"
#include "tools/stubgen/stubelfwriter.h"

#include <QtTest>

#include <ctime>

// The protocol client against the virtual ESP8266, and against a scripted peer for what a
// faithful chip never sends. The loader uploaded is the vendor's when the build could fetch it.
namespace {

constexpr unsigned int efuseWord0 = 0x3FF00050;
using Reply = ScriptedPeer::Reply;

// The texts of operationError (its second argument) or of notice (its first).
QStringList texts(const QSignalSpy &spy, int argument = 1)
{
    QStringList result;
    for (const QList<QVariant> &call : spy)
        result << call.at(argument).toString();
    return result;
}

// Progress in image bytes: never going back, complete at the end.
bool progressComplete(const QSignalSpy &progress, int total)
{
    int last = 0;
    for (const QList<QVariant> &call : progress) {
        if (call.at(0).toInt() != total || call.at(1).toInt() < last)
            return false;
        last = call.at(1).toInt();
    }
    return last == total;
}

ESPTool::ConnectOptions throughReset()
{
    ESPTool::ConnectOptions options;
    options.resetBefore = true;
    return options;
}

// A tool connected to a fresh virtual chip (through its reset circuit, unless it is a jig),
// optionally running the loader.
struct Session
{
    explicit Session(const VirtualEsp8266::Config &config = {},
                     VirtualBoard::Wiring wiring = VirtualBoard::Wiring::AutoReset)
        : fixture(config, wiring)
    {}
    bool start(bool stub = false)
    {
        return fixture.start() && tool.esp_connect(fixture.port(), throughReset()) &&
               (!stub || tool.write_loader_stub(loaderStubPath()));
    }
    VirtualEsp8266 &chip() { return fixture.chip(); }
    // Reads eFuse word 0: whatever is left on the line would spoil this.
    bool lineIsClean()
    {
        return tool.read_reg(efuseWord0) == VirtualEsp8266::efuseWordsFor(chip().config())[0];
    }

    ChipFixture fixture;
    ESPTool tool; // destroyed before the chip
};

bool write(ESPTool &tool, QByteArray image, quint32 address)
{
    QBuffer buffer(&image);
    return buffer.open(QIODevice::ReadOnly) &&
           tool.write_flash_file(&buffer, "image.bin", false, address, 4, 0, 0);
}

const auto ok = [](quint8 opcode) { return ScriptedPeer::success(opcode); };

QByteArray dataOf(const QVector<VirtualEsp8266::EraseRecord> &erases)
{
    QByteArray text;
    for (const auto &erase : erases)
        text +=
            QByteArray::number(erase.offset, 16) + "+" + QByteArray::number(erase.size, 16) + " ";
    return text.trimmed();
}

} // namespace

class TestEspTool : public QObject
{
    Q_OBJECT

private slots:
    void romLoaderSession()
    {
        Session session;
        session.chip().setFlash(0, QByteArray(0x2000, '\0'));
        QVERIFY(session.fixture.start());
        session.chip().armDropAnswer(1);
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QSignalSpy commandErrors(&session.tool, &ESPTool::commandError);
        QVERIFY(session.tool.esp_connect(session.fixture.port(), throughReset()));
        QCOMPARE(texts(errors), QStringList{"No response for 0x08 command"});
        QCOMPARE(session.chip().counters().commands.value(ESPTool::ESP_SYNC), 2);
        QVERIFY(session.lineIsClean()); // no surplus answer to the synchronisation is left

        // Services of the loader: refused without sending anything...
        session.chip().clearCommandLog();
        QVERIFY(session.tool.get_flash_md5(0, 0x1000).isEmpty());
        session.tool.change_baudrate(921600);
        QCOMPARE(session.chip().commandLog().size(), 0);
        QVERIFY(session.tool.portInfo().endsWith("@115200"));
        // ... except an erase, which is sent and refused by the ROM with its code in the last byte.
        session.tool.erase_flash_region(0, 0x1000);
        QCOMPARE(texts(errors).mid(1),
                 (QStringList{"MD5 checksum is not supported by the ROM loader",
                              "Flash erase command is unsupported in ROM loader"}));
        QCOMPARE(errors.at(2).first().toInt(), int(ESPTool::WrongLoader));
        QCOMPARE(commandErrors.count(), 1);
        QCOMPARE(commandErrors.first().first().toInt(), int(VirtualEsp8266::RomInvalidMessage));
        QCOMPARE(session.chip().flash(0, 0x2000), QByteArray(0x2000, '\0'));

        // Answers of a wrong length or too short, and silence: each ends the one wait.
        errors.clear();
        const QString noAnswer = "No response for 0x0a command";
        const QString invalid =
            "Invalid reply to the READ_REG command - expected 4 bytes, received 0";
        session.chip().armCorruptAnswer(1, VirtualEsp8266::Corruption::WrongLength);
        QCOMPARE(session.tool.read_reg(efuseWord0), 0xFFFFFFFFu);
        session.chip().armCorruptAnswer(1, VirtualEsp8266::Corruption::Truncated);
        QCOMPARE(session.tool.read_reg(efuseWord0), 0xFFFFFFFFu);
        session.chip().armSilence(0);
        QCOMPARE(session.tool.read_reg(efuseWord0), 0xFFFFFFFFu);
        QCOMPARE(texts(errors), (QStringList{invalid, noAnswer, invalid, noAnswer, invalid}));
        QVERIFY(session.tool.isFailed());
    }

    void stubSession()
    {
        Session session;
        const QByteArray contents = EspImageBuilder::pseudoRandomBytes(0x50000, 3);
        session.chip().setFlash(0, contents);
        QVERIFY(session.start());
        session.chip().clearCommandLog();
        // Loaders refused before anything is sent.
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        StubElfWriter noData;
        noData.setText(0x4010E000, QByteArray(64, 'x'));
        for (QByteArray content : {noData.toBytes(), QByteArray(R"({"text": "", "data": ""})")}) {
            QBuffer buffer(&content);
            QVERIFY(buffer.open(QIODevice::ReadOnly) && !session.tool.write_loader_stub(&buffer));
        }
        QVERIFY(!session.tool.write_loader_stub("/nonexistent/stub.elf"));
        const QStringList messages = texts(errors);
        QCOMPARE(messages.size(), 3);
        QCOMPARE(messages[0], QStringLiteral("Invalid flash loader: the .data section is missing"));
        QVERIFY(messages[1].startsWith("Invalid flash loader: The loader's JSON needs"));
        QVERIFY(messages[2].startsWith("Cannot read stub data from /nonexistent/stub.elf: "));
        for (const QList<QVariant> &error : errors)
            QCOMPARE(error.first().toInt(), int(ESPTool::BadRequest));
        QCOMPARE(session.chip().commandLog().size(), 0);

        QSignalSpy progress(&session.tool, &ESPTool::operationProgress);
        QVERIFY(session.tool.write_loader_stub(generatedStubPath()));
        // .text of 0x2100 bytes takes two RAM blocks, .data of 0x200 one; sequences per section.
        QVector<quint32> blocks;
        for (const auto &record : session.chip().commandLog()) {
            if (record.opcode == ESPTool::ESP_MEM_DATA)
                blocks << record.dataSize << record.sequence;
        }
        QCOMPARE(blocks, (QVector<quint32>{0x1800, 0, 0x900, 1, 0x200, 0}));
        QCOMPARE(progress.last(), (QList<QVariant>{0x2300, 0x2300}));
        // A running stub is never replaced, and nothing is sent for the attempt.
        session.chip().clearCommandLog();
        QVERIFY(!session.tool.write_loader_stub(generatedStubPath()));
        QCOMPARE(texts(errors).value(3), QStringLiteral("Cannot re-load stub"));
        QCOMPARE(errors.last().first().toInt(), int(ESPTool::WrongLoader));
        QCOMPARE(session.chip().commandLog().size(), 0);
        // A read of more packets than may be in flight, from and to odd places.
        QBuffer out;
        out.open(QIODevice::WriteOnly);
        QByteArray digest;
        session.tool.read_flash(0x1234, 0x41000 + 100, &out, &digest);
        QCOMPARE(out.data(), contents.mid(0x1234, 0x41000 + 100));
        QCOMPARE(digest, QCryptographicHash::hash(out.data(), QCryptographicHash::Md5));
        QCOMPARE(progress.last(), (QList<QVariant>{0x41064, 0x41064}));
        QCOMPARE(session.chip().counters().acksReceived, 0x42);
        // An erase is rounded out to whole sectors.
        session.tool.erase_flash_region(0x1F00, 0x200);
        QCOMPARE(session.chip().flash(0, 0x4000), contents.left(0x1000) +
                                                      QByteArray(0x2000, char(0xFF)) +
                                                      contents.mid(0x3000, 0x1000));
        // The line speed changes, and the loader still answers.
        session.tool.change_baudrate(921600);
        QCOMPARE(session.chip().baudRate(), 921600u);
        QVERIFY(session.tool.portInfo().endsWith("@921600"));
        QVERIFY(session.lineIsClean());
        // The first byte written changes behind the loader's back before the digest is asked.
        VirtualEsp8266 &chip = session.chip();
        chip.setCommandObserver([&chip](const VirtualEsp8266::CommandRecord &record) {
            if (record.opcode == VirtualEsp8266::FlashData ||
                record.opcode == VirtualEsp8266::FlashDeflData)
                chip.setFlash(0x20000, "X");
        });
        const QByteArray data(0x1000, 'd');
        QVERIFY(!write(session.tool, data, 0x20000));
        QCOMPARE(texts(errors).mid(4), // after the refusals alone
                 QStringList{"Flashing failed: incorrect MD5 (saved " + md5Hex(data) +
                             " vs returned " + md5Hex("X" + data.mid(1)) + ")"});
        QCOMPARE(errors.last().first().toInt(), int(ESPTool::BadRequest));
    }

    void scriptedLoaderFaults_data()
    {
        QTest::addColumn<QByteArray>("greeting");
        QTest::addColumn<QByteArray>("stream"); // the packets that follow the READ_FLASH answer
        QTest::addColumn<uint>("size");
        QTest::addColumn<QStringList>("messages");
        QTest::addColumn<int>("code");
        const QByteArray full = ESPProtocol::encode(QByteArray(4096, 'a'));
        // Of a read of a register, an answer to another command arrives first, the right one late.
        QTest::newRow("stray answer ends the only wait")
            << QByteArray("OHAI") << QByteArray() << 0u
            << QStringList{"No response for 0x0a command",
                           "Invalid reply to the READ_REG command - expected 4 bytes, received 0"}
            << int(ESPTool::NoAnswer);
        QTest::newRow("wrong greeting")
            << QByteArray("HELLO") << QByteArray() << 0u
            << QStringList{"Stub failed to start - OHAI not received"} << int(ESPTool::NoAnswer);
        QTest::newRow("short packet before the last")
            << QByteArray("OHAI") << full + ESPProtocol::encode(QByteArray(2048, 'b')) << 3u * 4096
            << QStringList{"Corrupt data, received 0x00000800 of expected 0x00001000 bytes"}
            << int(ESPTool::MalformedAnswer);
        QTest::newRow("digest in the batch of the last packet")
            << QByteArray("OHAI") << full + full + ESPProtocol::encode(QByteArray(16, 'd'))
            << 2u * 4096
            << QStringList{"Corrupt data, received 0x00000010 of expected 0x00001000 bytes"}
            << int(ESPTool::MalformedAnswer);
    }

    void scriptedLoaderFaults()
    {
        QFETCH(QByteArray, greeting);
        QFETCH(QByteArray, stream);
        QFETCH(uint, size);
        // Just enough of ROM and loader to reach READ_FLASH.
        ScriptedPeer peer([&](const QByteArray &request) -> QList<Reply> {
            const quint8 op = quint8(request.at(1));
            if (op == ESPTool::ESP_SYNC)
                return ScriptedPeer::syncBurst();
            if (op == ESPTool::ESP_READ_REG)
                return {{ok(0x09), 0}, {ScriptedPeer::success(op, 7), 100}};
            if (op == ESPTool::ESP_MEM_END)
                return {{ok(op), 0}, {ESPProtocol::encode(greeting), 20}};
            return {{ok(op), 0}, {op == ESPTool::ESP_READ_FLASH ? stream : QByteArray(), 20}};
        });
        ESPTool tool;
        QVERIFY(tool.esp_connect(peer.port()));
        QSignalSpy errors(&tool, &ESPTool::operationError);
        QByteArray digest;
        QCOMPARE(tool.write_loader_stub(loaderStubPath()), greeting == "OHAI");
        if (size)
            tool.read_flash(0, size, nullptr, &digest);
        else if (tool.isStubRunning())
            QCOMPARE(tool.read_reg(efuseWord0), 0xFFFFFFFFu);
        QTEST(texts(errors), "messages");
        QTEST(errors.first().first().toInt(), "code");
        QVERIFY(digest.isEmpty());
    }

    void resetIntoBootLoader_data()
    {
        QTest::addColumn<int>("bootHoldMs"); // how long the board needs GPIO0 low after EN rose
        QTest::addColumn<int>("sequences");
        QTest::addColumn<bool>("connected");
        QTest::newRow("classic timing") << 30 << 1 << true;
        QTest::newRow("slow board: second try holds longer") << 300 << 2 << true;
        QTest::newRow("no boot mode at all") << 5000 << 2 << false;
    }

    void resetIntoBootLoader()
    {
        QFETCH(int, bootHoldMs);
        QFETCH(int, sequences);
        VirtualEsp8266::Config config;
        config.gpio0SampleDelayMs = bootHoldMs;
        Session session(config); // powered up into its firmware
        QVERIFY(session.fixture.start());
        QVector<QPair<bool, bool>> lines; // (DTR, RTS) on their way to the chip's reset circuit
        const QString port = session.fixture.port();
        const quint64 registration = ModemLineRegistry::add(port, [&](bool dtr, bool rts) {
            lines.append({dtr, rts});
            session.chip().setModemLines(dtr, rts);
        });
        const auto unregister = qScopeGuard([&] { ModemLineRegistry::remove(port, registration); });
        QSignalSpy notices(&session.tool, &ESPTool::notice);
        QTEST(session.tool.esp_connect(port, throughReset()), "connected");
        // Each try: EN low, then EN released with GPIO0 low, then GPIO0 released.
        QVector<QPair<bool, bool>> expected;
        for (int i = 0; i < sequences; ++i)
            expected += {{false, true}, {true, false}, {false, false}};
        QCOMPARE(lines, expected);
        QCOMPARE(notices.count(), 0);
        if (!session.tool.isConnected() || session.tool.isFailed()) {
            QCOMPARE(session.tool.connectFailure(), ESPTool::ConnectFailure::SyncUnanswered);
            return;
        }
        QVERIFY(!session.tool.isStubRunning() && session.lineIsClean());
        // After the job: an EN pulse with GPIO0 released starts the firmware.
        lines.clear();
        QVERIFY(session.tool.hard_reset());
        QCOMPARE(lines, (QVector<QPair<bool, bool>>{{false, true}, {false, false}}));
        QTRY_COMPARE(session.chip().loaderState(), VirtualEsp8266::LoaderState::Firmware);
        QCOMPARE(session.tool.read_reg(efuseWord0), 0xFFFFFFFFu); // the firmware does not answer
    }

    void portWithoutModemLines()
    {
        Session session({}, VirtualBoard::Wiring::Jig);
        QVERIFY(session.fixture.start());
        QSignalSpy notices(&session.tool, &ESPTool::notice);
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        // A pseudo-terminal has no DTR/RTS: the reset is skipped, said once, and the board in
        // boot mode is reached all the same, its boot message notwithstanding.
        QVERIFY(session.tool.esp_connect(session.fixture.port(), throughReset()));
        QVERIFY(!session.tool.hard_reset());
        QCOMPARE(notices.count(), 1);
        QVERIFY(notices.first().first().toString().contains("no modem lines"));
        QCOMPARE(errors.count(), 0);
        QVERIFY(session.lineIsClean());
    }

    void reconnectToRunningLoader()
    {
        Session session;
        QVERIFY(session.start(true));
        QVERIFY(session.tool.switch_baudrate(921600)); // the loader stays at the fast rate
        session.tool.esp_disconnect();
        session.chip().setFlash(0, "abc");
        // Without a reset the loader of the last session answers; it is used as it is.
        QSignalSpy notices(&session.tool, &ESPTool::notice);
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QVERIFY(session.tool.esp_connect(session.fixture.port()));
        QVERIFY(session.tool.isStubRunning());
        QCOMPARE(notices.count(), 1);
        QCOMPARE(session.tool.get_flash_md5(0, 3),
                 QCryptographicHash::hash("abc", QCryptographicHash::Md5));
        QCOMPARE(errors.count(), 0);
        // With a reset it is the ROM again.
        QVERIFY(session.tool.esp_connect(session.fixture.port(), throughReset()));
        QVERIFY(!session.tool.isStubRunning());
        QCOMPARE(session.chip().loaderState(), VirtualEsp8266::LoaderState::RomLoader);
        // A refused synchronisation, a single answer like a loader's, is no running loader:
        // the retry finds the ROM.
        QByteArray refusal = QByteArray::fromHex("0108020000000000") + QByteArray("\x01\x05", 2);
        refusal = ESPProtocol::encode(refusal);
        std::atomic<int> syncs{0};
        ScriptedPeer peer([&](const QByteArray &request) -> QList<Reply> {
            if (quint8(request.at(1)) != ESPTool::ESP_SYNC)
                return {};
            return ++syncs == 1 ? QList<Reply>{{refusal, 0}} : ScriptedPeer::syncBurst();
        });
        ESPTool tool;
        QSignalSpy peerNotices(&tool, &ESPTool::notice);
        QVERIFY(tool.esp_connect(peer.port()));
        QVERIFY(!tool.isStubRunning());
        QCOMPARE(peerNotices.count(), 0);
        QCOMPARE(syncs.load(), 2);
    }

    void baudSwitch_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<uint>("baud"); // the rate both ends run at afterwards
        QTest::newRow("switched") << QString() << 921600u;
        QTest::newRow("refused: stays at 115200") << "refused" << 115200u;
        QTest::newRow("ignored, as by a loader that does not know it: stays at 115200")
            << "ignored" << 115200u;
    }

    void baudSwitch()
    {
        QFETCH(QString, fault);
        QFETCH(uint, baud);
        Session session;
        QVERIFY(session.start(true));
        if (fault == "refused")
            session.chip().armErrorStatus(1);
        else if (fault == "ignored")
            session.chip().armIgnoreCommand(1);
        QSignalSpy notices(&session.tool, &ESPTool::notice);
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QVERIFY(session.tool.switch_baudrate(921600));
        QCOMPARE(session.chip().baudRate(), baud);
        QVERIFY(session.tool.portInfo().endsWith(QStringLiteral("@%1").arg(baud)));
        QCOMPARE(texts(notices, 0), fault.isEmpty()
                                        ? QStringList()
                                        : QStringList{"The board did not switch to 921600 baud; "
                                                      "staying at 115200 baud"});
        QCOMPARE(errors.count(), 0);
        QVERIFY(!session.tool.isFailed());
        QVERIFY(session.lineIsClean());
    }

    void compressedWrites_data()
    {
        QTest::addColumn<bool>("loaderTakesThem");
        QTest::newRow("loader with compressed writes") << true;
        QTest::newRow("older loader: uncompressed after one notice") << false;
    }

    void compressedWrites()
    {
        QFETCH(bool, loaderTakesThem);
        VirtualEsp8266::Config config;
        config.compressedWrites = loaderTakesThem;
        Session session(config);
        QVERIFY(session.start(true));
        // Bytes of three random bits shrink to well under half; two writes, the second off any
        // sector boundary.
        const auto compressible = [](int size, quint32 seed) {
            QByteArray bytes = EspImageBuilder::pseudoRandomBytes(size, seed);
            for (char &byte : bytes)
                byte = char(byte & 0x07);
            return bytes;
        };
        const QByteArray first = compressible(0x30000, 31);
        const QByteArray second = compressible(0x9000, 32);
        QSignalSpy notices(&session.tool, &ESPTool::notice);
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QSignalSpy progress(&session.tool, &ESPTool::operationProgress);
        session.chip().clearCounters();
        for (const auto &[address, bytes] :
             {qMakePair(0x40000u, first), qMakePair(0x80123u, second)}) {
            progress.clear();
            QVERIFY(write(session.tool, bytes, address));
            QCOMPARE(session.chip().flash(address, quint32(bytes.size())), bytes);
            QVERIFY(progressComplete(progress, bytes.size()));
        }
        QCOMPARE(errors.count(), 0);
        const auto &commands = session.chip().counters().commands;
        const qint64 sent = session.chip().counters().bytesIn;
        const int total = first.size() + second.size();
        if (loaderTakesThem) {
            QCOMPARE(commands.value(VirtualEsp8266::FlashData), 0);
            QVERIFY2(sent < total / 2, qPrintable(QString::number(sent)));
        } else {
            // Refused once; the second write does not ask again.
            QCOMPARE(commands.value(VirtualEsp8266::FlashDeflBegin), 1);
            QCOMPARE(commands.value(VirtualEsp8266::FlashDeflData), 0);
            QVERIFY2(sent > total, qPrintable(QString::number(sent)));
        }
        QCOMPARE(texts(notices, 0),
                 loaderTakesThem ? QStringList()
                                 : QStringList{"The flash loader does not take compressed data; "
                                               "writing uncompressed"});
        QVERIFY(session.lineIsClean());
    }

    void romErasePlanCoversExactlyTheImage()
    {
        // The ROM erases s + min(h, s) sectors for a size field of s sectors (h: the sectors
        // left in the start's 64 KiB block). Every plan must erase the image's sectors and
        // nothing else, for every start and length that allows it.
        for (unsigned int startSector = 0; startSector < 40; ++startSector) {
            for (unsigned int length = 1; length <= 40 * 4096; length += 1000) {
                const unsigned int address = startSector * 4096 + (length % 3) * 100;
                bool impossible = false;
                const auto plan = ESPTool::romErasePlan(address, length, &impossible);
                const unsigned int first = address / 4096;
                const unsigned int end = (address + length + 4095) / 4096;
                QCOMPARE(impossible, end - first == 1);
                if (impossible) {
                    QVERIFY(plan.isEmpty());
                    continue;
                }
                QSet<unsigned int> erased;
                for (const ESPTool::RomErase &request : plan) {
                    const unsigned int sector = request.offset / 4096;
                    const unsigned int s = (request.sizeField + 4095) / 4096;
                    const unsigned int h = qMin(16 - sector % 16, s);
                    for (unsigned int i = 0; i < s + h; ++i)
                        erased.insert(sector + i);
                }
                QSet<unsigned int> covered;
                for (unsigned int sector = first; sector < end; ++sector)
                    covered.insert(sector);
                QVERIFY2(
                    erased == covered,
                    qPrintable(QStringLiteral("%1 bytes at 0x%2").arg(length).arg(address, 0, 16)));
                QCOMPARE(plan.last().offset, address); // the data's own begin comes last
            }
        }
    }

    void writeKeepsTheNeighbour_data()
    {
        QTest::addColumn<bool>("loader");
        QTest::newRow("flash loader") << true;
        QTest::newRow("ROM loader") << false;
    }

    void writeKeepsTheNeighbour()
    {
        QFETCH(bool, loader);
        Session session;
        QVERIFY(session.start(loader));
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        const QByteArray application = EspImageBuilder::pseudoRandomBytes(20000, 5);
        const QByteArray firmware = EspImageBuilder::pseudoRandomBytes(9248, 6);
        for (const auto &[address, bytes] :
             {qMakePair(0x3000u, application), qMakePair(0u, firmware)}) {
            session.chip().clearCounters();
            // The ROM cannot check the MD5 of what it wrote; that is its only complaint.
            QCOMPARE(write(session.tool, bytes, address), loader);
        }
        const QString noMd5 = "MD5 checksum is not supported by the ROM loader";
        // (each time followed by the mismatch against the missing digest)
        QCOMPARE(texts(errors).count(noMd5), loader ? 0 : 2);
        QCOMPARE(errors.count(), loader ? 0 : 4);
        errors.clear();
        QCOMPARE(session.chip().flash(0, 9248), firmware);
        QCOMPARE(session.chip().flash(0x3000, 20000), application);
        // The second write erased the three sectors under it and nothing else.
        QSet<quint32> erased;
        for (const auto &erase : session.chip().counters().erases) {
            for (quint32 sector = erase.offset / 4096; sector * 4096 < erase.offset + erase.size;
                 ++sector)
                erased.insert(sector);
        }
        QCOMPARE(erased, (QSet<quint32>{0, 1, 2}));

        // A lone sector cannot be erased exactly by the ROM: refused before anything is erased.
        if (!loader) {
            session.chip().clearCounters();
            QVERIFY(!write(session.tool, QByteArray(100, 's'), 0x5000));
            QVERIFY(texts(errors).value(0).startsWith(
                "The ROM loader cannot erase the single sector at 0x00005000"));
            QVERIFY(session.chip().counters().erases.isEmpty());
        }
    }

    void writeSkipsUnchangedBlocks_data()
    {
        QTest::addColumn<bool>("skip");
        QTest::addColumn<int>("changedAt"); // a sector changed on the chip; -1: none
        QTest::addColumn<QByteArray>("erases");
        QTest::addColumn<QString>("notice");
        const QString all = "4 of 4 block(s) of 64 KiB unchanged, nothing written";
        QTest::newRow("identical: nothing sent") << true << -1 << QByteArray() << all;
        QTest::newRow("one sector changed: its block only")
            << true << 0x21000 << QByteArray("120000+10000")
            << "3 of 4 block(s) of 64 KiB unchanged, not written";
        QTest::newRow("no skip: all of it")
            << false << -1 << QByteArray("100000+40000") << QString();
    }

    void writeSkipsUnchangedBlocks()
    {
        QFETCH(bool, skip);
        QFETCH(int, changedAt);
        Session session;
        QVERIFY(session.start(true));
        const QByteArray image = EspImageBuilder::pseudoRandomBytes(0x40000, 8);
        session.chip().setFlash(0x100000, image);
        if (changedAt >= 0)
            session.chip().setFlash(0x100000 + changedAt, QByteArray(4096, 'x'));
        session.tool.setSkipUnchanged(skip);
        session.chip().clearCounters();
        QSignalSpy notices(&session.tool, &ESPTool::notice);
        QSignalSpy progress(&session.tool, &ESPTool::operationProgress);
        QVERIFY(write(session.tool, image, 0x100000));
        QCOMPARE(session.chip().flash(0x100000, 0x40000), image);
        QTEST(dataOf(session.chip().counters().erases), "erases");
        QFETCH(QString, notice);
        QCOMPARE(texts(notices, 0).contains(notice), !notice.isEmpty());
        QVERIFY(progressComplete(progress, 0x40000)); // skipped bytes count too
    }

    void spiCommandCompletionPolling()
    {
        // Only a command that finishes on the tenth poll is reported; one that never does is not.
        for (const int busyReads : {8, 9, 20}) {
            VirtualEsp8266::Config config;
            config.spiBusyReads = busyReads;
            Session session(config);
            QVERIFY(session.start());
            QSignalSpy errors(&session.tool, &ESPTool::operationError);
            session.tool.run_spiflash_command(0x05, QByteArray(), 8);
            QCOMPARE(texts(errors), busyReads == 9
                                        ? QStringList{"SPI command did not complete in time"}
                                        : QStringList());
        }
    }

    void unpluggedPortEndsTheWait()
    {
        Session session;
        QVERIFY(session.start(true));
        session.chip().armSilence(0);
        QElapsedTimer sinceUnplug;
        QTimer::singleShot(200, [&] {
            session.chip().vanishNow();
            sinceUnplug.start();
        });
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        session.tool.erase_flash(); // would wait up to two minutes for an answer
        // The wait ends with the port, not with its time-out.
        QVERIFY(sinceUnplug.isValid());
        QVERIFY2(sinceUnplug.elapsed() < 100, qPrintable(QString::number(sinceUnplug.elapsed())));
        QCOMPARE(texts(errors), QStringList{"No response for 0xd0 command"});
        QVERIFY(!session.tool.isConnected());
        // The hung-up terminal no longer drives a loop of read errors: the process idles.
        const std::clock_t before = std::clock(); // the processor time of all threads
        QTest::qWait(1000);
        const double seconds = double(std::clock() - before) / CLOCKS_PER_SEC;
        QVERIFY2(seconds < 0.25, qPrintable(QString::number(seconds)));
        QCOMPARE(errors.count(), 1);
    }
};

QTEST_GUILESS_MAIN(TestEspTool)
#include "tst_esptool.moc"
