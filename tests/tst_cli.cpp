#include "chipfixture.h"
#include "cliprocess.h"
#include "scattertestfiles.h"
#include "testpaths.h"

#include "tools/imagegen/espimagebuilder.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr quint32 applicationAddress = 0x10000;
const QString chipOfTheVirtualBoard = QStringLiteral("ESP8266EX / 00a1b2c3");

// A firmware image whose header says qio / 1MB / 40m; scatter files flash it as dio / 4MB / 40m.
QByteArray firmwareImage()
{
    EspImageBuilder builder;
    builder.setFlashMode(0);
    builder.setFlashSize(2);
    builder.setFlashFrequency(0);
    builder.addRandomSegment(0x40100000, 0x1800, 11);
    builder.addRandomSegment(0x3FFE8000, 0x200, 12);
    return builder.build();
}

// The image as the chip holds it after a write with dio / 4MB / 40m.
QByteArray writtenFirmware()
{
    QByteArray written = firmwareImage();
    written[2] = char(2);
    written[3] = char(4 << 4 | 0);
    return written;
}

// Payload, then 0x2000 bytes of 0xFF that packing trims.
QByteArray applicationImage()
{
    return EspImageBuilder::application(0x6000, 0x2000, 21);
}

// The result columns of a port's summary row: "<chip>  <mac>  <result>".
QString summaryRow(const CliRun &run, const QString &port)
{
    const QRegularExpression row("^" + QRegularExpression::escape(port) + " +(.*)$",
                                 QRegularExpression::MultilineOption);
    return row.match(run.out).captured(1);
}

} // namespace

class TestCli : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ChipFixture> m_chip;
    CliRun m_run; // the last run

    QString path(const QString &name) const { return m_dir->filePath(name); }
    VirtualEsp8266 &chip() { return m_chip->chip(); }
    bool out(const QString &line) const { return m_run.outLines().contains(line); }
    bool err(const QString &line) const { return m_run.errLines().contains(line); }

    // Runs the program on the board (with the project's loader when asked) and checks its exit
    // code; the transcript is printed when it differs.
    bool run(int exitCode, QStringList arguments, bool onBoard = true, bool withStub = false)
    {
        if (withStub)
            arguments << "--stub" << generatedStubPath();
        m_run = runCli(onBoard ? arguments << "--port" << m_chip->port() : arguments);
        if (m_run.exitCode != exitCode)
            qWarning("%s", qPrintable(m_run.transcript()));
        return m_run.exitCode == exitCode;
    }

    // firmware.bin at 0x0, app.bin at 0x10000 (its md5 in lower case), loader.elf beside them.
    QString writeScatterSet(const QString &chip = "ESP8266EX", bool withStub = true,
                            bool withMd5 = true)
    {
        writeTestFile(m_dir->path(), "firmware.bin", firmwareImage());
        writeTestFile(m_dir->path(), "app.bin", applicationImage());
        QFile::copy(generatedStubPath(), path("loader.elf"));
        QJsonObject firmware{{"type", "firmware"}, {"address", "0x0"}, {"file", "firmware.bin"}};
        firmware["options"] = QJsonObject{
            {"flash", QJsonObject{{"mode", "dio"}, {"size", "4MB"}, {"frequency", "40m"}}}};
        QJsonObject application{
            {"type", "application"}, {"address", "0x10000"}, {"file", "app.bin"}};
        if (withMd5) {
            firmware["md5"] = md5Hex(firmwareImage());
            application["md5"] = md5Hex(applicationImage()).toLower();
        }
        QJsonObject document{{"chip", chip}, {"sections", QJsonArray{firmware, application}}};
        if (withStub)
            document["stub"] = "loader.elf";
        return writeTestFile(m_dir->path(), "scatter.txt", QJsonDocument(document).toJson());
    }

