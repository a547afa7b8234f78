#include "chipfixture.h"
#include "tools/imagegen/espimagebuilder.h"
#include "worker/esptoolworker.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

// The worker: parameter checks (each refusal gives its exact message and one finished(false)
// without touching the unconnected client), then in its own thread against the virtual ESP8266.
// Whole-chip erase, verification and a port vanishing mid-flash are also covered end to end by
// the dialog's tests.
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

// A worker in a thread of its own and a fresh virtual chip, driven as the dialog drives the
// worker: every command a queued execute() call (so commands also arrive while another one
// waits for the chip), every signal delivered back queued into the test's thread, where it is
// recorded in the shape of a QSignalSpy.
struct Session
{
    struct Outcome
    {
        bool result = false;
        QVariantList results;
        QStringList errors; // error() texts emitted since the command was queued
    };

    explicit Session(bool stub = true, const VirtualEsp8266::Config &config = {})
        : fixture(config), worker(new ESPToolWorker), stub(stub)
    {
        worker->moveToThread(&thread);
        QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
        QObject::connect(
            worker, &ESPToolWorker::error, &receiver,
            [this](const QString &reason) { errors.append({reason}); }, Qt::QueuedConnection);
        QObject::connect(
            worker, &ESPToolWorker::progress, &receiver,
            [this](int total, int current) {
                progress.append({total, current});
            },
            Qt::QueuedConnection);
        QObject::connect(
            worker, &ESPToolWorker::finished, &receiver,
            [this](bool result, int cmd, const QVariantList &params) {
                finished.append({result, cmd, params});
            },
            Qt::QueuedConnection);
        thread.start();
    }
    ~Session()
    {
        thread.quit();
        thread.wait();
    }
    void post(int cmd, const QVariantList &params = {})
    {
        QMetaObject::invokeMethod(worker, "execute", Qt::QueuedConnection, Q_ARG(int, cmd),
                                  Q_ARG(QVariantList, params));
    }
    bool waitForFinished(int total)
    {
        return QTest::qWaitFor([&] { return finished.count() >= total; }, 30000);
    }
    Outcome run(int cmd, const QVariantList &params = {})
    {
        const int errorsBefore = errors.count();
        const int finishedBefore = finished.count();
        post(cmd, params);
        Outcome outcome;
        if (!waitForFinished(finishedBefore + 1))
            return outcome;
        // error() precedes finished() from the worker thread, and queued delivery keeps order.
        outcome.result = finished.at(finishedBefore).at(0).toBool();
        outcome.results = finished.at(finishedBefore).at(2).toList();
        for (int i = errorsBefore; i < errors.count(); ++i)
            outcome.errors << errors.at(i).at(0).toString();
        return outcome;
    }
    bool connect()
    {
        const Outcome connected = run(Cmd::Connect, {fixture.port()});
        return connected.result && connected.errors.isEmpty() &&
               (!stub || run(Cmd::LoadStub, {generatedStubPath()}).result);
    }
    bool start() { return fixture.start() && connect(); }
    VirtualEsp8266 &chip() { return fixture.chip(); }
    // Command codes of every finished() so far.
    QList<int> commands() const
    {
        QList<int> codes;
        for (const QList<QVariant> &call : finished)
            codes << call.at(1).toInt();
        return codes;
    }

    ChipFixture fixture;
    QThread thread;
    ESPToolWorker *worker; // lives in `thread`, deleted when it ends (before the chip stops)
    QObject receiver;      // in the test's thread: where the worker's signals arrive
    QList<QList<QVariant>> errors;
    QList<QList<QVariant>> progress;
    QList<QList<QVariant>> finished;
    bool stub;
};

} // namespace

