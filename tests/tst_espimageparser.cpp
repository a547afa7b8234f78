#include "image/espimageparser.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

// Random and mangled images are left to the image fuzz target; these pin rules and quirks.
namespace {

using Segments = QList<ESPImageParser::Segment>;

QByteArray md5Of(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5);
}

// dio, 4 MB, 40 MHz; segment headers at 8 and 32, data ends at 44, checksum 0xE7 at 47: 48 bytes.
// With the second part of 32 'Z': 100 bytes, trailer offset 52.
QByteArray knownImage(bool secondPart = false)
{
    EspImageBuilder builder;
    builder.setFlashMode(2);
    builder.setFlashSize(4);
    builder.addSegment(0x40100000, QByteArray::fromHex("000102030405060708090a0b0c0d0e0f"));
    builder.addSegment(0x3FFE8000, QByteArray::fromHex("12345678"));
    if (secondPart)
        builder.setSecondPart(QByteArray(32, 'Z'));
    return builder.build();
}

// An open buffer that can claim to be sequential, or stop giving bytes like a file gone bad.
struct TestDevice : QBuffer
{
    explicit TestDevice(const QByteArray &data, OpenMode mode = ReadOnly)
    {
        setData(data);
        open(mode);
    }
    bool isSequential() const override { return sequential; }
    qint64 readData(char *data, qint64 maxSize) override
    {
        const qint64 allowed = qMin(maxSize, failFrom - pos());
        return allowed > 0 ? QBuffer::readData(data, allowed) : -1;
    }
    bool sequential = false;
    qint64 failFrom = qint64(1) << 40; // reads from here on fail
};

} // namespace

class TestEspImageParser : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    int m_files = 0;

    QString writeFile(const QByteArray &bytes)
    {
        const QString path = m_dir.filePath(QString::number(m_files++));
        return EspImageBuilder::saveBytes(bytes, path) ? path : QString();
    }

