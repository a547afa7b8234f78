#include "chipfixture.h"
#include "protocol/esptool.h"
#include "scattertestfiles.h"
#include "tools/imagegen/espimagebuilder.h"
#include "worker/esptoolworker.h"

#include "serial/modemlineregistry.h"

#include <QScopeGuard>
#include <QSerialPort>
#include <QtTest>

// The worker: parameter checks, then in its own thread against the virtual ESP8266. Whole-chip
// erase and verification are covered end to end by the dialog's tests.
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
        // A read into a file that cannot be written sends nothing.
        const QString unwritable = m_dir.filePath("no-such-dir/read.bin");
        QFile probe(unwritable);
        QVERIFY(!probe.open(QIODevice::WriteOnly));
        session.chip().clearCommandLog();
        outcome = session.run(Cmd::ReadData, {unwritable, 0u, 0x1000u});
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.errors, QStringList{"Invalid parameters: cannot write to " + unwritable +
                                             " (" + probe.errorString() + ")"});
        QCOMPARE(session.chip().commandLog().size(), 0);
        QVERIFY(session.run(Cmd::Disconnect).result);
    }

    // A read replaces its target only with data whose MD5 the chip confirmed. Otherwise the
    // command fails, the previous file stays as it was and nothing is left beside it.
    void readReplacesOnlyAConfirmedFile_data()
    {
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("error"); // the first error() text starts so; empty: none
        const QString mismatch = "Error reading data: MD5 digest did not match the received data";
        QTest::newRow("confirmed") << ""
                                   << "";
        QTest::newRow("flash changes under the read") << "change" << mismatch;
        // Whichever fails first: sending an acknowledgement or waiting for data.
        QTest::newRow("port vanishes mid-read") << "vanish"
                                                << "esptool failed: ";
        QTest::newRow("target is no regular file")
            << "device"
            << "Invalid parameters: cannot write to /dev/null (not a regular file)";
    }

    void readReplacesOnlyAConfirmedFile()
    {
        QFETCH(QString, fault);
        QFETCH(QString, error);
        QTemporaryDir folder;
        const QByteArray previous = "a good backup";
        const QString target =
            fault == "device" ? "/dev/null" : writeTestFile(folder.path(), "region.bin", previous);
        const QByteArray flash = EspImageBuilder::pseudoRandomBytes(0x80000, 71);
        Session session;
        session.chip().setFlash(0x100000, flash);
        QVERIFY(session.start());
        session.chip().setCommandObserver([&](const VirtualEsp8266::CommandRecord &record) {
            if (record.opcode != VirtualEsp8266::ReadFlash)
                return;
            if (fault == "change") // the first block is on its way already
                session.chip().setFlash(0x100000, "changed");
            else if (fault == "vanish") // after a few acknowledgements
                session.chip().armVanishAfterBytes(40);
        });
        const auto outcome = session.run(Cmd::ReadData, {target, 0x100000u, 0x80000u});
        QCOMPARE(outcome.result, error.isEmpty());
        QCOMPARE(outcome.errors.value(0).left(error.size()), error);
        if (fault == "device")
            return;
        QFile file(target);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), error.isEmpty() ? flash : previous);
        QCOMPARE(outcome.results,
                 error.isEmpty() ? QVariantList{ESPTool::get_data_md5(flash)} : QVariantList());
        QCOMPARE(QDir(folder.path()).entryList(QDir::Files), QStringList{"region.bin"});
    }

    void romLoaderWrites_data()
    {
        QTest::addColumn<bool>("firmware");
        QTest::addColumn<uint>("address");
        QTest::addColumn<int>("size");
        QTest::addColumn<uint>("erased");
        // The ROM erases n + min(16 - start sector mod 16, n) sectors for a request of n, so the
        // requests are made smaller, and an odd count takes two: exactly the sectors written.
        QTest::newRow("data across a 64 KiB boundary") << false << 0x2F400u << 0x1C00 << 0x2000u;
        QTest::newRow("firmware off a boundary") << true << 0x41000u << 9000 << 0x3000u;
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
        Session session;
        // Old contents of all zero bits: whatever the ROM leaves unerased shows.
        session.chip().setFlash(address / 0x1000 * 0x1000, QByteArray(0x10000, '\0'));
        QVERIFY(session.start(false));
        const auto outcome =
            firmware ? session.run(Cmd::WriteFirmware, {path, address, "4MB", "", "keep"})
                     : session.run(Cmd::WriteData, {path, address, "4MB"});
        // The ROM loader cannot report the MD5 that ends every write: the write ends false.
        QVERIFY(!outcome.result);
        QCOMPARE(outcome.errors.last(),
                 toolError("MD5 checksum is not supported by the ROM loader", 3));
        QCOMPARE(outcome.errors.size(), firmware ? 2 : 1); // and the warning about the texts
        QCOMPARE(session.chip().counters().commands.value(VirtualEsp8266::FlashData),
                 (expected.size() + 0x3FF) / 0x400);
        QFETCH(uint, erased); // from the start of the first sector
        const int before = int(address % 0x1000), after = int(erased) - before - expected.size();
        QCOMPARE(session.chip().flash(address - before, 0x10000),
                 QByteArray(before, char(0xFF)) + expected + QByteArray(after, char(0xFF)) +
                     QByteArray(0x10000 - int(erased), '\0'));
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

    void connectOptionsAndHardReset()
    {
        Session session;
        QVERIFY(session.fixture.start());
        QMutex mutex;
        QVector<QPair<bool, bool>> lines; // (DTR, RTS), set from the worker's thread
        // Recorded on their way to the chip's reset circuit.
        const quint64 registration =
            ModemLineRegistry::add(session.fixture.port(), [&](bool dtr, bool rts) {
                QMutexLocker lock(&mutex);
                lines.append({dtr, rts});
                session.chip().setModemLines(dtr, rts);
            });
        const auto unregister =
            qScopeGuard([&] { ModemLineRegistry::remove(session.fixture.port(), registration); });
        QSignalSpy notices(session.worker, &ESPToolWorker::notice);
        const QVariantMap options{{ESPToolWorker::BaudOption, 921600u}};
        QVERIFY(session.run(Cmd::Connect, {session.fixture.port(), options}).result);
        QVERIFY(session.run(Cmd::LoadStub, {generatedStubPath()}).result);
        QCOMPARE(session.chip().baudRate(), 921600u); // once the loader runs
        const QVariantMap reset{{ESPToolWorker::HardResetOption, true}};
        QVERIFY(session.run(Cmd::Disconnect, {reset}).result);
        ModemLineRegistry::remove(session.fixture.port()); // the board's own lines too
        // The reset into the boot loader, then an EN pulse with GPIO0 released.
        QCOMPARE(lines,
                 (QVector<QPair<bool, bool>>{
                     {false, true}, {true, false}, {false, false}, {false, true}, {false, false}}));
        QTRY_COMPARE(session.chip().loaderState(), VirtualEsp8266::LoaderState::Firmware);
        QCOMPARE(notices.count(), 0);
        QCOMPARE(session.errors, QStringList());

        // Without the registry entry the pseudo-terminal has no modem lines: one notice per
        // connection, and a loader that was not reset is found running.
        session.chip().reset(); // into its boot loader, as a jig holds it
        for (int connection = 0; connection < 2; ++connection) {
            QVERIFY(session.run(Cmd::Connect, {session.fixture.port()}).result);
            QVERIFY(session.run(Cmd::LoadStub, {generatedStubPath()}).result);
            QVERIFY(session.run(Cmd::Disconnect, {reset}).result);
        }
        const QString notReset =
            "The board is not reset: " + session.fixture.port() + " has no modem lines (DTR/RTS)";
        QCOMPARE(notices.count(), 3);
        QCOMPARE(notices.at(0).first().toString(), notReset);
        QCOMPARE(notices.at(1).first().toString(), notReset);
        QVERIFY(notices.at(2).first().toString().contains("already running"));
        QVERIFY(session.chip().stubRunning());
    }

    void connectToAPortThatCannotBeOpened_data()
    {
        QTest::addColumn<QString>("port");
        QTest::addColumn<QString>("reason");
        QTest::newRow("missing") << "/dev/nonexistent-port"
                                 << "no such port";
        QTest::newRow("regular file") << "file"
                                      << "not a serial device";
    }

    void connectToAPortThatCannotBeOpened()
    {
        QFETCH(QString, port);
        QFETCH(QString, reason);
        if (port == "file") {
            port = saveFile("not-a-port", "x");
            qputenv("ESP_UTILITY_EXTRA_PORTS", port.toLocal8Bit());
        }
        Session session;
        const auto outcome = session.run(Cmd::Connect, {port});
        qunsetenv("ESP_UTILITY_EXTRA_PORTS");
        QVERIFY(!outcome.result);
        // One line with the reason, and the failure stands for the commands that follow.
        QCOMPARE(outcome.errors,
                 QStringList{"Cannot open " + port + ": " + reason +
                             (reason == "no such port" ? " (is the board plugged in?)" : "")});
        QVERIFY(!session.run(Cmd::Disconnect).result);
        QCOMPARE(session.errors.size(), 1);
    }

    // A port that goes away between commands is reported once (one that goes away during a
    // command fails that command instead, above); a disconnect says nothing.
    void portLostBetweenCommands()
    {
        Session session;
        QVERIFY(session.start(false));
        QVERIFY(session.run(Cmd::Disconnect).result);
        QVERIFY(session.run(Cmd::Connect, {session.fixture.port()}).result);
        QCOMPARE(session.lost, QStringList());
        session.chip().vanishNow();
        QVERIFY(QTest::qWaitFor([&] { return !session.lost.isEmpty(); }, 5000));
        QVERIFY(!session.run(Cmd::GetInfo).result);
        QCOMPARE(session.lost.size(), 1);
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
