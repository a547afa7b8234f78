#include "chipfixture.h"
#include "protocol/esptool.h"
#include "scriptedpeer.h"
#include "tools/imagegen/espimagebuilder.h"
#include "tools/stubgen/stubelfwriter.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

// The protocol client against the virtual ESP8266, and against a scripted peer for what a
// faithful chip never sends. The loader uploaded is the vendor's when the build could fetch it.
namespace {

constexpr unsigned int efuseWord0 = 0x3FF00050;
using Config = VirtualEsp8266::Config;

QStringList texts(const QSignalSpy &spy)
{
    QStringList result;
    for (const QList<QVariant> &call : spy)
        result << call.at(1).toString();
    return result;
}

QVector<quint32> dataSizes(const VirtualEsp8266 &chip, quint8 opcode)
{
    QVector<quint32> sizes;
    for (const auto &record : chip.commandLog()) {
        if (record.opcode == opcode)
            sizes << record.dataSize;
    }
    return sizes;
}

// A tool connected to a fresh virtual chip, optionally running the loader.
struct Session
{
    explicit Session(const Config &config = {}) : fixture(config) {}
    bool start(bool stub = false)
    {
        return fixture.start() && tool.esp_connect(fixture.port()) &&
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

QByteArray ok(quint8 op, quint32 value = 0)
{
    return ScriptedPeer::frame(ScriptedPeer::response(op, QByteArray(2, 0), value));
}

// A peer that plays ROM and stub just enough to reach READ_FLASH, then sends `dataReplies`.
ScriptedPeer::Script readFlashScript(QList<ScriptedPeer::Reply> dataReplies,
                                     QByteArray greeting = "OHAI")
{
    return [dataReplies, greeting](const QByteArray &request) -> QList<ScriptedPeer::Reply> {
        const quint8 op = quint8(request.at(1));
        if (op == ESPTool::ESP_SYNC)
            return ScriptedPeer::syncBurst();
        if (op == ESPTool::ESP_MEM_END)
            return {{ok(op), 0}, {ScriptedPeer::frame(greeting), 20}};
        if (op == ESPTool::ESP_READ_FLASH)
            return QList<ScriptedPeer::Reply>{{ok(op), 0}} + dataReplies;
        return {{ok(op), 0}};
    };
}

} // namespace

class TestEspTool : public QObject
{
    Q_OBJECT

private slots:
    void connectRetriesAfterALostAnswer()
    {
        Session session;
        QVERIFY(session.fixture.start());
        session.chip().armDropAnswer(1);
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QVERIFY(session.tool.esp_connect(session.fixture.port()));
        QCOMPARE(texts(errors), QStringList{"No response for 0x08 command"});
        QCOMPARE(session.chip().counters().commands.value(ESPTool::ESP_SYNC), 2);
        QVERIFY(session.lineIsClean()); // no surplus answer to the synchronisation is left
        QVERIFY(!session.tool.isFailed());
    }

    void connectToSilentChipFails()
    {
        Session session;
        QVERIFY(session.fixture.start());
        session.chip().armSilence(0);
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QVERIFY(!session.tool.esp_connect(session.fixture.port()));
        // Four synchronisation attempts, then six waits for the surplus answers.
        QStringList expected;
        for (int i = 0; i < 10; ++i)
            expected << QStringLiteral("No response for 0x%1 command").arg(i < 4 ? "08" : "00");
        QCOMPARE(texts(errors), expected);
        QVERIFY(session.tool.isFailed());
    }

    void badAnswersToARegisterRead_data()
    {
        QTest::addColumn<int>("corruption"); // -1: the chip falls silent
        QTest::addColumn<QStringList>("messages");
        const QString noAnswer = "No response for 0x0a command";
        const QString invalid =
            "Invalid reply to the READ_REG command - expected 4 bytes, received 0";
        QTest::newRow("silent") << -1 << QStringList{noAnswer, invalid};
        // A wrong length is refused without a report of its own.
        QTest::newRow("wrong body length")
            << int(VirtualEsp8266::Corruption::WrongLength) << QStringList{invalid};
        // A packet too short to be an answer still ends the one wait.
        QTest::newRow("shorter than a header")
            << int(VirtualEsp8266::Corruption::Truncated) << QStringList{noAnswer, invalid};
    }

