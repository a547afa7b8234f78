#include "chipfixture.h"
#include "scattertestfiles.h"
#include "testpaths.h"

#include "flasher/esppackage.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr quint32 applicationAddress = 0x10000;
const QString chipOfTheVirtualBoard = QStringLiteral("ESP8266EX / 00a1b2c3");
const QByteArray erased16(16, char(0xFF));
// Payload, then 0x2000 bytes of 0xFF that packing trims.
const QByteArray applicationImage = EspImageBuilder::application(0x6000, 0x2000, 21);

// A firmware image whose header says qio / 1MB / 40m. Scatter files flash it as dio / 4MB / 40m,
// so the chip then holds it with the header patched.
QByteArray firmwareImage(bool asWritten = false)
{
    EspImageBuilder builder;
    builder.setFlashMode(0);
    builder.setFlashSize(2);
    builder.setFlashFrequency(0);
    builder.addRandomSegment(0x40100000, 0x1800, 11);
    builder.addRandomSegment(0x3FFE8000, 0x200, 12);
    QByteArray image = builder.build();
    return asWritten ? image.replace(2, 2, "\x02\x40") : image; // dio, 4MB << 4 | 40m
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("missing");
}

// The program runs in a process of its own, which the reset lines of a chip here cannot reach:
// its boards are jigs, held in boot mode.
constexpr auto jig = VirtualBoard::Wiring::Jig;

bool flashed(VirtualEsp8266 &board)
{
    const QByteArray firmware = firmwareImage(true);
    return board.flash(0, firmware.size()) == firmware &&
           board.flash(applicationAddress, 0x8000) == applicationImage;
}

} // namespace

// Runs the build tree's esp-utility, which inherits this environment and so sees the chips here.
class TestCli : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ChipFixture> m_chip;
    QString m_out, m_err; // of the last run

    QString path(const QString &name) const { return m_dir->filePath(name); }
    VirtualEsp8266 &chip() { return m_chip->chip(); }
    bool out(const QString &line) const { return m_out.split('\n').contains(line); }

    // The result columns of a port's summary row: "<chip>  <mac>  <result>".
    QString summaryRow(const QString &port) const
    {
        return QRegularExpression("^" + QRegularExpression::escape(port) + " +(.*)$",
                                  QRegularExpression::MultilineOption)
            .match(m_out)
            .captured(1);
    }

    // Runs the program (on the board, with the project's loader when asked) and checks its exit
    // code; both streams are printed when it differs.
    bool run(int exitCode, QStringList arguments, bool onBoard = true, bool withStub = false)
    {
        if (withStub)
            arguments << "--stub" << generatedStubPath();
        if (onBoard)
            arguments << "--port" << m_chip->port();
        QProcess process;
        process.start(testBuildDir() + "/cli/esp-utility", arguments);
        const bool finished = process.waitForFinished(60000); // else killed on destruction
        const int code =
            finished && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        m_out = QString::fromUtf8(process.readAllStandardOutput());
        m_err = QString::fromUtf8(process.readAllStandardError());
        if (code != exitCode)
            qWarning("exit %d\n--- stdout\n%s--- stderr\n%s", code, qPrintable(m_out),
                     qPrintable(m_err));
        return code == exitCode;
    }

    // firmware.bin at 0x0, app.bin at 0x10000 (its md5 in lower case), loader.elf beside them.
    QString writeScatterSet(const QString &chip = "ESP8266EX", bool withStub = true,
                            bool withMd5 = true)
    {
        writeTestFile(m_dir->path(), "firmware.bin", firmwareImage());
        writeTestFile(m_dir->path(), "app.bin", applicationImage);
        QFile::copy(generatedStubPath(), path("loader.elf"));
        const auto md5 = [withMd5](const QString &hex) {
            return withMd5 ? QString(R"("md5": "%1", )").arg(hex) : QString();
        };
        const QString document = R"({"chip": "%1", %2"sections": [
            {%3"type": "firmware", "address": "0x0", "file": "firmware.bin",
             "options": {"flash": {"mode": "dio", "size": "4MB", "frequency": "40m"}}},
            {%4"type": "application", "address": "0x10000", "file": "app.bin"}]})";
        return writeTestFile(m_dir->path(), "scatter.txt",
                             document
                                 .arg(chip, withStub ? R"("stub": "loader.elf", )" : "",
                                      md5(md5Hex(firmwareImage())),
                                      md5(md5Hex(applicationImage).toLower()))
                                 .toUtf8());
    }

