#include "scattertestfiles.h"

#include "flasher/flashplan.h"
#include "tools/imagegen/espimagebuilder.h"
#include "worker/esptoolworker.h"

#include <QBuffer>
#include <QTemporaryDir>
#include <QtTest>

namespace {

ScatterSection firmwareRow(quint32 address, const QString &size = "4MB")
{
    ScatterSection row;
    row.hasCells = true;
    row.kind = ScatterSection::Firmware;
    row.kindSet = true;
    row.startAddress = address;
    row.endAddress = address + 0x1000;
    row.file = "firmware.bin";
    row.flashMode = "dout";
    row.flashSize = size;
    row.flashFrequency = "26m";
    return row;
}

ScatterSection applicationRow(quint32 address)
{
    ScatterSection row;
    row.hasCells = true;
    row.kind = ScatterSection::Application;
    row.kindSet = true;
    row.startAddress = address;
    row.endAddress = address + 0x2000;
    row.file = "app.bin";
    return row;
}

// An image with qio / 1MB / 40m in its header.
QByteArray testImage()
{
    EspImageBuilder builder;
    builder.setFlashMode(0);
    builder.setFlashSize(2);
    builder.setFlashFrequency(0);
    builder.addRandomSegment(0x40100000, 0x300, 5);
    builder.addRandomSegment(0x3FFE8000, 0x40, 6);
    return builder.build();
}

} // namespace

Q_DECLARE_METATYPE(FlashPlan::Tone)

class TestFlashPlan : public QObject
{
    Q_OBJECT

private slots:
    void scatterFlashSizeTakesTheFirstFirmwareRow()
    {
        const QVector<ScatterSection> rows{applicationRow(0x10000), firmwareRow(0, "2MB"),
                                           firmwareRow(0x80000, "1MB")};
        QString notice = "untouched";
        QCOMPARE(FlashPlan::scatterFlashSize(rows, 0x400000, &notice), QString("2MB"));
        QCOMPARE(notice, QString("untouched"));
    }

    void scatterFlashSizeSkipsRowsWithoutCells()
    {
        // A row left without cells reads as kind 0 but is no firmware row.
        QVector<ScatterSection> rows{ScatterSection(), applicationRow(0x10000)};
        QString notice;
        QCOMPARE(FlashPlan::scatterFlashSize(rows, 0x400000, &notice), QString("4Mb"));
        QVERIFY(!notice.isEmpty());
    }

    void scatterFlashSizeFallsBackToTheGuess_data()
    {
        QTest::addColumn<uint>("detected");
        QTest::addColumn<QString>("size");
        QTest::addColumn<QString>("notice");
        QTest::newRow("4 MiB") << 0x400000u << "4Mb"
                               << "There is no firmware files in the current scatter - using "
                                  "guessed flash memory size 4Mb";
        QTest::newRow("512 KiB") << 0x80000u << "512Kb"
                                 << "There is no firmware files in the current scatter - using "
                                    "guessed flash memory size 512Kb";
        QTest::newRow("unknown") << 0u << ""
                                 << "There is no firmware files in the current scatter - cannot "
                                    "detect flash memory size!";
    }

    void scatterFlashSizeFallsBackToTheGuess()
    {
        QFETCH(uint, detected);
        QFETCH(QString, size);
        QFETCH(QString, notice);
        QString text;
        QCOMPARE(FlashPlan::scatterFlashSize({applicationRow(0x10000)}, detected, &text), size);
        QCOMPARE(text, notice);
    }

    void writeCommandForFirmware()
    {
        const FlashPlan::Command command =
            FlashPlan::writeCommand(firmwareRow(0x1000), QString("/images/fw.bin"), "ignored");
        QCOMPARE(command.command, int(ESPToolWorker::WriteFirmware));
        QCOMPARE(command.params, (QVariantList{QString("/images/fw.bin"), 0x1000u, QString("4MB"),
                                               QString("dout"), QString("26m")}));
        QCOMPARE(command.announcement,
                 QString("Start writing firmware from /images/fw.bin to 0x00001000 (flash memory "
                         "size 4MB, mode dout, frequency 26m)"));
    }

