#include "chipfixture.h"
#include "tools/imagegen/espimagebuilder.h"
#include "worker/esptoolworker.h"
#include "workerharness.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <memory>

// The worker driven across threads exactly as the flasher dialog drives it (queued execute()
// calls, queued signals back), against the virtual ESP8266.
namespace {

using Cmd = ESPToolWorker::Command;

// Header codes of the test images before any override: qout, 1 MB, 26 MHz.
constexpr quint8 imageMode = 1;
constexpr quint8 imageSize = 2;
constexpr quint8 imageFreq = 1;

QByteArray md5(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5);
}

QString md5Hex(const QByteArray &data)
{
    return QString::fromLatin1(md5(data).toHex().toUpper());
}

// A valid firmware image of roughly `payload` bytes of segment data.
QByteArray firmwareImage(int payload, quint32 seed)
{
    EspImageBuilder builder;
    builder.setFlashMode(imageMode);
    builder.setFlashSize(imageSize);
    builder.setFlashFrequency(imageFreq);
    builder.addRandomSegment(0x40100000, payload / 2 / 4 * 4, seed);
    builder.addRandomSegment(0x3FFE8000, (payload - payload / 2) / 4 * 4, seed + 1);
    return builder.build();
}

QByteArray withHeader(QByteArray image, quint8 byte2, quint8 byte3)
{
    image[2] = char(byte2);
    image[3] = char(byte3);
    return image;
}

QString saveFile(const QTemporaryDir &dir, const QString &name, const QByteArray &bytes)
{
    const QString path = dir.filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        return QString();
    return path;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString toolError(const QString &text, int code)
{
    return QStringLiteral("esptool failed: %1 (%2)").arg(text).arg(code);
}

QString romMd5Error()
{
    return toolError(QStringLiteral("MD5 checksum is not supported by the ROM loader"), 3);
}

QVariant descriptor(QIODevice *device, const QString &description)
{
    return QVariant::fromValue(IODeviceDescriptor{device, description});
}

int countOpcode(const QVector<VirtualEsp8266::CommandRecord> &log, quint8 opcode)
{
    return int(std::count_if(log.cbegin(), log.cend(),
                             [opcode](const auto &record) { return record.opcode == opcode; }));
}

} // namespace

class TestEspToolWorker : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void fullSessionWithStub();
    void romLoaderWrites_data();
    void romLoaderWrites();
    void firmwareHeaderOverrides_data();
    void firmwareHeaderOverrides();
    void filesThatDoNotFit_data();
    void filesThatDoNotFit();
    void unreadableFiles_data();
    void unreadableFiles();
    void packageEntriesInMemory();
    void emptyDataFile();
    void stubWriteOfOneBlockAndOneByte();
    void readIntoUnwritableFile();
    void readDigestCheckCatchesLostData();
    void eraseWholeChip_data();
    void eraseWholeChip();
    void eraseRegion();
    void eraseRefusedByRomLoader();
    void faultsDuringWrite_data();
    void faultsDuringWrite();
    void connectRetriedAfterFailedSync();
    void identifiedRightAfterConnectAtLineRate();
    void portVanishesDuringWrite();
    void commandsQueuedBackToBack();

private:
    // Connects and (optionally) uploads the stub; false when either fails.
    static bool connectWorker(WorkerHarness &harness, ChipFixture &fixture, bool stub);

    QTemporaryDir m_dir;
};

void TestEspToolWorker::initTestCase()
{
    QVERIFY(m_dir.isValid());
    QVERIFY2(QFile::exists(generatedStubPath()), qPrintable(generatedStubPath()));
}

bool TestEspToolWorker::connectWorker(WorkerHarness &harness, ChipFixture &fixture, bool stub)
{
    const auto connected = harness.run(Cmd::Connect, {fixture.port()});
    if (!connected.result || !connected.errors.isEmpty()) {
        qWarning() << "connect failed:" << connected.errors;
        return false;
    }
    if (!stub)
        return true;
    const auto loaded = harness.run(Cmd::LoadStub, {generatedStubPath()});
    if (!loaded.result || !loaded.errors.isEmpty())
        qWarning() << "stub upload failed:" << loaded.errors;
    return loaded.result && loaded.errors.isEmpty();
}

