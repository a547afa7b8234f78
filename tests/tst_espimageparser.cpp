#include "image/espimageparser.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

#include <utility>

// Random and mangled images are left to the image fuzz target; these pin the layout rules, the
// description's quirks and what happens to files and devices.
using Code = unsigned char;

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

// A buffer that can claim to be sequential, and can fail every read after the first few like a
// file that becomes unreadable while it is hashed.
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
        QCOMPARE(parser.getFlashMode(), QStringLiteral("qio"));
        QCOMPARE(parser.getFlashSize(), QStringLiteral("1Mb"));
        QCOMPARE(parser.getFlashFrequency(), QStringLiteral("inv"));
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
        QTest::addColumn<int>("kind");
        QTest::addColumn<QByteArray>("content");
        QByteArray wrongMagic = knownImage();
        wrongMagic[0] = char(0xEA);
        QTest::newRow("empty") << 0 << QByteArray();
        QTest::newRow("7 bytes") << 0 << knownImage().left(7);
        QTest::newRow("magic 0xEA") << 0 << wrongMagic;
        QTest::newRow("file, magic 0xEA") << 1 << wrongMagic;
        QTest::newRow("missing file") << 2 << QByteArray();
        QTest::newRow("directory") << 3 << QByteArray();
        QTest::newRow("null device") << 4 << QByteArray();
        QTest::newRow("write-only device") << 5 << knownImage();
        QTest::newRow("sequential device") << 6 << knownImage();
    }

    void refused()
    {
        QFETCH(int, kind);
        QFETCH(QByteArray, content);
        ESPImageParser parser;
        QVERIFY(parser.load(writeFile(knownImage()), 0, 0, 0));
        TestDevice device(content, kind == 6);
        QVERIFY(device.open(kind == 5 ? QIODevice::WriteOnly : QIODevice::ReadOnly));
        bool loaded = true;
        if (kind == 1 || kind == 2 || kind == 3)
            loaded = parser.load(kind == 1   ? writeFile(content)
                                 : kind == 2 ? m_dir->filePath("absent.bin")
                                             : m_dir->path(),
                                 0xFF, 0xFF, 0xFF);
        else
            loaded = parser.load(kind == 4 ? nullptr : &device, 0xFF, 0xFF, 0xFF);
        QVERIFY(!loaded);
        QVERIFY(device.isOpen()); // a device handed in is never closed
        // Nothing of the image loaded before is left, and no file is held.
        QVERIFY(!parser.isLoaded());
        QVERIFY(parser.segments().isEmpty());
        QVERIFY(parser.findChildren<QFile *>().isEmpty());
        QVERIFY(parser.md5().isEmpty() && parser.md5_upy().isEmpty());
        QVERIFY(parser.dumpInfo(0).isEmpty());
        QCOMPARE(parser.file_size(), 0u);
        QCOMPARE(parser.flash_mode_int(), Code(0xFF));
    }

    void sizesFollowTheDevice()
    {
        QBuffer device;
        device.setData(knownImage());
        QVERIFY(device.open(QIODevice::ReadOnly));
        ESPImageParser parser;
        QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
        // Writes go in whole words.
        for (const auto &[size, writeSize] :
             std::initializer_list<std::pair<int, uint>>{{0, 0}, {5, 8}, {8, 8}, {0x451, 0x454}}) {
            device.buffer().resize(size);
            QCOMPARE(parser.file_size(), uint(size));
            QCOMPARE(parser.write_size(), writeSize);
        }
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
        QTest::newRow("offset past the end means no trailer")
            << trailer << 100u << "CRC: 0xe7\nTotal:\t100\nMD5:\t";
        QTest::newRow("no room for the total")
            << trailer << 2u << "IROM0:\t0x82 bytes\nTotal:\t100 (recorded none)\n";
        QTest::newRow("total read from the header bytes E9 02 02 40")
            << trailer << 4u << "IROM0:\t0x80 bytes\nTotal:\t100 (recorded 1073873641)\n";
        QTest::newRow("inside the digest") << trailer << 90u << "IROM0:\t0x-6 bytes\n";
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
        QTest::newRow("header only") << image.left(8) << QList<uint>{} << "??";
        QTest::newRow("second segment header cut") << image.left(35) << QList<uint>{16} << "??";
        QTest::newRow("checksum missing") << image.left(47) << QList<uint>{16, 4} << "??";
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
        QVERIFY(
            device.open(QIODevice::ReadWrite)); // a writable buffer grows on a seek past its end
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
            QVERIFY(parser.load(path, 0xFF, 0xFF, 0xFF));
            QVERIFY(file.isNull()); // deleted, not just left to the parent
            QCOMPARE(parser.findChildren<QFile *>().size(), 1);
            parser.close_image();
            QVERIFY(!parser.isLoaded());
            QVERIFY(parser.findChildren<QFile *>().isEmpty());
            // A device handed in is never closed: not by close_image, a new load or the end.
            QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
            parser.close_image();
            QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
            QVERIFY(parser.load(path, 0xFF, 0xFF, 0xFF));
            QVERIFY(device.isOpen());
            file = parser.findChild<QFile *>();
            QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
            QVERIFY(file.isNull());
        }
        QVERIFY(device.isOpen());

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
        parser.prepare_read();
        parser.close_image();
    }

    void fileShrinksAfterLoad_data()
    {
        QTest::addColumn<int>("size");
        QTest::newRow("to 0") << 0;
        QTest::newRow("to 3") << 3;
        QTest::newRow("to 1000") << 1000;
    }

    void fileShrinksAfterLoad()
    {
        QFETCH(int, size);
        EspImageBuilder builder;
        builder.setFlashMode(2);
        builder.setFlashSize(4);
        builder.addRandomSegment(0x40200000, 5000, 4);
        const QByteArray image = builder.build();
        const QString path = writeFile(image);
        ESPImageParser parser;
        QVERIFY(parser.load(path, 1, 2, 2));
        QVERIFY(QFile::resize(path, size)); // another process cuts the file
        const QByteArray left = image.left(size);
        QCOMPARE(parser.file_size(), uint(size));
        QCOMPARE(parser.md5(), md5Of(withHeaderCodes(left, 1, 0x22)));
        QCOMPARE(parser.entry_point(), size >= 8 ? 0x40100004u : 0u);
        QCOMPARE(parser.flash_mode_int(), size >= 3 ? Code(2) : Code(0xFF));
        QVERIFY(parser.dumpInfo(0).contains(QLatin1String("CRC: 0x??\n")));
        // The blocks end with the file: no stale read-ahead, no endless loop.
        parser.prepare_read();
        QByteArray written = parser.get_block(0x400);
        for (QFile *file = parser.findChild<QFile *>(); !file->atEnd();) {
            QVERIFY2(written.size() < 0x2000, "block loop does not end");
            written += parser.get_block(0x400);
        }
        QCOMPARE(written, withHeaderCodes(left + QByteArray(0x400 - size, char(0xFF)), 1, 0x22));
    }

    void readErrorWhileHashing()
    {
        // The hash loops stop where the device stops giving bytes instead of spinning on.
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
        device.readsLeft = 1;
        device.servedEnd = 0;
        const QByteArray upy = parser.md5_upy();
        QVERIFY(device.servedEnd < image.size() - 16);
        QCOMPARE(upy, md5Of(image.mid(4, int(device.servedEnd) - 4)));
    }
};

QTEST_GUILESS_MAIN(TestEspImageParser)
#include "tst_espimageparser.moc"