    void badAnswersToARegisterRead()
    {
        QFETCH(int, corruption);
        Session session;
        QVERIFY(session.start());
        if (corruption < 0)
            session.chip().armSilence(0);
        else
            session.chip().armCorruptAnswer(1, VirtualEsp8266::Corruption(corruption));
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QCOMPARE(session.tool.read_reg(efuseWord0), 0xFFFFFFFFu);
        QTEST(texts(errors), "messages");
        QCOMPARE(errors.first().first().toInt(),
                 int(errors.count() == 2 ? ESPTool::NoAnswer : ESPTool::MalformedAnswer));
        QCOMPARE(errors.last().first().toInt(), int(ESPTool::MalformedAnswer));
    }

    void commandErrorCarriesTheLoadersCode_data()
    {
        QTest::addColumn<bool>("stub");
        QTest::addColumn<int>("code");
        QTest::newRow("ROM: code in the last byte") << false << 0x05;
        QTest::newRow("stub: code in the status byte") << true << 0xC4;
    }

    void commandErrorCarriesTheLoadersCode()
    {
        QFETCH(bool, stub);
        QFETCH(int, code);
        Session session;
        QVERIFY(session.start(stub));
        session.chip().armErrorStatus(1, quint8(code));
        QSignalSpy commandErrors(&session.tool, &ESPTool::commandError);
        session.tool.write_reg(0x60000240, 1, 0xFFFFFFFF, 0);
        QCOMPARE(commandErrors.count(), 1);
        QCOMPARE(commandErrors.first().first().toInt(), code);
        QVERIFY(session.tool.isFailed());
    }

    void strayAnswerEndsTheOnlyWait()
    {
        ScriptedPeer peer([](const QByteArray &request) -> QList<ScriptedPeer::Reply> {
            const quint8 op = quint8(request.at(1));
            if (op == ESPTool::ESP_SYNC)
                return ScriptedPeer::syncBurst();
            // An answer to another command arrives first; the right one follows too late.
            return {{ok(0x09), 0}, {ok(op, 7), 100}};
        });
        ESPTool tool;
        QVERIFY(tool.esp_connect(peer.port()));
        QSignalSpy errors(&tool, &ESPTool::operationError);
        QCOMPARE(tool.read_reg(efuseWord0), 0xFFFFFFFFu);
        QCOMPARE(texts(errors).value(0), QStringLiteral("No response for 0x0a command"));
    }

    void readFlashStreamsWithAcknowledgements_data()
    {
        QTest::addColumn<uint>("offset");
        QTest::addColumn<uint>("size");
        QTest::newRow("1 MiB, many packets in flight") << 0u << 0x100000u;
        QTest::newRow("odd region") << 0x1234u << 10000u;
    }

    void readFlashStreamsWithAcknowledgements()
    {
        QFETCH(uint, offset);
        QFETCH(uint, size);
        Session session;
        const QByteArray contents = EspImageBuilder::pseudoRandomBytes(int(offset + size), size);
        session.chip().setFlash(0, contents);
        QVERIFY(session.start(true));
        QSignalSpy progress(&session.tool, &ESPTool::operationProgress);
        QBuffer out;
        out.open(QIODevice::WriteOnly);
        QByteArray digest;
        session.tool.read_flash(offset, size, &out, &digest);
        QVERIFY(!session.tool.isFailed());
        QCOMPARE(out.data(), contents.mid(int(offset)));
        QCOMPARE(digest, QCryptographicHash::hash(out.data(), QCryptographicHash::Md5));
        QCOMPARE(progress.first(), (QList<QVariant>{size, 0}));
        QCOMPARE(progress.last(), (QList<QVariant>{size, size}));
        QCOMPARE(session.chip().counters().acksReceived, int((size + 4095) / 4096));
    }

    void readFlashRefusesShortPacketsAndLateDigest_data()
    {
        QTest::addColumn<uint>("size");
        QTest::addColumn<QByteArray>("stream");
        QTest::addColumn<QString>("message");
        const QByteArray full = ScriptedPeer::frame(QByteArray(4096, 'a'));
        QTest::newRow("short packet before the last")
            << 3u * 4096 << full + ScriptedPeer::frame(QByteArray(2048, 'b'))
            << "Corrupt data, received 0x00000800 of expected 0x00001000 bytes";
        QTest::newRow("digest in the batch of the last packet")
            << 2u * 4096 << full + full + ScriptedPeer::frame(QByteArray(16, 'd'))
            << "Corrupt data, received 0x00000010 of expected 0x00001000 bytes";
    }

