#include "image/espimageparser.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QBuffer>
#include <QCryptographicHash>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QtTest>

#include <cstring>

using Code = unsigned char;
Q_DECLARE_METATYPE(Code)

namespace {

QByteArray md5Of(const QByteArray &bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5);
}

QString md5Hex(const QByteArray &bytes)
{
    return QString::fromLatin1(md5Of(bytes).toHex());
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

// An image with known contents: dio, 4 MB, 40 MHz; checksum 0xE7; 48 bytes.
EspImageBuilder knownBuilder()
{
    EspImageBuilder builder;
    builder.setEntry(0x40100004);
    builder.setFlashMode(2);
    builder.setFlashSize(4);
    builder.setFlashFrequency(0);
    builder.addSegment(0x40100000, QByteArray::fromHex("000102030405060708090a0b0c0d0e0f"));
    builder.addSegment(0x3FFE8000, QByteArray::fromHex("12345678"));
    return builder;
}

// Serves bytes like a file that another process cuts short while they are read: once armed, after
// `readsBeforeShrink` reads its size drops to `shrunkSize` (or every read fails).
class ShrinkingDevice : public QIODevice
{
public:
    explicit ShrinkingDevice(const QByteArray &data, bool sequential = false)
        : m_data(data), m_sequential(sequential)
    {}

    void arm(int readsBeforeShrink, qint64 shrunkSize, bool failAfterShrink)
    {
        m_armed = true;
        m_readsBeforeShrink = readsBeforeShrink;
        m_shrunkSize = shrunkSize;
        m_fail = failAfterShrink;
        m_servedEnd = 0;
    }
    bool shrunk() const { return m_shrunk; }
    // Furthest offset handed out since arm().
    qint64 servedEnd() const { return m_servedEnd; }

    bool isSequential() const override { return m_sequential; }
    qint64 size() const override { return m_shrunk ? m_shrunkSize : m_data.size(); }

protected:
    qint64 readData(char *data, qint64 maxSize) override
    {
        if (m_armed && !m_shrunk && m_reads++ >= m_readsBeforeShrink)
            m_shrunk = true;
        if (m_shrunk && m_fail)
            return -1;
        const qint64 start = pos();
        const qint64 count = qBound<qint64>(0, size() - start, maxSize);
        if (count > 0)
            std::memcpy(data, m_data.constData() + start, size_t(count));
        m_servedEnd = qMax(m_servedEnd, start + count);
        return count;
    }
    qint64 writeData(const char *, qint64) override { return -1; }

private:
    QByteArray m_data;
    bool m_sequential;
    bool m_armed = false;
    bool m_shrunk = false;
    bool m_fail = false;
    int m_reads = 0;
    int m_readsBeforeShrink = 0;
    qint64 m_shrunkSize = 0;
    qint64 m_servedEnd = 0;
};

} // namespace

class TestEspImageParser : public QObject
{
    Q_OBJECT

private slots:
    void init();

    void segmentsAndHeaderFields();
    void roundTripWithGeneratedImages();
    void loadStartsAtBeginning();
    void firstBlockPatchedLaterUnchanged_data();
    void firstBlockPatchedLaterUnchanged();
    void lastBlockPadded();
    void blockSizeEdges();
    void md5OfPatchedImage_data();
    void md5OfPatchedImage();
    void md5DoesNotMaskFrequency();
    void rejectedContent_data();
    void rejectedContent();
    void rejectedDevices_data();
    void rejectedDevices();
    void failedLoadDropsPreviousImage();
    void eightByteImage();
    void writeSize_data();
    void writeSize();
    void md5Upy_data();
    void md5Upy();
    void dumpInfoWithoutTrailer();
    void dumpInfoWithCallerCodes();
    void dumpInfoWithTrailer();
    void dumpInfoOddTrailerOffsets_data();
    void dumpInfoOddTrailerOffsets();
    void positionsRestored_data();
    void positionsRestored();
    void ownedFileLifecycle();
    void deviceDeletedUnderneath();
    void segmentLengthBeyondEnd();
    void segmentCountBeyondData_data();
    void segmentCountBeyondData();
    void truncatedImage_data();
    void truncatedImage();
    void fileShrinksAfterLoad_data();
    void fileShrinksAfterLoad();
    void deviceShrinksWhileHashing_data();
    void deviceShrinksWhileHashing();
    void mangledImages();

private:
    QString writeFile(const QByteArray &bytes);

    std::unique_ptr<QTemporaryDir> m_dir;
    int m_files = 0;
};

void TestEspImageParser::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

QString TestEspImageParser::writeFile(const QByteArray &bytes)
{
    const QString path = m_dir->filePath(QStringLiteral("image%1.bin").arg(m_files++));
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        return QString();
    return path;
}