class TestEspToolWorker : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QByteArray m_junkBytes{"no firmware here"};
    QBuffer m_junk{&m_junkBytes};

    QString saveFile(const QString &name, const QByteArray &bytes)
    {
        QFile file(m_dir.filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size()
                   ? file.fileName()
                   : QString();
    }

private slots:
    void initTestCase() { QVERIFY(m_junk.open(QIODevice::ReadOnly)); }

    void refusedParameters_data()
    {
        QTest::addColumn<int>("cmd");
        QTest::addColumn<QVariantList>("params");
        QTest::addColumn<QString>("message");
        const QString fw = "Invalid command: provide a file, an integer address, and flash memory "
                           "size/mode/frequency for the 'write_fw' cmd";
        const QString read = "Invalid command: provide a file, an integer address and size for "
                             "the 'read_data' cmd";
        const QString erase = "Invalid command: provide an address and size, or make a 911 call.";
        const QVariant notANumber = QVariantMap{{"a", 1}};
        QTest::newRow("connect with two ports")
            << 0 << QVariantList{"a", "b"}
            << "Invalid command: provide a port name for the 'connect' cmd";
        QTest::newRow("load stub without file")
            << 2 << QVariantList{}
            << "Invalid command: provide a stub file for the 'load_stub' cmd";
        QTest::newRow("write firmware, address not a number")
            << 4 << QVariantList{"f", notANumber, "4MB", "dio", "40m"} << fw;
        QTest::newRow("write data, two items")
            << 5 << QVariantList{"f", 0u}
            << "Invalid command: provide a file, an integer address, and flash memory size for "
               "the 'write_data' cmd";
        QTest::newRow("read data, size not a number")
            << 6 << QVariantList{"f", 0u, notANumber} << read;
        QTest::newRow("read data, path not text") << 6 << QVariantList{notANumber, 0u, 16u} << read;
        QTest::newRow("erase, 0x910 is not the magic") << 7 << QVariantList{0x910u} << erase;
        QTest::newRow("md5, address not a number")
            << 8 << QVariantList{notANumber, 16u} << "Invalid command: provide an address and size";
        QTest::newRow("unknown -1") << -1 << QVariantList{1u} << "Unknown command code -1";
    }

    void refusedParameters()
    {
        QFETCH(int, cmd);
        QFETCH(QVariantList, params);
        ESPToolWorker worker;
        QSignalSpy errors(&worker, &ESPToolWorker::error);
        QSignalSpy finished(&worker, &ESPToolWorker::finished);
        worker.execute(cmd, params);
        QCOMPARE(errors.count(), 1);
        QTEST(errors.first().first().toString(), "message");
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.first(), (QList<QVariant>{false, cmd, QVariantList()}));
    }

    void namesInMessages()
    {
        QStringList names;
        for (int cmd = -1; cmd <= 9; ++cmd)
            names << ESPToolWorker::operationName(cmd);
        QCOMPARE(names, (QStringList{"unknown", "connect", "disconnect", "load stub", "get info",
                                     "write firmware", "write data", "read data", "erase flash",
                                     "flash md5", "unknown"}));
        QBuffer buffer;
        const IODeviceDescriptor descriptor{&buffer, QStringLiteral("pkg:image.bin")};
        QCOMPARE(gFileDescrString(QVariant::fromValue(descriptor)),
                 QStringLiteral("pkg:image.bin"));
        QCOMPARE(gFileDescrString(QStringLiteral("/tmp/a.bin")), QStringLiteral("/tmp/a.bin"));
    }

    void fullSession()
    {
        Session session;
        QVERIFY(session.start());
        auto outcome = session.run(Cmd::GetInfo);
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
        const int progressBefore = session.progress.count();
        outcome = session.run(Cmd::WriteData, {saveFile("app.bin", app), 0x10000u, "4MB"});
        QVERIFY(outcome.result);
        QCOMPARE(session.chip().flash(0x10000, 0x10000),
                 app + QByteArray(0xC000 - app.size(), char(0xFF)) + QByteArray(0x4000, '\0'));
        QCOMPARE(session.chip().counters().erases.first().size, 0xC000u);
        QCOMPARE(session.progress.at(progressBefore), (QList<QVariant>{app.size(), 0}));
        QCOMPARE(session.progress.last(), (QList<QVariant>{app.size(), 3 * 0x4000}));
        // An empty file is written as nothing, and its digest still compared.
        QVERIFY(session.run(Cmd::WriteData, {saveFile("empty.bin", {}), 0x30000u, "4MB"}).result);

        // The optional third item tags the answer.
        outcome = session.run(Cmd::FlashMd5, {0x10000u, uint(app.size()), "app"});
        QCOMPARE(outcome.results, (QVariantList{md5(app).toHex().toUpper(), "app"}));
        QFile read(m_dir.filePath("read.bin"));
        outcome = session.run(Cmd::ReadData, {read.fileName(), 0x10000u, uint(app.size())});
        QVERIFY(outcome.result && read.open(QIODevice::ReadOnly));
        QCOMPARE(outcome.results, QVariantList{md5(app)});
        QCOMPARE(read.readAll(), app);
        QCOMPARE(session.errors.count(), 0);

        // Firmware gets the codes asked for in its header: "80m" gives the 40 MHz code, and an
        // unknown mode keeps the image's own with a warning only; the write goes on.
        const QByteArray image = firmwareImage(3000, 5); // qout (1), 1 MB (2), 26 MHz (1)
        outcome = session.run(Cmd::WriteFirmware,
                              {saveFile("fw.bin", image), 0x40000u, "16m-c1", "fast", "80m"});
        QCOMPARE(outcome.errors, QStringList{"Invalid parameters: flash memory size (16m-c1), mode "
                                             "(fast), or frequency (80m) is invalid"});
        QVERIFY(outcome.result);
        QCOMPARE(session.chip().flash(0x40000, quint32(image.size())), withHeader(image, 1, 0x50));

        // A read into a file that cannot be written sends nothing.
        const QString unwritable = m_dir.filePath("no-such-dir/read.bin");
        QFile probe(unwritable);
        QVERIFY(!probe.open(QIODevice::WriteOnly));
        session.chip().clearCommandLog();
        outcome = session.run(Cmd::ReadData, {unwritable, 0u, 0x1000u});
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.errors, QStringList{QStringLiteral("Invalid parameters: cannot write to "
                                                            "%1 (%2)")
                                                 .arg(unwritable, probe.errorString())});
        QCOMPARE(session.chip().commandLog().size(), 0);
        // Everything written to /dev/null is lost, so the file's MD5 cannot match the chip's.
        // The mismatch alone does not fail the command: the caller sees it by the empty results.
        outcome = session.run(Cmd::ReadData, {"/dev/null", 0x1000u, 0x2000u});
        QCOMPARE(outcome.errors,
                 QStringList{"Error reading data: MD5 digest did not match the received data"});
        QVERIFY(outcome.result && outcome.results.isEmpty());
        QVERIFY(session.run(Cmd::Disconnect).result);
        QCOMPARE(session.commands(),
                 (QList<int>{Cmd::Connect, Cmd::LoadStub, Cmd::GetInfo, Cmd::WriteData,
                             Cmd::WriteData, Cmd::FlashMd5, Cmd::ReadData, Cmd::WriteFirmware,
                             Cmd::ReadData, Cmd::ReadData, Cmd::Disconnect}));
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
            firmware ? session.run(Cmd::WriteFirmware, {path, address, "4MB", "", "keep"})
                     : session.run(Cmd::WriteData, {path, address, "4MB"});
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
        QTest::addColumn<QVariant>("file");
        QTest::addColumn<QVariantList>("rest"); // the parameters after the file
        QTest::addColumn<QString>("message");   // "..." ends a known start
        const QString image = saveFile("image.bin", firmwareImage(1000, 3));
        const QString data = saveFile("data.bin", QByteArray(1000, 'd'));
        const QString missing = m_dir.filePath("missing.bin");
        const QVariantList firmwareCodes{"4MB", "dio", "40m"};
        QTest::newRow("firmware that does not fit")
            << int(Cmd::WriteFirmware) << QVariant(image) << QVariantList{0x3FFC19u} + firmwareCodes
            << "firmware " + image + " (size 1040 @ 4193305) will not fit in flash 4194304";
        QTest::newRow("data that does not fit in 512KB")
            << int(Cmd::WriteData) << QVariant(data) << QVariantList{0x80000u, "512KB"}
            << "Data file " + data + " (size 1000 @ 524288) will not fit in flash 524288";
        QTest::newRow("missing data file")
            << int(Cmd::WriteData) << QVariant(missing) << QVariantList{0u, "4MB"}
            << "Cannot read data from " + missing + ": ...";
        // Package entries come as open devices, and messages name them by their description.
        QTest::newRow("package entry that is no image")
            << int(Cmd::WriteFirmware)
            << QVariant::fromValue(IODeviceDescriptor{&m_junk, "pkg:junk.bin"})
            << QVariantList{0u} + firmwareCodes << "Cannot read firmware from pkg:junk.bin: ...";
    }

    void refusedFiles()
    {
        QFETCH(int, cmd);
        QFETCH(QVariant, file);
        QFETCH(QVariantList, rest);
        QFETCH(QString, message);
        Session session;
        QVERIFY(session.start());
        session.chip().clearCommandLog();
        const auto outcome = session.run(cmd, QVariantList{file} + rest);
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.errors.size(), 1);
        const QString expected = toolError(message, 4);
        if (message.endsWith("..."))
            QVERIFY2(outcome.errors.first().startsWith(expected.left(expected.indexOf("..."))),
                     qPrintable(outcome.errors.first()));
        else
            QCOMPARE(outcome.errors.first(), expected);
        QCOMPARE(session.chip().commandLog().size(), 0); // nothing was sent
    }

    // A chip that stops answering ends the identification at its first unanswered read instead
    // of letting every further read wait out its time-out; the five results still come.
    void identificationStopsAtTheFirstFailure()
    {
        Session session;
        QVERIFY(session.start());
        session.chip().armSilence(0);
        session.chip().clearCounters();
        const Session::Outcome info = session.run(Cmd::GetInfo);
        QVERIFY(!info.result);
        QCOMPARE(info.results.size(), 5);
        QCOMPARE(info.errors, QStringList{toolError("No response for 0x0a command", 1)});
        // One read request (14 bytes framed, a few more when escaped) went out, not dozens.
        QVERIFY2(session.chip().counters().bytesIn < 2 * 14,
                 qPrintable(QString::number(session.chip().counters().bytesIn)));
    }

    void faultsDuringWrite()
    {
        const QByteArray data = EspImageBuilder::pseudoRandomBytes(6 * 0x4000, 61);
        const QString path = saveFile("fault.bin", data);
        Session session;
        QVERIFY(session.start());
        VirtualEsp8266 &chip = session.chip();
        chip.clearCommandLog();
        chip.armErrorStatus(3, VirtualEsp8266::StubBadSequence); // FLASH_BEGIN, block 0, block 1
        auto outcome = session.run(Cmd::WriteData, {path, 0x40000u, "4MB"});
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.errors, QStringList{"Command failed: 199"});
        // The transfer stops at the first failure: no further block, no MD5 request.
        QCOMPARE(countOpcode(chip, VirtualEsp8266::FlashData), 2);
        QCOMPARE(countOpcode(chip, VirtualEsp8266::SpiFlashMd5), 0);

        // Later commands fail without a new text, even when they fail for reasons of their own.
        outcome = session.run(Cmd::WriteData, {m_dir.filePath("missing.bin"), 0u, "4MB"});
        QVERIFY(!outcome.result && outcome.errors.isEmpty());
        outcome = session.run(Cmd::Disconnect);
        QVERIFY(!outcome.result && outcome.errors.isEmpty());

        // After a reset of the board a new connect recovers; this time the loader comes from a
        // package entry.
        chip.reset();
        QFile stubFile(generatedStubPath());
        QVERIFY(stubFile.open(QIODevice::ReadOnly));
        QVERIFY(session.run(Cmd::Connect, {session.fixture.port()}).result);
        QVERIFY(
            session.run(Cmd::LoadStub, {QVariant::fromValue(IODeviceDescriptor{&stubFile, "pkg"})})
                .result);
        QVERIFY(session.run(Cmd::WriteData, {path, 0x40000u, "4MB"}).result);
        QCOMPARE(chip.flash(0x40000, quint32(data.size())), data);
    }

    void connectRetriedAfterFailedSync()
    {
        Session session(false);
        QVERIFY(session.fixture.start());
        session.chip().armSilence(0); // not in boot mode yet
        auto outcome = session.run(Cmd::Connect, {session.fixture.port()});
        QVERIFY(!outcome.result);
        // Only the first of the synchronisation's reports is shown, once the connect has failed,
        // and it stands for the commands that follow on this connection.
        QCOMPARE(outcome.errors, QStringList{toolError("No response for 0x08 command", 1)});
        outcome = session.run(Cmd::FlashMd5, {0u, 0x1000u});
        QVERIFY(!outcome.result && outcome.errors.isEmpty());
        // The board answers now; connecting again without a disconnect (as the dialog does)
        // opens the port afresh.
        session.chip().disarmFaults();
        QVERIFY(session.connect());
        outcome = session.run(Cmd::GetInfo);
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
        QList<int> issued;
        for (int round = 0; round < 3; ++round) {
            session.post(Cmd::Connect, {session.fixture.port()});
            session.post(Cmd::GetInfo);
            issued << Cmd::Connect << Cmd::GetInfo;
        }
        QVERIFY(session.waitForFinished(issued.size()));
        QCOMPARE(session.errors.count(), 0);
        QCOMPARE(session.commands(), issued);
        for (const QList<QVariant> &call : session.finished) {
            QVERIFY(call.at(0).toBool());
            if (call.at(1).toInt() == Cmd::GetInfo)
                QCOMPARE(call.at(2).toList().value(2).toString(), QStringLiteral("18FE34A1B2C3"));
        }
    }
};

QTEST_GUILESS_MAIN(TestEspToolWorker)
#include "tst_esptoolworker.moc"
