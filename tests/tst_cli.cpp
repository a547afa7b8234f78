#include "chipfixture.h"
#include "cliprocess.h"
#include "scattertestfiles.h"
#include "testpaths.h"

#include "flasher/esppackage.h"
#include "flasher/scatterloader.h"
#include "flasher/scattervalidator.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

namespace {

constexpr quint32 applicationAddress = 0x10000;
const char *const chipOfTheVirtualBoard = "ESP8266EX / 00a1b2c3";

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
QByteArray writtenFirmware(const QByteArray &image)
{
    QByteArray written = image;
    written[2] = char(2);
    written[3] = char(4 << 4 | 0);
    return written;
}

// Payload, then 0x2000 bytes of 0xFF that packing trims.
QByteArray applicationImage()
{
    return EspImageBuilder::application(0x6000, 0x2000, 21);
}

struct ScatterOptions
{
    bool stub = true;
    bool md5 = true;
    QString chip = QStringLiteral("ESP8266EX");
};

QJsonObject section(const QString &type, quint32 address, const QString &file,
                    const QByteArray &bytes, bool withMd5)
{
    QJsonObject object{
        {"type", type}, {"address", QStringLiteral("0x%1").arg(address, 0, 16)}, {"file", file}};
    if (withMd5)
        object.insert("md5", md5Hex(bytes));
    if (type == QLatin1String("firmware")) {
        object.insert("options", QJsonObject{{"flash", QJsonObject{{"mode", "dio"},
                                                                   {"size", "4MB"},
                                                                   {"frequency", "40m"}}}});
    }
    return object;
}

// firmware.bin at 0x0, app.bin at 0x10000, the project's loader as loader.elf.
QString writeScatterSet(const QDir &dir, const ScatterOptions &options = ScatterOptions())
{
    const QByteArray firmware = firmwareImage();
    const QByteArray application = applicationImage();
    writeTestFile(dir, "firmware.bin", firmware);
    writeTestFile(dir, "app.bin", application);
    QFile::copy(generatedStubPath(), dir.absoluteFilePath("loader.elf"));
    QJsonObject document{
        {"chip", options.chip},
        {"sections", QJsonArray{section("firmware", 0, "firmware.bin", firmware, options.md5),
                                section("application", applicationAddress, "app.bin", application,
                                        options.md5)}}};
    if (options.stub)
        document.insert("stub", "loader.elf");
    return writeTestFile(dir, "scatter.txt", QJsonDocument(document).toJson());
}

bool contains(const QStringList &lines, const QString &text)
{
    return lines.contains(text);
}

} // namespace

class TestCli : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<QTemporaryDir> m_dir;
    std::unique_ptr<ChipFixture> m_chip;

    QDir dir() const { return QDir(m_dir->path()); }
    QString stub() const { return generatedStubPath(); }

