#include "image/espimageparser.h"
#include "testpaths.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The esp-make-image program as the demo uses it. Arguments "@name" stand for files in a fresh
// temporary directory.
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

    void firmware()
    {
        QCOMPARE(run({"firmware", "-o", "@a"}), 0);
        QCOMPARE(run({"firmware", "-o", "@b"}), 0);
        QCOMPARE(run({"firmware", "--seed", "2", "-o", "@c"}), 0);
        const QByteArray image = readFile("a");
        QCOMPARE(readFile("b"), image);
        QCOMPARE(readFile("c").size(), image.size());
        QVERIFY(readFile("c") != image);
        // dio, 4 MB, 40 MHz, entry 0x40100004; 0x400 bytes at 0x40100000, 0x100 at 0x3FFE8000.
        QCOMPARE(image.left(16), QByteArray::fromHex("e902024004001040 0000104000040000"));
        QCOMPARE(image.mid(16 + 0x400, 8), QByteArray::fromHex("0080fe3f00010000"));
        QCOMPARE(image.size(), 0x520);

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
        QVERIFY(parser.dumpInfo(1156).contains(
            QStringLiteral("IROM0:\t0x3000 bytes\nTotal:\t4172 (recorded 4172)\n")));
        const QByteArray fw = readFile("fw");
        QVERIFY(
            m_output.contains(QByteArray("checksum 0x") +
                              QByteArray::number(quint8(fw.at(0x47F)), 16).rightJustified(2, '0')));
    }

    void application()
    {
        QCOMPARE(run({"application", "-o", "@a", "--length", "1000", "--ff-tail", "24"}), 0);
        QCOMPARE(run({"application", "-o", "@b", "--length", "1000", "--ff-tail", "24"}), 0);
        QCOMPARE(run({"application", "-o", "@c", "--length", "0x10"}), 0);
        const QByteArray bytes = readFile("a");
        QCOMPARE(bytes.size(), 1024);
        QCOMPARE(bytes.right(24), QByteArray(24, char(0xFF)));
        QVERIFY(quint8(bytes.at(999)) != 0xFF);
        QCOMPARE(readFile("b"), bytes);
        QCOMPARE(readFile("c").size(), 16);
    }

    void badArguments_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("no kind") << QStringList{"-o", "@out"} << 2;
        QTest::newRow("unknown kind") << QStringList{"bootloader", "-o", "@out"} << 2;
        QTest::newRow("no output") << QStringList{"firmware"} << 2;
        QTest::newRow("application without length")
            << QStringList{"application", "-o", "@out"} << 2;
        QTest::newRow("segment without size")
            << QStringList{"firmware", "-o", "@out", "--segment", "0x40100000"} << 2;
        QTest::newRow("unknown size")
            << QStringList{"firmware", "-o", "@out", "--size", "3MB"} << 2;
        QTest::newRow("unwritable") << QStringList{"firmware", "-o", "@missing/out"} << 1;
    }

    void badArguments()
    {
        QFETCH(QStringList, arguments);
        QTEST(run(arguments), "exitCode");
        QVERIFY(!QFile::exists(path("out")));
    }
};

QTEST_GUILESS_MAIN(TestMakeImage)
#include "tst_makeimage.moc"
