#include "tools/imagegen/espimagebuilder.h"

#include <QCryptographicHash>
#include <QTemporaryDir>
#include <QtTest>

// The generator is checked byte by byte against the image format, without the parser.
class TestEspImageBuilder : public QObject
{
    Q_OBJECT

private slots:
    void layout_data();
    void layout();
    void checksumMatchesIndependentXor();
    void segmentCountIsLimited();
    void secondPart();
    void pseudoRandomIsReproducible();
    void application_data();
    void application();
    void saveReportsFailure();
};

namespace {

quint32 le32(const QByteArray &bytes, int offset)
{
    return quint32(quint8(bytes.at(offset))) | quint32(quint8(bytes.at(offset + 1))) << 8 |
           quint32(quint8(bytes.at(offset + 2))) << 16 |
           quint32(quint8(bytes.at(offset + 3))) << 24;
}

} // namespace

void TestEspImageBuilder::layout_data()
{
    QTest::addColumn<QList<int>>("lengths");
    QTest::addColumn<int>("expectedSize");

    // Size = data end rounded down to 16, plus 16.
    QTest::newRow("no segments") << QList<int>() << 16;
    QTest::newRow("end 0x20 gets a whole block") << QList<int>{16} << 0x30;
    QTest::newRow("end 0x1F") << QList<int>{15} << 0x20;
    QTest::newRow("end 0x440") << QList<int>{0x430} << 0x450;
    QTest::newRow("three") << QList<int>{4, 0, 100} << 0x90;
}

void TestEspImageBuilder::layout()
{
    QFETCH(QList<int>, lengths);
    QFETCH(int, expectedSize);

    EspImageBuilder builder;
    builder.setEntry(0x40101234);
    builder.setFlashMode(3);
    builder.setFlashSize(4);
    builder.setFlashFrequency(15);
    for (int i = 0; i < lengths.size(); ++i)
        QVERIFY(builder.addRandomSegment(0x40100000 + 0x1000 * i, lengths.at(i), i));
    const QByteArray image = builder.build();

    QCOMPARE(image.size(), expectedSize);
    QCOMPARE(builder.firstPartSize(), expectedSize);
    QCOMPARE(builder.trailerOffset(), 0);
    QCOMPARE(quint8(image.at(0)), quint8(0xE9));
    QCOMPARE(quint8(image.at(1)), quint8(lengths.size()));
    QCOMPARE(quint8(image.at(2)), quint8(3));
    QCOMPARE(quint8(image.at(3)), quint8(0x4F));
    QCOMPARE(le32(image, 4), 0x40101234u);

    int offset = 8;
    for (int i = 0; i < lengths.size(); ++i) {
        QCOMPARE(le32(image, offset), quint32(0x40100000 + 0x1000 * i));
        QCOMPARE(le32(image, offset + 4), quint32(lengths.at(i)));
        QCOMPARE(image.mid(offset + 8, lengths.at(i)), builder.segments().at(i).data);
        offset += 8 + lengths.at(i);
    }
    QCOMPARE(image.mid(offset, image.size() - 1 - offset),
             QByteArray(image.size() - 1 - offset, 0));
}

void TestEspImageBuilder::checksumMatchesIndependentXor()
{
    EspImageBuilder builder;
    const QByteArray first = QByteArray::fromHex("00112233445566778899aabbccddeeff");
    const QByteArray second = QByteArray::fromHex("12345678");
    builder.addSegment(0x40100000, first);
    builder.addSegment(0x3FFE8000, second);

    quint8 expected = 0xEF;
    for (const QByteArray &data : {first, second}) {
        for (const char byte : data)
            expected ^= quint8(byte);
    }
    // 0xEF ^ 0x00 (first: pairs cancel to 0x00) ^ 0x08 (second).
    QCOMPARE(expected, quint8(0xE7));
    QCOMPARE(builder.checksum(), expected);
    const QByteArray image = builder.build();
    QCOMPARE(quint8(image.at(image.size() - 1)), expected);
    QCOMPARE(image.size(), 48); // data ends at 44: checksum at 32 + 15
}