private slots:
    void init()
    {
        m_dir = std::make_unique<QTemporaryDir>();
        QVERIFY(m_dir->isValid());
        m_chip = std::make_unique<ChipFixture>();
        QVERIFY(m_chip->start());
    }

    void cleanup()
    {
        m_chip.reset();
        m_dir.reset();
    }

    void flashLooseScatterWritesTheChip()
    {
        const QString scatter = writeScatterSet(dir());
        const CliRun run = runCli({"flash", scatter, "--port", m_chip->port()});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        const QByteArray firmware = firmwareImage();
        const QByteArray application = applicationImage();
        QCOMPARE(m_chip->chip().flash(0, firmware.size()), writtenFirmware(firmware));
        QCOMPARE(m_chip->chip().flash(applicationAddress, application.size()), application);

        const QStringList out = run.outLines();
        QVERIFY(
            contains(out, "Start writing firmware from " + dir().absoluteFilePath("firmware.bin") +
                              " to 0x00000000 (flash memory size 4MB, mode dio, frequency 40m)"));
        QVERIFY(contains(out, "Start writing user application from " +
                                  dir().absoluteFilePath("app.bin") +
                                  " to 0x00010000 (max size 4MB)"));
        QVERIFY(contains(out, "Firmware has been successfully flashed."));
        QVERIFY(contains(out, "Application has been successfully flashed."));
        QVERIFY(contains(out, "Finished flashing package"));
        // The summary row of the board.
        QVERIFY2(run.out.contains(QRegularExpression(
                     QStringLiteral("\n%1 +ESP8266EX / 00a1b2c3 +18FE34A1B2C3 +ok")
                         .arg(QRegularExpression::escape(m_chip->port())))),
                 qPrintable(run.out));
        // Progress goes to stderr, as plain lines when it is no terminal.
        QVERIFY(run.err.contains("write data: 100%"));
        QVERIFY(!run.err.contains('\r'));
    }

    void flashPackageMadeByPack()
    {
        const QString scatter = writeScatterSet(dir());
        const QString package = dir().absoluteFilePath("out/board");
        QDir().mkpath(dir().absoluteFilePath("out"));
        const CliRun pack =
            runCli({"pack", scatter, "-o", package, "--description", "Board 1.0", "--trim"});
        QVERIFY2(pack.exitCode == 0, qPrintable(pack.transcript()));
        QVERIFY(contains(pack.outLines(), "Created zip package in " + package + ".zip"));

        const CliRun run = runCli({"flash", package + ".zip", "--port", m_chip->port()});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        QVERIFY(contains(run.outLines(), "Start loading stub from esp8266_loader_stub.elf"));
        QVERIFY(
            contains(run.outLines(),
                     "Start writing user application from app.bin to 0x00010000 (max size 4MB)"));
        const QByteArray firmware = firmwareImage();
        const QByteArray application = applicationImage();
        QCOMPARE(m_chip->chip().flash(0, firmware.size()), writtenFirmware(firmware));
        // The trimmed image on an erased chip reads back as the whole one.
        QCOMPARE(m_chip->chip().flash(applicationAddress, application.size()), application);
    }

    void flashOnlyOneKind_data()
    {
        QTest::addColumn<QString>("only");
        QTest::addColumn<bool>("firmwareWritten");
        QTest::addColumn<QString>("skipped");
        QTest::newRow("firmware") << "firmware" << true << "Skipping section 2";
        QTest::newRow("application") << "application" << false << "Skipping section 1";
    }

    void flashOnlyOneKind()
    {
        QFETCH(QString, only);
        QFETCH(bool, firmwareWritten);
        QFETCH(QString, skipped);
        const QString scatter = writeScatterSet(dir());
        const CliRun run = runCli({"flash", scatter, "--only", only, "--port", m_chip->port()});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        QVERIFY(contains(run.outLines(), skipped));
        const QByteArray firmware = firmwareImage();
        const QByteArray application = applicationImage();
        const QByteArray erasedFirmware(firmware.size(), char(0xFF));
        const QByteArray erasedApplication(application.size(), char(0xFF));
        QCOMPARE(m_chip->chip().flash(0, firmware.size()),
                 firmwareWritten ? writtenFirmware(firmware) : erasedFirmware);
        QCOMPARE(m_chip->chip().flash(applicationAddress, application.size()),
                 firmwareWritten ? erasedApplication : application);
    }

    void verifyFindsMatchesAndMismatches()
    {
        const QString scatter = writeScatterSet(dir());
        QCOMPARE(runCli({"flash", scatter, "--port", m_chip->port()}).exitCode, 0);
        m_chip->chip().reset();

        const CliRun good = runCli({"verify", scatter, "--port", m_chip->port()});
        QVERIFY2(good.exitCode == 0, qPrintable(good.transcript()));
        // Firmware: the image as written, header patched; application: its saved md5.
        const QString firmwareMd5 = md5Hex(writtenFirmware(firmwareImage()));
        const QString applicationMd5 = md5Hex(applicationImage());
        QVERIFY(contains(good.outLines(), "Checksum verified (MD5: " + firmwareMd5 + ")"));
        QVERIFY(contains(good.outLines(), "Checksum verified (MD5: " + applicationMd5 + ")"));
        QVERIFY(good.out.contains("2 of 2 section(s) verified"));

        QByteArray damaged = applicationImage();
        damaged[100] = char(damaged.at(100) ^ 0x01);
        m_chip->chip().setFlash(applicationAddress, damaged);
        m_chip->chip().reset();
        const CliRun bad = runCli({"verify", scatter, "--port", m_chip->port()});
        QCOMPARE(bad.exitCode, 1);
        QVERIFY(contains(bad.outLines(), "Checksum verified (MD5: " + firmwareMd5 + ")"));
        QVERIFY2(contains(bad.errLines(), "Checksum verification failed (" + md5Hex(damaged) +
                                              " vs " + applicationMd5 + ")"),
                 qPrintable(bad.transcript()));
        QVERIFY(bad.out.contains("FAILED: 1 of 2 section(s) failed verification"));
    }

    void verifyRegionShowsItsMd5()
    {
        const QByteArray data = patternBytes(0x1000, 3);
        m_chip->chip().setFlash(0x2000, data);
        const CliRun run =
            runCli({"verify", "0x2000:4kb", "--stub", stub(), "--port", m_chip->port()});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        QVERIFY(contains(run.outLines(), "Requested flash memory contents md5 for "
                                         "[0x00002000:0x00001000] (size 4096)"));
        QVERIFY(contains(run.outLines(), "MD5: " + md5Hex(data)));
    }

    void readBackReflashesASecondChip()
    {
        const QString scatter = writeScatterSet(dir());
        QCOMPARE(runCli({"flash", scatter, "--port", m_chip->port()}).exitCode, 0);
        m_chip->chip().reset();

        const QString readScatter = dir().absoluteFilePath("read/copy.txt");
        const CliRun read = runCli({"read", "--scatter", readScatter, "0x0:0x2000",
                                    "0x10000-0x18000", "--stub", stub(), "--port", m_chip->port()});
        QVERIFY2(read.exitCode == 0, qPrintable(read.transcript()));
        QVERIFY(contains(read.outLines(), "Extracted flash parameters: 4Mb / dio / 40MHz"));
        QVERIFY(contains(read.outLines(), "Scatter file saved to " + readScatter));

        // The files hold exactly what the chip holds.
        QFile firmwareFile(dir().absoluteFilePath("read/region-00000000-00002000.bin"));
        QVERIFY(firmwareFile.open(QIODevice::ReadOnly));
        QCOMPARE(firmwareFile.readAll(), m_chip->chip().flash(0, 0x2000));
        QFile applicationFile(dir().absoluteFilePath("read/region-00010000-00018000.bin"));
        QVERIFY(applicationFile.open(QIODevice::ReadOnly));
        QCOMPARE(applicationFile.readAll(), m_chip->chip().flash(applicationAddress, 0x8000));

        // The saved scatter passes the strict check: a firmware row with options, an
        // application row, the loader beside it.
        ScatterLoader loader;
        QVERIFY(loader.load(readScatter));
        QJsonObject document = loader.document();
        ScatterValidator validator(chipOfTheVirtualBoard, QString());
        QString error;
        QVERIFY2(validator.parseScatterObject(document, true, QFileInfo(readScatter), &error),
                 qPrintable(error));
        QCOMPARE(validator.rows().size(), 2);
        QCOMPARE(validator.rows().at(0).kind, int(ScatterSection::Firmware));
        QCOMPARE(validator.rows().at(0).flashMode, QString("dio"));
        QCOMPARE(validator.rows().at(1).kind, int(ScatterSection::Application));
        QCOMPARE(QFileInfo(validator.loaderText()).canonicalFilePath(),
                 QFileInfo(stub()).canonicalFilePath());

        ChipFixture second;
        QVERIFY(second.start());
        const CliRun flash = runCli({"flash", readScatter, "--port", second.port()});
        QVERIFY2(flash.exitCode == 0, qPrintable(flash.transcript()));
        QCOMPARE(second.chip().flash(0, 0x20000), m_chip->chip().flash(0, 0x20000));
    }

    void readRegionOfPlainDataIsAnApplication()
    {
        m_chip->chip().setFlash(0x3000, QByteArray(0x1000, char(0xE8)));
        const QString readScatter = dir().absoluteFilePath("r.txt");
        const CliRun run = runCli({"read", "--scatter", readScatter, "0x3000:0x1000", "--stub",
                                   stub(), "--port", m_chip->port()});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        QFile file(readScatter);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QJsonArray sections =
            QJsonDocument::fromJson(file.readAll()).object().value("sections").toArray();
        QCOMPARE(sections.size(), 1);
        QCOMPARE(sections.at(0).toObject().value("type").toString(), QString("application"));
        QCOMPARE(sections.at(0).toObject().value("md5").toString(),
                 md5Hex(QByteArray(0x1000, char(0xE8))));
        QVERIFY(!sections.at(0).toObject().contains("options"));
    }

    void readIntoAnUnwritableFileFails()
    {
        // The region's file name is taken by a directory, so the worker cannot write it.
        QVERIFY(dir().mkpath("region-00000000-00001000.bin"));
        const CliRun run = runCli({"read", "--scatter", dir().absoluteFilePath("x.txt"),
                                   "0x0:0x1000", "--stub", stub(), "--port", m_chip->port()});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains("Invalid parameters: cannot write to"), qPrintable(run.err));
        QVERIFY(!QFile::exists(dir().absoluteFilePath("x.txt")));
    }

    void eraseRegionAndWholeChip()
    {
        const QByteArray data = patternBytes(0x3000, 4);
        m_chip->chip().setFlash(0x1000, data);
        const CliRun region =
            runCli({"erase", "0x2000:0x1000", "--stub", stub(), "--port", m_chip->port()});
        QVERIFY2(region.exitCode == 0, qPrintable(region.transcript()));
        QVERIFY(contains(region.outLines(), "Flash memory has been erased."));
        QCOMPARE(m_chip->chip().flash(0x1000, 0x1000), data.left(0x1000));
        QCOMPARE(m_chip->chip().flash(0x2000, 0x1000), QByteArray(0x1000, char(0xFF)));
        QCOMPARE(m_chip->chip().flash(0x3000, 0x1000), data.mid(0x2000));

        m_chip->chip().reset();
        const CliRun all = runCli({"erase", "all", "--stub", stub(), "--port", m_chip->port()});
        QVERIFY2(all.exitCode == 0, qPrintable(all.transcript()));
        QCOMPARE(m_chip->chip().flash(0, 0x10000), QByteArray(0x10000, char(0xFF)));
        const auto erases = m_chip->chip().counters().erases;
        QVERIFY(!erases.isEmpty());
        QCOMPARE(erases.last().kind, VirtualEsp8266::EraseKind::Chip);
    }

    void infoShowsTheChip()
    {
        const CliRun run = runCli({"info", "--port", m_chip->port()});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        QVERIFY(contains(run.outLines(), QString("Chip:       ") + chipOfTheVirtualBoard));
        QVERIFY(contains(run.outLines(), "MAC:        18FE34A1B2C3"));
        QVERIFY(contains(run.outLines(), "Flash size: 4Mb"));
    }

    void silentChipFailsTheBoard()
    {
        m_chip->chip().armSilence(0);
        const CliRun run = runCli({"info", "--port", m_chip->port()});
        QCOMPARE(run.exitCode, 1);
        QVERIFY(contains(run.errLines(), "UBoot operation connect (0) finished with error"));
        QVERIFY(run.out.contains(QRegularExpression(
            QStringLiteral("\n%1 +- +- +FAILED").arg(QRegularExpression::escape(m_chip->port())))));
    }

    void scatterOfAnotherChipFailsTheBoard()
    {
        ScatterOptions options;
        options.chip = "ESP8285";
        const QString scatter = writeScatterSet(dir(), options);
        const CliRun run = runCli({"flash", scatter, "--port", m_chip->port()});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains("This scatter file belongs to a different chip (ESP8285 vs "
                                  "ESP8266EX / 00a1b2c3)"),
                 qPrintable(run.transcript()));
        QCOMPARE(m_chip->chip().flash(0, 16), QByteArray(16, char(0xFF)));
    }

    void loaderFromTheOption()
    {
        ScatterOptions options;
        options.stub = false;
        const QString scatter = writeScatterSet(dir(), options);

        const CliRun without = runCli({"flash", scatter, "--port", m_chip->port()});
        QCOMPARE(without.exitCode, 2);
        QVERIFY2(without.err.contains("The mandatory flash loader file is missing"),
                 qPrintable(without.transcript()));

        const CliRun with = runCli({"flash", scatter, "--stub", stub(), "--port", m_chip->port()});
        QVERIFY2(with.exitCode == 0, qPrintable(with.transcript()));
        QVERIFY(contains(with.outLines(), "Start loading stub from " + stub()));
    }

    void missingChecksumNeedsYes()
    {
        ScatterOptions options;
        options.md5 = false;
        const QString scatter = writeScatterSet(dir(), options);

        const CliRun refused = runCli({"flash", scatter, "--port", m_chip->port()});
        QCOMPARE(refused.exitCode, 2);
        QVERIFY2(refused.err.contains("is missing an md5 checksum. Proceed? Current md5: ") &&
                     refused.err.contains("pass --yes"),
                 qPrintable(refused.transcript()));
        QVERIFY(refused.err.contains("No saved checksum for " +
                                     dir().absoluteFilePath("firmware.bin")));
        QCOMPARE(m_chip->chip().commandLog().size(), 0);

        const CliRun accepted = runCli({"flash", scatter, "--yes", "--port", m_chip->port()});
        QVERIFY2(accepted.exitCode == 0, qPrintable(accepted.transcript()));
        QVERIFY(contains(accepted.outLines(),
                         "Proceeding without checksum verification for %1 as per users request"));
        QCOMPARE(m_chip->chip().flash(0, firmwareImage().size()), writtenFirmware(firmwareImage()));
    }

    void packWritesAPackage_data()
    {
        QTest::addColumn<bool>("trim");
        QTest::addColumn<int>("applicationSize");
        QTest::newRow("trimmed") << true << 0x6000;
        QTest::newRow("whole") << false << 0x8000;
    }

    void packWritesAPackage()
    {
        QFETCH(bool, trim);
        QFETCH(int, applicationSize);
        const QString scatter = writeScatterSet(dir());
        const QString target = dir().absoluteFilePath("p.zip");
        QStringList arguments{"pack", scatter, "-o", target, "--description", "Ünïcode 2"};
        if (trim)
            arguments << "--trim";
        const CliRun run = runCli(arguments);
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        QCOMPARE(run.out.contains("Saved 8192 bytes from"), trim);

        EspPackage package(target);
        QVERIFY(package.open());
        QCOMPARE(package.comment(), QString("Ünïcode 2"));
        QCOMPARE(package.entryNames(), (QStringList{"esp8266_loader_stub.elf", "firmware.bin",
                                                    "app.bin", "scatter.txt"}));
        QByteArray bytes;
        QCOMPARE(package.readEntry("app.bin", &bytes), EspPackage::EntryStatus::Ok);
        QCOMPARE(bytes, applicationImage().left(applicationSize));
        QCOMPARE(package.readEntry("firmware.bin", &bytes), EspPackage::EntryStatus::Ok);
        QCOMPARE(bytes, firmwareImage());
        QCOMPARE(package.readEntry("scatter.txt", &bytes), EspPackage::EntryStatus::Ok);
        const QJsonObject document = QJsonDocument::fromJson(bytes).object();
        QCOMPARE(document.value("chip").toString(), QString("ESP8266EX"));
        QCOMPARE(document.value("sections").toArray().at(1).toObject().value("md5").toString(),
                 md5Hex(applicationImage().left(applicationSize)));
        QFile loader(stub());
        QVERIFY(loader.open(QIODevice::ReadOnly));
        QCOMPARE(package.readEntry("esp8266_loader_stub.elf", &bytes), EspPackage::EntryStatus::Ok);
        QCOMPARE(bytes, loader.readAll());
    }

    void packRefusesADamagedScatter()
    {
        const QString scatter = writeScatterSet(dir());
        writeTestFile(dir(), "app.bin", patternBytes(0x100, 9));
        const QString target = dir().absoluteFilePath("p.zip");
        const CliRun run = runCli({"pack", scatter, "-o", target, "--description", "d"});
        QCOMPARE(run.exitCode, 2);
        QCOMPARE(run.errLines().size(), 1);
        QVERIFY2(run.err.contains("The data within the package is corrupted (saved md5"),
                 qPrintable(run.transcript()));
        QVERIFY(!QFile::exists(target));
    }

    void packToAnUnwritablePlace()
    {
        const QString scatter = writeScatterSet(dir());
        const QString target = dir().absoluteFilePath("no/such/dir/p.zip");
        const CliRun run = runCli({"pack", scatter, "-o", target, "--description", "d"});
        QCOMPARE(run.exitCode, 1);
        QVERIFY2(run.err.contains("File " + target + " is not writable: "),
                 qPrintable(run.transcript()));
    }

    void imageInfo()
    {
        EspImageBuilder builder;
        builder.setFlashMode(3);
        builder.setFlashSize(3);
        builder.setFlashFrequency(1);
        builder.addRandomSegment(0x40100000, 0x100, 1);
        builder.addRandomSegment(0x3FFE8000, 0x20, 2);
        const QString path = writeTestFile(dir(), "fw.bin", builder.build());
        const CliRun run = runCli({"image-info", path});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        QVERIFY(contains(run.outLines(), "<FM: dout, FS: 2Mb, FF: 26MHz, PC: 0x40100004>"));
        QVERIFY(contains(run.outLines(), "  0: 0x40100000 - 0x40100100  256 bytes"));
        QVERIFY(contains(run.outLines(), "  1: 0x3ffe8000 - 0x3ffe8020  32 bytes"));

        const QString data = writeTestFile(dir(), "data.bin", patternBytes(64, 1));
        const CliRun notImage = runCli({"image-info", data});
        QCOMPARE(notImage.exitCode, 1);
        QVERIFY(notImage.err.contains("is not an ESP8266 firmware image"));
    }

    void imageInfoWithTrailer()
    {
        EspImageBuilder builder;
        builder.addRandomSegment(0x40100000, 0x40, 1);
        builder.setSecondPart(patternBytes(0x80, 5));
        const QString path = writeTestFile(dir(), "upy.bin", builder.build());
        const CliRun run =
            runCli({"image-info", path, "--trailer", QString::number(builder.trailerOffset())});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        QVERIFY2(run.out.contains("IROM0:"), qPrintable(run.out));
        QVERIFY(run.out.contains(QString("(recorded %1)").arg(builder.build().size())));
    }

    void demoPackageRuns()
    {
        const QString package = testBuildDir() + "/demo/demo.zip";
        QVERIFY(QFile::exists(package));
        const QString out = dir().absoluteFilePath("readback");
        const CliRun run = runCli({"demo", package, "--out", out});
        QVERIFY2(run.exitCode == 0, qPrintable(run.transcript()));
        QVERIFY(run.out.contains("2 of 2 section(s) verified"));
        QVERIFY(run.out.contains("Demo complete"));
        QVERIFY(QFile::exists(out + "/scatter.txt"));
        QVERIFY(QFile::exists(out + "/esp8266_loader_stub.elf"));

        // What the demo read back flashes a board of its own.
        const CliRun again = runCli({"flash", out + "/scatter.txt", "--port", m_chip->port()});
        QVERIFY2(again.exitCode == 0, qPrintable(again.transcript()));
    }
};

QTEST_GUILESS_MAIN(TestCli)
#include "tst_cli.moc"