void TestEspToolWorker::fullSessionWithStub()
{
    ChipFixture fixture;
    QVERIFY(fixture.start());
    WorkerHarness harness;
    QList<int> issued;
    const auto run = [&](int cmd, const QVariantList &params = {}) {
        issued << cmd;
        return harness.run(cmd, params);
    };

    auto outcome = run(Cmd::Connect, {fixture.port()});
    QVERIFY(outcome.result);
    QVERIFY(outcome.results.isEmpty());

    outcome = run(Cmd::LoadStub, {generatedStubPath()});
    QVERIFY(outcome.result);
    QVERIFY(fixture.chip().stubRunning());

    outcome = run(Cmd::GetInfo);
    QVERIFY(outcome.result);
    QCOMPARE(outcome.results.size(), 5);
    const auto words = VirtualEsp8266::efuseWordsFor(fixture.chip().config());
    const quint32 chipId = (words[0] >> 24) | ((words[1] & 0xFFFFFF) << 8);
    QCOMPARE(outcome.results.at(0).toString(), QStringLiteral("ESP8266EX"));
    QVERIFY(QRegularExpression("^[0-9a-f]{8}$").match(outcome.results.at(1).toString()).hasMatch());
    QCOMPARE(outcome.results.at(1).toString().toUInt(nullptr, 16), chipId);
    QCOMPARE(outcome.results.at(2).toString(), QStringLiteral("18FE34A1B2C3"));
    QCOMPARE(outcome.results.at(3).toString(), QStringLiteral("W25Q32FV (0xef:0x4016) 4Mb"));
    QCOMPARE(outcome.results.at(4).toUInt(), 4194304u);

    const QByteArray image = firmwareImage(6000, 21);
    const QString imagePath = saveFile(m_dir, "session-fw.bin", image);
    outcome = run(Cmd::WriteFirmware, {imagePath, 0u, "4MB", "dio", "40m"});
    QVERIFY(outcome.result);
    const QByteArray flashedImage = withHeader(image, 2, 0x40);
    QCOMPARE(fixture.chip().flash(0, quint32(image.size())), flashedImage);

    const QByteArray app = EspImageBuilder::pseudoRandomBytes(40000, 22);
    const QString appPath = saveFile(m_dir, "session-app.bin", app);
    const int progressBefore = harness.progressSpy().count();
    outcome = run(Cmd::WriteData, {appPath, 0x10000u, "4MB"});
    QVERIFY(outcome.result);
    QCOMPARE(fixture.chip().flash(0x10000, quint32(app.size())), app);
    // Progress of the write: starts at 0 of the file size and ends with every block sent.
    const QList<QVariant> firstReport = harness.progressSpy().at(progressBefore);
    QCOMPARE(firstReport, (QList<QVariant>{app.size(), 0}));
    QCOMPARE(harness.progressSpy().last().at(0).toInt(), app.size());
    QCOMPARE(harness.progressSpy().last().at(1).toInt(), 3 * 0x4000);

    outcome = run(Cmd::FlashMd5, {0x10000u, uint(app.size())});
    QVERIFY(outcome.result);
    QCOMPARE(outcome.results, QVariantList{md5Hex(app)});
    outcome = run(Cmd::FlashMd5, {0u, uint(image.size()), QStringLiteral("firmware")});
    QVERIFY(outcome.result);
    QCOMPARE(outcome.results, (QVariantList{md5Hex(flashedImage), QStringLiteral("firmware")}));

    const QString readPath = m_dir.filePath("session-read.bin");
    outcome = run(Cmd::ReadData, {readPath, 0x10000u, uint(app.size())});
    QVERIFY(outcome.result);
    QCOMPARE(outcome.results, QVariantList{md5(app)});
    QCOMPARE(readFile(readPath), app);
    QCOMPARE(readFile(readPath), fixture.chip().flash(0x10000, quint32(app.size())));

    outcome = run(Cmd::Disconnect);
    QVERIFY(outcome.result);

    harness.drain();
    QCOMPARE(harness.finishedCommands(), issued);
    QCOMPARE(harness.errorSpy().count(), 0);
}

void TestEspToolWorker::romLoaderWrites_data()
{
    QTest::addColumn<bool>("firmware");
    QTest::addColumn<uint>("address");
    QTest::addColumn<int>("size");

    QTest::newRow("data at 0") << false << 0x0u << 0x3000;
    QTest::newRow("data on a 64 KiB boundary") << false << 0x20000u << 0x11000;
    QTest::newRow("data off a boundary") << false << 0x3000u << 0x1801;
    QTest::newRow("data across a 64 KiB boundary") << false << 0x2E400u << 0x2C00;
    QTest::newRow("data ending exactly at the flash end") << false << 0x3FFC00u << 0x400;
    QTest::newRow("firmware at 0") << true << 0x0u << 5000;
    QTest::newRow("firmware off a boundary") << true << 0x41000u << 9000;
}

