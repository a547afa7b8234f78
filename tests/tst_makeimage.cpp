#include "image/espimageparser.h"
#include "testpaths.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The esp-make-image program as the demo uses it.
class TestMakeImage : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void defaultFirmwareIsReproducible();
    void firmwareOptions();
    void firmwareWithSecondPart();
    void application();
    void badArguments_data();
    void badArguments();

private:
    int run(const QStringList &arguments, QByteArray *output = nullptr);
    QByteArray readFile(const QString &name);
    QString path(const QString &name) const { return m_dir->filePath(name); }

    std::unique_ptr<QTemporaryDir> m_dir;
};

namespace {

const int kProcessGuardMs = 60000; // only against a hung program, not a speed check

quint32 le32(const QByteArray &bytes, int offset)
{
    return quint32(quint8(bytes.at(offset))) | quint32(quint8(bytes.at(offset + 1))) << 8 |
           quint32(quint8(bytes.at(offset + 2))) << 16 |
           quint32(quint8(bytes.at(offset + 3))) << 24;
}

} // namespace

void TestMakeImage::init()
{
    m_dir = std::make_unique<QTemporaryDir>();
    QVERIFY(m_dir->isValid());
}

int TestMakeImage::run(const QStringList &arguments, QByteArray *output)
{
    QProcess process;
    process.start(testBuildDir() + QStringLiteral("/tools/imagegen/esp-make-image"), arguments);
    if (!process.waitForFinished(kProcessGuardMs) || process.exitStatus() != QProcess::NormalExit)
        return -1;
    if (output)
        *output = process.readAllStandardOutput();
    return process.exitCode();
}

