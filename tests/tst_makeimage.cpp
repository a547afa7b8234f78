#include "testpaths.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// esp-make-image checked byte by byte against hand-computed layouts, not the parser it feeds.
class TestMakeImage : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;
    QByteArray m_output; // stdout and stderr

    // Arguments "@name" stand for files in the temporary directory.
    int run(QStringList arguments)
    {
        for (QString &argument : arguments) {
            if (argument.startsWith(QLatin1Char('@')))
                argument = m_dir.filePath(argument.mid(1));
        }
        QProcess process;
        process.setProcessChannelMode(QProcess::MergedChannels);
        process.start(testBuildDir() + QStringLiteral("/tools/imagegen/esp-make-image"), arguments);
        // Only a guard against a hung program, not a speed check.
        if (!process.waitForFinished(60000) || process.exitStatus() != QProcess::NormalExit)
            return -1;
        m_output = process.readAll();
        return process.exitCode();
    }

private slots:
    void firmware()
    {
        QCOMPARE(run({"firmware", "-o", "@fw", "--entry", "0x40101000", "--segment",
                      "0x40100000:100", "--segment", "0x40201010:1K", "--mode", "qout", "--size",
                      "1MB", "--freq", "80m", "--irom0", "3000"}),
                 0);
        QFile file(m_dir.filePath("fw"));
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray fw = file.readAll();
        // Header (qout, 1 MB << 4 | 80 MHz), then each segment's address and length.
        QCOMPARE(fw.left(16), QByteArray::fromHex("e902012f00101040 0000104064000000"));
        QCOMPARE(fw.mid(16 + 100, 8), QByteArray::fromHex("1010204000040000"));
        // Data ends at 1148, its checksum block at 1152; then the total length, the second part,
        // and the MD5 of bytes 4 to the last 16.
        QVERIFY2(m_output.contains("trailer offset 1156"), m_output.constData());
        QCOMPARE(fw.size(), 4172);
        QCOMPARE(fw.mid(1152, 4), QByteArray::fromHex("4c100000"));
        QCOMPARE(fw.right(16), QCryptographicHash::hash(fw.mid(4, 4152), QCryptographicHash::Md5));
    }

    void refused_data()
    {
        // The message after "esp-make-image: " is the row's name.
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<int>("exitCode");
        const auto row = [](const char *message, const char *arguments, int exitCode = 2) {
            QTest::newRow(message) << QString::fromLatin1(arguments) << exitCode;
        };
        row("say firmware or application", "-o @out");
        row("unknown kind bootloader", "bootloader -o @out");
        row("-o FILE is required", "firmware");
        row("application needs --length N (at most 64MB)", "application -o @out --length -5");
        row("bad --segment 0x40100000", "firmware -o @out --segment 0x40100000");
        row("bad --mode", "firmware -o @out --mode fast");
        row("bad --size", "firmware -o @out --size 3MB");
        row("bad --seed", "firmware -o @out --seed x");
        row("cannot write", "firmware -o @missing/out", 1);
    }

    void refused()
    {
        QFETCH(QString, arguments);
        QTEST(run(arguments.split(' ')), "exitCode");
        const QByteArray message = "esp-make-image: " + QByteArray(QTest::currentDataTag());
        QVERIFY2(m_output.startsWith(message), m_output.constData());
        QVERIFY(!QFile::exists(m_dir.filePath("out")));
    }
};

QTEST_GUILESS_MAIN(TestMakeImage)
#include "tst_makeimage.moc"