void TestEspToolWorker::romLoaderWrites()
{
    QFETCH(bool, firmware);
    QFETCH(uint, address);
    QFETCH(int, size);

    const QByteArray source = firmware ? firmwareImage(size, address)
                                       : EspImageBuilder::pseudoRandomBytes(size, address + 1);
    // The size code given is 4 MB (4), the mode and frequency are kept.
    const QByteArray expected =
        firmware ? withHeader(source, imageMode, quint8(4 << 4 | imageFreq)) : source;
    const QString path = saveFile(m_dir, QStringLiteral("rom-%1.bin").arg(address), source);

    ChipFixture fixture;
    // Old contents of all zero bits: whatever the ROM leaves unerased shows.
    const quint32 sectorStart = address / 0x1000 * 0x1000;
    fixture.chip().setFlash(sectorStart, QByteArray(0x20000, '\0'));
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, false));

    const auto outcome =
        firmware ? harness.run(Cmd::WriteFirmware, {path, address, "4MB", "keep", "keep"})
                 : harness.run(Cmd::WriteData, {path, address, "4MB"});
    // The ROM loader cannot report the MD5 that ends every write, so the write ends false.
    QVERIFY(!outcome.result);
    const QStringList warning = firmware ? QStringList{"Invalid parameters: flash memory size "
                                                       "(4MB), mode (keep), or frequency (keep) "
                                                       "is invalid"}
                                         : QStringList{};
    QCOMPARE(outcome.errors, warning + QStringList{romMd5Error()});
    QCOMPARE(fixture.chip().flash(address, quint32(expected.size())), expected);
    QCOMPARE(fixture.chip().counters().commands.value(VirtualEsp8266::FlashData),
             (expected.size() + 0x3FF) / 0x400);

    // Read back through the stub after a fresh connect.
    QVERIFY(connectWorker(harness, fixture, true));
    const QString readPath = m_dir.filePath(QStringLiteral("rom-read-%1.bin").arg(address));
    const auto read = harness.run(Cmd::ReadData, {readPath, address, uint(expected.size())});
    QVERIFY(read.result);
    QCOMPARE(read.results, QVariantList{md5(expected)});
    QCOMPARE(readFile(readPath), expected);
}

void TestEspToolWorker::firmwareHeaderOverrides_data()
{
    QTest::addColumn<QString>("sizeText");
    QTest::addColumn<QString>("modeText");
    QTest::addColumn<QString>("freqText");
    QTest::addColumn<int>("byte2");
    QTest::addColumn<int>("byte3");
    QTest::addColumn<bool>("warning");

    // The image itself says qout (1), 1 MB (2), 26 MHz (1).
    QTest::newRow("4MB dio 40m") << "4MB"
                                 << "dio"
                                 << "40m" << 2 << 0x40 << false;
    QTest::newRow("512KB qio 20m") << "512KB"
                                   << "qio"
                                   << "20m" << 0 << 0x02 << false;
    QTest::newRow("2MB dout 80m (the 40 MHz code)") << "2MB"
                                                    << "dout"
                                                    << "80m" << 3 << 0x30 << false;
    QTest::newRow("16m-c1 qout 26m") << "16m-c1"
                                     << "qout"
                                     << "26m" << 1 << 0x51 << false;
    QTest::newRow("unknown mode keeps the image's") << "4MB"
                                                    << "fast"
                                                    << "40m" << 1 << 0x40 << true;
    QTest::newRow("55m keeps the image's frequency") << "4MB"
                                                     << "dio"
                                                     << "55m" << 2 << 0x41 << true;
    QTest::newRow("mode and frequency both kept") << "1MB"
                                                  << ""
                                                  << "" << 1 << 0x21 << true;
}

void TestEspToolWorker::firmwareHeaderOverrides()
{
    QFETCH(QString, sizeText);
    QFETCH(QString, modeText);
    QFETCH(QString, freqText);
    QFETCH(int, byte2);
    QFETCH(int, byte3);
    QFETCH(bool, warning);

    const QByteArray image = firmwareImage(3000, uint(byte3));
    const QString path = saveFile(m_dir, "override.bin", image);
    ChipFixture fixture;
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, true));

    const auto outcome =
        harness.run(Cmd::WriteFirmware, {path, 0x8000u, sizeText, modeText, freqText});
    const QString text = QStringLiteral("Invalid parameters: flash memory size (%1), mode (%2), "
                                        "or frequency (%3) is invalid")
                             .arg(sizeText, modeText, freqText);
    QCOMPARE(outcome.errors, warning ? QStringList{text} : QStringList{});
    // The warning is only a warning: the write goes on and its MD5 matches.
    QVERIFY(outcome.result);
    const QByteArray flashed = fixture.chip().flash(0x8000, quint32(image.size()));
    QCOMPARE(int(quint8(flashed.at(2))), byte2);
    QCOMPARE(int(quint8(flashed.at(3))), byte3);
    QCOMPARE(flashed.left(2), image.left(2));
    QCOMPARE(flashed.mid(4), image.mid(4));
}