    void readFlashRefusesShortPacketsAndLateDigest()
    {
        QFETCH(uint, size);
        QFETCH(QByteArray, stream);
        QFETCH(QString, message);
        ScriptedPeer peer(readFlashScript({{stream, 20}}));
        ESPTool tool;
        QVERIFY(tool.esp_connect(peer.port()));
        QVERIFY(tool.write_loader_stub(loaderStubPath()));
        QSignalSpy errors(&tool, &ESPTool::operationError);
        QByteArray digest;
        tool.read_flash(0, size, nullptr, &digest);
        QCOMPARE(texts(errors), QStringList{message});
        QCOMPARE(errors.first().first().toInt(), int(ESPTool::MalformedAnswer));
        QVERIFY(digest.isEmpty());
    }

    void romLoaderRefusesStubServices()
    {
        Session session;
        session.chip().setFlash(0, QByteArray(0x2000, '\0'));
        QVERIFY(session.start());
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QSignalSpy commandErrors(&session.tool, &ESPTool::commandError);
        session.chip().clearCommandLog();
        QVERIFY(session.tool.get_flash_md5(0, 0x1000).isEmpty());
        QCOMPARE(session.chip().commandLog().size(), 0); // nothing was sent
        session.tool.change_baudrate(921600);            // nothing happens
        QCOMPARE(session.chip().commandLog().size(), 0);
        QVERIFY(session.tool.portInfo().endsWith("@115200"));
        // An erase is reported, and still sent: the ROM's own refusal follows.
        session.tool.erase_flash_region(0, 0x1000);
        QCOMPARE(texts(errors), (QStringList{"MD5 checksum is not supported by the ROM loader",
                                             "Flash erase command is unsupported in ROM loader"}));
        QCOMPARE(errors.at(0).first().toInt(), int(ESPTool::WrongLoader));
        QCOMPARE(errors.at(1).first().toInt(), int(ESPTool::WrongLoader));
        QCOMPARE(commandErrors.count(), 1);
        QCOMPARE(session.chip().counters().commands.value(ESPTool::ESP_ERASE_REGION), 1);
        QCOMPARE(session.chip().flash(0, 0x2000), QByteArray(0x2000, '\0'));
    }

    void identification_data()
    {
        QTest::addColumn<int>("model");
        QTest::addColumn<QByteArray>("mac");
        QTest::addColumn<QByteArray>("jedec");
        QTest::addColumn<bool>("stub");
        QTest::addColumn<QStringList>("texts"); // chip, flash
        QTest::addColumn<uint>("flashSize");
        using Model = VirtualEsp8266::Model;
        QTest::newRow("ESP8266EX, OUI 18FE34, known flash")
            << int(Model::Esp8266EX) << QByteArray::fromHex("18fe34a1b2c3")
            << QByteArray::fromHex("ef4016") << false
            << QStringList{"ESP8266EX", "W25Q32FV (0xef:0x4016) 4Mb"} << 4194304u;
        QTest::newRow("ESP8285, OUI ACD074, through the stub")
            << int(Model::Esp8285) << QByteArray::fromHex("acd074010203")
            << QByteArray::fromHex("ef4018") << true
            << QStringList{"ESP8285", "W25Q128FV (0xef:0x4018) 16Mb"} << 16777216u;
        QTest::newRow("custom OUI from word 3, unknown flash guessed")
            << int(Model::Esp8266EX) << QByteArray::fromHex("aabbcc102030")
            << QByteArray::fromHex("c84016") << false
            << QStringList{"ESP8266EX", "NONAME (0xc8:0x4016) 4Mb(?)"} << 4194304u;
        QTest::newRow("flash capacity too small to guess")
            << int(Model::Esp8266EX) << QByteArray::fromHex("18fe34000001")
            << QByteArray::fromHex("ef400a") << false
            << QStringList{"ESP8266EX", "NONAME (0xef:0x400a) ?K"} << 0u;
    }