void TestEspImageParser::segmentsAndHeaderFields()
{
    EspImageBuilder builder;
    builder.setEntry(0x4010F00D);
    builder.setFlashMode(3);
    builder.setFlashSize(6);
    builder.setFlashFrequency(15);
    builder.addRandomSegment(0x40100000, 0x123, 1);
    builder.addRandomSegment(0x3FFE8000, 0, 2);
    builder.addRandomSegment(0x40240000, 0x40, 3);
    const QByteArray image = builder.build();
    const QString path = writeFile(image);

    ESPImageParser parser;
    QVERIFY(parser.load(path, 0, 2, 1));
    QVERIFY(parser.isLoaded());
    const QList<ESPImageParser::Segment> expected{
        {0x40100000u, 0x123u}, {0x3FFE8000u, 0u}, {0x40240000u, 0x40u}};
    QCOMPARE(parser.segments(), expected);
    QCOMPARE(parser.entry_point(), 0x4010F00Du);
    // The header's own codes, whatever the caller asked for.
    QCOMPARE(parser.flash_mode_int(), Code(3));
    QCOMPARE(parser.flash_size_int(), Code(6));
    QCOMPARE(parser.flash_frequency_int(), Code(15));
    QCOMPARE(parser.getFlashMode(), QStringLiteral("qio"));
    QCOMPARE(parser.getFlashSize(), QStringLiteral("1Mb"));
    QCOMPARE(parser.getFlashFrequency(), QStringLiteral("26MHz"));
    QCOMPARE(parser.file_size(), uint(image.size()));
}

void TestEspImageParser::roundTripWithGeneratedImages()
{
    QRandomGenerator random(7);
    for (int round = 0; round < 40; ++round) {
        EspImageBuilder builder;
        QList<ESPImageParser::Segment> expected;
        const int count = random.bounded(12);
        for (int i = 0; i < count; ++i) {
            const quint32 address = random.generate();
            const int length = random.bounded(300);
            builder.addRandomSegment(address, length, random.generate());
            expected.append({address, uint(length)});
        }
        const quint32 entry = random.generate();
        builder.setEntry(entry);
        QBuffer device;
        device.setData(builder.build());
        QVERIFY(device.open(QIODevice::ReadOnly));
        ESPImageParser parser;
        QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
        QCOMPARE(parser.segments(), expected);
        QCOMPARE(parser.entry_point(), entry);
        QCOMPARE(parser.md5(), md5Of(device.data()));
        QVERIFY(parser.dumpInfo(0).contains(
            QStringLiteral("CRC: 0x%1\n").arg(builder.checksum(), 2, 16, QLatin1Char('0'))));
    }
}

void TestEspImageParser::loadStartsAtBeginning()
{
    QBuffer device;
    device.setData(knownBuilder().build());
    QVERIFY(device.open(QIODevice::ReadOnly));
    QVERIFY(device.seek(5));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
    QCOMPARE(parser.segments().size(), 2);
    QCOMPARE(device.pos(), 0);
}

void TestEspImageParser::firstBlockPatchedLaterUnchanged_data()
{
    QTest::addColumn<uint>("blockSize");
    QTest::newRow("0x400") << 0x400u;
    QTest::newRow("0x40") << 0x40u;
    QTest::newRow("4") << 4u;
    QTest::newRow("whole file in one") << 0x4000u;
}

void TestEspImageParser::firstBlockPatchedLaterUnchanged()
{
    QFETCH(uint, blockSize);
    EspImageBuilder builder; // mode 0, byte 3 = 0x00
    builder.addRandomSegment(0x40100000, 0x900, 3);
    const QByteArray image = builder.build();
    QCOMPARE(image.at(2), char(0));
    QCOMPARE(image.at(3), char(0));

    ESPImageParser parser;
    QVERIFY(parser.load(writeFile(image), 2, 4, 0));
    parser.prepare_read();
    QByteArray written;
    for (int i = 0; written.size() < image.size(); ++i) {
        QVERIFY2(i < image.size(), "block loop does not end");
        const QByteArray block = parser.get_block(blockSize);
        QCOMPARE(block.size(), int(blockSize));
        written += block;
    }
    QCOMPARE(quint8(written.at(2)), quint8(0x02));
    QCOMPARE(quint8(written.at(3)), quint8(0x40));
    QCOMPARE(written.left(2), image.left(2));
    QCOMPARE(written.mid(4, image.size() - 4), image.mid(4));
    QCOMPARE(written.mid(image.size()), QByteArray(written.size() - image.size(), char(0xFF)));
}

void TestEspImageParser::lastBlockPadded()
{
    EspImageBuilder builder;
    builder.addRandomSegment(0x40100000, 0x430, 11); // ends at 0x440: file of 0x450
    const QByteArray image = builder.build();
    QCOMPARE(image.size(), 0x450);

    QBuffer device;
    device.setData(image);
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
    parser.prepare_read();
    QCOMPARE(parser.get_block(0x400), image.left(0x400));
    QVERIFY(!device.atEnd());
    const QByteArray last = parser.get_block(0x400);
    QCOMPARE(last, image.mid(0x400) + QByteArray(0x3B0, char(0xFF)));
    QVERIFY(device.atEnd());
    QCOMPARE(parser.get_block(0x400), QByteArray(0x400, char(0xFF)));
}