void TestEspToolWorker::filesThatDoNotFit_data()
{
    QTest::addColumn<bool>("firmware");
    QTest::addColumn<int>("size");
    QTest::addColumn<uint>("address");
    QTest::addColumn<QString>("sizeText");
    QTest::addColumn<QString>("message"); // %1 is the file name

    QTest::newRow("1100-byte firmware at 0x3FFC00 in 4MB")
        << true << 1100 << 0x3FFC00u << "4MB"
        << "firmware %1 (size 1100 @ 4193280) will not fit in flash 4194304";
    QTest::newRow("1000-byte firmware at 0x3FFC19 in 4MB")
        << true << 1000 << 0x3FFC19u << "4MB"
        << "firmware %1 (size 1000 @ 4193305) will not fit in flash 4194304";
    QTest::newRow("1000-byte data at 0x3FFC19 in 4MB")
        << false << 1000 << 0x3FFC19u << "4MB"
        << "Data file %1 (size 1000 @ 4193305) will not fit in flash 4194304";
    QTest::newRow("data at 0x80000 in 512KB")
        << false << 1000 << 0x80000u << "512KB"
        << "Data file %1 (size 1000 @ 524288) will not fit in flash 524288";
    QTest::newRow("firmware with an unknown size never fits")
        << true << 1000 << 0u << "3MB"
        << "firmware %1 (size 1000 @ 0) will not fit in flash 0";
}

void TestEspToolWorker::filesThatDoNotFit()
{
    QFETCH(bool, firmware);
    QFETCH(int, size);
    QFETCH(uint, address);
    QFETCH(QString, sizeText);
    QFETCH(QString, message);

    // A small image padded to the size wanted (the parser only needs a valid header).
    QByteArray bytes =
        firmware ? firmwareImage(500, 3) : EspImageBuilder::pseudoRandomBytes(size, 4);
    bytes.append(size - bytes.size(), char(0xFF));
    QCOMPARE(bytes.size(), size);
    const QString path = saveFile(m_dir, "too-big.bin", bytes);

    ChipFixture fixture;
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, true));
    fixture.chip().clearCommandLog();
    const auto outcome =
        firmware ? harness.run(Cmd::WriteFirmware, {path, address, sizeText, "dio", "40m"})
                 : harness.run(Cmd::WriteData, {path, address, sizeText});
    QVERIFY(!outcome.result);
    QStringList expected;
    if (firmware && sizeText == QLatin1String("3MB"))
        expected << QStringLiteral("Invalid parameters: flash memory size (3MB), mode (dio), or "
                                   "frequency (40m) is invalid");
    expected << toolError(message.arg(path), 4);
    QCOMPARE(outcome.errors, expected);
    QCOMPARE(fixture.chip().commandLog().size(), 0); // nothing was sent
}

void TestEspToolWorker::unreadableFiles_data()
{
    QTest::addColumn<int>("cmd");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("contents"); // null: the file does not exist
    QTest::addColumn<QString>("messageStart");

    QTest::newRow("missing data file") << int(Cmd::WriteData) << "missing-data.bin" << QByteArray()
                                       << "Cannot read data from %1: ";
    QTest::newRow("missing firmware file") << int(Cmd::WriteFirmware) << "missing-fw.bin"
                                           << QByteArray() << "Cannot read data from %1: ";
    QTest::newRow("firmware that is no image")
        << int(Cmd::WriteFirmware) << "not-an-image.bin" << QByteArray("plain text, no magic")
        << "Cannot read firmware from %1: ";
    QTest::newRow("empty firmware file") << int(Cmd::WriteFirmware) << "empty-fw.bin"
                                         << QByteArray("") << "Cannot read firmware from %1: ";
    QTest::newRow("missing stub file") << int(Cmd::LoadStub) << "missing-stub.elf" << QByteArray()
                                       << "Cannot read stub data from %1: ";
}

void TestEspToolWorker::unreadableFiles()
{
    QFETCH(int, cmd);
    QFETCH(QString, name);
    QFETCH(QByteArray, contents);
    QFETCH(QString, messageStart);

    const QString path = contents.isNull() ? m_dir.filePath(name) : saveFile(m_dir, name, contents);
    QVERIFY(!path.isEmpty());
    QString reason;
    if (contents.isNull()) {
        QFile probe(path);
        QVERIFY(!probe.open(QIODevice::ReadOnly));
        reason = probe.errorString();
    }

    ChipFixture fixture;
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, cmd != Cmd::LoadStub));
    fixture.chip().clearCommandLog();
    QVariantList params{path};
    if (cmd == Cmd::WriteData)
        params << 0x1000u << "4MB";
    else if (cmd == Cmd::WriteFirmware)
        params << 0x1000u << "4MB"
               << "dio"
               << "40m";
    const auto outcome = harness.run(cmd, params);
    QVERIFY(!outcome.result);
    QCOMPARE(outcome.errors.size(), 1);
    const QString text = outcome.errors.first();
    QVERIFY2(text.startsWith(QStringLiteral("esptool failed: ") + messageStart.arg(path)),
             qPrintable(text));
    QVERIFY2(text.endsWith(QStringLiteral(" (4)")), qPrintable(text));
    if (!reason.isEmpty())
        QVERIFY2(text.contains(reason), qPrintable(text));
    QCOMPARE(fixture.chip().commandLog().size(), 0);
}