    void writeCommandForApplicationNamesTheDescriptor()
    {
        QBuffer buffer;
        const QVariant file = QVariant::fromValue(IODeviceDescriptor{&buffer, "app.bin"});
        const FlashPlan::Command command =
            FlashPlan::writeCommand(applicationRow(0x10000), file, "2MB");
        QCOMPARE(command.command, int(ESPToolWorker::WriteData));
        QCOMPARE(command.params.size(), 3);
        QCOMPARE(command.params.at(0).value<IODeviceDescriptor>().device, &buffer);
        QCOMPARE(command.params.at(1), QVariant(0x10000u));
        QCOMPARE(command.params.at(2), QVariant(QString("2MB")));
        QCOMPARE(command.announcement,
                 QString("Start writing user application from app.bin to 0x00010000 (max size "
                         "2MB)"));
        QCOMPARE(FlashPlan::writtenMessage(command.command),
                 QString("Application has been successfully flashed."));
        QCOMPARE(FlashPlan::writtenMessage(ESPToolWorker::WriteFirmware),
                 QString("Firmware has been successfully flashed."));
    }

    void readCommandSendsTheSizeAsDecimalText()
    {
        ScatterSection row = applicationRow(0x10000);
        row.endAddress = 0x11000;
        const FlashPlan::Command command = FlashPlan::readCommand(row, "/out/r.bin");
        QCOMPARE(command.command, int(ESPToolWorker::ReadData));
        QCOMPARE(command.params, (QVariantList{QString("/out/r.bin"), 0x10000u, QString("4096")}));
        QCOMPARE(command.announcement,
                 QString("Start reading /out/r.bin from region [0x00010000:0x00011000]"));
    }

    void extractFlashParametersFromAnImage()
    {
        QTemporaryDir dir;
        const QString path = writeTestFile(QDir(dir.path()), "fw.bin", testImage());
        ScatterSection row = applicationRow(0);
        FlashPlan::Line line;
        QVERIFY(FlashPlan::extractFlashParameters(&row, path, &line));
        QCOMPARE(row.flashMode, QString("qio"));
        QCOMPARE(row.flashSize, QString("1Mb"));
        QCOMPARE(row.flashFrequency, QString("40MHz"));
        QCOMPARE(line.tone, FlashPlan::Tone::Success);
        QCOMPARE(line.text, QString("Extracted flash parameters: 1Mb / qio / 40MHz"));
    }

    void extractFlashParametersRefusesOtherData()
    {
        QTemporaryDir dir;
        const QString path = writeTestFile(QDir(dir.path()), "data.bin", patternBytes(64, 1));
        ScatterSection row = firmwareRow(0);
        FlashPlan::Line line;
        QVERIFY(!FlashPlan::extractFlashParameters(&row, path, &line));
        QCOMPARE(row.flashMode, QString("dout")); // untouched
        QCOMPARE(line.tone, FlashPlan::Tone::Error);
        QCOMPARE(line.text, QString("Firmware read is invalid - cannot parse %1").arg(path));
        QVERIFY(!FlashPlan::extractFlashParameters(&row, dir.filePath("missing.bin"), &line));
    }

    void expectedMd5WithoutSavedDigest()
    {
        QString md5 = "stale";
        QCOMPARE(FlashPlan::expectedMd5(applicationRow(0), nullptr, &md5),
                 FlashPlan::Expectation::None);
        QVERIFY(md5.isEmpty());
    }

    void expectedMd5OfAnApplicationIsTheSavedText()
    {
        ScatterSection row = applicationRow(0);
        row.md5 = "abcdef0123456789abcdef0123456789";
        QString md5;
        QCOMPARE(FlashPlan::expectedMd5(row, nullptr, &md5), FlashPlan::Expectation::Ready);
        QCOMPARE(md5, row.md5);
    }

    void expectedMd5OfFirmwareIsThePatchedImage()
    {
        const QByteArray image = testImage();
        ScatterSection row = firmwareRow(0); // dout / 4MB / 26m: header bytes 2 and 3 change
        row.md5 = md5Hex(image);
        QBuffer buffer;
        buffer.setData(image);
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        QString md5;
        QCOMPARE(FlashPlan::expectedMd5(row, &buffer, &md5), FlashPlan::Expectation::Ready);

        QByteArray written = image;
        written[2] = char(3);          // dout
        written[3] = char(4 << 4 | 1); // 4 MB, 26 MHz
        QCOMPARE(md5, md5Hex(written));
        QVERIFY(md5 != row.md5);
    }