    void identification()
    {
        QFETCH(int, model);
        QFETCH(QByteArray, mac);
        QFETCH(QByteArray, jedec);
        QFETCH(bool, stub);
        Config config;
        config.model = VirtualEsp8266::Model(model);
        config.mac = mac;
        config.jedecId = jedec;
        config.statusRegisters = {{0x12, 0x34, 0x56}};
        Session session(config);
        QVERIFY(session.start(stub));
        const auto words = VirtualEsp8266::efuseWordsFor(config);
        const ESPTool::SPIFLASH_IDENTIFIER flash = session.tool.get_flash_id();
        QTEST((QStringList{session.tool.get_chip_description(), flash.toString()}), "texts");
        QTEST(flash.flashSizeGuess(), "flashSize");
        QCOMPARE(session.tool.get_chip_id(), (words[0] >> 24) | ((words[1] & 0xFFFFFF) << 8));
        QCOMPARE(session.tool.get_chip_mac(), mac);
        QByteArray efuses; // words 3 to 0, each big-endian
        for (int i = 3; i >= 0; --i)
            efuses += QByteArray::number(words[i], 16).rightJustified(8, '0');
        QCOMPARE(session.tool.get_efuses().toHex(), efuses);
        // The status registers go into one word, lowest first; 0xFF where none was read.
        QCOMPARE(session.tool.spiflash_status(0), 0xFFFFFFu);
        QCOMPARE(session.tool.spiflash_status(2), 0xFF3412u);
        QVERIFY(session.lineIsClean());
    }

    void spiCommandRegisters()
    {
        ScriptedPeer peer([](const QByteArray &request) -> QList<ScriptedPeer::Reply> {
            const quint8 op = quint8(request.at(1));
            if (op == ESPTool::ESP_SYNC)
                return ScriptedPeer::syncBurst();
            // Registers read 0xAB, and the command register reads "done" at once.
            const quint32 address = qFromLittleEndian<quint32>(request.constData() + 8);
            return {{ok(op, address == 0x60000200 ? 0 : 0xAB), 0}};
        });
        ESPTool tool;
        QVERIFY(tool.esp_connect(peer.port()));
        QCOMPARE(tool.run_spiflash_command(0x9F, QByteArray(), 24), 0xABu);
        QVERIFY(!tool.isFailed());
        QStringList writes;
        for (const QByteArray &request : peer.requests()) {
            if (quint8(request.at(1)) == ESPTool::ESP_WRITE_REG)
                writes << QStringLiteral("%1=%2")
                              .arg(qFromLittleEndian<quint32>(request.constData() + 8), 0, 16)
                              .arg(qFromLittleEndian<quint32>(request.constData() + 12), 0, 16);
        }
        // 24 read bits, an 8-bit command, no data, start; then user and user 2 restored.
        QCOMPARE(writes,
                 (QStringList{"60000220=1700", "6000021c=90000000", "60000224=7000009f",
                              "60000240=0", "60000200=40000", "6000021c=ab", "60000224=ab"}));
    }

    void spiCommandCompletionPolling_data()
    {
        QTest::addColumn<int>("busyReads");
        QTest::addColumn<QStringList>("messages");
        QTest::newRow("finishes on the ninth poll") << 8 << QStringList{};
        // Only a command that finishes on the tenth poll is reported; one that never does is not.
        QTest::newRow("finishes on the tenth poll")
            << 9 << QStringList{"SPI command did not complete in time"};
        QTest::newRow("never finishes") << 20 << QStringList{};
    }

    void spiCommandCompletionPolling()
    {
        Config config;
        QFETCH(int, busyReads);
        config.spiBusyReads = busyReads;
        Session session(config);
        QVERIFY(session.start());
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        session.tool.run_spiflash_command(0x05, QByteArray(), 8);
        QTEST(texts(errors), "messages");
    }

    void eraseRegionRounding()
    {
        Session session;
        session.chip().setFlash(0, QByteArray(0x30000, '\0'));
        QVERIFY(session.start(true));
        session.chip().clearCounters();
        session.tool.erase_flash_region(0x1F00, 0x200); // rounded out to whole sectors
        QVERIFY(!session.tool.isFailed());
        const auto erases = session.chip().counters().erases;
        QCOMPARE(erases.size(), 1);
        QCOMPARE(erases.first().kind, VirtualEsp8266::EraseKind::Region);
        QCOMPARE(erases.first().offset, 0x1000u);
        QCOMPARE(erases.first().size, 0x2000u);
        QCOMPARE(session.chip().flash(0, 0x4000), QByteArray(0x1000, '\0') +
                                                      QByteArray(0x2000, char(0xFF)) +
                                                      QByteArray(0x1000, '\0'));
    }

    void unpluggedPortEndsTheWait()
    {
        Session session;
        QVERIFY(session.start(true));
        session.chip().armSilence(0);
        QTimer::singleShot(200, [&] { session.chip().vanishNow(); });
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QElapsedTimer elapsed;
        elapsed.start();
        session.tool.erase_flash(); // would wait up to two minutes for an answer
        // Not a speed check: only whether the wait ended with the port instead of its time-out.
        QVERIFY2(elapsed.elapsed() < 30000, qPrintable(QString::number(elapsed.elapsed())));
        QCOMPARE(texts(errors), QStringList{"No response for 0xd0 command"});
        QVERIFY(!session.tool.isConnected());
    }