void TestEspToolWorker::packageEntriesInMemory()
{
    QFile stubFile(generatedStubPath());
    QVERIFY(stubFile.open(QIODevice::ReadOnly));
    QByteArray stubBytes = stubFile.readAll();
    QByteArray image = firmwareImage(7000, 31);
    QByteArray app = EspImageBuilder::pseudoRandomBytes(20000, 32);
    QByteArray junk("no firmware here");
    QBuffer stub(&stubBytes);
    QBuffer imageBuffer(&image);
    QBuffer appBuffer(&app);
    QBuffer junkBuffer(&junk);
    for (QBuffer *buffer : {&stub, &imageBuffer, &appBuffer, &junkBuffer})
        QVERIFY(buffer->open(QIODevice::ReadOnly));

    ChipFixture fixture;
    QVERIFY(fixture.start());
    WorkerHarness harness;
    QVERIFY(harness.run(Cmd::Connect, {fixture.port()}).result);
    auto outcome = harness.run(Cmd::LoadStub, {descriptor(&stub, "pkg:esp8266_loader_stub.elf")});
    QVERIFY(outcome.result);
    QVERIFY(fixture.chip().stubRunning());

    outcome = harness.run(Cmd::WriteFirmware,
                          {descriptor(&imageBuffer, "pkg:firmware.bin"), 0u, "2MB", "qio", "40m"});
    QVERIFY(outcome.result);
    QCOMPARE(fixture.chip().flash(0, quint32(image.size())), withHeader(image, 0, 0x30));

    outcome = harness.run(Cmd::WriteData, {descriptor(&appBuffer, "pkg:app.bin"), 0x20000u, "2MB"});
    QVERIFY(outcome.result);
    QCOMPARE(fixture.chip().flash(0x20000, quint32(app.size())), app);
    QVERIFY(outcome.errors.isEmpty());

    // Messages name the entry by its description.
    outcome = harness.run(Cmd::WriteFirmware,
                          {descriptor(&junkBuffer, "pkg:junk.bin"), 0u, "2MB", "qio", "40m"});
    QVERIFY(!outcome.result);
    QCOMPARE(outcome.errors.size(), 1);
    QVERIFY2(outcome.errors.first().startsWith("esptool failed: Cannot read firmware from "
                                               "pkg:junk.bin: "),
             qPrintable(outcome.errors.first()));
}

void TestEspToolWorker::emptyDataFile()
{
    const QString path = saveFile(m_dir, "empty.bin", QByteArray());
    ChipFixture fixture;
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, true));
    fixture.chip().clearCommandLog();
    fixture.chip().clearCounters();
    const auto outcome = harness.run(Cmd::WriteData, {path, 0x20000u, "4MB"});
    QVERIFY(outcome.result);
    QVERIFY(outcome.errors.isEmpty());
    const auto log = fixture.chip().commandLog();
    QCOMPARE(countOpcode(log, VirtualEsp8266::FlashBegin), 1);
    QCOMPARE(countOpcode(log, VirtualEsp8266::FlashData), 0);
    QCOMPARE(countOpcode(log, VirtualEsp8266::SpiFlashMd5), 1); // the MD5 of empty data
    const auto erases = fixture.chip().counters().erases;
    QCOMPARE(erases.size(), 1);
    QCOMPARE(erases.first().size, 0u);
}

void TestEspToolWorker::stubWriteOfOneBlockAndOneByte()
{
    const QByteArray data = EspImageBuilder::pseudoRandomBytes(0x4001, 41);
    const QString path = saveFile(m_dir, "block-and-byte.bin", data);
    ChipFixture fixture;
    fixture.chip().setFlash(0x30000, QByteArray(0x10000, '\0'));
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, true));
    fixture.chip().clearCommandLog();
    fixture.chip().clearCounters();

    const auto outcome = harness.run(Cmd::WriteData, {path, 0x30000u, "4MB"});
    QVERIFY(outcome.result);
    const auto erases = fixture.chip().counters().erases;
    QCOMPARE(erases.size(), 1);
    QCOMPARE(erases.first().kind, VirtualEsp8266::EraseKind::StubFlashBegin);
    QCOMPARE(erases.first().offset, 0x30000u);
    QCOMPARE(erases.first().size, 0x8000u);
    QVector<quint32> sizes;
    QVector<quint32> sequences;
    for (const auto &record : fixture.chip().commandLog()) {
        if (record.opcode == VirtualEsp8266::FlashData) {
            sizes << record.dataSize;
            sequences << record.sequence;
        }
    }
    QCOMPARE(sizes, (QVector<quint32>{0x4000, 0x4000}));
    QCOMPARE(sequences, (QVector<quint32>{0, 1}));
    QCOMPARE(fixture.chip().flash(0x30000, 0x4001), data);
    // The second block is padded with 0xFF; nothing beyond the erase is touched.
    QCOMPARE(fixture.chip().flash(0x34001, 0x3FFF), QByteArray(0x3FFF, char(0xFF)));
    QCOMPARE(fixture.chip().flash(0x38000, 0x1000), QByteArray(0x1000, '\0'));
}

