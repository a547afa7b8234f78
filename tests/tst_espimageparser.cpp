#include "image/espimageparser.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

// Random and mangled images are left to the image fuzz target; these pin the layout rules, the
// description's quirks and what happens to files and devices.
using Code = unsigned char;
Q_DECLARE_METATYPE(Code)

namespace {

QByteArray md5Of(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5);
}

// The bytes 2 and 3 that flashing writes, computed here without the parser.
QByteArray withHeaderCodes(QByteArray image, int mode, int byte3)
{
    if (image.size() > 2)
        image[2] = char(mode);
    if (image.size() > 3)
        image[3] = char(byte3);
    return image;
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

// A buffer that can claim to be sequential, or fail its reads like a file gone bad while hashed.
class TestDevice : public QBuffer
{
public:
    explicit TestDevice(const QByteArray &data, bool sequential = false) : m_sequential(sequential)
    {
        setData(data);
    }
    bool isSequential() const override { return m_sequential; }
    int readsLeft = -1;   // -1: never fail
    qint64 servedEnd = 0; // furthest offset handed out

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        if (readsLeft == 0)
            return -1;
        if (readsLeft > 0)
            --readsLeft;
        const qint64 start = pos();
        const qint64 count = QBuffer::readData(data, maxSize);
        servedEnd = qMax(servedEnd, start + count);
        return count;
    }

private:
    bool m_sequential;
};

} // namespace

class TestEspImageParser : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    int m_files = 0;

    QString writeFile(const QByteArray &bytes)
    {
        QFile file(m_dir->filePath(QStringLiteral("image%1.bin").arg(m_files++)));
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size()
                   ? file.fileName()
                   : QString();
    }

