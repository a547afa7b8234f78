#include "protocol/espprotocol.h"

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
} // namespace

class TestEspProtocol : public QObject
{
    Q_OBJECT

private slots:
    void encode_data();
    void encode();
    void decode_data();
    void decode();
    void encodeDecodeRoundTrip();
    void flushKeepsHalfPacket();
    void flushQueueChoice();
    void packetsComeOutInOrder();
};

void TestEspProtocol::encode_data()
{
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("frame");

    QTest::newRow("empty") << QByteArray() << bytes({0xC0, 0xC0});
    QTest::newRow("plain") << bytes({1, 2, 3}) << bytes({0xC0, 1, 2, 3, 0xC0});
    QTest::newRow("end and esc") << bytes({0xC0, 0xDB})
                                 << bytes({0xC0, 0xDB, 0xDC, 0xDB, 0xDD, 0xC0});
    QTest::newRow("specials inside runs")
        << bytes({1, 0xC0, 2, 3, 0xDB, 4})
        << bytes({0xC0, 1, 0xDB, 0xDC, 2, 3, 0xDB, 0xDD, 4, 0xC0});
    QTest::newRow("escape bytes alone stay")
        << bytes({0xDC, 0xDD}) << bytes({0xC0, 0xDC, 0xDD, 0xC0});
}

void TestEspProtocol::encode()
{
    QFETCH(QByteArray, data);
    QFETCH(QByteArray, frame);
    QCOMPARE(ESPProtocol::encode(data), frame);
}

void TestEspProtocol::decode_data()
{
    QTest::addColumn<QList<QByteArray>>("chunks");
    QTest::addColumn<QList<QByteArray>>("packets");

    using L = QList<QByteArray>;
    QTest::newRow("one frame") << L{bytes({0xC0, 1, 2, 0xC0})} << L{bytes({1, 2})};
    QTest::newRow("split over feeds")
        << L{bytes({0xC0, 1}), bytes({2, 0xDB}), bytes({0xDC, 3}), bytes({0xC0})}
        << L{bytes({1, 2, 0xC0, 3})};
    QTest::newRow("escaped esc") << L{bytes({0xC0, 0xDB, 0xDD, 0xC0})} << L{bytes({0xDB})};
    QTest::newRow("back to back") << L{bytes({0xC0, 1, 0xC0, 0xC0, 2, 0xC0})}
                                  << L{bytes({1}), bytes({2})};
    QTest::newRow("abandoned escape drops frame, final end opens a new one")
        << L{bytes({0xC0, 0xDB, 0x01, 0xC0, 5, 0xC0})} << L{bytes({5})};
    QTest::newRow("noise before start dropped") << L{bytes({7, 8, 0xC0, 9, 0xC0})} << L{bytes({9})};
    QTest::newRow("empty frame leaves decoder waiting")
        << L{bytes({0xC0, 0xC0, 4, 5, 0xC0, 6, 0xC0})} << L{bytes({6})};
    QTest::newRow("shared delimiter is not enough")
        << L{bytes({0xC0, 1, 0xC0, 2, 0xC0})} << L{bytes({1})};
    QTest::newRow("unterminated frame stays pending") << L{bytes({0xC0, 1, 2})} << L{};
}

void TestEspProtocol::decode()
{
    QFETCH(QList<QByteArray>, chunks);
    QFETCH(QList<QByteArray>, packets);
    ESPProtocol protocol;
    QSignalSpy ready(&protocol, &ESPProtocol::packetReady);
    for (const QByteArray &chunk : chunks)
        protocol.feed(chunk);
    QCOMPARE(ready.count(), packets.size());
    for (const QByteArray &packet : packets)
        QCOMPARE(protocol.deque(), packet);
    QVERIFY(protocol.deque().isNull());
}

void TestEspProtocol::encodeDecodeRoundTrip()
{
    QByteArray all;
    for (int i = 0; i < 4096; ++i)
        all.append(char((i * 37) & 0xFF));
    ESPProtocol protocol;
    const QByteArray frame = ESPProtocol::encode(all);
    // Feed in awkward pieces so that escapes are split between calls.
    for (int i = 0; i < frame.size(); i += 7)
        protocol.feed(frame.mid(i, 7));
    QCOMPARE(protocol.deque(), all);
}

void TestEspProtocol::flushKeepsHalfPacket()
{
    ESPProtocol protocol;
    protocol.feed(bytes({0xC0, 1, 2}));
    protocol.flush(true);
    // The collected bytes become the head of the next frame's packet.
    protocol.feed(bytes({0xC0, 3, 0xC0}));
    QCOMPARE(protocol.deque(), bytes({1, 2, 3}));
}

void TestEspProtocol::flushQueueChoice()
{
    ESPProtocol protocol;
    protocol.feed(bytes({0xC0, 1, 0xC0}));
    protocol.flush(false);
    QCOMPARE(protocol.queuedPackets(), 1);
    protocol.flush(true);
    QCOMPARE(protocol.queuedPackets(), 0);
    QVERIFY(protocol.deque().isEmpty());
}

void TestEspProtocol::packetsComeOutInOrder()
{
    ESPProtocol protocol;
    for (int i = 1; i <= 5; ++i)
        protocol.feed(ESPProtocol::encode(QByteArray(i, char(i))));
    for (int i = 1; i <= 5; ++i)
        QCOMPARE(protocol.deque(), QByteArray(i, char(i)));
}

QTEST_GUILESS_MAIN(TestEspProtocol)
#include "tst_espprotocol.moc"