void TestEspImageParser::blockSizeEdges()
{
    const QByteArray image = knownBuilder().build();
    QBuffer device;
    device.setData(image);
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 1, 3, 2));

    QVERIFY(parser.get_block(0).isEmpty());
    QVERIFY(parser.get_block(ESPImageParser::kMaxBlockSize + 1).isEmpty());
    QCOMPARE(device.pos(), 0);
    // Too short to hold bytes 2 and 3: nothing to patch, nothing written beyond the block.
    QCOMPARE(parser.get_block(2), image.left(2));
    parser.prepare_read();
    QCOMPARE(parser.get_block(3), image.left(2) + char(1));
    parser.prepare_read();
    QCOMPARE(parser.get_block(4), image.left(2) + char(1) + char(0x32));

    parser.close_image();
    QVERIFY(parser.get_block(16).isEmpty());
}

void TestEspImageParser::md5OfPatchedImage_data()
{
    QTest::addColumn<Code>("mode");
    QTest::addColumn<Code>("size");
    QTest::addColumn<Code>("freq");
    QTest::addColumn<int>("byte2");
    QTest::addColumn<int>("byte3");

    // The known image holds mode 2 and byte 3 = 0x40.
    QTest::newRow("keep header") << Code(0xFF) << Code(0xFF) << Code(0xFF) << 2 << 0x40;
    QTest::newRow("qio 1Mb 26MHz") << Code(0) << Code(2) << Code(1) << 0 << 0x21;
    QTest::newRow("dout 16mb 80MHz") << Code(3) << Code(9) << Code(15) << 3 << 0x9F;
    QTest::newRow("only size") << Code(0xFF) << Code(6) << Code(0xFF) << 2 << 0x60;
    QTest::newRow("only frequency") << Code(0xFF) << Code(0xFF) << Code(2) << 2 << 0x42;
}

void TestEspImageParser::md5OfPatchedImage()
{
    QFETCH(Code, mode);
    QFETCH(Code, size);
    QFETCH(Code, freq);
    QFETCH(int, byte2);
    QFETCH(int, byte3);

    const QByteArray image = knownBuilder().build();
    ESPImageParser parser;
    QVERIFY(parser.load(writeFile(image), mode, size, freq));
    const QByteArray expected = md5Of(withHeaderCodes(image, byte2, byte3));
    QCOMPARE(parser.md5(), expected);

    // The digest the chip computes over what get_block hands out.
    parser.prepare_read();
    const QByteArray written = parser.get_block(0x400).left(image.size());
    QCOMPARE(md5Of(written), expected);
}

void TestEspImageParser::md5DoesNotMaskFrequency()
{
    const QByteArray image = knownBuilder().build();
    ESPImageParser parser;
    QVERIFY(parser.load(writeFile(image), 2, 4, 0x1F));
    QCOMPARE(parser.md5(), md5Of(withHeaderCodes(image, 2, 0x5F)));
    parser.prepare_read();
    QCOMPARE(quint8(parser.get_block(16).at(3)), quint8(0x4F));
}

void TestEspImageParser::rejectedContent_data()
{
    QTest::addColumn<QByteArray>("content");

    QByteArray wrongMagic = knownBuilder().build();
    wrongMagic[0] = char(0xEA);
    QByteArray zeroMagic = knownBuilder().build();
    zeroMagic[0] = 0;

    QTest::newRow("empty") << QByteArray();
    QTest::newRow("magic only") << QByteArray(1, char(0xE9));
    QTest::newRow("7 bytes") << knownBuilder().build().left(7);
    QTest::newRow("magic 0xEA") << wrongMagic;
    QTest::newRow("magic 0x00") << zeroMagic;
    QTest::newRow("text") << QByteArray("This is not a firmware image at all.\n");
}

void TestEspImageParser::rejectedContent()
{
    QFETCH(QByteArray, content);

    QBuffer device;
    device.setData(content);
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(!parser.load(&device, 0xFF, 0xFF, 0xFF));
    QVERIFY(device.isOpen());
    QVERIFY(!parser.isLoaded());
    QVERIFY(parser.segments().isEmpty());
    QVERIFY(parser.md5().isEmpty());
    QVERIFY(parser.md5_upy().isEmpty());
    QVERIFY(parser.get_block(16).isEmpty());
    QVERIFY(parser.dumpInfo(0).isEmpty());
    QCOMPARE(parser.file_size(), 0u);
    QCOMPARE(parser.entry_point(), 0u);
    QCOMPARE(parser.flash_mode_int(), Code(0xFF));

    // Same through the path form: the file is rejected and not held.
    ESPImageParser fromPath;
    QVERIFY(!fromPath.load(writeFile(content), 0xFF, 0xFF, 0xFF));
    QVERIFY(!fromPath.isLoaded());
    QVERIFY(fromPath.findChildren<QFile *>().isEmpty());
}

