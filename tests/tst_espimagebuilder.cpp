#include "tools/imagegen/espimagebuilder.h"

#include <QCryptographicHash>
#include <QtEndian>
#include <QtTest>

// The image generator other tests rely on, checked byte by byte against hand-computed layouts
// (not against the parser it feeds).
class TestEspImageBuilder : public QObject
{
    Q_OBJECT

    static quint32 le32(const QByteArray &bytes, int offset)
    {
        return qFromLittleEndian<quint32>(bytes.constData() + offset);
    }

private slots:
    void layout()
    {
        EspImageBuilder builder;
        builder.setEntry(0x40101234);
        builder.setFlashMode(3);
        builder.setFlashSize(0x14); // only the low nibble counts
        builder.setFlashFrequency(15);
        QCOMPARE(builder.build(), QByteArray::fromHex("e900034f34121040") + QByteArray(7, 0) +
                                      char(0xEF)); // no segments: the seed as checksum
        builder.addSegment(0x40100000, QByteArray::fromHex("00112233445566778899aabbccddeeff"));
        builder.addSegment(0x3FFE8000, QByteArray::fromHex("12345678"));
        const QByteArray image = builder.build();
        QCOMPARE(image.left(2), QByteArray::fromHex("e902"));
        QCOMPARE(image.mid(8, 8), QByteArray::fromHex("0000104010000000"));
        QCOMPARE(image.mid(32, 12), QByteArray::fromHex("0080fe3f0400000012345678"));
        // Data ends at 44: zeros up to the last byte of its 16-byte block, which holds
        // 0xEF ^ 0x00 (the first segment's bytes cancel out) ^ 0x08.
        QCOMPARE(image.mid(44), QByteArray::fromHex("000000e7"));
        QCOMPARE(builder.checksum(), quint8(0xE7));

        for (int i = 2; i < 255; ++i)
            QVERIFY(builder.addSegment(quint32(i), QByteArray()));
        QVERIFY(!builder.addSegment(0, QByteArray("x"))); // the count is one byte
        QCOMPARE(quint8(builder.build().at(1)), quint8(255));
        QVERIFY(!EspImageBuilder().addRandomSegment(0, -1, 1));
    }

    void secondPart()
    {
        EspImageBuilder builder;
        builder.addSegment(0x40100000, QByteArray(20, 'a'));
        const QByteArray part = EspImageBuilder::pseudoRandomBytes(300, 9);
        builder.setSecondPart(part);
        const QByteArray image = builder.build();
        QCOMPARE(builder.firstPartSize(), 48);
        QCOMPARE(builder.trailerOffset(), 52);
        QCOMPARE(image.size(), 52 + 300 + 16);
        QCOMPARE(le32(image, 48), quint32(image.size()));
        QCOMPARE(image.mid(52, 300), part);
        QCOMPARE(image.right(16), QCryptographicHash::hash(image.mid(4, image.size() - 20),
                                                           QCryptographicHash::Md5));
        builder.clearSecondPart();
        QCOMPARE(builder.build().size(), 48);
    }

    void application()
    {
        // Trimming trailing 0xFF must give back exactly the payload, whatever the seed.
        for (quint32 seed = 0; seed < 64; ++seed) {
            const QByteArray bytes = EspImageBuilder::application(1000, 24, seed);
            QCOMPARE(bytes.size(), 1024);
            QCOMPARE(bytes.right(24), QByteArray(24, char(0xFF)));
            QVERIFY(quint8(bytes.at(999)) != 0xFF);
        }
        QCOMPARE(EspImageBuilder::application(0, 7, 1), QByteArray(7, char(0xFF)));
        QVERIFY(EspImageBuilder::application(-1, 7, 1).isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestEspImageBuilder)
#include "tst_espimagebuilder.moc"
