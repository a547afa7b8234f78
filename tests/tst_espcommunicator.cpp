#include "protocol/espprotocol.h"
#include "ptypair.h"
#include "serial/espcommunicator.h"

#include <QtTest>

// The serial link: SLIP framing (round trips and random chunking are left to the SLIP fuzz
// target; these pin the quirks) and the port that carries it.
class TestEspCommunicator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qRegisterMetaType<QSerialPort::SerialPortError>(); }

    void decode_data()
    {
        QTest::addColumn<QByteArray>("chunks");  // hex feeds or "flush", a space between two
        QTest::addColumn<QByteArray>("packets"); // hex, a space between two packets
        const auto row = [](const char *name, const char *chunks, const char *packets) {
            QTest::newRow(name) << QByteArray(chunks) << QByteArray(packets);
        };
        row("split over feeds, escape split too", "c001 02db dcdb ddc0", "0102c0db");
        row("back to back, in order", "c001c0c002c0", "01 02");
        row("abandoned escape drops frame, final end opens a new one", "c0db01c005c0", "05");
        row("noise before start dropped", "0708c009c0", "09");
        row("empty frame leaves decoder waiting", "c0c00405c006c0", "06");
        row("shared delimiter is not enough", "c001c002c0", "01");
        row("unterminated frame stays pending", "c00102", "");
        // The bytes collected before a flush become the head of the next frame's packet.
        row("flush keeps the half packet", "c00102 flush c003c0", "010203");
    }

    void decode()
    {
        QFETCH(QByteArray, chunks);
        QFETCH(QByteArray, packets);
        ESPProtocol protocol;
        QSignalSpy ready(&protocol, &ESPProtocol::packetReady);
        for (const QByteArray &chunk : chunks.split(' ')) {
            if (chunk == "flush")
                protocol.flush(true);
            else
                protocol.feed(QByteArray::fromHex(chunk));
        }
        const QList<QByteArray> expected =
            packets.isEmpty() ? QList<QByteArray>() : packets.split(' ');
        QCOMPARE(ready.count(), expected.size());
        for (const QByteArray &packet : expected)
            QCOMPARE(protocol.deque(), QByteArray::fromHex(packet));
        QVERIFY(protocol.deque().isNull());
    }

    void writeFramesAndDumpInfo()
    {
        ESPCommunicator communicator;
        QSignalSpy errors(&communicator, &ESPCommunicator::error);
        QSignalSpy disconnects(&communicator, &ESPCommunicator::disconnected);
        QVERIFY(!communicator.write("abc"));
        QCOMPARE(communicator.dumpInfo(), QStringLiteral("NaN (not opended)"));
        QVERIFY(!communicator.open(QStringLiteral("/dev/no-such-port"), 115200));
        PtyPair pty;
        pty.publish();
        QVERIFY(communicator.open(pty.slavePath(), 115200));
        // Only END and ESC are escaped; the escape codes alone stay as they are.
        QVERIFY(communicator.write(QByteArray::fromHex("01c0dbdcdd")));
        QCOMPARE(pty.readMaster(1000, 9), QByteArray::fromHex("c001dbdcdbdddcddc0"));
        // A port that cannot be found or opened, and a deliberate close, report neither an error
        // nor a disconnect.
        communicator.close();
        QTest::qWait(50);
        QCOMPARE(errors.count() + disconnects.count(), 0);
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
        QVERIFY(!disconnects.first().first().toString().isEmpty()); // the reason
        QVERIFY(errors.count() >= 1);                               // the port's error is relayed
        // Closed, the hung-up terminal no longer drives a loop of read errors.
        const int errorsAfterClose = errors.count();
        QTest::qWait(300);
        QCOMPARE(errors.count(), errorsAfterClose);
        QCOMPARE(disconnects.count(), 1);
    }
};

QTEST_GUILESS_MAIN(TestEspCommunicator)
#include "tst_espcommunicator.moc"