void TestEspToolWorker::readIntoUnwritableFile()
{
    const QString path = m_dir.filePath("no-such-dir/read.bin");
    QFile probe(path);
    QVERIFY(!probe.open(QIODevice::WriteOnly | QIODevice::Truncate));
    ChipFixture fixture;
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, true));
    fixture.chip().clearCommandLog();
    const auto outcome = harness.run(Cmd::ReadData, {path, 0u, 0x1000u});
    QVERIFY(!outcome.result);
    QVERIFY(outcome.results.isEmpty());
    QCOMPARE(outcome.errors,
             QStringList{QStringLiteral("Invalid parameters: cannot write to %1 (%2)")
                             .arg(path, probe.errorString())});
    QCOMPARE(fixture.chip().commandLog().size(), 0);
}

void TestEspToolWorker::readDigestCheckCatchesLostData()
{
    // Everything written to /dev/null is lost, so the file's MD5 cannot match the chip's.
    if (!QFile::exists("/dev/null"))
        QSKIP("needs /dev/null");
    ChipFixture fixture;
    fixture.chip().setFlash(0x1000, EspImageBuilder::pseudoRandomBytes(0x2000, 51));
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, true));
    const auto outcome = harness.run(Cmd::ReadData, {"/dev/null", 0x1000u, 0x2000u});
    QCOMPARE(outcome.errors,
             QStringList{"Error reading data: MD5 digest did not match the received data"});
    // The mismatch alone does not fail the command: the caller sees it by the empty results.
    QVERIFY(outcome.result);
    QVERIFY(outcome.results.isEmpty());
}

void TestEspToolWorker::eraseWholeChip_data()
{
    QTest::addColumn<QVariant>("magic");
    QTest::newRow("0x911") << QVariant(0x911u);
    QTest::newRow("2321 as a signed number") << QVariant(2321);
    QTest::newRow("2321 as text") << QVariant(QStringLiteral("2321"));
}

void TestEspToolWorker::eraseWholeChip()
{
    QFETCH(QVariant, magic);
    VirtualEsp8266::Config config;
    config.flashSize = 1024 * 1024;
    ChipFixture fixture(config);
    fixture.chip().setFlash(0, QByteArray(0x100000, '\x5A'));
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, true));
    const auto outcome = harness.run(Cmd::EraseFlash, {magic});
    QVERIFY(outcome.result);
    QVERIFY(outcome.errors.isEmpty());
    QCOMPARE(fixture.chip().flash(0, 0x100000), QByteArray(0x100000, char(0xFF)));
    QCOMPARE(fixture.chip().counters().erases.last().kind, VirtualEsp8266::EraseKind::Chip);
}

void TestEspToolWorker::eraseRegion()
{
    ChipFixture fixture;
    fixture.chip().setFlash(0, QByteArray(0x30000, '\0'));
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, true));
    const auto outcome = harness.run(Cmd::EraseFlash, {0x11234u, 0x1100u});
    QVERIFY(outcome.result);
    QVERIFY(outcome.errors.isEmpty());
    // Rounded out to whole sectors: 0x11000 up to 0x13000.
    QCOMPARE(fixture.chip().flash(0x10000, 0x1000), QByteArray(0x1000, '\0'));
    QCOMPARE(fixture.chip().flash(0x11000, 0x2000), QByteArray(0x2000, char(0xFF)));
    QCOMPARE(fixture.chip().flash(0x13000, 0x1000), QByteArray(0x1000, '\0'));
}

void TestEspToolWorker::eraseRefusedByRomLoader()
{
    ChipFixture fixture;
    fixture.chip().setFlash(0, QByteArray(0x10000, '\0'));
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, false));
    const auto outcome = harness.run(Cmd::EraseFlash, {0u, 0x1000u});
    QVERIFY(!outcome.result);
    // The ROM's own refusal follows, but only the first report reaches the user.
    QCOMPARE(outcome.errors,
             QStringList{toolError("Flash erase command is unsupported in ROM loader", 3)});
    QCOMPARE(fixture.chip().counters().commands.value(VirtualEsp8266::EraseRegion), 1);
    QCOMPARE(fixture.chip().flash(0, 0x10000), QByteArray(0x10000, '\0'));
}

