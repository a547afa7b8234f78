// Injected faults of the virtual chip, the port vanishing, line-rate throttling and flash timing.
#include "rawchipclient.h"
#include "virtualchip/virtualesp8266.h"

#include <QElapsedTimer>
#include <QFile>
#include <QSerialPort>
#include <QSignalSpy>
#include <QtTest>

#include <memory>

namespace {

constexpr quint8 opFlashBegin = 0x02;
constexpr quint8 opFlashData = 0x03;
constexpr quint8 opMemBegin = 0x05;
constexpr quint8 opMemData = 0x07;
constexpr quint8 opSync = 0x08;
constexpr quint8 opWriteReg = 0x09;
constexpr quint8 opReadReg = 0x0A;
constexpr quint8 opReadFlash = 0xD2;
constexpr quint32 efuse0 = 0x3FF00050;
constexpr quint32 scratch = 0x60000F00; // a register without special behaviour
constexpr quint32 loaderAddress = 0x4010E000;
constexpr int silenceMs = 150; // how long "nothing arrives" is watched for

using W = RawChipClient;
using Corruption = VirtualEsp8266::Corruption;

QByteArray loaderCode()
{
    return QByteArray(64, char(0x3A));
}

} // namespace

class TestVirtualChipFaults : public QObject
{
    Q_OBJECT

private slots:
    void cleanup();

    void silence_data();
    void silence();
    void dropAnswer();
    void corruptAnswer_data();
    void corruptAnswer();
    void strayAnswer();
    void errorStatus_data();
    void errorStatus();
    void resetDisarmsFaults();
    void vanishAfterCommands();
    void vanishAfterBytesMidTransfer();
    void vanishNow();
    void serialPortSeesChipAndItsLoss();
    void slowErase();
    void throttledInput();
    void throttledOutput();
    void romEraseTakesFlashTime();

private:
    bool startChip(const VirtualEsp8266::Config &config);
    bool startChip() { return startChip(VirtualEsp8266::Config()); }

    std::unique_ptr<VirtualEsp8266> m_chip;
    RawChipClient m_client;
};

bool TestVirtualChipFaults::startChip(const VirtualEsp8266::Config &config)
{
    m_chip = std::make_unique<VirtualEsp8266>(config);
    return m_chip->start() && m_client.open(m_chip->devicePath());
}

void TestVirtualChipFaults::cleanup()
{
    m_client.close();
    m_chip.reset();
}

void TestVirtualChipFaults::silence_data()
{
    QTest::addColumn<int>("answered");
    QTest::newRow("at once") << 0;
    QTest::newRow("after 1") << 1;
    QTest::newRow("after 3") << 3;
}

void TestVirtualChipFaults::silence()
{
    QFETCH(int, answered);
    QVERIFY(startChip());
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF); // before arming: not counted
    m_chip->armSilence(answered);
    for (int i = 0; i < answered; ++i)
        QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QVERIFY(!m_client.command(opReadReg, W::words({efuse0}), silenceMs).valid);
    QCOMPARE(m_client.sync(silenceMs), 0);
    QCOMPARE(m_chip->commandLog().size(), 1 + answered);
}

void TestVirtualChipFaults::dropAnswer()
{
    QVERIFY(startChip());
    m_chip->armDropAnswer(2);
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    // The dropped command still takes effect.
    QVERIFY(
        !m_client.command(opWriteReg, W::words({scratch, 0x55AA, 0xFFFFFFFF, 0}), silenceMs).valid);
    QCOMPARE(m_client.readReg(scratch), 0x55AAu);
    const auto log = m_chip->commandLog();
    QCOMPARE(log.size(), 3);
    QVERIFY(log[0].answered);
    QVERIFY(!log[1].answered);
    QVERIFY(log[2].answered);
}