void TestEspImageParser::rejectedDevices_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("null") << 0;
    QTest::newRow("not open") << 1;
    QTest::newRow("write only") << 2;
    QTest::newRow("sequential") << 3;
    QTest::newRow("missing file") << 4;
    QTest::newRow("directory") << 5;
}

void TestEspImageParser::rejectedDevices()
{
    QFETCH(int, kind);
    const QByteArray image = knownBuilder().build();
    ESPImageParser parser;
    QBuffer buffer;
    buffer.setData(image);
    ShrinkingDevice sequential(image, true);

    switch (kind) {
    case 0:
        QVERIFY(!parser.load(static_cast<QIODevice *>(nullptr), 0xFF, 0xFF, 0xFF));
        break;
    case 1:
        QVERIFY(!parser.load(&buffer, 0xFF, 0xFF, 0xFF));
        break;
    case 2:
        QVERIFY(buffer.open(QIODevice::WriteOnly));
        QVERIFY(!parser.load(&buffer, 0xFF, 0xFF, 0xFF));
        QVERIFY(buffer.isOpen());
        break;
    case 3:
        QVERIFY(sequential.open(QIODevice::ReadOnly));
        QVERIFY(!parser.load(&sequential, 0xFF, 0xFF, 0xFF));
        QVERIFY(sequential.isOpen());
        break;
    case 4:
        QVERIFY(!parser.load(m_dir->filePath(QStringLiteral("absent.bin")), 0xFF, 0xFF, 0xFF));
        break;
    case 5:
        QVERIFY(!parser.load(m_dir->path(), 0xFF, 0xFF, 0xFF));
        break;
    }
    QVERIFY(!parser.isLoaded());
    QVERIFY(parser.findChildren<QFile *>().isEmpty());
}

void TestEspImageParser::failedLoadDropsPreviousImage()
{
    ESPImageParser parser;
    QVERIFY(parser.load(writeFile(knownBuilder().build()), 0, 0, 0));
    QCOMPARE(parser.segments().size(), 2);
    QBuffer empty;
    QVERIFY(empty.open(QIODevice::ReadOnly));
    QVERIFY(!parser.load(&empty, 0, 0, 0));
    QVERIFY(!parser.isLoaded());
    QVERIFY(parser.segments().isEmpty());
    QVERIFY(parser.findChildren<QFile *>().isEmpty());
}

void TestEspImageParser::eightByteImage()
{
    const QByteArray image = knownBuilder().build().left(8);
    QByteArray header = image;
    header[1] = 0; // no segments
    QBuffer device;
    device.setData(header);
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
    QVERIFY(parser.segments().isEmpty());
    // No checksum block follows the header.
    const QString expected =
        QStringLiteral("FLASH:\n{0 segments, 8 bytes total (0x0000000000000010)}\n"
                       "<FM: dio, FS: 4Mb, FF: 40MHz, PC: 0x40100004>\n"
                       "CRC: 0x??\n"
                       "Total:\t8\n"
                       "MD5:\t%1\n")
            .arg(md5Hex(header));
    QCOMPARE(parser.dumpInfo(0), expected);
}

void TestEspImageParser::writeSize_data()
{
    QTest::addColumn<int>("size");
    QTest::addColumn<uint>("writeSize");
    QTest::newRow("5") << 5 << 8u;
    QTest::newRow("0") << 0 << 0u;
    QTest::newRow("8") << 8 << 8u;
    QTest::newRow("9") << 9 << 12u;
    QTest::newRow("0x450") << 0x450 << 0x450u;
    QTest::newRow("0x451") << 0x451 << 0x454u;
    QTest::newRow("0x453") << 0x453 << 0x454u;
}

void TestEspImageParser::writeSize()
{
    QFETCH(int, size);
    QFETCH(uint, writeSize);
    QBuffer device;
    device.setData(knownBuilder().build());
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
    device.buffer().resize(size); // the device changes size after loading
    QCOMPARE(parser.file_size(), uint(size));
    QCOMPARE(parser.write_size(), writeSize);
}

void TestEspImageParser::md5Upy_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("20: nothing") << 20;
    QTest::newRow("21: one byte") << 21;
    QTest::newRow("36") << 36;
    QTest::newRow("1044: one whole chunk") << 1044;
    QTest::newRow("3001: several chunks") << 3001;
}