void TestEspToolWorker::faultsDuringWrite_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<QString>("message");
    // Each fault hits the third command of the write: FLASH_BEGIN, block 0, then block 1.
    QTest::newRow("chip goes silent") << "silence" << toolError("No response for 0x03 command", 1);
    QTest::newRow("garbled answer") << "garbled" << toolError("No response for 0x03 command", 1);
    QTest::newRow("answer frame with a broken escape")
        << "broken escape" << toolError("No response for 0x03 command", 1);
    QTest::newRow("error status") << "status" << QStringLiteral("Command failed: 199");
}

void TestEspToolWorker::faultsDuringWrite()
{
    QFETCH(QString, fault);
    QFETCH(QString, message);
    const QByteArray data = EspImageBuilder::pseudoRandomBytes(6 * 0x4000, 61);
    const QString path = saveFile(m_dir, "fault.bin", data);
    ChipFixture fixture;
    WorkerHarness harness;
    QVERIFY(fixture.start());
    QVERIFY(connectWorker(harness, fixture, true));
    fixture.chip().clearCommandLog();

    VirtualEsp8266 &chip = fixture.chip();
    if (fault == QLatin1String("silence"))
        chip.armSilence(2);
    else if (fault == QLatin1String("garbled"))
        chip.armCorruptAnswer(3, VirtualEsp8266::Corruption::GarbledBytes);
    else if (fault == QLatin1String("broken escape"))
        chip.armCorruptAnswer(3, VirtualEsp8266::Corruption::BrokenEscape);
    else
        chip.armErrorStatus(3, VirtualEsp8266::StubBadSequence);

    chip.clearCounters();
    const auto outcome = harness.run(Cmd::WriteData, {path, 0x40000u, "4MB"});
    QVERIFY(!outcome.result);
    QCOMPARE(outcome.errors, QStringList{message});
    // The transfer stops at the first failure: no third block, no MD5 request.
    QVERIFY2(chip.counters().bytesIn < 3 * 0x4000,
             qPrintable(QString::number(chip.counters().bytesIn)));
    QCOMPARE(countOpcode(chip.commandLog(), VirtualEsp8266::SpiFlashMd5), 0);

    // Later commands fail without a new text, even when they fail for reasons of their own.
    auto next = harness.run(Cmd::WriteData, {m_dir.filePath("missing.bin"), 0u, "4MB"});
    QVERIFY(!next.result);
    QVERIFY(next.errors.isEmpty());
    next = harness.run(Cmd::Disconnect);
    QVERIFY(!next.result);
    QVERIFY(next.errors.isEmpty());

    // After a reset of the board a new connect recovers.
    chip.reset();
    QVERIFY(connectWorker(harness, fixture, true));
    next = harness.run(Cmd::WriteData, {path, 0x40000u, "4MB"});
    QVERIFY(next.result);
    QCOMPARE(chip.flash(0x40000, quint32(data.size())), data);
}

void TestEspToolWorker::connectRetriedAfterFailedSync()
{
    ChipFixture fixture;
    QVERIFY(fixture.start());
    fixture.chip().armSilence(0); // not in boot mode yet
    WorkerHarness harness;
    auto outcome = harness.run(Cmd::Connect, {fixture.port()});
    QVERIFY(!outcome.result);
    // Only the first of the synchronisation's reports is shown, once the connect has failed.
    QCOMPARE(outcome.errors, QStringList{toolError("No response for 0x08 command", 1)});
    // It stands for the commands that follow on this connection.
    outcome = harness.run(Cmd::FlashMd5, {0u, 0x1000u});
    QVERIFY(!outcome.result);
    QVERIFY(outcome.errors.isEmpty());

    // The board answers now; connecting again (no disconnect in between, as the dialog does)
    // must open the port afresh.
    fixture.chip().disarmFaults();
    outcome = harness.run(Cmd::Connect, {fixture.port()});
    QVERIFY(outcome.result);
    QVERIFY(outcome.errors.isEmpty());
    // Identified through the ROM loader this time.
    outcome = harness.run(Cmd::GetInfo);
    QVERIFY(outcome.result);
    QCOMPARE(outcome.results.size(), 5);
    QCOMPARE(outcome.results.at(0).toString(), QStringLiteral("ESP8266EX"));
    QCOMPARE(outcome.results.at(2).toString(), QStringLiteral("18FE34A1B2C3"));
    QCOMPARE(outcome.results.at(3).toString(), QStringLiteral("W25Q32FV (0xef:0x4016) 4Mb"));
    QCOMPARE(outcome.results.at(4).toUInt(), 4194304u);
}

void TestEspToolWorker::identifiedRightAfterConnectAtLineRate()
{
    // The dialog queues "get info" the moment "connect" succeeds. At the line rate the ROM's
    // surplus answers to the synchronisation are still arriving then; none may end the wait of
    // the first register read.
    VirtualEsp8266::Config config;
    config.throttle = true;
    ChipFixture fixture(config);
    QVERIFY(fixture.start());
    WorkerHarness harness;
    constexpr int rounds = 5;
    for (int round = 0; round < rounds; ++round) {
        harness.post(Cmd::Connect, {fixture.port()});
        harness.post(Cmd::GetInfo);
    }
    QVERIFY(harness.waitForFinished(2 * rounds));
    harness.drain();
    QCOMPARE(harness.errorTexts().join("|"), QString());
    for (const QList<QVariant> &call : harness.finishedSpy()) {
        QVERIFY(call.at(0).toBool());
        if (call.at(1).toInt() == Cmd::GetInfo)
            QCOMPARE(call.at(2).toList().value(2).toString(), QStringLiteral("18FE34A1B2C3"));
    }
}

