#include "chipfixture.h"
#include "tools/imagegen/espimagebuilder.h"
#include "worker/esptoolworker.h"
#include "workerharness.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

#include <memory>

// The worker driven across threads exactly as the flasher dialog drives it (queued execute()
// calls, queued signals back), against the virtual ESP8266. Whole-chip erase, verification and a
// port vanishing mid-flash are covered end to end by the dialog's tests.
namespace {

using Cmd = ESPToolWorker::Command;

// A valid firmware image saying qout (1), 1 MB (2), 26 MHz (1), with about `payload` bytes.
QByteArray firmwareImage(int payload, quint32 seed)
{
    EspImageBuilder builder;
    builder.setFlashMode(1);
    builder.setFlashSize(2);
    builder.setFlashFrequency(1);
    builder.addRandomSegment(0x40100000, payload / 8 * 4, seed);
    builder.addRandomSegment(0x3FFE8000, payload / 8 * 4, seed + 1);
    return builder.build();
}

QByteArray withHeader(QByteArray image, int byte2, int byte3)
{
    image[2] = char(byte2);
    image[3] = char(byte3);
    return image;
}

QByteArray md5(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5);
}

QString toolError(const QString &text, int code)
{
    return QStringLiteral("esptool failed: %1 (%2)").arg(text).arg(code);
}

int countOpcode(VirtualEsp8266 &chip, quint8 opcode)
{
    const auto log = chip.commandLog();
    return int(std::count_if(log.cbegin(), log.cend(),
                             [opcode](const auto &record) { return record.opcode == opcode; }));
}

// A worker harness connected to a fresh virtual chip, optionally running the stand-in loader.
struct Session
{
    explicit Session(bool stub = true, const VirtualEsp8266::Config &config = {})
        : fixture(config), stub(stub)
    {}
    bool connect()
    {
        const auto connected = harness.run(Cmd::Connect, {fixture.port()});
        return connected.result && connected.errors.isEmpty() &&
               (!stub || harness.run(Cmd::LoadStub, {generatedStubPath()}).result);
    }
    bool start() { return fixture.start() && connect(); }
    VirtualEsp8266 &chip() { return fixture.chip(); }

    ChipFixture fixture;
    WorkerHarness harness;
    bool stub;
};

} // namespace

