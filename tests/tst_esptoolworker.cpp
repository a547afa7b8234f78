#include "chipfixture.h"
#include "protocol/esptool.h"
#include "scattertestfiles.h"
#include "tools/imagegen/espimagebuilder.h"
#include "worker/esptoolworker.h"

#include <QSerialPort>
#include <QtTest>

// The worker: parameter checks, then in its own thread against the virtual ESP8266. Whole-chip
// erase, verification, connect options, resets, unopenable and unplugged ports are covered end
// to end by the dialog's tests; reads that fail by the command line's; the ROM loader's writes by
// the protocol client's.
Q_DECLARE_METATYPE(VirtualEsp8266::Config)

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

QString toolError(const QString &text, int code)
{
    return QStringLiteral("esptool failed: %1 (%2)").arg(text).arg(code);
}

// A worker in its own thread and a fresh virtual chip, driven as the dialog drives it: commands as
// queued execute() calls (also arriving while one waits), signals recorded in the test's thread.
struct Session
{
    struct Outcome
    {
        bool result = false;
        QVariantList results;
        QStringList errors; // error() texts emitted since the command was queued
    };

    explicit Session(const VirtualEsp8266::Config &config = {})
        : fixture(config), worker(new ESPToolWorker)
    {
        worker->moveToThread(&thread);
        QObject::connect(&thread, &QThread::finished, worker, &QObject::deleteLater);
        QObject::connect(worker, &ESPToolWorker::error, &receiver,
                         [this](const QString &reason) { errors << reason; });
        QObject::connect(worker, &ESPToolWorker::finished, &receiver,
                         [this](bool result, int cmd, const QVariantList &params) {
                             finished << QVariantList{result, cmd, params};
                         });
        QObject::connect(worker, &ESPToolWorker::connectionLost, &receiver,
                         [this](const QString &reason) { lost << reason; });
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
        post(cmd, params);
        if (!waitForFinished(finished.count() + 1))
            return Outcome();
        // error() precedes finished() from the worker thread, and queued delivery keeps order.
        return {finished.last().at(0).toBool(), finished.last().at(2).toList(),
                errors.mid(errorsBefore)};
    }
    bool start(bool stub = true)
    {
        if (!fixture.start())
            return false;
        const QVariantList params = options.isEmpty() ? QVariantList{fixture.port()}
                                                      : QVariantList{fixture.port(), options};
        const Outcome connected = run(Cmd::Connect, params);
        return connected.result && connected.errors.isEmpty() &&
               (!stub || run(Cmd::LoadStub, {generatedStubPath()}).result);
    }
    VirtualEsp8266 &chip() { return fixture.chip(); }

    QVariantMap options; // of the connect in start()
    ChipFixture fixture;
    QThread thread;
    ESPToolWorker *worker; // lives in `thread`, deleted when it ends (before the chip stops)
    QObject receiver;      // in the test's thread: where the worker's signals arrive
    QStringList errors;
    QList<QVariantList> finished;
    QStringList lost; // connectionLost() reasons
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
        return writeTestFile(m_dir.path(), name, bytes);
    }