void TestVirtualChipFaults::corruptAnswer_data()
{
    QTest::addColumn<int>("kind");
    QTest::newRow("broken escape") << int(Corruption::BrokenEscape);
    QTest::newRow("garbled bytes") << int(Corruption::GarbledBytes);
    QTest::newRow("truncated") << int(Corruption::Truncated);
    QTest::newRow("wrong length") << int(Corruption::WrongLength);
}

void TestVirtualChipFaults::corruptAnswer()
{
    QFETCH(int, kind);
    QVERIFY(startChip());
    m_chip->armCorruptAnswer(1, Corruption(kind));
    QVERIFY(m_client.sendCommand(opReadReg, W::words({efuse0})));
    const QByteArray frame = m_client.readFrame(silenceMs * 2);
    switch (Corruption(kind)) {
    case Corruption::BrokenEscape: {
        QVERIFY(frame.isEmpty());
        QCOMPARE(m_client.brokenFrames(), 1);
        const QByteArray wire = m_client.wire();
        const int escape = wire.indexOf(char(0xDB));
        QVERIFY(escape > 0);
        QCOMPARE(quint8(wire[escape + 1]), quint8(0x01));
        break;
    }
    case Corruption::GarbledBytes:
        QCOMPARE(frame.size(), 10);
        QVERIFY(quint8(frame[0]) != 0x01);
        break;
    case Corruption::Truncated:
        QCOMPARE(frame.size(), 4);
        break;
    case Corruption::WrongLength: {
        QCOMPARE(frame.size(), 10);
        QCOMPARE(quint8(frame[0]), quint8(0x01));
        QVERIFY(quint8(frame[2]) != frame.size() - 8);
        break;
    }
    }
    // Only that one answer is damaged.
    const W::Answer next = m_client.command(opReadReg, W::words({efuse0}));
    QVERIFY(next.valid);
    QCOMPARE(next.length, quint16(2));
    QCOMPARE(next.value, VirtualEsp8266::efuseWordsFor(m_chip->config())[0]);
}

void TestVirtualChipFaults::strayAnswer()
{
    QVERIFY(startChip());
    m_chip->armStrayAnswer(2);
    QCOMPARE(m_client.command(opReadReg, W::words({efuse0})).opcode, opReadReg);
    QVERIFY(m_client.sendCommand(opReadReg, W::words({efuse0})));
    const W::Answer stray = m_client.readAnswer();
    QVERIFY(stray.valid);
    QVERIFY(stray.opcode != opReadReg);
    const W::Answer real = m_client.readAnswer();
    QCOMPARE(real.opcode, opReadReg);
    QCOMPARE(real.value, VirtualEsp8266::efuseWordsFor(m_chip->config())[0]);
    QVERIFY(!m_client.readAnswer(silenceMs).valid);
    // A stray before a SYNC burst answers another opcode too.
    m_chip->armStrayAnswer(1);
    QVERIFY(m_client.sendCommand(opSync, W::syncPayload()));
    QCOMPARE(m_client.readAnswer().opcode, opReadReg);
    QCOMPARE(m_client.readAnswer().opcode, opSync);
}

void TestVirtualChipFaults::errorStatus_data()
{
    QTest::addColumn<bool>("stub");
    QTest::addColumn<int>("code");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("error");
    QTest::newRow("ROM, default code") << false << 0 << 1 << 0x06;
    QTest::newRow("ROM, flash read error") << false << 0x09 << 1 << 0x09;
    QTest::newRow("loader, default code") << true << 0 << 0xC4 << 0;
    QTest::newRow("loader, checksum code") << true << 0xC1 << 0xC1 << 0;
}