    void stubUploadInRamBlocks()
    {
        Session session;
        QVERIFY(session.start());
        session.chip().clearCommandLog();
        QSignalSpy progress(&session.tool, &ESPTool::operationProgress);
        QVERIFY(session.tool.write_loader_stub(generatedStubPath()));
        QVERIFY(session.tool.isStubRunning());
        QVERIFY(session.chip().stubRunning());
        // .text of 0x2100 bytes takes two RAM blocks, .data of 0x200 one; sequences per section.
        QVector<quint32> sequences;
        for (const auto &record : session.chip().commandLog()) {
            if (record.opcode == ESPTool::ESP_MEM_DATA)
                sequences << record.sequence;
        }
        QCOMPARE(dataSizes(session.chip(), ESPTool::ESP_MEM_DATA),
                 (QVector<quint32>{0x1800, 0x900, 0x200}));
        QCOMPARE(sequences, (QVector<quint32>{0, 1, 0}));
        QCOMPARE(dataSizes(session.chip(), ESPTool::ESP_MEM_BEGIN).size(), 2);
        QCOMPARE(progress.last(), (QList<QVariant>{0x2300, 0x2300}));

        // A running stub is never replaced, and nothing is sent for the attempt.
        session.chip().clearCommandLog();
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QVERIFY(!session.tool.write_loader_stub(generatedStubPath()));
        QCOMPARE(texts(errors), QStringList{"Cannot re-load stub"});
        QCOMPARE(errors.first().first().toInt(), int(ESPTool::WrongLoader));
        QCOMPARE(session.chip().commandLog().size(), 0);

        // The line speed can change now, and the loader still answers.
        session.tool.change_baudrate(921600);
        QCOMPARE(session.chip().baudRate(), 921600u);
        QVERIFY(session.tool.portInfo().endsWith("@921600"));
        QVERIFY(session.lineIsClean());
    }

    void stubRefused_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("messageStart");
        StubElfWriter noData;
        noData.setText(0x4010E000, QByteArray(64, 'x'));
        QTest::newRow("no .data section")
            << noData.toBytes() << "Invalid flash loader: the .data section is missing";
        QTest::newRow("not an ELF file")
            << QByteArray("just some text") << "Invalid flash loader: Not an ELF file";
        QTest::newRow("JSON without addresses") << QByteArray(R"({"text": "AAAA", "data": "AAAA"})")
                                                << "Invalid flash loader: The loader's JSON needs";
    }

    void stubRefused()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, messageStart);
        Session session;
        QVERIFY(session.start());
        session.chip().clearCommandLog();
        QSignalSpy errors(&session.tool, &ESPTool::operationError);
        QBuffer buffer(&content);
        buffer.open(QIODevice::ReadOnly);
        QVERIFY(!session.tool.write_loader_stub(&buffer));
        QCOMPARE(errors.count(), 1);
        QCOMPARE(errors.first().first().toInt(), int(ESPTool::BadRequest));
        QVERIFY2(texts(errors).first().startsWith(messageStart), qPrintable(texts(errors).first()));
        QCOMPARE(session.chip().commandLog().size(), 0);
        QVERIFY(!session.tool.isStubRunning());

        QTemporaryDir dir;
        const QString missing = dir.filePath(QStringLiteral("missing.elf"));
        QVERIFY(!session.tool.write_loader_stub(missing));
        QVERIFY(texts(errors).last().startsWith(
            QStringLiteral("Cannot read stub data from %1: ").arg(missing)));
    }

    void stubWithWrongGreeting()
    {
        ScriptedPeer peer(readFlashScript({}, "HELLO"));
        ESPTool tool;
        QVERIFY(tool.esp_connect(peer.port()));
        QSignalSpy errors(&tool, &ESPTool::operationError);
        QVERIFY(!tool.write_loader_stub(loaderStubPath()));
        QCOMPARE(texts(errors), QStringList{"Stub failed to start - OHAI not received"});
        QCOMPARE(errors.first().first().toInt(), int(ESPTool::NoAnswer));
        QVERIFY(!tool.isStubRunning());
    }
};

QTEST_GUILESS_MAIN(TestEspTool)
#include "tst_esptool.moc"
