// The esp-virtual-chip program: options, the device path line, per-command lines, signals, dump.
#include "rawchipclient.h"
#include "testpaths.h"

#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>

namespace {

constexpr int processWaitMs = 5000; // generous: the program starts in milliseconds

QProcess *startProgram(QObject *parent, const QStringList &arguments)
{
    auto *process = new QProcess(parent);
    process->start(testBuildDir() + "/virtualchip/esp-virtual-chip", arguments);
    return process;
}

QByteArray readLine(QProcess *process)
{
    QElapsedTimer timer;
    timer.start();
    while (!process->canReadLine() && timer.elapsed() < processWaitMs)
        process->waitForReadyRead(100);
    return process->readLine().trimmed();
}

} // namespace

class TestVirtualChipProgram : public QObject
{
    Q_OBJECT

private slots:
    void badOptions_data();
    void badOptions();
    void servesLoadsAndDumps();
    void quietPrintsOnlyThePath();
};

void TestVirtualChipProgram::badOptions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("unknown chip") << QStringList{"--chip", "esp32"};
    QTest::newRow("bad MAC") << QStringList{"--mac", "18:FE:34:00:01"};
    QTest::newRow("flash size not whole sectors") << QStringList{"--flash-size", "1000"};
    QTest::newRow("load without address") << QStringList{"--load", "/etc/hostname"};
    QTest::newRow("load of a missing file") << QStringList{"--load", "0x0:/nonexistent/file"};
    QTest::newRow("unexpected argument") << QStringList{"extra"};
}

void TestVirtualChipProgram::badOptions()
{
    QFETCH(QStringList, arguments);
    QProcess *process = startProgram(this, arguments);
    QVERIFY(process->waitForFinished(processWaitMs));
    QVERIFY(process->exitCode() != 0);
    QVERIFY(process->readAllStandardOutput().isEmpty()); // no device path
    QVERIFY(process->readAllStandardError().startsWith("esp-virtual-chip: "));
}

void TestVirtualChipProgram::servesLoadsAndDumps()
{
    QTemporaryDir dir;
    QFile image(dir.filePath("image.bin"));
    QVERIFY(image.open(QIODevice::WriteOnly) && image.write(QByteArray(0x1800, 0x5A)) == 0x1800);
    image.close();
    const QString dump = dir.filePath("dump.bin");
    QProcess *process =
        startProgram(this, {"--chip", "esp8285", "--mac", "AC:D0:74:01:02:03", "--flash-size",
                            "1MB", "--load", "0x3000:" + image.fileName(), "--dump", dump});
    const QByteArray path = readLine(process);
    QVERIFY2(path.startsWith("/dev/"), path.constData());
    RawChipClient client;
    QVERIFY(client.open(QString::fromLocal8Bit(path)));
    QCOMPARE(client.sync(), 8);
    QCOMPARE(readLine(process), QByteArray("SYNC len=36 [ROM] -> ok"));
    // The eFuses tell an ESP8285 with that MAC: OUI selector 1 (AC:D0:74), no OUI in word 3.
    const quint32 w0 = client.readReg(0x3FF00050), w1 = client.readReg(0x3FF00054);
    QCOMPARE(client.readReg(0x3FF0005C), 0u);
    QCOMPARE(w1 & 0xFFFFFF, 0x010102u);
    QCOMPARE(w0 >> 24, 0x03u);
    QVERIFY((client.readReg(0x3FF00058) & (1u << 16)) || (w0 & (1u << 4)));
    for (int i = 0; i < 4; ++i)
        QCOMPARE(readLine(process), QByteArray("READ_REG len=4 [ROM] -> ok"));
    QCOMPARE(client.command(0x02, RawChipClient::words({0x400, 1, 0x400, 0x10000})).status(), 0);
    QCOMPARE(readLine(process), QByteArray("FLASH_BEGIN len=16 [ROM] -> ok"));
    QVERIFY(client.sendData(0x03, QByteArray(0x400, 0x42), 0, false));
    QCOMPARE(client.readAnswer().error(), quint8(0x07));
    QCOMPARE(readLine(process),
             QByteArray("FLASH_DATA len=1040 size=1024 seq=0 sum=0xee [ROM] -> status 01 07"));
    QVERIFY(client.sendData(0x03, QByteArray(0x400, 0x42), 0));
    QCOMPARE(client.readAnswer().status(), 0);
    client.close();

    process->terminate(); // SIGTERM
    QVERIFY(process->waitForFinished(processWaitMs));
    QCOMPARE(process->exitStatus(), QProcess::NormalExit);
    QCOMPARE(process->exitCode(), 0);
    QFile file(dump);
    QVERIFY(file.open(QIODevice::ReadOnly));
    const QByteArray flash = file.readAll();
    QCOMPARE(flash.size(), 0x100000);
    QCOMPARE(flash.mid(0x3000, 0x1800), QByteArray(0x1800, 0x5A));
    QCOMPARE(flash.mid(0x10000, 0x400), QByteArray(0x400, 0x42));
    QCOMPARE(flash.count(char(0xFF)), 0x100000 - 0x1C00);
}

void TestVirtualChipProgram::quietPrintsOnlyThePath()
{
    QProcess *process = startProgram(this, {"--quiet"});
    RawChipClient client;
    QVERIFY(client.open(QString::fromLocal8Bit(readLine(process))));
    QCOMPARE(client.sync(), 8);
    ::kill(pid_t(process->processId()), SIGINT);
    QVERIFY(process->waitForFinished(processWaitMs));
    QCOMPARE(process->exitCode(), 0);
    QVERIFY(process->readAllStandardOutput().isEmpty());
}

QTEST_GUILESS_MAIN(TestVirtualChipProgram)
#include "tst_virtualchipprogram.moc"