void TestEspToolWorker::portVanishesDuringWrite()
{
    const QByteArray data = EspImageBuilder::pseudoRandomBytes(8 * 0x4000, 71);
    const QString path = saveFile(m_dir, "vanish.bin", data);
    auto fixture = std::make_unique<ChipFixture>();
    WorkerHarness harness;
    QVERIFY(fixture->start());
    QVERIFY(connectWorker(harness, *fixture, true));

    // Gone in the middle of the third block.
    fixture->chip().armVanishAfterBytes(0x4000 * 2 + 0x2000);
    QElapsedTimer elapsed;
    elapsed.start();
    const auto outcome = harness.run(Cmd::WriteData, {path, 0x40000u, "4MB"});
    const qint64 ms = elapsed.elapsed();
    QVERIFY(fixture->chip().vanished());
    QCOMPARE(countOpcode(fixture->chip().commandLog(), VirtualEsp8266::FlashData), 2);
    QVERIFY(!outcome.result);
    QCOMPARE(outcome.errors, QStringList{toolError("No response for 0x03 command", 1)});
    // The close ends the wait at once instead of after the 3 s time-out of a data block.
    qInfo("write ended %lld ms after it started", ms);
    QVERIFY2(ms < 2000, qPrintable(QString::number(ms)));

    // With the port gone the worker thread idles instead of spinning on read errors.
    const qint64 cpuBefore = harness.workerCpuNs();
    QTest::qWait(300);
    const qint64 cpuSpent = harness.workerCpuNs() - cpuBefore;
    qInfo("worker thread used %lld us of CPU in 300 ms after the vanish", cpuSpent / 1000);
    QVERIFY2(cpuSpent < 60 * 1000000, qPrintable(QString::number(cpuSpent)));

    auto next = harness.run(Cmd::GetInfo);
    QVERIFY(!next.result);
    QVERIFY(next.errors.isEmpty());
    next = harness.run(Cmd::FlashMd5, {0x40000u, 0x1000u});
    QVERIFY(!next.result);
    QVERIFY(next.errors.isEmpty());

    // The board comes back as a new device.
    fixture = std::make_unique<ChipFixture>();
    QVERIFY(fixture->start());
    next = harness.run(Cmd::Connect, {fixture->port()});
    QVERIFY(next.result);
    QVERIFY(next.errors.isEmpty());
    next = harness.run(Cmd::LoadStub, {generatedStubPath()});
    QVERIFY(next.result);
    next = harness.run(Cmd::WriteData, {path, 0x40000u, "4MB"});
    QVERIFY(next.result);
    QVERIFY(next.errors.isEmpty());
    QCOMPARE(fixture->chip().flash(0x40000, quint32(data.size())), data);
}

void TestEspToolWorker::commandsQueuedBackToBack()
{
    const QByteArray app = EspImageBuilder::pseudoRandomBytes(0x5000, 81);
    const QString path = saveFile(m_dir, "queued.bin", app);
    ChipFixture fixture;
    QVERIFY(fixture.start());
    WorkerHarness harness;
    // All queued before the first has started; each runs to its end before the next begins.
    const QList<int> issued{Cmd::Connect, Cmd::LoadStub, Cmd::WriteData, Cmd::FlashMd5,
                            Cmd::GetInfo};
    harness.post(Cmd::Connect, {fixture.port()});
    harness.post(Cmd::LoadStub, {generatedStubPath()});
    harness.post(Cmd::WriteData, {path, 0x50000u, "4MB"});
    harness.post(Cmd::FlashMd5, {0x50000u, uint(app.size()), 7});
    harness.post(Cmd::GetInfo);
    QVERIFY(harness.waitForFinished(issued.size()));
    harness.drain();
    QCOMPARE(harness.finishedCommands(), issued);
    for (const QList<QVariant> &call : harness.finishedSpy())
        QVERIFY2(call.at(0).toBool(), qPrintable(call.at(1).toString()));
    QCOMPARE(harness.finishedSpy().at(3).at(2).toList(), (QVariantList{md5Hex(app), 7}));
    QCOMPARE(harness.errorSpy().count(), 0);
    QCOMPARE(fixture.chip().flash(0x50000, quint32(app.size())), app);
}

QTEST_GUILESS_MAIN(TestEspToolWorker)
#include "tst_esptoolworker.moc"