void TestEspImageParser::md5Upy()
{
    QFETCH(int, size);
    QByteArray content = EspImageBuilder::pseudoRandomBytes(size, size);
    content[0] = char(0xE9);
    content[1] = 0;
    QBuffer device;
    device.setData(content);
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 1, 1, 1));
    const QByteArray expected = size >= 21 ? md5Of(content.mid(4, size - 20)) : md5Of(QByteArray());
    QCOMPARE(parser.md5_upy(), expected);
    if (size < 21)
        QCOMPARE(parser.md5_upy().toHex(), QByteArray("d41d8cd98f00b204e9800998ecf8427e"));
}

void TestEspImageParser::dumpInfoWithoutTrailer()
{
    const QByteArray image = knownBuilder().build();
    QCOMPARE(image.size(), 48);
    ESPImageParser parser;
    QVERIFY(parser.load(writeFile(image), 0xFF, 0xFF, 0xFF));
    // Size in octal behind "0x", end address in decimal behind "0x", "%4" left standing.
    const QString expected =
        QStringLiteral("FLASH:\n{2 segments, 48 bytes total (0x0000000000000060)}\n"
                       "<FM: dio, FS: 4Mb, FF: 40MHz, PC: 0x40100004>\n"
                       "(0\t0x40100000 - 0x1074790416\t%4)\n"
                       "(1\t0x3ffe8000 - 0x1073643524\t%4)\n"
                       "CRC: 0xe7\n"
                       "Total:\t48\n"
                       "MD5:\t") +
        md5Hex(image) + QStringLiteral("\n");
    QCOMPARE(parser.dumpInfo(0), expected);
    // An offset at or past the end means no trailer.
    QCOMPARE(parser.dumpInfo(48), expected);
}

void TestEspImageParser::dumpInfoWithCallerCodes()
{
    const QByteArray image = knownBuilder().build();
    ESPImageParser parser;
    QVERIFY(parser.load(writeFile(image), 0, 2, 15));
    const QString expected =
        QStringLiteral("FLASH:\n{2 segments, 48 bytes total (0x0000000000000060)}\n"
                       "<FM: qio, FS: 1Mb, FF: 80MHz, PC: 0x40100004>\n"
                       "(0\t0x40100000 - 0x1074790416\t%4)\n"
                       "(1\t0x3ffe8000 - 0x1073643524\t%4)\n"
                       "CRC: 0xe7\n"
                       "Total:\t48\n"
                       "MD5:\t") +
        md5Hex(withHeaderCodes(image, 0, 0x2F)) + QStringLiteral("\n");
    QCOMPARE(parser.dumpInfo(0), expected);
}

void TestEspImageParser::dumpInfoWithTrailer()
{
    EspImageBuilder builder = knownBuilder();
    builder.setSecondPart(QByteArray(32, 'Z'));
    const QByteArray image = builder.build();
    QCOMPARE(image.size(), 100);
    QCOMPARE(builder.trailerOffset(), 52);
    const QString digest = md5Hex(image.mid(4, 80));

    ESPImageParser parser;
    QVERIFY(parser.load(writeFile(image), 0xFF, 0xFF, 0xFF));
    const QString expected =
        QStringLiteral("FLASH:\n{2 segments, 100 bytes total (0x0000000000000144)}\n"
                       "<FM: dio, FS: 4Mb, FF: 40MHz, PC: 0x40100004>\n"
                       "(0\t0x40100000 - 0x1074790416\t%4)\n"
                       "(1\t0x3ffe8000 - 0x1073643524\t%4)\n"
                       "CRC: 0xe7\n"
                       "\n\nIROM0:\t0x32 bytes\n"
                       "Total:\t100 (recorded 100)\n"
                       "MD5:\t%1 (recorded %1)\n")
            .arg(digest);
    QCOMPARE(parser.dumpInfo(52), expected);
    QCOMPARE(parser.md5_upy(), md5Of(image.mid(4, 80)));
}

void TestEspImageParser::dumpInfoOddTrailerOffsets_data()
{
    QTest::addColumn<uint>("offset");
    QTest::addColumn<QString>("tail");

    // Image of 100 bytes: recorded total 100 at 48, digest at 84.
    QTest::newRow("no room for the total")
        << 2u << QStringLiteral("IROM0:\t0x82 bytes\nTotal:\t100 (recorded none)\n");
    // E9 02 02 40 read as the total.
    QTest::newRow("total from the header")
        << 4u << QStringLiteral("IROM0:\t0x80 bytes\nTotal:\t100 (recorded 1073873641)\n");
    QTest::newRow("inside the digest")
        << 90u << QStringLiteral("IROM0:\t0x-6 bytes\nTotal:\t100 (recorded ");
    QTest::newRow("last byte") << 99u << QStringLiteral("IROM0:\t0x-15 bytes\n");
    QTest::newRow("at the end") << 100u << QStringLiteral("CRC: 0xe7\nTotal:\t100\nMD5:\t");
    QTest::newRow("past the end") << 5000u << QStringLiteral("CRC: 0xe7\nTotal:\t100\nMD5:\t");
}