private slots:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        m_chip = std::make_unique<ChipFixture>();
        QVERIFY(m_dir->isValid() && m_chip->start());
    }

    void cleanup()
    {
        m_chip.reset();
        m_dir.reset();
    }

    void flashWritesTheChip()
    {
        QVERIFY(run(0, {"flash", writeScatterSet()}));
        QCOMPARE(chip().flash(0, writtenFirmware().size()), writtenFirmware());
        QCOMPARE(chip().flash(applicationAddress, 0x8000), applicationImage());
        QVERIFY(out("Start writing firmware from " + path("firmware.bin") +
                    " to 0x00000000 (flash memory size 4MB, mode dio, frequency 40m)"));
        QVERIFY(out("Start writing user application from " + path("app.bin") +
                    " to 0x00010000 (max size 4MB)"));
        QVERIFY(out("Firmware has been successfully flashed."));
        QVERIFY(out("Application has been successfully flashed."));
        QVERIFY(out("Finished flashing package"));
        QVERIFY(summaryRow(m_run, m_chip->port())
                    .contains(QRegularExpression("^ESP8266EX / 00a1b2c3 +18FE34A1B2C3 +ok")));
        // Progress goes to stderr, as plain lines when it is no terminal.
        QVERIFY(m_run.err.contains("write data: 100%") && !m_run.err.contains('\r'));

        chip().reset();
        chip().setFlash(0, QByteArray(0x20000, char(0xFF)));
        QVERIFY(run(0, {"flash", path("scatter.txt"), "--only", "application"}));
        QVERIFY(out("Skipping section 1"));
        QCOMPARE(chip().flash(0, 16), QByteArray(16, char(0xFF)));
        QCOMPARE(chip().flash(applicationAddress, 0x8000), applicationImage());
    }

    void packThenFlashThePackage_data()
    {
        QTest::addColumn<bool>("trim");
        QTest::newRow("trimmed") << true;
        QTest::newRow("whole") << false;
    }

    void packThenFlashThePackage()
    {
        QFETCH(bool, trim);
        QStringList pack{"pack", writeScatterSet(), "-o", path("board"), "--description", "Ü 2"};
        QVERIFY(run(0, trim ? pack << "--trim" : pack, false));
        QVERIFY(out("Created zip package in " + path("board.zip")));
        QCOMPARE(m_run.out.contains("Saved 8192 bytes from " + path("app.bin")), trim);
        QVERIFY(run(0, {"flash", path("board.zip")}));
        QVERIFY(out("Start loading stub from esp8266_loader_stub.elf"));
        QVERIFY(out("Start writing user application from app.bin to 0x00010000 (max size 4MB)"));
        QCOMPARE(chip().flash(0, writtenFirmware().size()), writtenFirmware());
        // A trimmed image on an erased chip reads back as the whole one.
        QCOMPARE(chip().flash(applicationAddress, 0x8000), applicationImage());
    }

    void verifyFindsMatchesAndMismatches()
    {
        QVERIFY(run(0, {"flash", writeScatterSet()}));
        chip().reset();
        // Firmware: the image as written, header patched; application: its saved md5, in
        // whatever letter case.
        QVERIFY(run(0, {"verify", path("scatter.txt")}));
        const QString firmwareMd5 = md5Hex(writtenFirmware());
        const QString applicationMd5 = md5Hex(applicationImage());
        QVERIFY(out("Checksum verified (MD5: " + firmwareMd5 + ")"));
        QVERIFY(out("Checksum verified (MD5: " + applicationMd5 + ")"));
        QVERIFY(m_run.out.contains("2 of 2 section(s) verified"));

        QByteArray damaged = applicationImage();
        damaged[100] = char(damaged.at(100) ^ 0x01);
        chip().setFlash(applicationAddress, damaged);
        chip().reset();
        QVERIFY(run(1, {"verify", path("scatter.txt")}));
        QVERIFY(err("Checksum verification failed (" + md5Hex(damaged) + " vs " +
                    applicationMd5.toLower() + ")"));
        QVERIFY(m_run.out.contains("FAILED: 1 of 2 section(s) failed verification"));

        chip().reset();
        QVERIFY(run(0, {"verify", "0x10000:4kb"}, true, true));
        QVERIFY(out("Requested flash memory contents md5 for [0x00010000:0x00001000] (size 4096)"));
        QVERIFY(out("MD5: " + md5Hex(damaged.left(0x1000))));
    }

    void readBackReflashesASecondChip()
    {
        QVERIFY(run(0, {"flash", writeScatterSet()}));
        chip().reset();
        const QString copy = path("read/copy.txt");
        QVERIFY(run(0, {"read", "--scatter", copy, "0x0:0x2000", "0x10000-0x18000"}, true, true));
        QVERIFY(out("Extracted flash parameters: 4Mb / dio / 40MHz"));
        QVERIFY(out("Scatter file saved to " + copy));
        QFile region(path("read/region-00010000-00018000.bin"));
        QVERIFY(region.open(QIODevice::ReadOnly));
        QCOMPARE(region.readAll(), chip().flash(applicationAddress, 0x8000));

        ChipFixture second;
        QVERIFY(second.start());
        // The saved scatter passes the strict check and writes the same flash, headers included.
        QVERIFY(run(0, {"flash", copy, "--port", second.port()}, false));
        QCOMPARE(second.chip().flash(0, 0x20000), chip().flash(0, 0x20000));
    }

    void readIntoAnUnwritableFileFails()
    {
        // The region's file name is taken by a directory, so the worker cannot write it.
        QVERIFY(QDir(m_dir->path()).mkpath("region-00000000-00001000.bin"));
        QVERIFY(run(1, {"read", "--scatter", path("x.txt"), "0x0:0x1000"}, true, true));
        QVERIFY(m_run.err.contains("Invalid parameters: cannot write to"));
        QVERIFY(!QFile::exists(path("x.txt")));
    }

    void eraseRegionAndWholeChip()
    {
        const QByteArray data = patternBytes(0x3000, 4);
        chip().setFlash(0x1000, data);
        QVERIFY(run(0, {"erase", "0x2000:0x1000"}, true, true));
        QVERIFY(out("Flash memory has been erased."));
        QCOMPARE(chip().flash(0x1000, 0x3000),
                 data.left(0x1000) + QByteArray(0x1000, char(0xFF)) + data.mid(0x2000));
        chip().reset();
        QVERIFY(run(0, {"erase", "all"}, true, true));
        QCOMPARE(chip().flash(0, 0x10000), QByteArray(0x10000, char(0xFF)));
        QCOMPARE(chip().counters().erases.last().kind, VirtualEsp8266::EraseKind::Chip);
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
        QVERIFY(err("UBoot operation connect (0) finished with error"));
        QVERIFY(summaryRow(m_run, m_chip->port()).contains(QRegularExpression("^- +- +FAILED")));
    }

    void scatterOfAnotherChipFailsTheBoard()
    {
        QVERIFY(run(1, {"flash", writeScatterSet("ESP8285")}));
        QVERIFY(m_run.err.contains("This scatter file belongs to a different chip (ESP8285 vs " +
                                   chipOfTheVirtualBoard + ")"));
        QCOMPARE(chip().flash(0, 16), QByteArray(16, char(0xFF)));
    }

    void loaderFromTheOption()
    {
        const QString scatter = writeScatterSet("ESP8266EX", false);
        QVERIFY(run(2, {"flash", scatter}));
        QVERIFY(m_run.err.contains("The mandatory flash loader file is missing"));
        QVERIFY(run(0, {"flash", scatter}, true, true));
        QVERIFY(out("Start loading stub from " + generatedStubPath()));
    }

    void missingChecksumNeedsYes()
    {
        const QString scatter = writeScatterSet("ESP8266EX", true, false);
        QVERIFY(run(2, {"flash", scatter}));
        QVERIFY(m_run.err.contains("is missing an md5 checksum. Proceed? Current md5: ") &&
                m_run.err.contains("pass --yes"));
        QVERIFY(m_run.err.contains("No saved checksum for " + path("firmware.bin")));
        QCOMPARE(chip().commandLog().size(), 0);
        QVERIFY(run(0, {"flash", scatter, "--yes"}));
        QVERIFY(out("Proceeding without checksum verification for %1 as per users request"));
        QCOMPARE(chip().flash(0, writtenFirmware().size()), writtenFirmware());
    }

    void imageInfo()
    {
        EspImageBuilder builder;
        builder.setFlashMode(3);
        builder.setFlashSize(3);
        builder.setFlashFrequency(1);
        builder.addRandomSegment(0x40100000, 0x100, 1);
        builder.addRandomSegment(0x3FFE8000, 0x20, 2);
        builder.setSecondPart(patternBytes(0x80, 5));
        const QString image = writeTestFile(m_dir->path(), "fw.bin", builder.build());
        const QString trailer = QString::number(builder.trailerOffset());
        QVERIFY(run(0, {"image-info", image, "--trailer", trailer}, false));
        QVERIFY(out("<FM: dout, FS: 2Mb, FF: 26MHz, PC: 0x40100004>"));
        QVERIFY(out("  0: 0x40100000 - 0x40100100  256 bytes"));
        QVERIFY(out("  1: 0x3ffe8000 - 0x3ffe8020  32 bytes"));
        QVERIFY(m_run.out.contains(QString("(recorded %1)").arg(builder.build().size())));
        QVERIFY(run(1, {"image-info", writeTestFile(m_dir->path(), "d.bin", "data")}, false));
        QVERIFY(m_run.err.contains("is not an ESP8266 firmware image"));
    }

    void demoPackageRuns()
    {
        const QString readBack = path("readback");
        QVERIFY(run(0, {"demo", testBuildDir() + "/demo/demo.zip", "--out", readBack}, false));
        QVERIFY(m_run.out.contains("2 of 2 section(s) verified"));
        QVERIFY(m_run.out.contains("Demo complete"));
        // What the demo read back flashes a board of its own.
        QVERIFY(run(0, {"flash", readBack + "/scatter.txt"}));
    }

    void oneOfThreeBoardsVanishesMidWrite()
    {
        VirtualEsp8266::Config config;
        config.mac = QByteArray::fromHex("18fe34000002");
        ChipFixture failing(config);
        config.mac = QByteArray::fromHex("18fe34000003");
        ChipFixture third(config);
        QVERIFY(failing.start() && third.start());
        // Past the loader (about 10 KiB on the wire) and the firmware, inside the application.
        failing.chip().armVanishAfterBytes(30000);
        QVERIFY(
            run(1, {"flash", writeScatterSet(), "--port", failing.port(), "--port", third.port()}));
        QVERIFY(m_run.finished);
        QVERIFY(summaryRow(m_run, m_chip->port()).contains(QRegularExpression("C3 +ok \\(2 s")));
        QVERIFY(summaryRow(m_run, third.port()).contains(QRegularExpression("03 +ok \\(2 s")));
        QVERIFY(summaryRow(m_run, failing.port())
                    .contains(QRegularExpression("18FE34000002 +FAILED: write data")));
        // Lines of several boards carry their port.
        const QString written = "[%1] Application has been successfully flashed.";
        QVERIFY(out(written.arg(m_chip->port())));
        QVERIFY(!m_run.out.contains(written.arg(failing.port())));
        QVERIFY(
            m_run.err.contains(QString("[%1] UBoot operation write data (5) finished with error")
                                   .arg(failing.port())));
        QVERIFY(failing.chip().vanished());
        for (VirtualEsp8266 *board : {&chip(), &third.chip()})
            QCOMPARE(board->flash(applicationAddress, 0x8000), applicationImage());
        QCOMPARE(failing.chip().flash(0, writtenFirmware().size()), writtenFirmware());
        QVERIFY(failing.chip().flash(applicationAddress, 0x8000) != applicationImage());
    }
};

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
