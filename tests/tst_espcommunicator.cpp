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
        QTest::addColumn<bool>("answersOnly");   // frames that cannot be answers are noise
        QTest::addColumn<QByteArray>("packets"); // hex, a space between two packets
        const auto row = [](const char *name, const char *chunks, const char *packets,
                            bool answersOnly = false) {
            QTest::newRow(name) << QByteArray(chunks) << answersOnly << QByteArray(packets);
        };
        // An answer to SYNC, as a frame body.
        const QByteArray answer = "01080200000000000000";
        const auto answerRow = [&](const char *name, const QByteArray &before, bool answersOnly,
                                   const char *expectedBefore = "") {
            QByteArray expected = expectedBefore;
            if (!expected.isEmpty())
                expected += ' ';
            QTest::newRow(name) << (before + "c0" + answer + "c0") << answersOnly
                                << expected + answer;
        };
        row("split over feeds, escape split too", "c001 02db dcdb ddc0", "0102c0db");
        row("back to back, in order", "c001c0c002c0", "01 02");
        row("abandoned escape drops frame, final end opens a new one", "c0db01c005c0", "05");
        row("noise before start dropped", "0708c009c0", "09");
        row("empty frame does not desync", "c0c00405c006c0", "0405 06");
        row("unterminated frame stays pending", "c00102", "");
        // The bytes collected before a flush become the head of the next frame's packet.
        row("flush keeps the half packet", "c00102 flush c003c0", "010203");
        answerRow("several stray ends", "c0c0 c0", true);
        answerRow("garbage then frame", "c06574732c20c0 0102", true);
        answerRow("garbage then frame, raw", "c06574732c20", false, "6574732c20");
        // Boot messages at another baud rate look like random bytes, delimiters included.
        answerRow("boot noise then frame", "3ff2c08a11c0e06cc0 fe00", true);
        answerRow("half frame then frame", "c0010802", true);
        answerRow("escape error then frame", "c00108dbff0000", true);
        row("answers between noise frames keep in step",
            "c0aabbc0c001080200000000000000c0 99c00108020000000000ffff c0",
            "01080200000000000000 0108020000000000ffff", true);
    }

    void decode()
    {
        QFETCH(QByteArray, chunks);
        QFETCH(bool, answersOnly);
        QFETCH(QByteArray, packets);
        ESPProtocol protocol;
        protocol.setAnswersOnly(answersOnly);
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
};

QTEST_GUILESS_MAIN(TestEspCommunicator)
#include "tst_espcommunicator.moc"