class TestEspToolWorker : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    QString saveFile(const QString &name, const QByteArray &bytes)
    {
        QFile file(m_dir.filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size()
                   ? file.fileName()
                   : QString();
    }

    QByteArray readFile(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private slots:
    void fullSession()
    {
        Session session;
        QVERIFY(session.start());
        WorkerHarness &harness = session.harness;
        auto outcome = harness.run(Cmd::GetInfo);
        QVERIFY(outcome.result);
        const auto words = VirtualEsp8266::efuseWordsFor(session.chip().config());
        const QString chipId = QStringLiteral("%1").arg(
            (words[0] >> 24) | ((words[1] & 0xFFFFFF) << 8), 8, 16, QLatin1Char('0'));
        QCOMPARE(outcome.results, (QVariantList{"ESP8266EX", chipId, "18FE34A1B2C3",
                                                "W25Q32FV (0xef:0x4016) 4Mb", 4194304u}));

        // A data write in blocks of 0x4000, the last padded with 0xFF inside the erased region.
        session.chip().setFlash(0x10000, QByteArray(0x10000, '\0'));
        session.chip().clearCounters();
        const QByteArray app = EspImageBuilder::pseudoRandomBytes(40000, 22);
        const int progressBefore = harness.progressSpy().count();
        outcome = harness.run(Cmd::WriteData, {saveFile("app.bin", app), 0x10000u, "4MB"});
        QVERIFY(outcome.result);
        QCOMPARE(session.chip().flash(0x10000, 0x10000),
                 app + QByteArray(0xC000 - app.size(), char(0xFF)) + QByteArray(0x4000, '\0'));
        QCOMPARE(session.chip().counters().erases.first().size, 0xC000u);
        QCOMPARE(harness.progressSpy().at(progressBefore), (QList<QVariant>{app.size(), 0}));
        QCOMPARE(harness.progressSpy().last(), (QList<QVariant>{app.size(), 3 * 0x4000}));
        // An empty file is written as nothing, and its digest still compared.
        QVERIFY(harness.run(Cmd::WriteData, {saveFile("empty.bin", {}), 0x30000u, "4MB"}).result);

        // The optional third item tags the answer.
        outcome = harness.run(Cmd::FlashMd5, {0x10000u, uint(app.size()), "app"});
        QCOMPARE(outcome.results, (QVariantList{md5(app).toHex().toUpper(), "app"}));
        const QString readPath = m_dir.filePath("read.bin");
        outcome = harness.run(Cmd::ReadData, {readPath, 0x10000u, uint(app.size())});
        QVERIFY(outcome.result);
        QCOMPARE(outcome.results, QVariantList{md5(app)});
        QCOMPARE(readFile(readPath), app);
        QVERIFY(harness.run(Cmd::Disconnect).result);
        harness.drain();
        QCOMPARE(harness.finishedCommands(),
                 (QList<int>{Cmd::Connect, Cmd::LoadStub, Cmd::GetInfo, Cmd::WriteData,
                             Cmd::WriteData, Cmd::FlashMd5, Cmd::ReadData, Cmd::Disconnect}));
        QCOMPARE(harness.errorSpy().count(), 0);
    }

    void firmwareHeaderOverrides_data()
    {
        QTest::addColumn<QStringList>("texts"); // size, mode, frequency
        QTest::addColumn<int>("byte2");
        QTest::addColumn<int>("byte3");
        QTest::addColumn<bool>("warning");
        // The image itself says qout (1), 1 MB (2), 26 MHz (1).
        QTest::newRow("4MB dio 40m") << QStringList{"4MB", "dio", "40m"} << 2 << 0x40 << false;
        QTest::newRow("80m is the 40 MHz code")
            << QStringList{"2MB", "dout", "80m"} << 3 << 0x30 << false;
        QTest::newRow("unknown mode keeps the image's")
            << QStringList{"16m-c1", "fast", "20m"} << 1 << 0x52 << true;
        QTest::newRow("empty frequency keeps the image's")
            << QStringList{"4MB", "qio", ""} << 0 << 0x41 << true;
    }

    void firmwareHeaderOverrides()
    {
        QFETCH(QStringList, texts);
        QFETCH(int, byte2);
        QFETCH(int, byte3);
        QFETCH(bool, warning);
        const QByteArray image = firmwareImage(3000, uint(byte3));
        Session session;
        QVERIFY(session.start());
        const auto outcome = session.harness.run(
            Cmd::WriteFirmware, {saveFile("fw.bin", image), 0x8000u, texts[0], texts[1], texts[2]});
        const QString text =
            QStringLiteral("Invalid parameters: flash memory size (%1), mode (%2), "
                           "or frequency (%3) is invalid")
                .arg(texts[0], texts[1], texts[2]);
        QCOMPARE(outcome.errors, warning ? QStringList{text} : QStringList{});
        QVERIFY(outcome.result); // only a warning: the write goes on and its MD5 matches
        QCOMPARE(session.chip().flash(0x8000, quint32(image.size())),
                 withHeader(image, byte2, byte3));
    }

    void romLoaderWrites_data()
    {
        QTest::addColumn<bool>("firmware");
        QTest::addColumn<uint>("address");
        QTest::addColumn<int>("size");
        QTest::addColumn<uint>("erased");
        // The ROM erases n + min(16 - start sector mod 16, n) sectors for a request of n, so the
        // request is made smaller: n = 1 for 2 sectors at sector 15, n = 2 for 3 at sector 1.
        QTest::newRow("data across a 64 KiB boundary") << false << 0x2F400u << 0x1C00 << 0x2000u;
        QTest::newRow("firmware off a boundary") << true << 0x41000u << 9000 << 0x4000u;
    }

    void romLoaderWrites()
    {
        QFETCH(bool, firmware);
        QFETCH(uint, address);
        QFETCH(int, size);
        const QByteArray source = firmware ? firmwareImage(size, address)
                                           : EspImageBuilder::pseudoRandomBytes(size, address);
        // The size code given is 4 MB, the mode and frequency are kept.
        const QByteArray expected = firmware ? withHeader(source, 1, 0x41) : source;
        const QString path = saveFile("rom.bin", source);
        Session session(false);
        // Old contents of all zero bits: whatever the ROM leaves unerased shows.
        session.chip().setFlash(address / 0x1000 * 0x1000, QByteArray(0x10000, '\0'));
        QVERIFY(session.start());
        const auto outcome =
            firmware ? session.harness.run(Cmd::WriteFirmware, {path, address, "4MB", "", "keep"})
                     : session.harness.run(Cmd::WriteData, {path, address, "4MB"});
        // The ROM loader cannot report the MD5 that ends every write: the write ends false.
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.errors.last(),
                 toolError("MD5 checksum is not supported by the ROM loader", 3));
        QCOMPARE(outcome.errors.size(), firmware ? 2 : 1); // and the warning about the texts
        QCOMPARE(session.chip().flash(address, quint32(expected.size())), expected);
        QCOMPARE(countOpcode(session.chip(), VirtualEsp8266::FlashData),
                 (expected.size() + 0x3FF) / 0x400);
        const auto erases = session.chip().counters().erases;
        QCOMPARE(erases.size(), 1);
        QCOMPARE(erases.first().offset, address / 0x1000 * 0x1000);
        QTEST(erases.first().size, "erased");
    }

    void refusedFiles_data()
    {
        QTest::addColumn<int>("cmd");
        QTest::addColumn<QByteArray>("contents"); // null: the file does not exist
        QTest::addColumn<QVariantList>("rest");   // the parameters after the file
        QTest::addColumn<QString>("message");     // %1 is the file, "..." ends a known start
        const QByteArray image = firmwareImage(1000, 3);
        QTest::newRow("firmware that does not fit")
            << int(Cmd::WriteFirmware) << image << QVariantList{0x3FFC19u, "4MB", "dio", "40m"}
            << "firmware %1 (size " + QString::number(image.size()) +
                   " @ 4193305) will not fit in flash 4194304";
        QTest::newRow("data that does not fit in 512KB")
            << int(Cmd::WriteData) << QByteArray(1000, 'd') << QVariantList{0x80000u, "512KB"}
            << "Data file %1 (size 1000 @ 524288) will not fit in flash 524288";
        QTest::newRow("missing data file")
            << int(Cmd::WriteData) << QByteArray() << QVariantList{0x1000u, "4MB"}
            << "Cannot read data from %1: ...";
        QTest::newRow("firmware that is no image")
            << int(Cmd::WriteFirmware) << QByteArray("plain text, no magic")
            << QVariantList{0x1000u, "4MB", "dio", "40m"} << "Cannot read firmware from %1: ...";
        QTest::newRow("missing stub file") << int(Cmd::LoadStub) << QByteArray() << QVariantList{}
                                           << "Cannot read stub data from %1: ...";
    }

    void refusedFiles()
    {
        QFETCH(int, cmd);
        QFETCH(QByteArray, contents);
        QFETCH(QVariantList, rest);
        QFETCH(QString, message);
        const QString path =
            contents.isNull() ? m_dir.filePath("missing.bin") : saveFile("refused.bin", contents);
        Session session(cmd != Cmd::LoadStub);
        QVERIFY(session.start());
        session.chip().clearCommandLog();
        const auto outcome = session.harness.run(cmd, QVariantList{path} + rest);
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.errors.size(), 1);
        const QString expected = toolError(message.arg(path), 4);
        if (message.endsWith("..."))
            QVERIFY2(outcome.errors.first().startsWith(expected.left(expected.indexOf("..."))),
                     qPrintable(outcome.errors.first()));
        else
            QCOMPARE(outcome.errors.first(), expected);
        QCOMPARE(session.chip().commandLog().size(), 0); // nothing was sent
    }

    void packageEntriesInMemory()
    {
        QFile stubFile(generatedStubPath());
        QVERIFY(stubFile.open(QIODevice::ReadOnly));
        QByteArray image = firmwareImage(7000, 31);
        QByteArray junk("no firmware here");
        QBuffer imageBuffer(&image);
        QBuffer junkBuffer(&junk);
        QVERIFY(imageBuffer.open(QIODevice::ReadOnly) && junkBuffer.open(QIODevice::ReadOnly));
        const auto entry = [](QIODevice *device, const char *name) {
            return QVariant::fromValue(IODeviceDescriptor{device, name});
        };
        Session session(false);
        QVERIFY(session.start());
        WorkerHarness &harness = session.harness;
        QVERIFY(harness.run(Cmd::LoadStub, {entry(&stubFile, "pkg:stub.elf")}).result);
        QVERIFY(session.chip().stubRunning());
        QVERIFY(harness
                    .run(Cmd::WriteFirmware,
                         {entry(&imageBuffer, "pkg:fw.bin"), 0u, "2MB", "qio", "40m"})
                    .result);
        QCOMPARE(session.chip().flash(0, quint32(image.size())), withHeader(image, 0, 0x30));
        // Messages name the entry by its description.
        const auto outcome = harness.run(
            Cmd::WriteFirmware, {entry(&junkBuffer, "pkg:junk.bin"), 0u, "2MB", "qio", "40m"});
        QVERIFY(!outcome.result);
        QVERIFY2(outcome.errors.value(0).startsWith(
                     "esptool failed: Cannot read firmware from pkg:junk.bin: "),
                 qPrintable(outcome.errors.value(0)));
    }

    void readFailures()
    {
        Session session;
        session.chip().setFlash(0x1000, EspImageBuilder::pseudoRandomBytes(0x2000, 51));
        QVERIFY(session.start());
        const QString path = m_dir.filePath("no-such-dir/read.bin");
        QFile probe(path);
        QVERIFY(!probe.open(QIODevice::WriteOnly));
        session.chip().clearCommandLog();
        auto outcome = session.harness.run(Cmd::ReadData, {path, 0u, 0x1000u});
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.errors,
                 QStringList{QStringLiteral("Invalid parameters: cannot write to %1 (%2)")
                                 .arg(path, probe.errorString())});
        QCOMPARE(session.chip().commandLog().size(), 0);

        // Everything written to /dev/null is lost, so the file's MD5 cannot match the chip's.
        outcome = session.harness.run(Cmd::ReadData, {"/dev/null", 0x1000u, 0x2000u});
        QCOMPARE(outcome.errors,
                 QStringList{"Error reading data: MD5 digest did not match the received data"});
        // The mismatch alone does not fail the command: the caller sees it by the empty results.
        QVERIFY(outcome.result);
        QVERIFY(outcome.results.isEmpty());
    }

    void faultsDuringWrite_data()
    {
        QTest::addColumn<int>("fault");
        QTest::addColumn<QString>("message");
        // Each fault hits the third command of the write: FLASH_BEGIN, block 0, then block 1.
        QTest::newRow("chip goes silent") << 0 << toolError("No response for 0x03 command", 1);
        QTest::newRow("answer frame with a broken escape")
            << 1 << toolError("No response for 0x03 command", 1);
        QTest::newRow("error status") << 2 << QStringLiteral("Command failed: 199");
    }

    void faultsDuringWrite()
    {
        QFETCH(int, fault);
        const QByteArray data = EspImageBuilder::pseudoRandomBytes(6 * 0x4000, 61);
        const QString path = saveFile("fault.bin", data);
        Session session;
        QVERIFY(session.start());
        VirtualEsp8266 &chip = session.chip();
        chip.clearCommandLog();
        if (fault == 0)
            chip.armSilence(2);
        else if (fault == 1)
            chip.armCorruptAnswer(3, VirtualEsp8266::Corruption::BrokenEscape);
        else
            chip.armErrorStatus(3, VirtualEsp8266::StubBadSequence);
        auto outcome = session.harness.run(Cmd::WriteData, {path, 0x40000u, "4MB"});
        QVERIFY(!outcome.result);
        QTEST(outcome.errors.join('|'), "message");
        // The transfer stops at the first failure: no fourth block, no MD5 request.
        QVERIFY(countOpcode(chip, VirtualEsp8266::FlashData) <= 3);
        QCOMPARE(countOpcode(chip, VirtualEsp8266::SpiFlashMd5), 0);

        // Later commands fail without a new text, even when they fail for reasons of their own.
        outcome = session.harness.run(Cmd::WriteData, {m_dir.filePath("missing.bin"), 0u, "4MB"});
        QVERIFY(!outcome.result && outcome.errors.isEmpty());
        outcome = session.harness.run(Cmd::Disconnect);
        QVERIFY(!outcome.result && outcome.errors.isEmpty());

        // After a reset of the board a new connect recovers.
        chip.reset();
        QVERIFY(session.connect());
        QVERIFY(session.harness.run(Cmd::WriteData, {path, 0x40000u, "4MB"}).result);
        QCOMPARE(chip.flash(0x40000, quint32(data.size())), data);
    }

    void connectRetriedAfterFailedSync()
    {
        Session session(false);
        QVERIFY(session.fixture.start());
        session.chip().armSilence(0); // not in boot mode yet
        auto outcome = session.harness.run(Cmd::Connect, {session.fixture.port()});
        QVERIFY(!outcome.result);
        // Only the first of the synchronisation's reports is shown, once the connect has failed,
        // and it stands for the commands that follow on this connection.
        QCOMPARE(outcome.errors, QStringList{toolError("No response for 0x08 command", 1)});
        outcome = session.harness.run(Cmd::FlashMd5, {0u, 0x1000u});
        QVERIFY(!outcome.result && outcome.errors.isEmpty());
        // The board answers now; connecting again without a disconnect (as the dialog does)
        // opens the port afresh.
        session.chip().disarmFaults();
        QVERIFY(session.connect());
        outcome = session.harness.run(Cmd::GetInfo);
        QVERIFY(outcome.result);
        QCOMPARE(outcome.results.value(2).toString(), QStringLiteral("18FE34A1B2C3"));
    }

    void commandsQueuedRightAfterConnect()
    {
        // The dialog queues "get info" the moment "connect" succeeds. At the line rate the ROM's
        // surplus answers to the synchronisation are still arriving then; none may end the wait
        // of the first register read. Queued commands run one after another, in order.
        VirtualEsp8266::Config config;
        config.throttle = true;
        Session session(false, config);
        QVERIFY(session.fixture.start());
        WorkerHarness &harness = session.harness;
        QList<int> issued;
        for (int round = 0; round < 3; ++round) {
            harness.post(Cmd::Connect, {session.fixture.port()});
            harness.post(Cmd::GetInfo);
            issued << Cmd::Connect << Cmd::GetInfo;
        }
        QVERIFY(harness.waitForFinished(issued.size()));
        harness.drain();
        QCOMPARE(harness.errorTexts().join("|"), QString());
        QCOMPARE(harness.finishedCommands(), issued);
        for (const QList<QVariant> &call : harness.finishedSpy()) {
            QVERIFY(call.at(0).toBool());
            if (call.at(1).toInt() == Cmd::GetInfo)
                QCOMPARE(call.at(2).toList().value(2).toString(), QStringLiteral("18FE34A1B2C3"));
        }
    }
};

QTEST_GUILESS_MAIN(TestEspToolWorker)
#include "tst_esptoolworker.moc"
