// The esp-virtual-chip program: options, the device path line, per-command lines, signals, dump.
#include "rawchipclient.h"
#include "testpaths.h"

#include <QCryptographicHash>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

namespace {

constexpr int processWaitMs = 5000; // generous: the program starts in milliseconds

QString programPath()
{
    return testBuildDir() + QStringLiteral("/virtualchip/esp-virtual-chip");
}

QByteArray pattern(int size)
{
    QByteArray data(size, 0);
    for (int i = 0; i < size; ++i)
        data[i] = char((i * 17 + 3) & 0xFF);
    return data;
}

// Reads one complete line from the process's output.
QByteArray readLine(QProcess &process)
{
    QElapsedTimer timer;
    timer.start();
    while (!process.canReadLine() && timer.elapsed() < processWaitMs)
        process.waitForReadyRead(100);
    return process.readLine().trimmed();
}

} // namespace

class TestVirtualChipProgram : public QObject
{
    Q_OBJECT

private slots:
    void help();
    void badOptions_data();
    void badOptions();
    void servesLoadsAndDumps();
    void quietPrintsOnlyThePath();
    void esp8285AndMac();
};

void TestVirtualChipProgram::help()
{
    QProcess process;
    process.start(programPath(), {QStringLiteral("--help")});
    QVERIFY(process.waitForFinished(processWaitMs));
    QCOMPARE(process.exitCode(), 0);
    const QByteArray text = process.readAllStandardOutput();
    for (const char *option : {"--chip", "--mac", "--flash-size", "--throttle", "--flash-timing",
                               "--load", "--dump", "--quiet"})
        QVERIFY2(text.contains(option), option);
}

void TestVirtualChipProgram::badOptions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("unknown chip") << QStringList{"--chip", "esp32"};
    QTest::newRow("bad MAC") << QStringList{"--mac", "18:FE:34:00:01"};
    QTest::newRow("bad flash size") << QStringList{"--flash-size", "4XB"};
    QTest::newRow("flash size not whole sectors") << QStringList{"--flash-size", "1000"};
    QTest::newRow("load without address") << QStringList{"--load", "/etc/hostname"};
    QTest::newRow("load of a missing file") << QStringList{"--load", "0x0:/nonexistent/file"};
    QTest::newRow("unexpected argument") << QStringList{"extra"};
}

void TestVirtualChipProgram::badOptions()
{
    QFETCH(QStringList, arguments);
    QProcess process;
    process.start(programPath(), arguments);
    QVERIFY(process.waitForFinished(processWaitMs));
    QVERIFY(process.exitCode() != 0);
    QVERIFY(process.readAllStandardOutput().isEmpty()); // no device path
    QVERIFY(!process.readAllStandardError().isEmpty());
}

void TestVirtualChipProgram::servesLoadsAndDumps()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString image = dir.filePath(QStringLiteral("image.bin"));
    const QString dump = dir.filePath(QStringLiteral("dump.bin"));
    {
        QFile file(image);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(pattern(0x1800));
    }
    QProcess process;
    process.start(programPath(),
                  {"--flash-size", "1MB", "--load", "0x3000:" + image, "--dump", dump});
    const QByteArray path = readLine(process);
    QVERIFY2(path.startsWith("/dev/"), path.constData());

    RawChipClient client;
    QVERIFY(client.open(QString::fromLocal8Bit(path)));
    QCOMPARE(client.sync(), 8);
    QCOMPARE(readLine(process), QByteArray("SYNC len=36 [ROM] -> ok"));
    // An erase by the ROM's arithmetic, then a data block that lands in the dump.
    QCOMPARE(client.command(0x02, RawChipClient::words({0x400, 1, 0x400, 0x10000})).status(),
             quint8(0));
    QCOMPARE(readLine(process), QByteArray("FLASH_BEGIN len=16 [ROM] -> ok"));
    QVERIFY(client.sendData(0x03, QByteArray(0x400, 0x42), 0, false));
    QCOMPARE(client.readAnswer().error(), quint8(0x07));
    const QByteArray line = readLine(process);
    QVERIFY2(line.startsWith("FLASH_DATA len=1040 size=1024 seq=0 sum=0x"), line.constData());
    QVERIFY2(line.endsWith("[ROM] -> status 01 07"), line.constData());
    QVERIFY(client.sendData(0x03, QByteArray(0x400, 0x42), 0));
    QCOMPARE(client.readAnswer().status(), quint8(0));
    client.close();

    process.terminate(); // SIGTERM
    QVERIFY(process.waitForFinished(processWaitMs));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QFile file(dump);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray flash = file.readAll();
    QCOMPARE(flash.size(), 0x100000);
    QCOMPARE(flash.mid(0x3000, 0x1800), pattern(0x1800));
    QCOMPARE(flash.mid(0x10000, 0x400), QByteArray(0x400, 0x42));
    QCOMPARE(flash.mid(0x10400, 0x1C00), QByteArray(0x1C00, char(0xFF)));
}

void TestVirtualChipProgram::quietPrintsOnlyThePath()
{
    QProcess process;
    process.start(programPath(), {"--quiet"});
    const QByteArray path = readLine(process);
    QVERIFY(path.startsWith("/dev/"));
    RawChipClient client;
    QVERIFY(client.open(QString::fromLocal8Bit(path)));
    QCOMPARE(client.sync(), 8);
    client.close();
    ::kill(pid_t(process.processId()), SIGINT);
    QVERIFY(process.waitForFinished(processWaitMs));
    QCOMPARE(process.exitCode(), 0);
    QVERIFY(process.readAllStandardOutput().isEmpty());
}

void TestVirtualChipProgram::esp8285AndMac()
{
    QProcess process;
    process.start(programPath(), {"--quiet", "--chip", "esp8285", "--mac", "AC:D0:74:01:02:03"});
    const QByteArray path = readLine(process);
    RawChipClient client;
    QVERIFY(client.open(QString::fromLocal8Bit(path)));
    const quint32 w0 = client.readReg(0x3FF00050);
    const quint32 w1 = client.readReg(0x3FF00054);
    const quint32 w2 = client.readReg(0x3FF00058);
    const quint32 w3 = client.readReg(0x3FF0005C);
    QCOMPARE(w3, 0u);
    QCOMPARE((w1 >> 16) & 0xFF, 1u); // OUI AC:D0:74
    QCOMPARE(w1 & 0xFFFF, 0x0102u);
    QCOMPARE(w0 >> 24, 0x03u);
    QVERIFY((w2 & (1u << 16)) || (w0 & (1u << 4)));
    client.close();
    process.terminate();
    QVERIFY(process.waitForFinished(processWaitMs));
    QCOMPARE(process.exitCode(), 0);
}

QTEST_GUILESS_MAIN(TestVirtualChipProgram)
#include "tst_virtualchipprogram.moc"