private slots:
    void init()
    {
        m_chip.reset(); // before its successor starts
        m_chip = std::make_unique<ChipFixture>(VirtualEsp8266::Config(), jig);
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid() && m_chip->start());
    }

    void flashVerifyAndReadBack()
    {
        QVERIFY(run(0, {"flash", writeScatterSet()}));
        QVERIFY(flashed(chip()));
        QVERIFY(out("Start writing firmware from " + path("firmware.bin") +
                    " to 0x00000000 (flash memory size 4MB, mode dio, frequency 40m)"));
        QVERIFY(summaryRow(m_chip->port())
                    .contains(QRegularExpression("^ESP8266EX / 00a1b2c3 +18FE34A1B2C3 +ok")));
        // Progress goes to stderr, as plain lines when it is no terminal.
        QVERIFY(m_err.contains("write data: 100%") && !m_err.contains('\r'));

        // Firmware: the image as written, header patched; application: its saved md5, in
        // whatever letter case.
        chip().reset();
        QVERIFY(run(0, {"verify", path("scatter.txt")}));
        QVERIFY(m_out.contains("2 of 2 section(s) verified"));

        chip().reset();
        const QString copy = path("read/copy.txt");
        QVERIFY(run(0, {"read", "--scatter", copy, "0x0:0x2000", "0x10000-0x18000"}, true, true));
        // The saved scatter passes the strict check and writes the same flash, headers included.
        ChipFixture second({}, jig);
        QVERIFY(second.start());
        QVERIFY(run(0, {"flash", copy, "--only", "application", "--port", second.port()}, false));
        QVERIFY(out("Skipping section 1"));
        QCOMPARE(second.chip().flash(0, 16), erased16);
        QCOMPARE(second.chip().flash(applicationAddress, 0x8000), applicationImage);
        second.chip().reset();
        QVERIFY(run(0, {"flash", copy, "--port", second.port()}, false));
        QCOMPARE(second.chip().flash(0, 0x20000), chip().flash(0, 0x20000));

        QByteArray damaged = applicationImage;
        damaged[100] = char(damaged.at(100) ^ 0x01);
        chip().setFlash(applicationAddress, damaged);
        chip().reset();
        QVERIFY(run(1, {"verify", path("scatter.txt")}));
        QVERIFY(m_err.contains("Checksum verification failed (" + md5Hex(damaged) + " vs " +
                               md5Hex(applicationImage).toLower() + ")"));
        QVERIFY(m_out.contains("FAILED: 1 of 2 section(s) failed verification"));

        chip().reset();
        QVERIFY(run(0, {"verify", "0x10000:4kb"}, true, true));
        QVERIFY(out("Requested flash memory contents md5 for [0x00010000:0x00001000] (size 4096)"));
        QVERIFY(out("MD5: " + md5Hex(damaged.left(0x1000))));
    }

    // Writing the application wipes the firmware, as a careless erase would: every write
    // succeeded, but the comparison of every section at the end of the run fails it.
    void laterWriteWipesAnEarlierOne()
    {
        const QByteArray firmware = firmwareImage(true);
        int begins = 0;
        chip().setCommandObserver([&](const VirtualEsp8266::CommandRecord &record) {
            const bool begin = record.opcode == VirtualEsp8266::FlashBegin ||
                               record.opcode == VirtualEsp8266::FlashDeflBegin;
            if (begin && ++begins == 2)
                chip().setFlash(0, QByteArray(firmware.size(), char(0xFF)));
        });
        QVERIFY(run(1, {"flash", writeScatterSet()}));
        chip().setCommandObserver(nullptr);
        QVERIFY(m_err.contains("firmware.bin at 0x00000000 has changed since it was written"));
        QVERIFY(!m_out.contains("Finished flashing package"));
        QVERIFY(summaryRow(m_chip->port())
                    .endsWith("FAILED: The flash run failed: 1 of 2 written section(s) no "
                              "longer match"));
    }

    // A read never destroys a file that is there. Without --force it refuses before any
    // transfer; with it a failed read keeps the earlier files, and a region the chip does not
    // confirm leaves no file of its own and no scatter file claiming it.
    void readKeepsExistingFiles_data()
    {
        QTest::addColumn<QString>("existing"); // files there before: region, scatter, firmware
        QTest::addColumn<bool>("force");
        QTest::addColumn<QString>(
            "fault"); // of the chip: change (its flash under the read), vanish
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("message"); // on stderr
        const auto row = [](const char *name, const char *existing, bool force, const char *fault,
                            int exitCode, const char *message) {
            QTest::newRow(name) << existing << force << fault << exitCode << message;
        };
        const char *const exists = "exists; pass --force to replace it";
        row("region file there", "region", false, "", 2, exists);
        row("scatter file there", "scatter", false, "", 2, exists);
        row("--scatter names a firmware image", "firmware", false, "", 2,
            "firmware.bin exists and is not a scatter file; pass --force to replace it");
        row("forced re-read fails", "region scatter", true, "vanish", 1,
            "UBoot operation read data (6) finished with error");
        row("chip does not confirm", "", false, "change", 1,
            "Error reading data: MD5 digest did not match the received data");
        row("forced re-read", "region scatter", true, "", 0, "");
        row("region file name taken by a folder", "folder", true, "", 2,
            "region-00000000-00080000.bin is a directory");
    }

    void readKeepsExistingFiles()
    {
        QFETCH(QString, existing);
        QFETCH(QString, fault);
        QFETCH(int, exitCode);
        QFETCH(QString, message);
        const QByteArray flash = EspImageBuilder::pseudoRandomBytes(0x80000, 81);
        chip().setFlash(0, flash);
        chip().setCommandObserver([this, fault](const VirtualEsp8266::CommandRecord &record) {
            if (record.opcode != VirtualEsp8266::ReadFlash)
                return;
            if (fault == "change") // the first block is on its way already
                chip().setFlash(0, "changed");
            else if (fault == "vanish")
                chip().armVanishAfterBytes(40);
        });
        const QString scatter = existing == "firmware" ? "firmware.bin" : "scatter.txt";
        const QString region = "region-00000000-00080000.bin";
        QMap<QString, QByteArray> before; // file name -> contents
        if (existing.contains("region"))
            before[region] = "an earlier read";
        if (existing.contains("scatter"))
            before[scatter] = R"({"chip": "ESP8266EX", "sections": []})";
        if (existing == "firmware")
            before[scatter] = firmwareImage();
        for (auto file = before.cbegin(); file != before.cend(); ++file)
            QVERIFY(!writeTestFile(path("out"), file.key(), file.value()).isEmpty());
        QVERIFY(QDir().mkpath(path(existing == "folder" ? "out/" + region : "out")));

        QStringList arguments{"read", "--scatter", path("out/" + scatter), "0x0:0x80000"};
        QFETCH(bool, force);
        if (force)
            arguments << "--force";
        QVERIFY(run(exitCode, arguments, true, true));
        QVERIFY2(m_err.contains(message), qPrintable(m_err));
        if (exitCode == 2)
            QCOMPARE(chip().commandLog().size(), 0);
        const QStringList files = QDir(path("out")).entryList(QDir::Files);
        if (exitCode == 0) {
            QCOMPARE(files, (QStringList{region, scatter}));
            QCOMPARE(readFile(path("out/" + region)), flash);
            return;
        }
        QCOMPARE(files, before.keys());
        for (auto file = before.cbegin(); file != before.cend(); ++file)
            QCOMPARE(readFile(path("out/" + file.key())), file.value());
        // No success is claimed for the step that failed.
        QVERIFY(!m_out.contains("Flash memory section has been successfully read."));
    }

    void packThenFlashThePackage()
    {
        QVERIFY(run(
            0, {"pack", writeScatterSet(), "-o", path("board"), "--description", "Ü 2", "--trim"},
            false));
        QVERIFY(out("Created zip package in " + path("board.zip")));
        QVERIFY(m_out.contains("Saved 8192 bytes from " + path("app.bin")));
        QVERIFY(run(0, {"flash", path("board.zip")}));
        QVERIFY(out("Start loading stub from esp8266_loader_stub.elf"));
        QVERIFY(out("Start writing user application from app.bin to 0x00010000 (max size 4MB)"));
        // A trimmed image on an erased chip reads back as the whole one.
        QVERIFY(flashed(chip()));
    }

    // A full disk is reported as such, and the previous file survives it. The disk is a small
    // tmpfs in a mount namespace of a child shell (which needs root); the shell reports what
    // the folder holds afterwards, since the tmpfs goes away with it.
    void fullDiskKeepsThePreviousFile_data()
    {
        QTest::addColumn<QString>("command"); // esp-utility's arguments; DISK: the tmpfs
        QTest::addColumn<QString>("kept");    // the previous file, in the tmpfs
        QTest::addColumn<QString>("reason");  // on stderr
        QTest::newRow("pack") << "pack SCATTER -o DISK/p.zip --description new"
                              << "p.zip"
                              << "File DISK/p.zip is not writable: No space left on device";
        QTest::newRow("read") << "read --scatter DISK/r.txt 0x0:0x80000 --force --stub STUB "
                                 "--port PORT"
                              << "region-00000000-00080000.bin"
                              << "Error reading data: cannot save "
                                 "DISK/region-00000000-00080000.bin (No space left on device)";
    }

    void fullDiskKeepsThePreviousFile()
    {
        QFETCH(QString, command);
        QFETCH(QString, kept);
        QFETCH(QString, reason);
        const QString previous = path("previous");
        QVERIFY(run(0, {"pack", writeScatterSet(), "-o", previous, "--description", "old"}, false));
        const qint64 size = QFileInfo(previous + ".zip").size();
        QVERIFY(QFile::rename(previous + ".zip", previous));
        const auto expand = [&](QString text) {
            return text.replace("DISK", path("disk"))
                .replace("SCATTER", path("scatter.txt"))
                .replace("STUB", generatedStubPath())
                .replace("PORT", m_chip->port());
        };
        // Room for the previous file and about half of what comes: 40 KiB of package, 512 KiB
        // read.
        const qint64 room = size + (command.startsWith("pack") ? size / 2 : 0x40000);
        const QString script =
            QStringLiteral("d=$1 previous=$2 name=$3; shift 3\n"
                           "mount -t tmpfs -o size=%1 tmpfs \"$d\" || exit 0\n"
                           "cp \"$previous\" \"$d/$name\" || exit 0\n"
                           "\"$@\"; echo \"exit $?\"\n"
                           "cmp -s \"$previous\" \"$d/$name\" && echo kept; ls -A \"$d\"\n");
        QVERIFY(QDir().mkpath(path("disk")));
        QProcess shell;
        shell.start("unshare",
                    QStringList{"-m", "sh", "-c", script.arg((room + 4095) / 4096 * 4096), "sh",
                                path("disk"), previous, kept, testBuildDir() + "/cli/esp-utility"} +
                        expand(command).split(' '));
        QVERIFY(shell.waitForFinished(60000));
        const QString out = QString::fromUtf8(shell.readAllStandardOutput());
        const QString err = QString::fromUtf8(shell.readAllStandardError());
        if (!out.contains("exit "))
            QSKIP(qPrintable("no tmpfs of its own here: " + err));
        QVERIFY2(out.endsWith("exit 1\nkept\n" + kept + "\n"), qPrintable(out));
        QVERIFY2(err.contains(expand(reason)), qPrintable(err));
    }

    // Scatter files that stop the run before any flash is written, then the options that let
    // the last one through.
    void refusedScattersAndTheirOptions()
    {
        QVERIFY(run(1, {"flash", writeScatterSet("ESP8285")}));
        QVERIFY(m_err.contains("This scatter file belongs to a different chip (ESP8285 vs " +
                               chipOfTheVirtualBoard + ")"));
        QCOMPARE(chip().flash(0, 16), erased16);
        chip().reset();
        chip().clearCommandLog();
        const QString scatter = writeScatterSet("ESP8266EX", false, false);
        QVERIFY(run(2, {"flash", scatter}));
        QVERIFY(m_err.contains("The mandatory flash loader file is missing"));
        QVERIFY(run(2, {"flash", scatter}, true, true));
        QVERIFY(m_err.contains("is missing an md5 checksum. Proceed? Current md5: ") &&
                m_err.contains("pass --yes"));
        QVERIFY(m_err.contains("No saved checksum for " + path("firmware.bin")));
        QCOMPARE(chip().commandLog().size(), 0);
        QVERIFY(run(0, {"flash", scatter, "--yes"}, true, true));
        QVERIFY(out("Start loading stub from " + generatedStubPath()));
        QVERIFY(out("Proceeding without checksum verification for %1 as per users request"));
        QVERIFY(flashed(chip()));
    }

    void eraseRegionAndWholeChip()
    {
        const QByteArray data = patternBytes(0x3000, 4);
        chip().setFlash(0x1000, data);
        // A few bytes off a boundary clear their whole sector, and the summary says so.
        QVERIFY(run(0, {"erase", "0x2001:0x10"}, true, true));
        QVERIFY(summaryRow(m_chip->port()).endsWith("ok (0x1000 bytes erased at 0x00002000)"));
        QCOMPARE(chip().flash(0x1000, 0x3000),
                 data.left(0x1000) + QByteArray(0x1000, char(0xFF)) + data.mid(0x2000));
        chip().reset();
        QVERIFY(run(0, {"erase", "all"}, true, true));
        QCOMPARE(chip().flash(0, 0x10000), QByteArray(0x10000, char(0xFF)));
        QCOMPARE(chip().counters().erases.last().kind, VirtualEsp8266::EraseKind::Chip);
    }

    // A board with 1 MB of flash: what runs past its end is refused before anything is sent to
    // it (no read leaves a file behind), a firmware set for more flash only with --yes. A package
    // may unpack to its flash and 2 MiB for its own entries, no more.
    void sizesAgainstTheChip_data()
    {
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QStringList>("messages"); // on stderr
        const QString past = "Region [0x000ff000:0x00101000] runs past the end of the flash "
                             "memory (1Mb)";
        const QString bigger = "Firmware firmware.bin is set for a flash memory size of 4MB";
        const auto row = [](const char *arguments, int exitCode, const QStringList &messages) {
            QTest::newRow(arguments) << exitCode << messages;
        };
        row("read --scatter DIR/r.txt 0x0:0x1000 0xFF000-0x101000 --stub STUB", 1, {past});
        row("verify 0xFF000:0x2000 --stub STUB", 1, {past});
        row("erase 0xFF000:0x2000 --stub STUB", 1, {past});
        row("flash DIR/scatter.txt", 1,
            {bigger + ", but the chip has 1Mb. Flash it anyway? No (pass --yes to answer Yes)",
             bigger + ", larger than the chip's 1Mb"});
        row("flash DIR/scatter.txt --yes", 0, {});
        row("flash DIR/past.txt --yes", 1,
            {"Section app.bin [0x000fc000:0x00104000] runs past the end of the chip's flash "
             "memory (1Mb)"});
        row("flash DIR/large.zip", 1,
            {"Package DIR/large.zip unpacks to ",
             " bytes, more than the flash memory can hold (3145728 bytes)"});
    }

    void sizesAgainstTheChip()
    {
        QFETCH(int, exitCode);
        QFETCH(QStringList, messages);
        VirtualEsp8266::Config config;
        config.flashSize = 0x100000;
        config.jedecId = QByteArray::fromHex("ef4014");
        m_chip.reset();
        m_chip = std::make_unique<ChipFixture>(config, jig);
        QVERIFY(m_chip->start());
        // firmware.bin set for 4 MB, app.bin at 0x10000, or at 0xFC000 in past.txt
        writeTestFile(m_dir->path(), "past.txt",
                      readFile(writeScatterSet()).replace(R"("0x10000")", R"("0xFC000")"));
        const QByteArray image(0x300000, '\0'), password = EspPackage::password("large");
        const QString scatter = R"({"chip": "ESP8266EX", "stub": "esp8266_loader_stub.elf",
            "sections": [{"type": "application", "address": "0x0", "file": "zeros.bin",
                          "md5": "%1"}]})";
        if (QString(QTest::currentDataTag()).contains("large.zip"))
            QVERIFY(writeTestZip(path("large.zip"), "large",
                                 {{EspPackage::stubEntryName, readFile(generatedStubPath())},
                                  {"zeros.bin", image},
                                  {"scatter.txt", scatter.arg(md5Hex(image)).toUtf8()}},
                                 &password));
        const auto expand = [this](QString text) {
            return text.replace("STUB", generatedStubPath()).replace("DIR/", m_dir->path() + "/");
        };
        QVERIFY(run(exitCode, expand(QTest::currentDataTag()).split(' ')));
        for (const QString &message : messages)
            QVERIFY2(m_err.contains(expand(message)), qPrintable(m_err));
        const QMap<quint8, int> commands = chip().counters().commands;
        if (exitCode == 0) {
            QVERIFY(flashed(chip()));
            return;
        }
        for (const quint8 opcode : {VirtualEsp8266::FlashBegin, VirtualEsp8266::ReadFlash,
                                    VirtualEsp8266::EraseRegion, VirtualEsp8266::SpiFlashMd5})
            QCOMPARE(commands.value(opcode), 0);
        QVERIFY(!QFile::exists(path("r.txt")) &&
                !QFile::exists(path("region-00000000-00001000.bin")));
    }

    void infoAndASilentChip()
    {
        QVERIFY(run(0, {"info"}));
        QVERIFY(out("Chip:       " + chipOfTheVirtualBoard));
        QVERIFY(out("MAC:        18FE34A1B2C3"));
        QVERIFY(out("Flash size: 4Mb"));
        chip().reset();
        chip().armSilence(0);
        QVERIFY(run(1, {"info"}));
        QVERIFY(m_err.contains("UBoot operation connect (0) finished with error"));
        QVERIFY(summaryRow(m_chip->port()).contains(QRegularExpression("^- +- +FAILED")));
    }

    void virtualBoardsAreResetIntoTheirLoader()
    {
        // They run their firmware until the reset lines reach them, so nothing answers unless
        // the program's reset does.
        QVERIFY(run(0, {"info", "--virtual", "2"}, false));
        QCOMPARE(m_out.count(
                     QRegularExpression("^/dev/\\S+ +ESP8266EX / 00a1b2c[34] +18FE34A1B2C[34] +ok$",
                                        QRegularExpression::MultilineOption)),
                 2);
        QVERIFY2(!(m_out + m_err).contains("not reset"), qPrintable(m_out + m_err));
    }

    void writePlainImages()
    {
        const QString firmware = writeTestFile(m_dir->path(), "fw.bin", firmwareImage());
        const QByteArray data = EspImageBuilder::pseudoRandomBytes(0x9000, 4);
        const QString dataPath = writeTestFile(m_dir->path(), "data.bin", data);
        // The port through a link, the way /dev/serial/by-id names boards.
        QVERIFY(QFile::link(m_chip->port(), path("by-id-link")));
        QVERIFY(run(0,
                    {"write", "0x0", firmware, "0x20000", dataPath, "--flash-mode", "dio",
                     "--flash-size", "detect", "--port", path("by-id-link"), "--baud", "921600"},
                    false));
        QCOMPARE(chip().flash(0, firmwareImage().size()), firmwareImage(true));
        QCOMPARE(chip().flash(0x20000, 0x9000), data);
        QVERIFY2(out("Start writing firmware from " + firmware +
                     " to 0x00000000 (flash memory size 4Mb, mode dio, frequency 40MHz)"),
                 qPrintable(m_out));
        QVERIFY(summaryRow(m_chip->port()).endsWith("ok (2 image(s) written)"));
        QCOMPARE(chip().baudRate(), 921600u); // the loader switched, and was not reset after
        // A pseudo-terminal has no modem lines: one line says the board is not reset.
        QCOMPARE(m_out.count("has no modem lines"), 1);

        // The same again writes nothing; --no-skip writes it all; without resets, no such line.
        const QString withoutDev = m_chip->port().mid(QStringLiteral("/dev/").size());
        QVERIFY(run(0,
                    {"write", "0x20000", dataPath, "--port", withoutDev, "--before", "no-reset",
                     "--after", "stay"},
                    false));
        QVERIFY(out("1 of 1 block(s) of 64 KiB unchanged, nothing written"));
        QCOMPARE(m_out.count("has no modem lines"), 0);
        chip().reset();
        chip().clearCounters();
        QVERIFY(run(0, {"write", "0x20000", dataPath, "--no-skip", "--baud", "115200"}));
        QVERIFY(!m_out.contains("unchanged"));
        QCOMPARE(chip().counters().erases.size(), 1);
        QCOMPARE(chip().baudRate(), 115200u); // 115200: no switch
    }

    void portsShowTheirDetails()
    {
        QVERIFY(run(0, {"ports"}, false));
        QVERIFY(m_out.section('\n', 0, 0)
                    .contains(
                        QRegularExpression("^PORT +DESCRIPTION +MANUFACTURER +VID:PID +SERIAL$")));
        QVERIFY(m_out.contains(QRegularExpression(
            "\n" + QRegularExpression::escape(m_chip->port()) + " +- +- +- +-\n")));
    }

    void imageInfo()
    {
        EspImageBuilder builder;
        builder.addRandomSegment(0x40100000, 0x100, 1);
        builder.addRandomSegment(0x3FFE8000, 0x20, 2);
        builder.setSecondPart(patternBytes(0x80, 5));
        const QString image = writeTestFile(m_dir->path(), "fw.bin", builder.build());
        QVERIFY(run(0, {"image-info", image, "--trailer", QString::number(builder.trailerOffset())},
                    false));
        QVERIFY(out("  0: 0x40100000 - 0x40100100  256 bytes"));
        QVERIFY(out("  1: 0x3ffe8000 - 0x3ffe8020  32 bytes"));
        QVERIFY(m_out.contains(QString("(recorded %1)").arg(builder.build().size())));
        QVERIFY(run(1, {"image-info", writeTestFile(m_dir->path(), "d.bin", "data")}, false));
        QVERIFY(m_err.contains("is not an ESP8266 firmware image"));
    }

    void demoPackageRuns()
    {
        QVERIFY(run(0, {"demo", testBuildDir() + "/demo/demo.zip", "--out", path("out")}, false));
        QVERIFY(m_out.contains("2 of 2 section(s) verified"));
        QVERIFY(m_out.contains("Demo complete") && QFile::exists(path("out/scatter.txt")));
        // Its read-back is replaced only when asked to.
        QVERIFY(run(2, {"demo", testBuildDir() + "/demo/demo.zip", "--out", path("out")}, false));
        QVERIFY(m_err.contains("exists; pass --force to replace it"));
        QVERIFY(run(0, {"demo", testBuildDir() + "/demo/demo.zip", "--out", path("out"), "--force"},
                    false));
    }

    void oneOfThreeBoardsVanishesMidWrite()
    {
        VirtualEsp8266::Config config;
        config.mac = QByteArray::fromHex("18fe34000002");
        ChipFixture failing(config, jig);
        config.mac = QByteArray::fromHex("18fe34000003");
        ChipFixture third(config, jig);
        QVERIFY(failing.start() && third.start());
        // Past the loader (about 10 KiB on the wire) and the firmware, inside the application.
        failing.chip().armVanishAfterBytes(30000);
        QVERIFY(
            run(1, {"flash", writeScatterSet(), "--port", failing.port(), "--port", third.port()}));
        QVERIFY(summaryRow(m_chip->port()).contains(QRegularExpression("C3 +ok \\(2 s")));
        QVERIFY(summaryRow(third.port()).contains(QRegularExpression("03 +ok \\(2 s")));
        QVERIFY(summaryRow(failing.port())
                    .contains(QRegularExpression("18FE34000002 +FAILED: write data")));
        // Lines of several boards carry their port.
        const QString written = "[%1] Application has been successfully flashed.";
        QVERIFY(out(written.arg(m_chip->port())));
        QVERIFY(!m_out.contains(written.arg(failing.port())));
        QVERIFY(m_err.contains(QString("[%1] UBoot operation write data (5) finished with error")
                                   .arg(failing.port())));
        QVERIFY(failing.chip().vanished());
        QVERIFY(flashed(chip()) && flashed(third.chip()));
        QCOMPARE(failing.chip().flash(0, firmwareImage(true).size()), firmwareImage(true));
        QVERIFY(failing.chip().flash(applicationAddress, 0x8000) != applicationImage);
    }

    // Bad arguments and unreadable files: exit status 2, one line on stderr that says what is
    // wrong, nothing on stdout, and no board touched. Arguments split at blanks; PORT, STUB and
    // DIR/ stand for the board, the loader and the test directory.
    void badArguments_data()
    {
        QTest::addColumn<QString>("message");
        const auto row = [](const char *arguments, const char *message) {
            QTest::newRow(arguments) << message;
        };
        row("", "no command given");
        row("frob", "unknown command frob");
        row("info --bogus", "unknown option --bogus");
        row("info --port", "--port needs a value");
        row("flash --yes=1", "--yes takes no value");
        row("info --baud fast", "--baud takes a rate from 9600 to 4000000, not \"fast\"");
        row("info --before never", "--before takes reset or no-reset, not \"never\"");
        row("ports --trim", "ports takes no option --trim (see esp-utility ports --help)");
        row("flash DIR/good.txt --flash-mode dio --port PORT",
            "flash takes no option --flash-mode");
        row("--port PORT flash", "usage: esp-utility flash SCATTER|PACKAGE");
        row("completion zsh", "usage: esp-utility completion bash");
        row("write 0x0", "usage: esp-utility write ADDRESS FILE");
        row("write zz DIR/app.bin --port PORT", "zz is not an address");
        row("write 0x0 DIR/none.bin --port PORT", "cannot read DIR/none.bin");
        row("write 0x0 DIR/app.bin --flash-mode fast --port PORT", "--flash-mode takes keep");
        row("write 0x0 DIR/app.bin --flash-size 3MB --port PORT", "--flash-size takes keep");
        row("info --virtual=0", "--virtual takes");
        row("info", "no board: pass --port PATH or --virtual");
        row("info --port /dev/none", "no serial port /dev/none");
        row("info --port PORT --port PORT", "is given twice");
        row("flash DIR/none.txt --port PORT", "DIR/none.txt could not be read");
        row("flash DIR/good.txt --only boot --port PORT", "--only takes firmware or application");
        row("flash DIR/good.txt --only firmware --port PORT", "has no firmware section");
        row("flash DIR/good.txt --stub DIR/none.elf --port PORT", "cannot read the flash loader");
        row("read 0x0:0x1000 --stub STUB", "read needs --scatter");
        row("read --scatter DIR/r.txt --stub STUB", "one or more regions");
        row("read --scatter DIR/r.txt 0x0:0x1000 --port PORT",
            "read needs the flash loader: pass --stub FILE");
        row("read --scatter DIR/r.txt 0xFFFFF000:0x2000 --stub STUB",
            "region 0xFFFFF000:0x2000 is empty or runs past 4 GiB");
        row("read --scatter DIR/r.txt 0x0:zz --stub STUB",
            "region 0x0:zz is not ADDRESS:SIZE or ADDRESS-END");
        row("read --scatter DIR/r.txt 0x0:0x1000 0-0x1000 --stub STUB",
            "region 0-0x1000 is given twice");
        row("read --scatter DIR/r.txt 0x0:0x1000 --stub STUB --virtual 2",
            "read works on one board at a time");
        row("erase 0x1000 --stub STUB", "Invalid erase region format: 0x1000");
        row("erase 0x1000:zz --stub STUB", "region 0x1000:zz is not ADDRESS:SIZE");
        row("pack DIR/good.txt", "pack needs -o PACKAGE.zip");
        row("pack DIR/good.txt -o DIR/p.zip", "pack needs --description");
        row("pack DIR/none.ZIP -o DIR/p.zip --description x", "is a package");
        row("pack DIR/scatter.txt -o DIR/p.zip --description x",
            "The data within the package is corrupted (saved md5");
        row("image-info DIR/none.bin", "cannot read DIR/none.bin");
        row("image-info DIR/app.bin --trailer x", "--trailer takes an offset");
        row("demo DIR/none.zip", "cannot read the demo package");
        row("demo DIR/a.zip DIR/b.zip", "usage: esp-utility demo [PACKAGE]");
    }

    void badArguments()
    {
        QFETCH(QString, message);
        const QString arguments = QTest::currentDataTag();
        writeScatterSet();
        writeTestFile(m_dir->path(), "firmware.bin", "changed"); // scatter.txt: corrupt data
        const QString good = R"({"chip": "ESP8266EX", "stub": "loader.elf", "sections": [
            {"type": "application", "address": "0x10000", "file": "app.bin", "md5": "%1"}]})";
        writeTestFile(m_dir->path(), "good.txt", good.arg(md5Hex(applicationImage)).toUtf8());
        const auto expand = [this](QString text) {
            return text.replace("PORT", m_chip->port())
                .replace("STUB", generatedStubPath())
                .replace("DIR/", m_dir->path() + "/");
        };
        QVERIFY(run(2, expand(arguments).split(' ', Qt::SkipEmptyParts), false));
        QVERIFY(m_out.isEmpty());
        QCOMPARE(m_err.count('\n'), 1);
        QVERIFY2(m_err.startsWith("esp-utility: ") && m_err.contains(expand(message)),
                 qPrintable(m_err));
        QCOMPARE(chip().commandLog().size(), 0);
        QVERIFY(!QFile::exists(path("p.zip")));
    }

    // Help, wherever --help stands: the command's forms and exactly the options it takes.
    void help_data()
    {
        QTest::addColumn<QString>("first");     // the first line
        QTest::addColumn<QStringList>("shown"); // lines that begin so
        QTest::addColumn<QStringList>("absent");
        QTest::newRow("--help") << "Usage: esp-utility COMMAND [ARGUMENTS] [OPTIONS]"
                                << QStringList{"  flash SCATTER|PACKAGE", "  completion bash",
                                               "  --only firmware|application", "  --out DIR"}
                                << QStringList{};
        QTest::newRow("flash --help")
            << "Usage: esp-utility flash SCATTER|PACKAGE [OPTIONS]"
            << QStringList{"  --only firmware|application", "  --port PATH", "  -y, --yes"}
            << QStringList{"  --trailer", "  --out", "  ports"};
        QTest::newRow("-h verify")
            << "Usage: esp-utility verify SCATTER|PACKAGE [OPTIONS]"
            << QStringList{"   or: esp-utility verify ADDRESS:SIZE [OPTIONS]", "  --stub FILE"}
            << QStringList{"  --only", "  --scatter"};
    }

    void help()
    {
        QFETCH(QString, first);
        QFETCH(QStringList, shown);
        QFETCH(QStringList, absent);
        QVERIFY(run(0, QString(QTest::currentDataTag()).split(' '), false));
        QVERIFY(m_err.isEmpty());
        const QStringList lines = m_out.split('\n');
        QCOMPARE(lines.first(), first);
        const auto anyBegins = [&lines](const QString &start) {
            return std::any_of(lines.cbegin(), lines.cend(),
                               [&start](const QString &line) { return line.startsWith(start); });
        };
        for (const QString &line : shown)
            QVERIFY2(anyBegins(line), qPrintable(line));
        for (const QString &line : absent)
            QVERIFY2(!anyBegins(line), qPrintable(line));
        QCOMPARE(chip().commandLog().size(), 0);
    }

    // The bash completion that the program writes, run by bash on a command line being typed
    // (the words so far; a trailing blank starts a new word). DIR/ is the test directory.
    void bashCompletion_data()
    {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QStringList>("offered");
        const auto row = [](const char *typed, const QStringList &offered) {
            QTest::newRow(typed) << typed << offered;
        };
        row("esp-utility fl", {"flash"});
        row("esp-utility --", {"--help", "--version"});
        row("esp-utility flash --o", {"--only"});
        row("esp-utility demo --o", {"--out"});
        row("esp-utility ports --", {"--help", "--version", "--virtual"});
        row("esp-utility flash --only ", {"application", "firmware"});
        row("esp-utility erase ", {"all"});
        row("esp-utility info --port ", {"/dev/pts/77", "/dev/pts/78"});
        row("esp-utility image-info DIR/ap", {"DIR/app.bin"});
        row("esp-utility pack DIR/scatter.txt -o DIR/s", {"DIR/scatter.txt"});
        row("esp-utility read --scatter out.txt 0x0:0x1000 --p", {"--port"});
        row("esp-utility write 0x0 DIR/app.bin --baud 9", {"921600"});
        row("esp-utility frob --", {});
        row("esp-utility image-info x --trailer ", {});
    }

    void bashCompletion()
    {
        QFETCH(QString, typed);
        QFETCH(QStringList, offered);
        QVERIFY(run(0, {"completion", "bash"}, false));
        const QString script = writeTestFile(m_dir->path(), "completion.bash", m_out.toUtf8());
        writeTestFile(m_dir->path(), "app.bin", "x");
        writeTestFile(m_dir->path(), "scatter.txt", "{}");
        typed.replace("DIR/", m_dir->path() + "/");
        QStringList words = typed.split(' ');
        QProcess bash;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert("ESP_UTILITY_EXTRA_PORTS", "/dev/pts/77=SERIAL:/dev/pts/78");
        bash.setProcessEnvironment(environment);
        // bash -c SCRIPT NAME COMPLETION-FILE WORDS...: the words become COMP_WORDS.
        const QString complete = R"(source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1));
                                    _esp_utility; printf '%s\n' "${COMPREPLY[@]}")";
        bash.start("bash", QStringList{"-c", complete, "bash", script} + words);
        QVERIFY(bash.waitForFinished(10000) && bash.exitCode() == 0);
        QStringList replies = QString::fromUtf8(bash.readAllStandardOutput()).split('\n');
        replies.removeAll(QString());
        replies.sort();
        offered.replaceInStrings("DIR/", m_dir->path() + "/");
        QCOMPARE(replies, offered);
    }
};

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