void TestEspImageParser::dumpInfoOddTrailerOffsets()
{
    QFETCH(uint, offset);
    QFETCH(QString, tail);
    EspImageBuilder builder = knownBuilder();
    builder.setSecondPart(QByteArray(32, 'Z'));
    QBuffer device;
    device.setData(builder.build());
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
    const QString text = parser.dumpInfo(offset);
    QVERIFY2(text.contains(tail), qPrintable(text));
}

void TestEspImageParser::positionsRestored_data()
{
    QTest::addColumn<int>("method");
    QTest::addColumn<qint64>("position");

    const char *names[] = {"entry_point", "flash_mode_int", "flash_size_int", "flash_frequency_int",
                           "md5",         "md5_upy",        "dumpInfo",       "dumpInfo trailer"};
    for (int method = 0; method < 8; ++method) {
        for (qint64 position : {qint64(0), qint64(13), qint64(100)})
            QTest::addRow("%s at %lld", names[method], position) << method << position;
    }
}

void TestEspImageParser::positionsRestored()
{
    QFETCH(int, method);
    QFETCH(qint64, position);
    EspImageBuilder builder = knownBuilder();
    builder.setSecondPart(QByteArray(32, 'Z'));
    QBuffer device;
    device.setData(builder.build());
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
    QVERIFY(device.seek(position));

    switch (method) {
    case 0:
        QCOMPARE(parser.entry_point(), 0x40100004u);
        break;
    case 1:
        QCOMPARE(parser.flash_mode_int(), Code(2));
        break;
    case 2:
        QCOMPARE(parser.flash_size_int(), Code(4));
        break;
    case 3:
        QCOMPARE(parser.flash_frequency_int(), Code(0));
        break;
    case 4:
        QCOMPARE(parser.md5(), md5Of(device.data()));
        break;
    case 5:
        QCOMPARE(parser.md5_upy(), md5Of(device.data().mid(4, 80)));
        break;
    case 6:
        QVERIFY(parser.dumpInfo(0).startsWith(QLatin1String("FLASH:")));
        break;
    case 7:
        QVERIFY(parser.dumpInfo(52).contains(QLatin1String("IROM0")));
        break;
    }
    QCOMPARE(device.pos(), position);
}

void TestEspImageParser::ownedFileLifecycle()
{
    const QString path = writeFile(knownBuilder().build());
    QPointer<QFile> first;
    {
        ESPImageParser parser;
        QVERIFY(parser.load(path, 0xFF, 0xFF, 0xFF));
        QCOMPARE(parser.findChildren<QFile *>().size(), 1);
        first = parser.findChild<QFile *>();
        QVERIFY(parser.load(path, 0xFF, 0xFF, 0xFF));
        QCOMPARE(parser.findChildren<QFile *>().size(), 1);
        QVERIFY(first.isNull()); // the previous file was deleted, not just left to the parent
        parser.close_image();
        QVERIFY(!parser.isLoaded());
        QVERIFY(parser.findChildren<QFile *>().isEmpty());

        // A device handed in is never closed: not by close_image, not by a new load.
        QBuffer device;
        device.setData(knownBuilder().build());
        QVERIFY(device.open(QIODevice::ReadOnly));
        QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
        parser.close_image();
        QVERIFY(device.isOpen());
        QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
        QVERIFY(parser.load(path, 0xFF, 0xFF, 0xFF));
        QVERIFY(device.isOpen());
        first = parser.findChild<QFile *>();
        QVERIFY(!first.isNull());
    }
    QVERIFY(first.isNull());

    QBuffer device;
    device.setData(knownBuilder().build());
    QVERIFY(device.open(QIODevice::ReadOnly));
    {
        ESPImageParser parser;
        QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
    }
    QVERIFY(device.isOpen());
}

void TestEspImageParser::deviceDeletedUnderneath()
{
    ESPImageParser parser;
    auto device = std::make_unique<QBuffer>();
    device->setData(knownBuilder().build());
    QVERIFY(device->open(QIODevice::ReadOnly));
    QVERIFY(parser.load(device.get(), 0xFF, 0xFF, 0xFF));
    device.reset();
    QVERIFY(!parser.isLoaded());
    QVERIFY(parser.md5().isEmpty());
    QVERIFY(parser.get_block(0x400).isEmpty());
    QVERIFY(parser.dumpInfo(0).isEmpty());
    QCOMPARE(parser.file_size(), 0u);
    parser.prepare_read();
    parser.close_image();
}