QByteArray TestMakeImage::readFile(const QString &name)
{
    QFile file(path(name));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void TestMakeImage::defaultFirmwareIsReproducible()
{
    QCOMPARE(run({QStringLiteral("firmware"), QStringLiteral("-o"), path(QStringLiteral("a"))}), 0);
    QCOMPARE(run({QStringLiteral("firmware"), QStringLiteral("-o"), path(QStringLiteral("b"))}), 0);
    QCOMPARE(run({QStringLiteral("firmware"), QStringLiteral("--seed"), QStringLiteral("2"),
                  QStringLiteral("-o"), path(QStringLiteral("c"))}),
             0);
    const QByteArray image = readFile(QStringLiteral("a"));
    QCOMPARE(readFile(QStringLiteral("b")), image);
    const QByteArray other = readFile(QStringLiteral("c"));
    QCOMPARE(other.size(), image.size());
    QVERIFY(other != image);

    // dio, 4 MB, 40 MHz, entry 0x40100004; 0x400 bytes at 0x40100000 and 0x100 at 0x3FFE8000.
    QCOMPARE(image.left(8), QByteArray::fromHex("e902024004001040"));
    QCOMPARE(le32(image, 8), 0x40100000u);
    QCOMPARE(le32(image, 12), 0x400u);
    QCOMPARE(le32(image, 16 + 0x400), 0x3FFE8000u);
    QCOMPARE(le32(image, 20 + 0x400), 0x100u);
    QCOMPARE(image.size(), ((8 + 8 + 0x400 + 8 + 0x100) & ~15) + 16);
}

void TestMakeImage::firmwareOptions()
{
    QByteArray output;
    QCOMPARE(
        run({QStringLiteral("firmware"), QStringLiteral("-o"), path(QStringLiteral("fw")),
             QStringLiteral("--entry"), QStringLiteral("0x40101000"), QStringLiteral("--segment"),
             QStringLiteral("0x40100000:100"), QStringLiteral("--segment"),
             QStringLiteral("0x3FFE8000:0x20"), QStringLiteral("--segment"),
             QStringLiteral("0x40201010:1K"), QStringLiteral("--mode"), QStringLiteral("qout"),
             QStringLiteral("--size"), QStringLiteral("1MB"), QStringLiteral("--freq"),
             QStringLiteral("80m"), QStringLiteral("--seed"), QStringLiteral("9")},
            &output),
        0);
    const QByteArray image = readFile(QStringLiteral("fw"));

    ESPImageParser parser;
    QVERIFY(parser.load(path(QStringLiteral("fw")), 0xFF, 0xFF, 0xFF));
    const QList<ESPImageParser::Segment> expected{
        {0x40100000u, 100u}, {0x3FFE8000u, 0x20u}, {0x40201010u, 1024u}};
    QCOMPARE(parser.segments(), expected);
    QCOMPARE(parser.entry_point(), 0x40101000u);
    QCOMPARE(parser.flash_mode_int(), (unsigned char)1);
    QCOMPARE(parser.flash_size_int(), (unsigned char)2);
    QCOMPARE(parser.flash_frequency_int(), (unsigned char)15);

    quint8 checksum = 0xEF;
    int offset = 8;
    for (const auto &segment : expected) {
        for (uint i = 0; i < segment.second; ++i)
            checksum ^= quint8(image.at(offset + 8 + int(i)));
        offset += 8 + int(segment.second);
    }
    QCOMPARE(quint8(image.at(image.size() - 1)), checksum);
    QCOMPARE(image.size(), (offset & ~15) + 16);
    QVERIFY(output.contains(
        QStringLiteral("checksum 0x%1").arg(checksum, 2, 16, QLatin1Char('0')).toLatin1()));
}

void TestMakeImage::firmwareWithSecondPart()
{
    QByteArray output;
    QCOMPARE(run({QStringLiteral("firmware"), QStringLiteral("-o"), path(QStringLiteral("fw")),
                  QStringLiteral("--irom0"), QStringLiteral("3000")},
                 &output),
             0);
    const QByteArray image = readFile(QStringLiteral("fw"));
    const int first = ((8 + 8 + 0x400 + 8 + 0x100) & ~15) + 16;
    QCOMPARE(image.size(), first + 4 + 3000 + 16);
    QVERIFY(output.contains(QByteArray("trailer offset ") + QByteArray::number(first + 4)));

    ESPImageParser parser;
    QVERIFY(parser.load(path(QStringLiteral("fw")), 0xFF, 0xFF, 0xFF));
    const QString digest = QString::fromLatin1(
        QCryptographicHash::hash(image.mid(4, image.size() - 20), QCryptographicHash::Md5).toHex());
    const QString info = parser.dumpInfo(uint(first + 4));
    QVERIFY2(info.contains(QStringLiteral("IROM0:\t0x3000 bytes\nTotal:\t%1 (recorded %1)\n"
                                          "MD5:\t%2 (recorded %2)\n")
                               .arg(image.size())
                               .arg(digest)),
             qPrintable(info));
}

void TestMakeImage::application()
{
    QCOMPARE(run({QStringLiteral("application"), QStringLiteral("-o"), path(QStringLiteral("a")),
                  QStringLiteral("--length"), QStringLiteral("1000"), QStringLiteral("--ff-tail"),
                  QStringLiteral("24")}),
             0);
    QCOMPARE(run({QStringLiteral("application"), QStringLiteral("-o"), path(QStringLiteral("b")),
                  QStringLiteral("--length"), QStringLiteral("1000"), QStringLiteral("--ff-tail"),
                  QStringLiteral("24")}),
             0);
    QCOMPARE(run({QStringLiteral("application"), QStringLiteral("-o"), path(QStringLiteral("c")),
                  QStringLiteral("--length"), QStringLiteral("0x10")}),
             0);
    const QByteArray bytes = readFile(QStringLiteral("a"));
    QCOMPARE(bytes.size(), 1024);
    QCOMPARE(bytes.right(24), QByteArray(24, char(0xFF)));
    QVERIFY(quint8(bytes.at(999)) != 0xFF);
    QCOMPARE(readFile(QStringLiteral("b")), bytes);
    QCOMPARE(readFile(QStringLiteral("c")).size(), 16);
}

void TestMakeImage::badArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("exitCode");

    const QString out = QStringLiteral("out");
    QTest::newRow("no kind") << QStringList{QStringLiteral("-o"), out} << 2;
    QTest::newRow("unknown kind") << QStringList{QStringLiteral("bootloader"), QStringLiteral("-o"),
                                                 out}
                                  << 2;
    QTest::newRow("no output") << QStringList{QStringLiteral("firmware")} << 2;
    QTest::newRow("application without length")
        << QStringList{QStringLiteral("application"), QStringLiteral("-o"), out} << 2;
    QTest::newRow("bad length") << QStringList{QStringLiteral("application"), QStringLiteral("-o"),
                                               out, QStringLiteral("--length"),
                                               QStringLiteral("-5")}
                                << 2;
    QTest::newRow("segment without size")
        << QStringList{QStringLiteral("firmware"), QStringLiteral("-o"), out,
                       QStringLiteral("--segment"), QStringLiteral("0x40100000")}
        << 2;
    QTest::newRow("unknown mode") << QStringList{QStringLiteral("firmware"), QStringLiteral("-o"),
                                                 out, QStringLiteral("--mode"),
                                                 QStringLiteral("fast")}
                                  << 2;
    QTest::newRow("unknown size") << QStringList{QStringLiteral("firmware"), QStringLiteral("-o"),
                                                 out, QStringLiteral("--size"),
                                                 QStringLiteral("3MB")}
                                  << 2;
    QTest::newRow("size code too big")
        << QStringList{QStringLiteral("firmware"), QStringLiteral("-o"), out,
                       QStringLiteral("--size"), QStringLiteral("16")}
        << 2;
    QTest::newRow("bad seed") << QStringList{QStringLiteral("firmware"), QStringLiteral("-o"), out,
                                             QStringLiteral("--seed"), QStringLiteral("x")}
                              << 2;
    QTest::newRow("unwritable") << QStringList{QStringLiteral("firmware"), QStringLiteral("-o"),
                                               QStringLiteral("missing/out")}
                                << 1;
}

void TestMakeImage::badArguments()
{
    QFETCH(QStringList, arguments);
    for (QString &argument : arguments) {
        if (argument == QLatin1String("out") || argument.startsWith(QLatin1String("missing/")))
            argument = path(argument);
    }
    QTEST(run(arguments), "exitCode");
    QVERIFY(!QFile::exists(path(QStringLiteral("out"))));
}

QTEST_GUILESS_MAIN(TestMakeImage)
#include "tst_makeimage.moc"