private slots:
    void refusedParameters_data()
    {
        QTest::addColumn<int>("cmd");
        QTest::addColumn<QVariantList>("params");
        QTest::addColumn<QString>("message");
        const QString provide = "Invalid command: provide ";
        const QString fw = provide + "a file, an integer address, and flash memory "
                                     "size/mode/frequency for the 'write_fw' cmd";
        const QVariant notANumber = QVariantMap{{"a", 1}};
        const auto row = [](const char *name, int cmd, const QVariantList &params,
                            const QString &message) {
            QTest::newRow(name) << cmd << params << message;
        };
        row("connect with two ports", 0, {"a", "b"}, provide + "a port name for the 'connect' cmd");
        row("load stub without file", 2, {}, provide + "a stub file for the 'load_stub' cmd");
        row("write firmware, address not a number", 4, {"f", notANumber, "4MB", "dio", "40m"}, fw);
        row("write data, two items", 5, {"f", 0u},
            provide + "a file, an integer address, and flash memory size for the 'write_data' cmd");
        row("read data, size not a number", 6, {"f", 0u, notANumber},
            provide + "a file, an integer address and size for the 'read_data' cmd");
        row("erase, 0x910 is not the magic", 7, {0x910u},
            provide + "an address and size, or make a 911 call.");
        row("md5, address not a number", 8, {notANumber, 16u}, provide + "an address and size");
        row("unknown -1", -1, {1u}, "Unknown command code -1");
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

    void fullSession()
    {
        Session session;
        QVERIFY(session.start());
        // A data write erases only the sectors it covers; the padding of its last block leaves
        // the rest as it was. An empty file is written as nothing, its digest still compared.
        session.chip().setFlash(0x10000, QByteArray(0x10000, '\0'));
        const QByteArray app = EspImageBuilder::pseudoRandomBytes(40000, 22);
        QVERIFY(session.run(Cmd::WriteData, {saveFile("app.bin", app), 0x10000u, "4MB"}).result);
        QCOMPARE(session.chip().flash(0x10000, 0x10000),
                 app + QByteArray(0xA000 - app.size(), char(0xFF)) + QByteArray(0x6000, '\0'));
        QVERIFY(session.run(Cmd::WriteData, {saveFile("empty.bin", {}), 0x30000u, "4MB"}).result);
        // The optional third item tags the answer.
        auto outcome = session.run(Cmd::FlashMd5, {0x10000u, uint(app.size()), "app"});
        QCOMPARE(outcome.results, (QVariantList{md5Hex(app), "app"}));
        QCOMPARE(session.errors, QStringList());
        // Firmware gets the codes asked for in its header: "80m" gives the 40 MHz code, and an
        // unknown mode keeps the image's own with a warning only; the write goes on.
        const QByteArray image = firmwareImage(3000, 5); // qout (1), 1 MB (2), 26 MHz (1)
        outcome = session.run(Cmd::WriteFirmware,
                              {saveFile("fw.bin", image), 0x40000u, "16m-c1", "fast", "80m"});
        QCOMPARE(outcome.errors, QStringList{"Invalid parameters: flash memory size (16m-c1), mode "
                                             "(fast), or frequency (80m) is invalid"});
        QVERIFY(outcome.result);
        QCOMPARE(session.chip().flash(0x40000, quint32(image.size())), withHeader(image, 1, 0x50));
        // A read hands back the digest the chip confirmed; one into a file that cannot be
        // written, or into a device it would replace, sends nothing.
        const QString copy = m_dir.filePath("copy.bin");
        outcome = session.run(Cmd::ReadData, {copy, 0x10000u, uint(app.size())});
        QCOMPARE(outcome.results, QVariantList{ESPTool::get_data_md5(app)});
        QFile read(copy);
        QVERIFY(read.open(QIODevice::ReadOnly));
        QCOMPARE(read.readAll(), app);
        const QString unwritable = m_dir.filePath("no-such-dir/read.bin");
        QFile probe(unwritable);
        QVERIFY(!probe.open(QIODevice::WriteOnly));
        session.chip().clearCommandLog();
        for (const auto &[target, reason] :
             {qMakePair(unwritable, probe.errorString()),
              qMakePair(QString("/dev/null"), QString("not a regular file"))}) {
            outcome = session.run(Cmd::ReadData, {target, 0u, 0x1000u});
            QVERIFY(!outcome.result);
            QCOMPARE(outcome.errors, QStringList{"Invalid parameters: cannot write to " + target +
                                                 " (" + reason + ")"});
        }
        QCOMPARE(session.chip().commandLog().size(), 0);
        QVERIFY(session.run(Cmd::Disconnect).result);
    }

    void refusedFiles_data()
    {
        QTest::addColumn<int>("cmd");
        QTest::addColumn<QVariantList>("params");
        QTest::addColumn<QString>("message"); // "..." ends a known start
        const QString image = saveFile("image.bin", firmwareImage(1000, 3));
        const QString data = saveFile("data.bin", QByteArray(1000, 'd'));
        const QString missing = m_dir.filePath("missing.bin");
        // Package entries come as open devices, and messages name them by their description.
        QVERIFY(m_junk.open(QIODevice::ReadOnly));
        const QVariant junk = QVariant::fromValue(IODeviceDescriptor{&m_junk, "pkg:junk.bin"});
        QTest::newRow("firmware that does not fit")
            << int(Cmd::WriteFirmware) << QVariantList{image, 0x3FFC19u, "4MB", "dio", "40m"}
            << "firmware " + image + " (size 1040 @ 4193305) will not fit in flash 4194304";
        QTest::newRow("data that does not fit in 512KB")
            << int(Cmd::WriteData) << QVariantList{data, 0x80000u, "512KB"}
            << "Data file " + data + " (size 1000 @ 524288) will not fit in flash 524288";
        QTest::newRow("missing data file")
            << int(Cmd::WriteData) << QVariantList{missing, 0u, "4MB"}
            << "Cannot read data from " + missing + ": ...";
        QTest::newRow("package entry that is no image")
            << int(Cmd::WriteFirmware) << QVariantList{junk, 0u, "4MB", "dio", "40m"}
            << "Cannot read firmware from pkg:junk.bin: ...";
    }

    void refusedFiles()
    {
        QFETCH(int, cmd);
        QFETCH(QVariantList, params);
        QFETCH(QString, message);
        Session session;
        QVERIFY(session.start());
        session.chip().clearCommandLog();
        const auto outcome = session.run(cmd, params);
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

    void failureLatchesUntilTheNextConnect_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<int>("blocks"); // data blocks received before the write stopped
        QTest::addColumn<QString>("message");
        // (the loader takes the data compressed)
        QTest::newRow("error status") << "status" << 1 << "Command failed: 199";
        QTest::newRow("port vanishes")
            << "vanish" << 1 << toolError("No response for 0x11 command", 1);
        // Only the first of the synchronisation's reports is shown, once the connect failed.
        QTest::newRow("no answer to connect")
            << "silence" << 0
            << toolError("No response for 0x08 command", 1) +
                   " - the board does not answer: check that its reset circuit (DTR/RTS) is "
                   "there, or put it into boot mode by hand (GPIO0 low while it resets)";
        QTest::newRow("no answer to identification")
            << "info" << 0 << toolError("No response for 0x0a command", 1);
        // Nine register reads of the eFuses answered, then silence in the flash id's command.
        QTest::newRow("no answer to the flash id")
            << "flash id" << 0 << toolError("No response for 0x0a command", 1);
    }

    void failureLatchesUntilTheNextConnect()
    {
        QFETCH(QString, fault);
        QFETCH(QString, message);
        const QByteArray data = EspImageBuilder::pseudoRandomBytes(6 * 0x4000, 61);
        const QString path = saveFile("fault.bin", data);
        ChipFixture board; // the next one, outliving the worker
        Session session;
        VirtualEsp8266 &chip = session.chip();
        QVERIFY(board.start());
        session.options.insert(ESPToolWorker::SkipUnchangedOption, false);
        if (fault == "silence") {
            QVERIFY(session.fixture.start());
            chip.armSilence(0); // not in boot mode yet
        } else {
            QVERIFY(session.start());
        }
        chip.clearCounters();
        chip.clearCommandLog();
        if (fault == "status")
            chip.armErrorStatus(2, VirtualEsp8266::StubBadSequence); // DEFL_BEGIN, block 0
        else if (fault == "vanish")
            chip.armVanishAfterBytes(0x6000); // inside the second block
        else if (fault == "info")
            chip.armSilence(0);
        else if (fault == "flash id")
            chip.armSilence(9);
        const bool identifying = fault == "info" || fault == "flash id";
        auto outcome = fault == "silence" ? session.run(Cmd::Connect, {session.fixture.port()})
                       : identifying      ? session.run(Cmd::GetInfo)
                                          : session.run(Cmd::WriteData, {path, 0x40000u, "4MB"});
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.errors, QStringList{message});
        QCOMPARE(session.lost, QStringList()); // the failed command said it all
        if (fault == "silence") {
            // A failed connect lets go of the port: another program may open it now.
            QSerialPort other;
            other.setPortName(session.fixture.port());
            QVERIFY2(other.open(QIODevice::ReadWrite), qPrintable(other.errorString()));
        }
        // The command stops at the first failure: no further block, no MD5 request; of the
        // identification one read request (14 bytes framed, a few more escaped), not dozens.
        const auto &commands = chip.counters().commands;
        QTEST(commands.value(VirtualEsp8266::FlashData) +
                  commands.value(VirtualEsp8266::FlashDeflData),
              "blocks");
        QCOMPARE(chip.counters().commands.value(VirtualEsp8266::SpiFlashMd5), 0);
        if (identifying) {
            QCOMPARE(outcome.results.size(), 5); // the five results still come
            // After the answered reads (a silent chip logs nothing), one more read request: 14
            // bytes framed, not dozens of requests that each wait out their time-out.
            const int answered = chip.commandLog().size();
            QCOMPARE(answered, fault == "info" ? 0 : 9);
            QVERIFY2(chip.counters().bytesIn < (answered + 2) * 14,
                     qPrintable(QString::number(chip.counters().bytesIn)));
        }
        // Later commands fail without a new text, even when they fail for reasons of their own.
        outcome = session.run(Cmd::WriteData, {m_dir.filePath("missing.bin"), 0u, "4MB"});
        QVERIFY(!outcome.result && outcome.errors.isEmpty());
        // A connect to another board, without a disconnect first (as the dialog does), recovers;
        // this time the loader comes from a package entry.
        QFile stubFile(generatedStubPath());
        QVERIFY(stubFile.open(QIODevice::ReadOnly));
        QVERIFY(session.run(Cmd::Connect, {board.port()}).result);
        const IODeviceDescriptor stubEntry{&stubFile, "pkg"};
        QVERIFY(session.run(Cmd::LoadStub, {QVariant::fromValue(stubEntry)}).result);
        QVERIFY(session.run(Cmd::WriteData, {path, 0x40000u, "4MB"}).result);
        QCOMPARE(board.chip().flash(0x40000, quint32(data.size())), data);
        QCOMPARE(session.errors.size(), 1);
    }

    void commandsQueuedRightAfterConnect_data()
    {
        QTest::addColumn<VirtualEsp8266::Config>("config");
        QTest::addColumn<QStringList>("info"); // description, MAC, flash
        VirtualEsp8266::Config config;
        config.throttle = true;
        QTest::newRow("ESP8266EX")
            << config << QStringList{"ESP8266EX", "18FE34A1B2C3", "W25Q32FV (0xef:0x4016) 4Mb"};
        config.model = VirtualEsp8266::Model::Esp8285;
        config.mac = QByteArray::fromHex("aabbcc102030"); // an OUI of its own, in eFuse word 3
        config.jedecId = QByteArray::fromHex("c84016");   // an unknown maker: the size is guessed
        QTest::newRow("ESP8285, unknown flash")
            << config << QStringList{"ESP8285", "AABBCC102030", "NONAME (0xc8:0x4016) 4Mb(?)"};
    }

    void commandsQueuedRightAfterConnect()
    {
        // The dialog queues "get info" the moment "connect" succeeds. Answers nobody waits for
        // (the surplus of a synchronisation, the ROM's answer to a flash end that is not awaited)
        // still arrive then at the line rate; none may end the wait of a later command.
        QFETCH(VirtualEsp8266::Config, config);
        QFETCH(QStringList, info);
        Session session(config);
        QVERIFY(session.fixture.start());
        for (int round = 0; round < 3; ++round) {
            session.post(Cmd::Connect, {session.fixture.port()});
            session.post(Cmd::GetInfo);
        }
        session.post(Cmd::GetInfo); // what follows the identification at once gets its answers
        QVERIFY(session.waitForFinished(7));
        QCOMPARE(session.errors, QStringList());
        const auto words = VirtualEsp8266::efuseWordsFor(config);
        const uint chipId = (words[0] >> 24) | ((words[1] & 0xFFFFFF) << 8);
        const QVariantList results{info[0], QString::number(chipId, 16).rightJustified(8, '0'),
                                   info[1], info[2], 4194304u};
        for (int i = 0; i < 7; ++i) { // one after another, in order
            const bool getInfo = i % 2 || i == 6;
            QCOMPARE(session.finished.at(i).mid(0, 2),
                     (QVariantList{true, getInfo ? Cmd::GetInfo : Cmd::Connect}));
            if (getInfo)
                QCOMPARE(session.finished.at(i).at(2).toList(), results);
        }
    }
};

QTEST_GUILESS_MAIN(TestEspToolWorker)
#include "tst_esptoolworker.moc"