private slots:
    void fromString_data()
    {
        QTest::addColumn<char>("field");
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("code");
        const auto rows = [](char field, int code, std::initializer_list<const char *> texts) {
            for (const char *text : texts)
                QTest::addRow("%c '%s'", field, text) << field << QString::fromLatin1(text) << code;
        };
        // c1 forms are tried before plain ones; three patterns are case-sensitive, so "4MBc1",
        // "16MB" and the shown "4MbC1" are refused; 80 MHz texts give the 40 MHz code, not 15.
        rows('s', 0, {"512KB", "4m"});
        rows('s', 4, {"4MB"});
        rows('s', 5, {"2MBC1", "16M-C1"});
        rows('s', 6, {"4mbc1"});
        rows('s', 7, {"4096kbc2", "32m-c2"});
        rows('s', 9, {"16mb", "128m"});
        rows('s', 0xFF, {"512kbb", " 512", "1m", "4MBc1", "4MbC1", "2mbc2", "16MB", ""});
        rows('m', 2, {"Dio"});
        rows('m', 0xFF, {"dio ", "invalid"});
        rows('f', 0, {"80MHz", "80e6"});
        rows('f', 0xFF, {"40"});
    }

    void fromString()
    {
        QFETCH(char, field);
        QFETCH(QString, text);
        QTEST(int(field == 'm'   ? ESPImageParser::fm_fromString(text)
                  : field == 's' ? ESPImageParser::fs_fromString(text)
                                 : ESPImageParser::ff_fromString(text)),
              "code");
    }

    void codeTexts()
    {
        QStringList texts;
        for (const uint bytes : {0x400000u, 0x80000u, 0u, 1536u, 0x180000u, 0xFFFFFFFFu})
            texts << ESPImageParser::flashSizeString(bytes);
        QCOMPARE(texts, (QStringList{"4Mb", "512Kb", "0Kb", "1Kb", "1536Kb", "4194303Kb"}));
        // Each code asked for in all three fields; 0xFF keeps the header's (dio, 4 MB, 40 MHz).
        TestDevice device(knownImage());
        ESPImageParser parser;
        QList<uint> bytes;
        texts.clear();
        for (const int code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 15, 0xFF}) {
            QVERIFY(parser.load(&device, code, code, code));
            texts << parser.getFlashMode() + ' ' + parser.getFlashSize() + ' ' +
                         parser.getFlashFrequency();
            bytes << ESPImageParser::flash_size_bytes(code);
        }
        QCOMPARE(texts, (QStringList{"qio 512K 40MHz", "qout 256K 26MHz", "dio 1Mb 20MHz",
                                     "dout 2Mb inv", "invalid 4Mb inv", "invalid 2MbC1 inv",
                                     "invalid 4MbC1 inv", "invalid inv inv", "invalid inv inv",
                                     "invalid inv inv", "invalid inv 80MHz", "dio 4Mb 40MHz"}));
        // Code 7 (the "c2" layout) has no usable size.
        QCOMPARE(bytes, (QList<uint>{0x80000, 0x40000, 0x100000, 0x200000, 0x400000, 0x200000,
                                     0x400000, 0, 0x800000, 0x1000000, 0, 0}));
    }

    void headerBlocksAndFailingDevice()
    {
        const QByteArray image = knownImage();
        auto device = std::make_unique<TestDevice>(image);
        QVERIFY(device->seek(5)); // parsed from the start and left there, wherever it was
        ESPImageParser parser;
        QVERIFY(parser.load(device.get(), 0, 6, 0x1F));
        // The header's own codes, whatever was asked for.
        QCOMPARE((QList<int>{parser.flash_mode_int(), parser.flash_size_int(),
                             parser.flash_frequency_int()}),
                 (QList<int>{2, 4, 0}));
        // The digest is of the image as written, without masking the frequency to its nibble.
        QByteArray written = image;
        written[2] = 0;
        written[3] = 0x7F;
        QCOMPARE(parser.md5(), md5Of(written));
        // Only the first block gets the codes, with the frequency masked; the last is padded.
        QVERIFY(parser.get_block(0).isEmpty() &&
                parser.get_block(ESPImageParser::kMaxBlockSize + 1).isEmpty());
        QCOMPARE(parser.get_block(32), written.left(32).replace(3, 1, "\x6F"));
        QCOMPARE(parser.get_block(32), image.mid(32) + QByteArray(16, char(0xFF)));
        QCOMPARE(parser.get_block(32), QByteArray(32, char(0xFF)));
        // Blocks too short to hold bytes 2 and 3 are patched as far as they reach.
        parser.prepare_read();
        QCOMPARE(parser.get_block(3), image.left(2) + char(0));

        // Reads fail while hashing: the digest stops where the bytes stop instead of spinning on.
        device->failFrom = 30;
        QCOMPARE(parser.md5(), md5Of(written.left(30)));
        // Deleted underneath: noticed, not used.
        device.reset();
        QVERIFY(!parser.isLoaded() && parser.md5().isEmpty());
        QVERIFY(parser.get_block(0x400).isEmpty() && parser.dumpInfo(0).isEmpty());
    }

    void refused_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QByteArray>("content");
        QByteArray wrongMagic = knownImage();
        wrongMagic[0] = char(0xEA);
        QTest::newRow("7 bytes") << "buffer" << knownImage().left(7);
        QTest::newRow("magic 0xEA") << "buffer" << wrongMagic;
        QTest::newRow("file, magic 0xEA") << "file" << wrongMagic;
        QTest::newRow("missing file") << "missing" << QByteArray();
        QTest::newRow("null device") << "null" << QByteArray();
        QTest::newRow("sequential device") << "sequential" << knownImage();
        QTest::newRow("write-only device") << "write-only" << knownImage();
    }

    void refused()
    {
        QFETCH(QString, source);
        QFETCH(QByteArray, content);
        ESPImageParser parser;
        QVERIFY(parser.load(writeFile(knownImage()), 0, 0, 0));
        TestDevice device(content,
                          source == "write-only" ? QIODevice::WriteOnly : QIODevice::ReadOnly);
        device.sequential = source == "sequential";
        if (source == "file" || source == "missing")
            QVERIFY(!parser.load(source == "file" ? writeFile(content) : m_dir.filePath("absent"),
                                 0xFF, 0xFF, 0xFF));
        else
            QVERIFY(!parser.load(source == "null" ? nullptr : &device, 0xFF, 0xFF, 0xFF));
        QVERIFY(device.isOpen()); // a device handed in is never closed
        // Nothing of the image loaded before is left, and no file is held.
        QVERIFY(!parser.isLoaded() && parser.segments().isEmpty());
        QVERIFY(parser.findChildren<QFile *>().isEmpty());
        QVERIFY(parser.md5().isEmpty() && parser.dumpInfo(0).isEmpty());
    }

    void images_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<uint>("trailerOffset");
        QTest::addColumn<Segments>("segments");
        QTest::addColumn<QString>("expected"); // the whole text when it starts with "FLASH:"

        const QByteArray plain = knownImage();
        const QByteArray trailer = knownImage(true);
        const Segments both{{0x40100000, 16}, {0x3FFE8000, 4}};
        // Size in octal behind "0x", end address in decimal behind "0x", "%4" left standing.
        const QString head = "FLASH:\n{2 segments, %1 bytes total (0x%2)}\n"
                             "<FM: dio, FS: 4Mb, FF: 40MHz, PC: 0x40100004>\n"
                             "(0\t0x40100000 - 0x1074790416\t%4)\n"
                             "(1\t0x3ffe8000 - 0x1073643524\t%4)\n"
                             "CRC: 0xe7\n";
        QTest::newRow("no trailer") << plain << 0u << both
                                    << head.arg("48", "0000000000000060") + "Total:\t48\nMD5:\t" +
                                           md5Of(plain).toHex() + "\n";
        // The digest skips the first 4 bytes (rewritten when flashing) and the recorded last 16.
        const QString digest = md5Of(trailer.mid(4, 80)).toHex();
        QTest::newRow("trailer")
            << trailer << 52u << both
            << head.arg("100", "0000000000000144") +
                   "\n\nIROM0:\t0x32 bytes\nTotal:\t100 (recorded 100)\nMD5:\t" + digest +
                   " (recorded " + digest + ")\n";
        QTest::newRow("no room for the total")
            << trailer << 2u << both << "IROM0:\t0x82 bytes\nTotal:\t100 (recorded none)\n";
        const QString noCrc = "\nCRC: 0x??\n";
        QTest::newRow("second segment header cut")
            << plain.left(35) << 0u << Segments{{0x40100000, 16}} << noCrc;
        // A segment running past the end is listed as the header states it.
        QByteArray longSegment = plain;
        longSegment[1] = 1;
        longSegment.replace(12, 4, QByteArray::fromHex("ffffff7f"));
        QTest::newRow("segment beyond the end")
            << longSegment << 0u << Segments{{0x40100000, 0x7FFFFFFF}} << noCrc;
        // The count is trusted: the checksum block and the recorded total read as a third segment.
        QByteArray claimed = trailer;
        claimed[1] = char(255);
        QTest::newRow("255 claimed")
            << claimed << 0u << both + Segments{{0xE7000000, 100}} << noCrc;
    }

    void images()
    {
        QFETCH(QByteArray, content);
        QFETCH(uint, trailerOffset);
        QFETCH(QString, expected);
        // Open for writing: a buffer that grows on a seek past its end would show.
        TestDevice device(content, QIODevice::ReadWrite);
        ESPImageParser parser;
        QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
        QTEST(parser.segments(), "segments");
        QVERIFY(device.seek(13));
        const QString text = parser.dumpInfo(trailerOffset);
        QCOMPARE(device.pos(), 13); // readers leave the position alone
        if (expected.startsWith(QLatin1String("FLASH:")))
            QCOMPARE(text, expected);
        else
            QVERIFY2(text.contains(expected), qPrintable(text));
        QCOMPARE(parser.md5(), md5Of(content));
        parser.prepare_read();
        QCOMPARE(parser.get_block(128), content + QByteArray(128 - content.size(), char(0xFF)));
        QCOMPARE(device.size(), qint64(content.size()));
    }
};

QTEST_GUILESS_MAIN(TestEspImageParser)
#include "tst_espimageparser.moc"
