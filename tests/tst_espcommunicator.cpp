#include "protocol/espprotocol.h"
#include "ptypair.h"
#include "serial/espcommunicator.h"

#include <QSignalSpy>
#include <QtTest>

#include <sys/resource.h>

namespace {
double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}
} // namespace

class TestEspCommunicator : public QObject
{
    Q_OBJECT

private slots:
    void closedPort();
    void openWriteAndDumpInfo();
    void openUnknownPortEmitsNothing();
    void receivedFramesReachHandler();
    void dataBeforeHandlerIsKept();
    void deliberateCloseIsSilent();
    void vanishedDeviceClosesOnceWithoutSpinning();
};

void TestEspCommunicator::closedPort()
{
    ESPCommunicator communicator;
    QVERIFY(!communicator.write("abc"));
    QCOMPARE(communicator.dumpInfo(), QStringLiteral("NaN (not opended)"));
}

void TestEspCommunicator::openWriteAndDumpInfo()
{
    PtyPair pty;
    QVERIFY(pty.isValid());
    pty.publish();
    ESPCommunicator communicator;
    QVERIFY(communicator.open(pty.slavePath(), 115200));
    QVERIFY(communicator.dumpInfo().endsWith(QStringLiteral(" @115200")));
    QVERIFY(pty.slavePath().endsWith(communicator.dumpInfo().section(QLatin1Char(' '), 0, 0)));

    QVERIFY(communicator.write(QByteArray("\x01\xC0", 2)));
    QCOMPARE(pty.readMaster(1000, 5), QByteArray("\xC0\x01\xDB\xDC\xC0", 5));

    QVERIFY(communicator.setBaudrate(921600));
    QVERIFY(communicator.dumpInfo().endsWith(QStringLiteral(" @921600")));
}

void TestEspCommunicator::openUnknownPortEmitsNothing()
{
    ESPCommunicator communicator;
    QSignalSpy errors(&communicator, &ESPCommunicator::error);
    QSignalSpy disconnects(&communicator, &ESPCommunicator::disconnected);
    QVERIFY(!communicator.open(QStringLiteral("/dev/no-such-port"), 115200));
    QCOMPARE(errors.count(), 0);
    QCOMPARE(disconnects.count(), 0);
}

void TestEspCommunicator::receivedFramesReachHandler()
{
    PtyPair pty;
    pty.publish();
    ESPProtocol protocol;
    ESPCommunicator communicator;
    communicator.setHandler(&protocol);
    QVERIFY(communicator.open(pty.slavePath(), 115200));
    QSignalSpy ready(&protocol, &ESPProtocol::packetReady);
    QVERIFY(pty.writeMaster(ESPProtocol::encode("hello") + ESPProtocol::encode("world")));
    QTRY_COMPARE(ready.count(), 2);
    QCOMPARE(protocol.deque(), QByteArray("hello"));
    QCOMPARE(protocol.deque(), QByteArray("world"));
}

void TestEspCommunicator::dataBeforeHandlerIsKept()
{
    PtyPair pty;
    pty.publish();
    ESPCommunicator communicator;
    QVERIFY(communicator.open(pty.slavePath(), 115200));
    QVERIFY(pty.writeMaster(ESPProtocol::encode("early")));
    QTest::qWait(100); // let readyRead pass with no handler set

    ESPProtocol protocol;
    communicator.setHandler(&protocol);
    QSignalSpy ready(&protocol, &ESPProtocol::packetReady);
    QVERIFY(pty.writeMaster(ESPProtocol::encode("late")));
    QTRY_COMPARE(ready.count(), 2);
    QCOMPARE(protocol.deque(), QByteArray("early"));
    QCOMPARE(protocol.deque(), QByteArray("late"));
}

void TestEspCommunicator::deliberateCloseIsSilent()
{
    PtyPair pty;
    pty.publish();
    ESPCommunicator communicator;
    QSignalSpy disconnects(&communicator, &ESPCommunicator::disconnected);
    QVERIFY(communicator.open(pty.slavePath(), 115200));
    communicator.close();
    QVERIFY(!communicator.isOpen());
    QTest::qWait(50);
    QCOMPARE(disconnects.count(), 0);
}

void TestEspCommunicator::vanishedDeviceClosesOnceWithoutSpinning()
{
    PtyPair pty;
    pty.publish();
    ESPProtocol protocol;
    ESPCommunicator communicator;
    communicator.setHandler(&protocol);
    QSignalSpy disconnects(&communicator, &ESPCommunicator::disconnected);
    QSignalSpy errors(&communicator, &ESPCommunicator::error);
    QVERIFY(communicator.open(pty.slavePath(), 115200));

    pty.closeMaster();
    QTRY_COMPARE_WITH_TIMEOUT(disconnects.count(), 1, 1000);
    QVERIFY(!communicator.isOpen());
    QVERIFY(!disconnects.first().first().toString().isEmpty());
    QVERIFY(errors.count() >= 1); // the port's error is still relayed

    // With the port closed the error loop of a hung-up terminal is gone: the process idles.
    const double before = processCpuSeconds();
    QTest::qWait(1000);
    const double spent = processCpuSeconds() - before;
    QVERIFY2(spent < 0.25, qPrintable(QStringLiteral("CPU seconds while idle: %1").arg(spent)));
    QCOMPARE(disconnects.count(), 1);
    QVERIFY(!communicator.write("x"));
}

QTEST_GUILESS_MAIN(TestEspCommunicator)
#include "tst_espcommunicator.moc"