private slots:
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

    // Flash mode, size and frequency codes: text to code, code to text, code to bytes.
    void fromString_data()
    {
        QTest::addColumn<char>("field");
        QTest::addColumn<QString>("text");
        QTest::addColumn<Code>("code");
        const Code none = 0xFF;
        const auto rows = [](char field, Code code, std::initializer_list<const char *> texts) {
            for (const char *text : texts)
                QTest::addRow("%c '%s'", field, text) << field << QString::fromLatin1(text) << code;
        };
        // Only the quirks: the c1 forms are tried before the plain ones; three patterns are
        // case-sensitive, so "4MBc1" and "16MB" are refused and the shown "4MbC1" does not read
        // back; sizes may be named in megabits; 80 MHz texts give the 40 MHz code, not 15.
        rows('s', 0, {"512KB", "4m"});
        rows('s', 2, {"1024kb"});
        rows('s', 4, {"4MB"});
        rows('s', 5, {"2MBC1", "16M-C1"});
        rows('s', 6, {"4mbc1"});
        rows('s', 7, {"4096kbc2", "32m-c2"});
        rows('s', 9, {"16mb", "128m"});
        rows('s', none, {"512kbb", " 512", "1m", "4MBc1", "4MbC1", "2mbc2", "16MB", ""});
        rows('m', 2, {"Dio"});
        rows('m', none, {"dio ", "invalid"});
        rows('f', 0, {"80MHz", "80e6"});
        rows('f', 1, {"26E6"});
        rows('f', none, {"40"});
    }

    void fromString()
    {
        QFETCH(char, field);
        QFETCH(QString, text);
        const Code code = field == 'm'   ? ESPImageParser::fm_fromString(text)
                          : field == 's' ? ESPImageParser::fs_fromString(text)
                                         : ESPImageParser::ff_fromString(text);
        QTEST(code, "code");
    }

    void sizes()
    {
        QStringList texts;
        for (const uint bytes : {0x400000u, 0x80000u, 0u, 1536u, 0x180000u, 0xFFFFFFFFu})
            texts << ESPImageParser::flashSizeString(bytes);
        QCOMPARE(texts, (QStringList{"4Mb", "512Kb", "0Kb", "1Kb", "1536Kb", "4194303Kb"}));
        QList<uint> bytes;
        for (const Code code : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 0xFF})
            bytes << ESPImageParser::flash_size_bytes(code);
        // Code 7 (the "c2" layout) has no usable size.
        QCOMPARE(bytes, (QList<uint>{0x80000, 0x40000, 0x100000, 0x200000, 0x400000, 0x200000,
                                     0x400000, 0, 0x800000, 0x1000000, 0, 0}));
    }

    void shownTexts_data()
    {
        // Header codes, codes asked for (0xFF: keep the header's), and the three texts shown.
        QTest::addColumn<QList<int>>("header");
        QTest::addColumn<QList<int>>("asked");
        QTest::addColumn<QStringList>("texts");
        const QList<int> zero{0, 0, 0};
        QTest::newRow("qout 256K 26MHz")
            << zero << QList<int>{1, 1, 1} << QStringList{"qout", "256K", "26MHz"};
        QTest::newRow("dout 2Mb 80MHz")
            << zero << QList<int>{3, 3, 15} << QStringList{"dout", "2Mb", "80MHz"};
        QTest::newRow("2MbC1") << zero << QList<int>{4, 5, 3}
                               << QStringList{"invalid", "2MbC1", "inv"};
        QTest::newRow("8 accepted but inv")
            << zero << QList<int>{0, 8, 0} << QStringList{"qio", "inv", "40MHz"};
        QTest::newRow("from the header") << QList<int>{2, 6, 15} << QList<int>{0xFF, 0xFF, 0xFF}
                                         << QStringList{"dio", "4MbC1", "80MHz"};
    }

    void shownTexts()
    {
        QFETCH(QList<int>, header);
        QFETCH(QList<int>, asked);
        EspImageBuilder builder;
        builder.setFlashMode(quint8(header[0]));
        builder.setFlashSize(quint8(header[1]));
        builder.setFlashFrequency(quint8(header[2]));
        QBuffer device;
        device.setData(builder.build());
        QVERIFY(device.open(QIODevice::ReadOnly));
        ESPImageParser parser;
        QVERIFY(parser.load(&device, Code(asked[0]), Code(asked[1]), Code(asked[2])));
        QTEST(
            (QStringList{parser.getFlashMode(), parser.getFlashSize(), parser.getFlashFrequency()}),
            "texts");
    }

    void headerSegmentsAndBlocks()
    {
        EspImageBuilder builder;
        builder.setEntry(0x4010F00D);
        builder.setFlashMode(3);
        builder.setFlashSize(6);
        builder.setFlashFrequency(15);
        builder.addRandomSegment(0x40100000, 0x420, 1);
        builder.addRandomSegment(0x3FFE8000, 0, 2);
        builder.addRandomSegment(0x40240000, 0x8, 3); // data ends at 0x440: 0x450 bytes
        const QByteArray image = builder.build();
        QBuffer device;
        device.setData(image);
        QVERIFY(device.open(QIODevice::ReadOnly));
        QVERIFY(device.seek(5));
        ESPImageParser parser;
        QVERIFY(parser.load(&device, 0, 2, 0x1F));
        QCOMPARE(device.pos(), 0); // parsed from the start, left at the start
        QCOMPARE(parser.segments(),
                 (QList<ESPImageParser::Segment>{
                     {0x40100000u, 0x420u}, {0x3FFE8000u, 0u}, {0x40240000u, 8u}}));
        QCOMPARE(parser.entry_point(), 0x4010F00Du);
        // The header's own codes, whatever was asked for; the texts are of the codes asked.
        QCOMPARE(parser.flash_mode_int(), Code(3));
        QCOMPARE(parser.flash_size_int(), Code(6));
        QCOMPARE(parser.flash_frequency_int(), Code(15));
        QCOMPARE(parser.getFlashSize(), QStringLiteral("1Mb"));
        // The digest is of the image as written, without masking the frequency to its nibble.
        QCOMPARE(parser.md5(), md5Of(withHeaderCodes(image, 0, 0x3F)));

        // Only the first block gets the codes, with the frequency masked; the last is padded.
        QVERIFY(parser.get_block(0).isEmpty());
        QVERIFY(parser.get_block(ESPImageParser::kMaxBlockSize + 1).isEmpty());
        QCOMPARE(parser.get_block(0x400), withHeaderCodes(image.left(0x400), 0, 0x2F));
        QCOMPARE(parser.get_block(0x400), image.mid(0x400) + QByteArray(0x3B0, char(0xFF)));
        QVERIFY(device.atEnd());
        QCOMPARE(parser.get_block(0x400), QByteArray(0x400, char(0xFF)));
        // Blocks too short to hold bytes 2 and 3 are patched as far as they reach.
        parser.prepare_read();
        QCOMPARE(parser.get_block(3), image.left(2) + char(0));
    }

    void refused_data()
    {
        // 0 a buffer, 1 a file, 2 a missing file, 3 no device, 4 sequential, 5 write-only
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("content");
        QByteArray wrongMagic = knownImage();
        wrongMagic[0] = char(0xEA);
        QTest::newRow("7 bytes") << 0 << knownImage().left(7);
        QTest::newRow("magic 0xEA") << 0 << wrongMagic;
        QTest::newRow("file, magic 0xEA") << 1 << wrongMagic;
        QTest::newRow("missing file") << 2 << QByteArray();
        QTest::newRow("null device") << 3 << QByteArray();
        QTest::newRow("sequential device") << 4 << knownImage();
        QTest::newRow("write-only device") << 5 << knownImage();
    }

    void refused()
    {
        QFETCH(int, kind);
        QFETCH(QByteArray, content);
        ESPImageParser parser;
        QVERIFY(parser.load(writeFile(knownImage()), 0, 0, 0));
        TestDevice device(content, kind == 4);
        QVERIFY(device.open(kind == 5 ? QIODevice::WriteOnly : QIODevice::ReadOnly));
        if (kind == 1 || kind == 2)
            QVERIFY(!parser.load(kind == 1 ? writeFile(content) : m_dir->filePath("absent.bin"),
                                 0xFF, 0xFF, 0xFF));
        else
            QVERIFY(!parser.load(kind == 3 ? nullptr : &device, 0xFF, 0xFF, 0xFF));
        QVERIFY(device.isOpen()); // a device handed in is never closed
        // Nothing of the image loaded before is left, and no file is held.
        QVERIFY(!parser.isLoaded());
        QVERIFY(parser.segments().isEmpty());
        QVERIFY(parser.findChildren<QFile *>().isEmpty());
        QVERIFY(parser.md5().isEmpty() && parser.dumpInfo(0).isEmpty());
        QCOMPARE(parser.flash_mode_int(), Code(0xFF));
    }

    void dumpInfo_data()
    {
        QTest::addColumn<QByteArray>("image");
        QTest::addColumn<uint>("trailerOffset");
        QTest::addColumn<QString>("expected"); // the whole text when it starts with "FLASH:"

        const QByteArray plain = knownImage();
        const QByteArray trailer = knownImage(true);
        // Size in octal behind "0x", end address in decimal behind "0x", "%4" left standing.
        const QString head = "FLASH:\n{2 segments, %1 bytes total (0x%2)}\n"
                             "<FM: dio, FS: 4Mb, FF: 40MHz, PC: 0x40100004>\n"
                             "(0\t0x40100000 - 0x1074790416\t%4)\n"
                             "(1\t0x3ffe8000 - 0x1073643524\t%4)\n"
                             "CRC: 0xe7\n";
        QTest::newRow("no trailer") << plain << 0u
                                    << head.arg("48", "0000000000000060") + "Total:\t48\nMD5:\t" +
                                           md5Of(plain).toHex() + "\n";
        // The digest skips the first 4 bytes (rewritten when flashing) and the recorded last 16.
        const QString digest = md5Of(trailer.mid(4, 80)).toHex();
        QTest::newRow("trailer")
            << trailer << 52u
            << head.arg("100", "0000000000000144") +
                   "\n\nIROM0:\t0x32 bytes\nTotal:\t100 (recorded 100)\nMD5:\t" + digest +
                   " (recorded " + digest + ")\n";
        QTest::newRow("no room for the total")
            << trailer << 2u << "IROM0:\t0x82 bytes\nTotal:\t100 (recorded none)\n";
    }

    void dumpInfo()
    {
        QFETCH(QByteArray, image);
        QFETCH(uint, trailerOffset);
        QFETCH(QString, expected);
        QBuffer device;
        device.setData(image);
        QVERIFY(device.open(QIODevice::ReadOnly));
        ESPImageParser parser;
        QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
        QVERIFY(device.seek(13));
        const QString text = parser.dumpInfo(trailerOffset);
        QCOMPARE(device.pos(), 13); // readers leave the position alone
        if (expected.startsWith(QLatin1String("FLASH:")))
            QCOMPARE(text, expected);
        else
            QVERIFY2(text.contains(expected), qPrintable(text));
    }

    void segmentListAgainstData_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QList<uint>>("lengths");
        QTest::addColumn<QString>("crc");
        const QByteArray image = knownImage();
        QTest::newRow("complete") << image << QList<uint>{16, 4} << "e7";
        QTest::newRow("second segment header cut") << image.left(35) << QList<uint>{16} << "??";
        // A segment running past the end is listed as the header states it.
        QByteArray longSegment = image;
        longSegment[1] = 1;
        longSegment.replace(12, 4, QByteArray::fromHex("ffffff7f"));
        QTest::newRow("segment beyond the end") << longSegment << QList<uint>{0x7FFFFFFF} << "??";
        // The count is trusted: the checksum block reads as two more segments, the second with
        // the checksum 0xEF in its length's top byte.
        EspImageBuilder empty;
        empty.addSegment(0x40100000, QByteArray());
        QByteArray padded = empty.build();
        padded[1] = char(255);
        QTest::newRow("255 claimed, padding follows")
            << padded << QList<uint>{0, 0, 0xEF000000} << "??";
    }

    void segmentListAgainstData()
    {
        QFETCH(QByteArray, content);
        QFETCH(QList<uint>, lengths);
        QFETCH(QString, crc);
        QBuffer device;
        device.setData(content);
        // Open for writing: a buffer that grows on a seek past its end would show.
        QVERIFY(device.open(QIODevice::ReadWrite));
        ESPImageParser parser;
        QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
        QList<uint> actual;
        for (const ESPImageParser::Segment &segment : parser.segments())
            actual << segment.second;
        QCOMPARE(actual, lengths);
        QVERIFY(parser.dumpInfo(0).contains(QStringLiteral("\nCRC: 0x%1\n").arg(crc)));
        QCOMPARE(parser.md5(), md5Of(content));
        parser.prepare_read();
        QCOMPARE(parser.get_block(64), content + QByteArray(64 - content.size(), char(0xFF)));
        QCOMPARE(device.size(), qint64(content.size()));
    }

    void ownedFileLifecycle()
    {
        const QString path = writeFile(knownImage());
        QBuffer device;
        device.setData(knownImage());
        QVERIFY(device.open(QIODevice::ReadOnly));
        QPointer<QFile> file;
        {
            ESPImageParser parser;
            QVERIFY(parser.load(path, 0xFF, 0xFF, 0xFF));
            file = parser.findChild<QFile *>();
            QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
            QVERIFY(file.isNull()); // deleted, not just left to the parent
            parser.close_image();
            QVERIFY(parser.load(path, 0xFF, 0xFF, 0xFF));
            file = parser.findChild<QFile *>();
            parser.close_image();
            QVERIFY(file.isNull() && !parser.isLoaded());
            QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
        }
        QVERIFY(device.isOpen()); // a device handed in is never closed

        // A device deleted underneath is noticed, not used.
        ESPImageParser parser;
        auto doomed = std::make_unique<QBuffer>();
        doomed->setData(knownImage());
        QVERIFY(doomed->open(QIODevice::ReadOnly));
        QVERIFY(parser.load(doomed.get(), 0xFF, 0xFF, 0xFF));
        doomed.reset();
        QVERIFY(!parser.isLoaded());
        QVERIFY(parser.md5().isEmpty() && parser.get_block(0x400).isEmpty());
        QVERIFY(parser.dumpInfo(0).isEmpty());
    }

    void readErrorWhileHashing()
    {
        // The hash loop stops where the device stops giving bytes instead of spinning on.
        EspImageBuilder builder;
        builder.addRandomSegment(0x40200000, 200000, 5);
        const QByteArray image = builder.build();
        TestDevice device(image);
        QVERIFY(device.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
        ESPImageParser parser;
        QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
        device.readsLeft = 2;
        const QByteArray digest = parser.md5();
        QVERIFY(device.servedEnd < image.size());
        QCOMPARE(digest, md5Of(image.left(int(device.servedEnd))));
    }
};

QTEST_GUILESS_MAIN(TestEspImageParser)
#include "tst_espimageparser.moc"