void TestVirtualChipFaults::errorStatus()
{
    QFETCH(bool, stub);
    QFETCH(int, code);
    QFETCH(int, status);
    QFETCH(int, error);
    QVERIFY(startChip());
    if (stub)
        QVERIFY(m_client.startLoader(loaderAddress, loaderCode(), loaderAddress));
    m_chip->setFlash(0, QByteArray(0x1000, 0));
    m_chip->armErrorStatus(1, quint8(code));
    const W::Answer refused = m_client.command(opFlashBegin, W::words({0x1000, 1, 0x400, 0}));
    QCOMPARE(refused.opcode, opFlashBegin);
    QCOMPARE(int(refused.status()), status);
    QCOMPARE(int(refused.error()), error);
    // Refused means not done.
    QVERIFY(m_chip->counters().erases.isEmpty());
    QCOMPARE(m_chip->flash(0, 0x1000), QByteArray(0x1000, 0));
    QCOMPARE(m_client.command(opFlashBegin, W::words({0x1000, 1, 0x400, 0})).status(), quint8(0));
}

void TestVirtualChipFaults::resetDisarmsFaults()
{
    QVERIFY(startChip());
    m_chip->armSilence(0);
    m_chip->armDropAnswer(1);
    QVERIFY(!m_client.command(opReadReg, W::words({efuse0}), silenceMs).valid);
    m_chip->reset();
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    m_chip->armDropAnswer(1);
    m_chip->disarmFaults();
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
}

void TestVirtualChipFaults::vanishAfterCommands()
{
    QVERIFY(startChip());
    const QString path = m_chip->devicePath();
    m_chip->armVanishAfterCommands(2);
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QVERIFY(!m_client.hungUp());
    // The second answer is delivered, then the device goes away.
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    QVERIFY(m_client.waitForHangUp(2000));
    QVERIFY(m_chip->vanished());
    QVERIFY(!QFile::exists(path));
    QVERIFY(!m_client.command(opReadReg, W::words({efuse0}), silenceMs).valid);
}

void TestVirtualChipFaults::vanishAfterBytesMidTransfer()
{
    QVERIFY(startChip());
    QCOMPARE(m_client.command(opFlashBegin, W::words({0x400, 1, 0x400, 0})).status(), quint8(0));
    const qint64 before = m_chip->counters().bytesIn;
    m_chip->armVanishAfterBytes(100);
    m_client.sendData(opFlashData, QByteArray(0x400, 0x11), 0); // may fail once the port is gone
    QVERIFY(m_client.waitForHangUp(2000));
    QVERIFY(m_chip->vanished());
    QCOMPARE(m_chip->counters().bytesIn - before, qint64(100));
    QCOMPARE(m_chip->flash(0, 0x400), QByteArray(0x400, char(0xFF)));
}

void TestVirtualChipFaults::vanishNow()
{
    QVERIFY(startChip());
    QVERIFY(m_client.readReg(efuse0) != 0xFFFFFFFF);
    m_chip->vanishNow();
    QVERIFY(m_chip->vanished());
    QVERIFY(m_client.waitForHangUp(2000));
    // A vanished chip keeps its flash and can come back on a new terminal.
    m_chip->stop();
    QVERIFY(m_chip->start());
    QVERIFY(!m_chip->vanished());
    QVERIFY(m_client.open(m_chip->devicePath()));
    QCOMPARE(m_client.sync(), 8);
}