void TestEspImageBuilder::segmentCountIsLimited()
{
    EspImageBuilder builder;
    for (int i = 0; i < 255; ++i)
        QVERIFY(builder.addSegment(quint32(i), QByteArray()));
    QVERIFY(!builder.addSegment(0, QByteArray("x")));
    QVERIFY(!builder.addRandomSegment(0, 1, 1));
    QCOMPARE(builder.segments().size(), 255);
    const QByteArray image = builder.build();
    QCOMPARE(quint8(image.at(1)), quint8(255));
    QCOMPARE(image.size(), ((8 + 255 * 8) & ~15) + 16);

    EspImageBuilder other;
    QVERIFY(!other.addRandomSegment(0, -1, 1));
    QVERIFY(other.segments().isEmpty());
}

void TestEspImageBuilder::secondPart()
{
    EspImageBuilder builder;
    builder.addSegment(0x40100000, QByteArray(20, 'a'));
    const QByteArray part = EspImageBuilder::pseudoRandomBytes(300, 9);
    builder.setSecondPart(part);
    const QByteArray image = builder.build();

    const int first = builder.firstPartSize();
    QCOMPARE(first, 48);
    QCOMPARE(builder.trailerOffset(), first + 4);
    QCOMPARE(image.size(), first + 4 + 300 + 16);
    QCOMPARE(le32(image, builder.trailerOffset() - 4), quint32(image.size()));
    QCOMPARE(image.mid(builder.trailerOffset(), 300), part);
    QCOMPARE(image.right(16),
             QCryptographicHash::hash(image.mid(4, image.size() - 20), QCryptographicHash::Md5));

    builder.clearSecondPart();
    QCOMPARE(builder.build().size(), first);
    QCOMPARE(builder.trailerOffset(), 0);
}

void TestEspImageBuilder::pseudoRandomIsReproducible()
{
    const QByteArray a = EspImageBuilder::pseudoRandomBytes(4099, 0);
    QCOMPARE(a.size(), 4099);
    QCOMPARE(EspImageBuilder::pseudoRandomBytes(4099, 0), a);
    QVERIFY(EspImageBuilder::pseudoRandomBytes(4099, 1) != a);
    // A prefix of a longer stream is the shorter stream.
    QCOMPARE(EspImageBuilder::pseudoRandomBytes(10, 0), a.left(10));
    // Not a constant fill: all byte values show up in a few kilobytes.
    QSet<char> seen;
    for (const char byte : a)
        seen.insert(byte);
    QCOMPARE(seen.size(), 256);
    QVERIFY(EspImageBuilder::pseudoRandomBytes(0, 5).isEmpty());
    QVERIFY(EspImageBuilder::pseudoRandomBytes(-3, 5).isEmpty());
}

void TestEspImageBuilder::application_data()
{
    QTest::addColumn<int>("length");
    QTest::addColumn<int>("tail");

    QTest::newRow("no tail") << 1000 << 0;
    QTest::newRow("tail") << 1000 << 24;
    QTest::newRow("only tail") << 0 << 7;
    QTest::newRow("empty") << 0 << 0;
}

void TestEspImageBuilder::application()
{
    QFETCH(int, length);
    QFETCH(int, tail);

    for (quint32 seed = 0; seed < 64; ++seed) {
        const QByteArray bytes = EspImageBuilder::application(length, tail, seed);
        QCOMPARE(bytes.size(), length + tail);
        QCOMPARE(bytes.right(tail), QByteArray(tail, char(0xFF)));
        if (length > 0)
            QVERIFY(quint8(bytes.at(length - 1)) != 0xFF);
        QCOMPARE(EspImageBuilder::application(length, tail, seed), bytes);
    }
    QVERIFY(EspImageBuilder::application(-1, tail, 1).isEmpty());
    QVERIFY(EspImageBuilder::application(length, -1, 1).isEmpty());
}

void TestEspImageBuilder::saveReportsFailure()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    EspImageBuilder builder;
    builder.addSegment(1, QByteArray("abcd"));
    const QString path = dir.filePath(QStringLiteral("image.bin"));
    QVERIFY(builder.save(path));
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), builder.build());

    QString error;
    QVERIFY(!builder.save(dir.filePath(QStringLiteral("missing/image.bin")), &error));
    QVERIFY(!error.isEmpty());
}

QTEST_GUILESS_MAIN(TestEspImageBuilder)
#include "tst_espimagebuilder.moc"
