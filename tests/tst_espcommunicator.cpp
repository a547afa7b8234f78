#include "protocol/espprotocol.h"
#include "ptypair.h"
#include "serial/espcommunicator.h"

#include <QSignalSpy>
#include <QtTest>

// The serial link: SLIP framing (round trips and random chunking are left to the SLIP fuzz
// target; these pin the quirks) and the port that carries it.
class TestEspCommunicator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qRegisterMetaType<QSerialPort::SerialPortError>(); }

    void encode()
    {
        QCOMPARE(ESPProtocol::encode(QByteArray()), QByteArray::fromHex("c0c0"));
        // Only END and ESC are escaped; the escape codes alone stay as they are.
        QCOMPARE(ESPProtocol::encode(QByteArray::fromHex("01c0dbdcdd")),
                 QByteArray::fromHex("c001dbdcdbdddcddc0"));
    }

    void decode_data()
    {
        QTest::addColumn<QByteArray>("chunks");  // hex, a space between two feeds
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
    }

    void decode()
    {
        QFETCH(QByteArray, chunks);
        QFETCH(QByteArray, packets);
        ESPProtocol protocol;
        QSignalSpy ready(&protocol, &ESPProtocol::packetReady);
        for (const QByteArray &chunk : chunks.split(' '))
            protocol.feed(QByteArray::fromHex(chunk));
        const QList<QByteArray> expected =
            packets.isEmpty() ? QList<QByteArray>() : packets.split(' ');
        QCOMPARE(ready.count(), expected.size());
        for (const QByteArray &packet : expected)
            QCOMPARE(protocol.deque(), QByteArray::fromHex(packet));
        QVERIFY(protocol.deque().isNull());
    }

    void flushKeepsHalfPacket()
    {
        ESPProtocol protocol;
        protocol.feed(QByteArray::fromHex("c007c0c00102"));
        protocol.flush(false);
        QCOMPARE(protocol.queuedPackets(), 1);
        protocol.flush(true);
        QCOMPARE(protocol.queuedPackets(), 0);
        // The collected bytes become the head of the next frame's packet.
        protocol.feed(QByteArray::fromHex("c003c0"));
        QCOMPARE(protocol.deque(), QByteArray::fromHex("010203"));
    }

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
        QCOMPARE(pty.readMaster(1000, 5), QByteArray::fromHex("c001dbdcc0"));
        QVERIFY(communicator.setBaudrate(921600));
        QVERIFY(communicator.dumpInfo().endsWith(QStringLiteral(" @921600")));
        // A deliberate close is silent.
        communicator.close();
        QVERIFY(!communicator.isOpen());
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
        QVERIFY(!communicator.write("x"));
    }
};

QTEST_GUILESS_MAIN(TestEspCommunicator)
#include "tst_espcommunicator.moc"