void TestEspImageParser::segmentLengthBeyondEnd()
{
    QByteArray image = knownBuilder().build(); // 48 bytes, segment 0 of 16 bytes at offset 8
    image[1] = 1;
    image[12] = char(0xFF);
    image[13] = char(0xFF);
    image[14] = char(0xFF);
    image[15] = char(0x7F);
    QBuffer device;
    device.setData(image);
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
    const QList<ESPImageParser::Segment> expected{{0x40100000u, 0x7FFFFFFFu}};
    QCOMPARE(parser.segments(), expected);
    QCOMPARE(device.pos(), 0);
    QCOMPARE(device.size(), 48); // no seek grew the buffer

    const QString info = parser.dumpInfo(0);
    QVERIFY2(info.contains(QLatin1String("(0\t0x40100000 - 0x3222274047\t%4)\nCRC: 0x??\n")),
             qPrintable(info));
    QCOMPARE(parser.md5(), md5Of(image));
    QCOMPARE(device.size(), 48);
}

void TestEspImageParser::segmentCountBeyondData_data()
{
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<int>("segments");

    EspImageBuilder empty;
    empty.addSegment(0x40100000, QByteArray());
    QByteArray padded = empty.build(); // 8 header, 8 segment header, 16 checksum block
    QCOMPARE(padded.size(), 32);
    padded[1] = char(255);
    // The count is trusted: the checksum block reads as two more (empty-ish) segments.
    QTest::newRow("255 claimed, padding follows") << padded << 3;
    const QByteArray oneListed = padded.left(16);
    QTest::newRow("255 claimed, 1 present") << oneListed << 1;

    EspImageBuilder full;
    for (int i = 0; i < 255; ++i)
        full.addSegment(quint32(i), QByteArray());
    QTest::newRow("255 present") << full.build() << 255;

    QByteArray headerOnly = empty.build().left(8);
    headerOnly[1] = char(255);
    QTest::newRow("255 claimed, none present") << headerOnly << 0;

    QByteArray cut = oneListed.left(12);
    QTest::newRow("segment header cut") << cut << 0;
}

void TestEspImageParser::segmentCountBeyondData()
{
    QFETCH(QByteArray, content);
    QFETCH(int, segments);
    QBuffer device;
    device.setData(content);
    QVERIFY(device.open(QIODevice::ReadOnly));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));
    QCOMPARE(parser.segments().size(), segments);
    QVERIFY(!parser.dumpInfo(0).isEmpty());
    QCOMPARE(parser.md5(), md5Of(content));
}

void TestEspImageParser::truncatedImage_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("segments");
    QTest::addColumn<QString>("crc");

    // Known image: segment headers at 8 and 32, data ends at 44, checksum at 47.
    QTest::newRow("header only") << 8 << 0 << "??";
    QTest::newRow("first segment header cut") << 13 << 0 << "??";
    QTest::newRow("first segment data cut") << 20 << 1 << "??";
    QTest::newRow("second segment header cut") << 35 << 1 << "??";
    QTest::newRow("second segment data cut") << 42 << 2 << "??";
    QTest::newRow("checksum missing") << 47 << 2 << "??";
    QTest::newRow("complete") << 48 << 2 << "e7";
}

void TestEspImageParser::truncatedImage()
{
    QFETCH(int, length);
    QFETCH(int, segments);
    QFETCH(QString, crc);
    const QByteArray image = knownBuilder().build().left(length);
    ESPImageParser parser;
    QVERIFY(parser.load(writeFile(image), 0xFF, 0xFF, 0xFF));
    QCOMPARE(parser.segments().size(), segments);
    QVERIFY(parser.dumpInfo(0).contains(QStringLiteral("CRC: 0x%1\n").arg(crc)));
    QCOMPARE(parser.md5(), md5Of(image));
    parser.prepare_read();
    QCOMPARE(parser.get_block(64), image + QByteArray(64 - length, char(0xFF)));
}

void TestEspImageParser::fileShrinksAfterLoad_data()
{
    QTest::addColumn<int>("size");
    QTest::newRow("to 0") << 0;
    QTest::newRow("to 2") << 2;
    QTest::newRow("to 3") << 3;
    QTest::newRow("to 7") << 7;
    QTest::newRow("to 20") << 20;
    QTest::newRow("to 1000") << 1000;
}

