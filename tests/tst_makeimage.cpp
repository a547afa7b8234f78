#include "image/espimageparser.h"
#include "testpaths.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The image generator other tests rely on, checked byte by byte against hand-computed layouts
// (not against the parser it feeds), and the esp-make-image program around it as the demo uses
// it. Arguments "@name" stand for files in a fresh temporary directory.
class TestMakeImage : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> m_dir;
    QByteArray m_output;

    QString path(const QString &name) const { return m_dir->filePath(name); }

    int run(QStringList arguments)
    {
        for (QString &argument : arguments) {
            if (argument.startsWith(QLatin1Char('@')))
                argument = path(argument.mid(1));
        }
        QProcess process;
        process.start(testBuildDir() + QStringLiteral("/tools/imagegen/esp-make-image"), arguments);
        // Only a guard against a hung program, not a speed check.
        if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
            return -1;
        m_output = process.readAllStandardOutput();
        return process.exitCode();
    }

    QByteArray readFile(const QString &name)
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

private slots:
    void init() { m_dir = std::make_unique<QTemporaryDir>(); }

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

    void application()
    {
        // Trimming trailing 0xFF gives back exactly the payload, whatever the seed.
        for (quint32 seed = 0; seed < 64; ++seed) {
            const QByteArray bytes = EspImageBuilder::application(1000, 24, seed);
            QVERIFY(bytes.endsWith(QByteArray(24, char(0xFF))) && quint8(bytes.at(999)) != 0xFF);
            QCOMPARE(bytes.size(), 1024);
        }
        QVERIFY(EspImageBuilder::application(-1, 7, 1).isEmpty());
    }

    void firmware()
    {
        // The demo's images: dio 4 MB 40 MHz with two segments by default; the application as
        // the generator's library makes it.
        QCOMPARE(run({"firmware", "-o", "@a"}), 0);
        const QByteArray image = readFile("a");
        QCOMPARE(image.left(16), QByteArray::fromHex("e902024004001040 0000104000040000"));
        QCOMPARE(image.mid(16 + 0x400, 8), QByteArray::fromHex("0080fe3f00010000"));
        QCOMPARE(image.size(), 0x520);
        QCOMPARE(run({"application", "-o", "@app", "--length", "1K", "--ff-tail", "24"}), 0);
        QCOMPARE(readFile("app"), EspImageBuilder::application(1024, 24, 1)); // seed 1 by default

        QCOMPARE(run({"firmware", "-o", "@fw", "--entry", "0x40101000", "--segment",
                      "0x40100000:100", "--segment", "0x40201010:1K", "--mode", "qout", "--size",
                      "1MB", "--freq", "80m", "--irom0", "3000"}),
                 0);
        ESPImageParser parser;
        QVERIFY(parser.load(path("fw"), 0xFF, 0xFF, 0xFF));
        QCOMPARE(parser.segments(),
                 (QList<ESPImageParser::Segment>{{0x40100000u, 100u}, {0x40201010u, 1024u}}));
        QCOMPARE(parser.entry_point(), 0x40101000u);
        QCOMPARE(int(parser.flash_mode_int()), 1);
        QCOMPARE(int(parser.flash_size_int()), 2);
        QCOMPARE(int(parser.flash_frequency_int()), 15);
        // Header, segments and checksum block end at 0x480; then the recorded total.
        QVERIFY2(m_output.contains("trailer offset 1156"), m_output.constData());
        // The second part: the total length before it, the MD5 of bytes 4 to the last 16 after.
        const QByteArray fw = readFile("fw");
        const QString digest =
            QCryptographicHash::hash(fw.mid(4, fw.size() - 20), QCryptographicHash::Md5).toHex();
        QCOMPARE(fw.size(), 4172);
        QVERIFY(parser.dumpInfo(1156).endsWith(
            "IROM0:\t0x3000 bytes\nTotal:\t4172 (recorded 4172)\nMD5:\t" + digest + " (recorded " +
            digest + ")\n"));
    }
};

QTEST_GUILESS_MAIN(TestMakeImage)
#include "tst_makeimage.moc"