    void expectedMd5OfABrokenFirmwareFile()
    {
        ScatterSection row = firmwareRow(0);
        row.md5 = md5Hex("x");
        QBuffer buffer;
        buffer.setData(patternBytes(100, 2));
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        QString md5;
        FlashPlan::Line line;
        QCOMPARE(FlashPlan::expectedMd5(row, &buffer, &md5, &line),
                 FlashPlan::Expectation::InvalidImage);
        QCOMPARE(line.tone, FlashPlan::Tone::Notice);
        QCOMPARE(line.text, QString("Cannot verify - firmware file firmware.bin is invalid"));
        QCOMPARE(FlashPlan::expectedMd5(row, nullptr, &md5), FlashPlan::Expectation::InvalidImage);
    }

    void verifyCommandParameters()
    {
        const ScatterSection row = applicationRow(0x10000);
        QCOMPARE(FlashPlan::verifyCommand(row, QString()).params,
                 (QVariantList{0x10000u, 0x2000u}));
        const FlashPlan::Command command = FlashPlan::verifyCommand(row, "AB");
        QCOMPARE(command.command, int(ESPToolWorker::FlashMd5));
        QCOMPARE(command.params, (QVariantList{0x10000u, 0x2000u, QString("AB")}));
    }

    void md5Report_data()
    {
        QTest::addColumn<QVariantList>("results");
        QTest::addColumn<FlashPlan::Tone>("tone");
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("verified");
        using T = FlashPlan::Tone;
        QTest::newRow("digest only") << QVariantList{"00FF"} << T::Success << "MD5: 00FF" << true;
        QTest::newRow("equal") << QVariantList{"ABCD", "ABCD"} << T::Success
                               << "Checksum verified (MD5: ABCD)" << true;
        QTest::newRow("case differs") << QVariantList{"ABCD", "abcd"} << T::Success
                                      << "Checksum verified (MD5: ABCD)" << true;
        QTest::newRow("differ") << QVariantList{"ABCD", "ABCE"} << T::Error
                                << "Checksum verification failed (ABCD vs ABCE)" << false;
        QTest::newRow("nothing") << QVariantList{} << T::Notice << "MD5 could not be computed"
                                 << false;
        QTest::newRow("three") << QVariantList{"A", "B", "C"} << T::Notice
                               << "MD5 could not be computed" << false;
    }

    void md5Report()
    {
        QFETCH(QVariantList, results);
        QFETCH(FlashPlan::Tone, tone);
        QFETCH(QString, text);
        QFETCH(bool, verified);
        bool reported = !verified;
        const FlashPlan::Line line = FlashPlan::md5Report(results, &reported);
        QCOMPARE(line.tone, tone);
        QCOMPARE(line.text, text);
        QCOMPARE(reported, verified);
    }

    void chipDescriptionNeedsFiveItems()
    {
        QCOMPARE(FlashPlan::chipDescription({"ESP8266EX", "00a1b2c3", "18FE34A1B2C3", "x", 0u}),
                 QString("ESP8266EX / 00a1b2c3"));
        QVERIFY(
            FlashPlan::chipDescription({"ESP8266EX", "00a1b2c3", "18FE34A1B2C3", "x"}).isEmpty());
        QVERIFY(FlashPlan::chipDescription({}).isEmpty());
    }

    void finishedMessages()
    {
        QCOMPARE(FlashPlan::finishedMessage(ESPToolWorker::Connect, "/dev/ttyUSB0"),
                 QString("Connected to ESP UBoot via /dev/ttyUSB0"));
        QCOMPARE(FlashPlan::finishedMessage(ESPToolWorker::Disconnect, "/dev/ttyUSB0"),
                 QString("Closed connection to /dev/ttyUSB0"));
        QCOMPARE(FlashPlan::finishedMessage(ESPToolWorker::EraseFlash),
                 QString("Flash memory has been erased."));
        QVERIFY(FlashPlan::finishedMessage(ESPToolWorker::FlashMd5).isEmpty());
        QVERIFY(FlashPlan::finishedMessage(9).isEmpty());
        QCOMPARE(FlashPlan::failedOperationMessage(ESPToolWorker::WriteData),
                 QString("UBoot operation write data (5) finished with error"));
        QCOMPARE(FlashPlan::skippingMessage(0), QString("Skipping section 1"));
        QCOMPARE(FlashPlan::loadStubCommand(QString("/l.elf")).announcement,
                 QString("Start loading stub from /l.elf"));
    }
};

QTEST_GUILESS_MAIN(TestFlashPlan)
#include "tst_flashplan.moc"