void TestVirtualChipFaults::serialPortSeesChipAndItsLoss()
{
    QVERIFY(startChip());
    m_client.close();
    QSerialPort port;
    port.setPortName(m_chip->devicePath());
    QVERIFY2(port.open(QIODevice::ReadWrite), qPrintable(port.errorString()));
    QVERIFY(port.setBaudRate(115200));
    // SYNC, framed by hand (no byte of it needs escaping).
    QByteArray request = QByteArray::fromHex("00082400") + QByteArray(4, 0) + W::syncPayload();
    request.prepend(char(0xC0));
    request.append(char(0xC0));
    QCOMPARE(port.write(request), qint64(request.size()));
    QByteArray received;
    QElapsedTimer timer;
    timer.start();
    while (received.count(char(0xC0)) < 16 && timer.elapsed() < 3000) {
        port.waitForReadyRead(100);
        received += port.readAll();
    }
    QCOMPARE(received.count(char(0xC0)), 16); // eight frames
    QCOMPARE(received.left(12), QByteArray::fromHex("c001080200000000000000c0"));

    // Qt keeps reporting the lost device until the port is closed, so close on the first report.
    qRegisterMetaType<QSerialPort::SerialPortError>();
    QSignalSpy errors(&port, &QSerialPort::errorOccurred);
    QObject::connect(&port, &QSerialPort::errorOccurred, &port,
                     [&port](QSerialPort::SerialPortError error) {
                         if (error != QSerialPort::NoError)
                             port.close();
                     });
    m_chip->vanishNow();
    QTRY_VERIFY_WITH_TIMEOUT(!errors.isEmpty(), 3000);
    // A pseudo-terminal whose master is gone reads EIO, which Qt reports as a read error; an
    // unplugged adapter may also show as a resource error.
    const auto error = errors.first().first().value<QSerialPort::SerialPortError>();
    QVERIFY2(error == QSerialPort::ReadError || error == QSerialPort::ResourceError,
             qPrintable(QString::number(int(error))));
    QVERIFY(!port.isOpen());
}

void TestVirtualChipFaults::slowErase()
{
    QVERIFY(startChip());
    m_chip->armSlowErase(10); // 2 sectors by the ROM's arithmetic: 2 x 45 ms x 10
    QElapsedTimer timer;
    timer.start();
    QVERIFY(m_client.sendCommand(opFlashBegin, W::words({0x1000, 4, 0x400, 0})));
    QVERIFY(!m_client.readAnswer(300).valid);
    const W::Answer answer = m_client.readAnswer(3000);
    QVERIFY(answer.valid);
    QCOMPARE(answer.status(), quint8(0));
    QVERIFY2(timer.elapsed() >= 850, qPrintable(QString::number(timer.elapsed())));
}

void TestVirtualChipFaults::throttledInput()
{
    VirtualEsp8266::Config config;
    config.throttle = true;
    QVERIFY(startChip(config));
    QCOMPARE(m_client.command(opMemBegin, W::words({0x1000, 1, 0x1000, 0x3FFE8000})).status(),
             quint8(0));
    // About 4100 bytes on the wire at 115200 baud (8N1) take at least 355 ms.
    QElapsedTimer timer;
    timer.start();
    QVERIFY(m_client.sendData(opMemData, QByteArray(0x1000, 0x22), 0));
    QCOMPARE(m_client.readAnswer(3000).status(), quint8(0));
    QVERIFY2(timer.elapsed() >= 340, qPrintable(QString::number(timer.elapsed())));
}

void TestVirtualChipFaults::throttledOutput()
{
    VirtualEsp8266::Config config;
    config.throttle = true;
    QVERIFY(startChip(config));
    QVERIFY(m_client.startLoader(loaderAddress, loaderCode(), loaderAddress));
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(m_client.command(opReadFlash, W::words({0, 0x1000, 0x1000, 1}), 3000).status(),
             quint8(0));
    QCOMPARE(m_client.readFrame(3000).size(), 0x1000);
    QVERIFY2(timer.elapsed() >= 340, qPrintable(QString::number(timer.elapsed())));
    QVERIFY(m_client.sendAck(0x1000));
    QCOMPARE(m_client.readFrame(3000).size(), 16);
}

void TestVirtualChipFaults::romEraseTakesFlashTime()
{
    VirtualEsp8266::Config config;
    config.flashTiming = true;
    QVERIFY(startChip(config));
    // 16 sectors asked at 0: the ROM erases 32, two 64 KiB blocks of 150 ms each.
    QElapsedTimer timer;
    timer.start();
    QCOMPARE(m_client.command(opFlashBegin, W::words({0x10000, 64, 0x400, 0}), 3000).status(),
             quint8(0));
    QVERIFY2(timer.elapsed() >= 290, qPrintable(QString::number(timer.elapsed())));
}

QTEST_GUILESS_MAIN(TestVirtualChipFaults)
#include "tst_virtualchipfaults.moc"
