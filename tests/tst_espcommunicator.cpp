#include "protocol/espprotocol.h"
#include "ptypair.h"
#include "serial/espcommunicator.h"

#include <QSignalSpy>
#include <QtTest>

namespace {
QByteArray bytes(std::initializer_list<int> values)
{
    QByteArray result;
    for (const int v : values)
        result.append(char(v));
    return result;
}
using Chunks = QList<QByteArray>;
} // namespace

// The serial link: SLIP framing (round trips and random chunking are left to the SLIP fuzz
// target; these pin the quirks) and the port that carries it.
class TestEspCommunicator : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { qRegisterMetaType<QSerialPort::SerialPortError>(); }

    void encode()
    {
        QCOMPARE(ESPProtocol::encode(QByteArray()), bytes({0xC0, 0xC0}));
        // Only END and ESC are escaped; the escape codes alone stay as they are.
        QCOMPARE(ESPProtocol::encode(bytes({1, 0xC0, 0xDB, 0xDC, 0xDD})),
                 bytes({0xC0, 1, 0xDB, 0xDC, 0xDB, 0xDD, 0xDC, 0xDD, 0xC0}));
    }

    void decode_data()
    {
        QTest::addColumn<Chunks>("chunks");
        QTest::addColumn<Chunks>("packets");
        QTest::newRow("split over feeds, escape split too")
            << Chunks{bytes({0xC0, 1}), bytes({2, 0xDB}), bytes({0xDC, 0xDB}), bytes({0xDD, 0xC0})}
            << Chunks{bytes({1, 2, 0xC0, 0xDB})};
        QTest::newRow("back to back, in order")
            << Chunks{bytes({0xC0, 1, 0xC0, 0xC0, 2, 0xC0})} << Chunks{bytes({1}), bytes({2})};
        QTest::newRow("abandoned escape drops frame, final end opens a new one")
            << Chunks{bytes({0xC0, 0xDB, 0x01, 0xC0, 5, 0xC0})} << Chunks{bytes({5})};
        QTest::newRow("noise before start dropped")
            << Chunks{bytes({7, 8, 0xC0, 9, 0xC0})} << Chunks{bytes({9})};
        QTest::newRow("empty frame leaves decoder waiting")
            << Chunks{bytes({0xC0, 0xC0, 4, 5, 0xC0, 6, 0xC0})} << Chunks{bytes({6})};
        QTest::newRow("shared delimiter is not enough")
            << Chunks{bytes({0xC0, 1, 0xC0, 2, 0xC0})} << Chunks{bytes({1})};
        QTest::newRow("unterminated frame stays pending")
            << Chunks{bytes({0xC0, 1, 2})} << Chunks{};
    }

    void decode()
    {
        QFETCH(Chunks, chunks);
        QFETCH(Chunks, packets);
        ESPProtocol protocol;
        QSignalSpy ready(&protocol, &ESPProtocol::packetReady);
        for (const QByteArray &chunk : chunks)
            protocol.feed(chunk);
        QCOMPARE(ready.count(), packets.size());
        for (const QByteArray &packet : packets)
            QCOMPARE(protocol.deque(), packet);
        QVERIFY(protocol.deque().isNull());
    }

    void flushKeepsHalfPacket()
    {
        ESPProtocol protocol;
        protocol.feed(bytes({0xC0, 7, 0xC0, 0xC0, 1, 2}));
        protocol.flush(false);
        QCOMPARE(protocol.queuedPackets(), 1);
        protocol.flush(true);
        QCOMPARE(protocol.queuedPackets(), 0);
        // The collected bytes become the head of the next frame's packet.
        protocol.feed(bytes({0xC0, 3, 0xC0}));
        QCOMPARE(protocol.deque(), bytes({1, 2, 3}));
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
        QCOMPARE(pty.readMaster(1000, 5), QByteArray("\xC0\x01\xDB\xDC\xC0", 5));
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
