#include "protocol/deflatecompressor.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QtTest>

#include <zlib.h>

// The compressor's pieces must join into one zlib stream that a plain inflater takes whole.
namespace {

// Inflates a complete zlib stream; empty with *ok false when it is not one.
QByteArray inflated(const QByteArray &stream, int expectedSize, bool *ok)
{
    QByteArray output(expectedSize + 1, Qt::Uninitialized); // room for one byte too many
    uLongf length = uLongf(output.size());
    *ok = uncompress(reinterpret_cast<Bytef *>(output.data()), &length,
                     reinterpret_cast<const Bytef *>(stream.constData()),
                     uLong(stream.size())) == Z_OK;
    output.truncate(int(length));
    return output;
}

// Bytes of three random bits with runs of text in between: something that compresses.
QByteArray firmwareLike(int size, quint32 seed)
{
    QByteArray bytes = EspImageBuilder::pseudoRandomBytes(size, seed);
    for (int i = 0; i < size; ++i)
        bytes[i] = i % 3000 < 1000 ? char("load stub flash"[i % 15]) : char(bytes[i] & 0x07);
    return bytes;
}

} // namespace

class TestDeflateCompressor : public QObject
{
    Q_OBJECT

private slots:
    void roundTrip_data()
    {
        QTest::addColumn<QByteArray>("data");
        const int piece = DeflateCompressor::pieceSize;
        QTest::newRow("nothing") << QByteArray();
        QTest::newRow("one byte") << QByteArray("x");
        QTest::newRow("one piece less a byte") << firmwareLike(piece - 1, 1);
        QTest::newRow("one piece") << firmwareLike(piece, 2);
        QTest::newRow("one piece and a byte") << firmwareLike(piece + 1, 3);
        // Matches reach back across piece boundaries only through the dictionary.
        QTest::newRow("a piece repeated") << firmwareLike(piece, 4).repeated(5);
        QTest::newRow("random, 1 MiB") << EspImageBuilder::pseudoRandomBytes(0x100000, 5);
        QTest::newRow("firmware-like, 1 MiB") << firmwareLike(0x100000, 6);
    }

    void roundTrip()
    {
        QFETCH(QByteArray, data);
        const QByteArray stream = DeflateCompressor::compress(data);
        QVERIFY(!stream.isEmpty());
        bool ok = false;
        QCOMPARE(inflated(stream, data.size(), &ok), data);
        QVERIFY(ok);
        // No worse than one stream at the best level, give or take the pieces' seams.
        const QByteArray single = qCompress(data, 9).mid(4);
        QVERIFY2(stream.size() <= single.size() + single.size() / 200 + 16,
                 qPrintable(QStringLiteral("%1 vs %2").arg(stream.size()).arg(single.size())));
    }
};

QTEST_GUILESS_MAIN(TestDeflateCompressor)
#include "tst_deflatecompressor.moc"