void TestEspImageParser::fileShrinksAfterLoad()
{
    QFETCH(int, size);
    EspImageBuilder builder = knownBuilder();
    builder.addRandomSegment(0x40200000, 5000, 4);
    const QByteArray image = builder.build();
    const QString path = writeFile(image);

    ESPImageParser parser;
    QVERIFY(parser.load(path, 1, 2, 2));
    QVERIFY(QFile::resize(path, size)); // another process cuts the file
    const QByteArray left = image.left(size);

    QCOMPARE(parser.file_size(), uint(size));
    QCOMPARE(parser.md5(), md5Of(withHeaderCodes(left, 1, 0x22)));
    QCOMPARE(parser.md5_upy(), size >= 21 ? md5Of(left.mid(4, size - 20)) : md5Of(QByteArray()));
    QCOMPARE(parser.entry_point(), size >= 8 ? 0x40100004u : 0u);
    QCOMPARE(parser.flash_mode_int(), size >= 3 ? Code(2) : Code(0xFF));
    QCOMPARE(parser.flash_size_int(), size >= 4 ? Code(4) : Code(0xFF));
    QVERIFY(parser.dumpInfo(0).contains(QLatin1String("CRC: 0x??\n")));

    parser.prepare_read();
    QByteArray written;
    QFile *file = parser.findChild<QFile *>();
    QVERIFY(file);
    for (int i = 0; !file->atEnd(); ++i) {
        QVERIFY2(i < 8, "block loop does not end");
        written += parser.get_block(0x400);
    }
    if (size == 0)
        written = parser.get_block(0x400);
    QByteArray expected = withHeaderCodes(left + QByteArray(0x400, char(0xFF)), 1, 0x22);
    expected.truncate(qMax(0x400, (size + 0x3FF) & ~0x3FF));
    QCOMPARE(written, expected);
}

void TestEspImageParser::deviceShrinksWhileHashing_data()
{
    QTest::addColumn<bool>("upy");
    QTest::addColumn<int>("readsBeforeShrink");
    QTest::addColumn<bool>("fail");

    QTest::newRow("md5, shrinks") << false << 2 << false;
    QTest::newRow("md5, read error") << false << 2 << true;
    QTest::newRow("md5_upy, shrinks") << true << 1 << false;
    QTest::newRow("md5_upy, read error") << true << 1 << true;
}

void TestEspImageParser::deviceShrinksWhileHashing()
{
    QFETCH(bool, upy);
    QFETCH(int, readsBeforeShrink);
    QFETCH(bool, fail);

    EspImageBuilder builder = knownBuilder();
    builder.addRandomSegment(0x40200000, 200000, 5);
    const QByteArray image = builder.build();
    ShrinkingDevice device(image);
    QVERIFY(device.open(QIODevice::ReadOnly | QIODevice::Unbuffered));
    ESPImageParser parser;
    QVERIFY(parser.load(&device, 0xFF, 0xFF, 0xFF));

    const qint64 shrunkSize = upy ? 1500 : 100000;
    device.arm(readsBeforeShrink, shrunkSize, fail);
    const QByteArray digest = upy ? parser.md5_upy() : parser.md5();
    QVERIFY(device.shrunk());
    const qint64 served = device.servedEnd();
    QVERIFY(served < image.size());
    if (!fail)
        QCOMPARE(served, shrunkSize);
    QCOMPARE(digest, upy ? md5Of(image.mid(4, served - 4)) : md5Of(image.left(served)));
    QVERIFY(device.pos() <= device.size());
}

void TestEspImageParser::mangledImages()
{
    // Valid images with random bytes overwritten and random cuts: whatever loads must still hash,
    // describe and serve itself consistently.
    QRandomGenerator random(1234);
    for (int round = 0; round < 300; ++round) {
        EspImageBuilder builder;
        const int count = random.bounded(6);
        for (int i = 0; i < count; ++i)
            builder.addRandomSegment(random.generate(), random.bounded(200), random.generate());
        if (random.bounded(2))
            builder.setSecondPart(EspImageBuilder::pseudoRandomBytes(random.bounded(100), round));
        QByteArray content = builder.build();
        for (int i = random.bounded(6); i > 0; --i)
            content[random.bounded(content.size())] = char(random.bounded(256));
        content.truncate(random.bounded(content.size() + 1));

        QBuffer device;
        device.setData(content);
        QVERIFY(device.open(QIODevice::ReadOnly));
        ESPImageParser parser;
        const bool loaded = parser.load(&device, 2, 4, 0);
        QCOMPARE(loaded, content.size() >= 8 && quint8(content.at(0)) == 0xE9);
        if (!loaded)
            continue;
        QVERIFY(parser.segments().size() <= quint8(content.at(1)));
        QCOMPARE(parser.md5(), md5Of(withHeaderCodes(content, 2, 0x40)));
        const qint64 position = random.bounded(content.size() + 1);
        QVERIFY(device.seek(position));
        QVERIFY(!parser.dumpInfo(random.bounded(content.size() + 50)).isEmpty());
        QCOMPARE(device.pos(), position);
        parser.prepare_read();
        QByteArray written;
        for (int i = 0; !device.atEnd(); ++i) {
            QVERIFY2(i <= content.size() / 16, "block loop does not end");
            const QByteArray block = parser.get_block(16);
            QCOMPARE(block.size(), 16);
            written += block;
        }
        QCOMPARE(md5Of(written.left(content.size())), parser.md5());
        QCOMPARE(device.size(), qint64(content.size()));
    }
}

QTEST_GUILESS_MAIN(TestEspImageParser)
#include "tst_espimageparser.moc"
