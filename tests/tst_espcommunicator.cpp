#include "protocol/espprotocol.h"
#include "ptypair.h"
#include "serial/espcommunicator.h"

#include <QSignalSpy>
#include <QtTest>

class TestEspCommunicator : public QObject
{
    Q_OBJECT

private slots:
    void writeFramesAndDumpInfo()
    {
        ESPCommunicator communicator;
        QSignalSpy errors(&communicator, &ESPCommunicator::error);
        QSignalSpy disconnects(&communicator, &ESPCommunicator::disconnected);
        QVERIFY(!communicator.write("abc"));
        QCOMPARE(communicator.dumpInfo(), QStringLiteral("NaN (not opended)"));
        // A port that cannot be found or opened reports neither an error nor a disconnect.
        QVERIFY(!communicator.open(QStringLiteral("/dev/no-such-port"), 115200));
        QCOMPARE(errors.count() + disconnects.count(), 0);

        PtyPair pty;
        pty.publish();
        QVERIFY(communicator.open(pty.slavePath(), 115200));
        QVERIFY(communicator.dumpInfo().endsWith(QStringLiteral(" @115200")));
        QVERIFY(communicator.write(QByteArray("\x01\xC0", 2)));
        QCOMPARE(pty.readMaster(1000, 5), QByteArray("\xC0\x01\xDB\xDC\xC0", 5));
        QVERIFY(communicator.setBaudrate(921600));
        QVERIFY(communicator.dumpInfo().endsWith(QStringLiteral(" @921600")));
        // A deliberate close is silent.
        communicator.close();
        QVERIFY(!communicator.isOpen());
        QTest::qWait(50);
        QCOMPARE(errors.count() + disconnects.count(), 0);
    }

    void dataBeforeHandlerIsKept()
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

    void vanishedDeviceClosesOnce()
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
        QTRY_COMPARE(disconnects.count(), 1);
        QVERIFY(!communicator.isOpen());
        QVERIFY(!disconnects.first().first().toString().isEmpty());
        QVERIFY(errors.count() >= 1); // the port's error is still relayed
        // Closed, the hung-up terminal no longer drives a loop of read errors.
        const int errorsAfterClose = errors.count();
        QTest::qWait(300);
        QCOMPARE(errors.count(), errorsAfterClose);
        QCOMPARE(disconnects.count(), 1);
        QVERIFY(!communicator.write("x"));
    }
};

QTEST_GUILESS_MAIN(TestEspCommunicator)
#include "tst_espcommunicator.moc"
