// Fuzz target: the SLIP decoder. Feeds the input in chunks (with flushes in between) and checks
// the packets against a plain byte-by-byte reading of the framing rules, that chunking does not
// matter, and that encoding round-trips both the decoded packets and the raw input.

#include "fuzzsupport.h"
#include "protocol/espprotocol.h"

#include <QByteArray>
#include <QList>
#include <QObject>

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdio>
#include <cstdlib>

namespace {

// The framing rules one byte at a time, without shortcuts: the reference for the decoder.
class ReferenceSlip
{
public:
    void feed(const QByteArray &bytes)
    {
        for (const char c : bytes)
            step(quint8(c));
    }
    void flush(bool clearQueue)
    {
        m_state = 0;
        if (clearQueue)
            packets.clear();
    }
    QList<QByteArray> packets;

private:
    void step(quint8 byte)
    {
        switch (m_state) {
        case 0:
            if (byte == 0xC0)
                m_state = 1;
            break;
        case 1:
            if (byte == 0xC0) {
                // A delimiter ends a frame and opens the next one.
                m_state = 1;
                if (!m_packet.isEmpty())
                    packets.append(m_packet);
                m_packet.clear();
            } else if (byte == 0xDB) {
                m_state = 2;
            } else {
                m_packet.append(char(byte));
            }
            break;
        default:
            if (byte == 0xDD || byte == 0xDC) {
                m_packet.append(char(byte == 0xDD ? 0xDB : 0xC0));
                m_state = 1;
            } else {
                m_state = 0;
                m_packet.clear();
            }
            break;
        }
    }

    int m_state = 0;
    QByteArray m_packet;
};

QList<QByteArray> drain(ESPProtocol &protocol)
{
    QList<QByteArray> packets;
    for (QByteArray packet = protocol.deque(); !packet.isNull(); packet = protocol.deque())
        packets.append(packet);
    return packets;
}

QList<QByteArray> decodeWhole(const QByteArray &bytes)
{
    ESPProtocol protocol;
    protocol.feed(bytes);
    return drain(protocol);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    // The first bytes steer chunking and flushes; the rest is the line.
    const quint32 steering = input.ConsumeIntegral<quint32>();
    const bool withFlushes = steering & 1;
    const std::string rest = input.ConsumeRemainingBytesAsString();
    const QByteArray line(rest.data(), int(rest.size()));

    ESPProtocol protocol;
    int readySignals = 0;
    QObject::connect(&protocol, &ESPProtocol::packetReady, [&readySignals] { ++readySignals; });
    ReferenceSlip reference;

    // Chunk lengths follow the steering word, cycling through small and odd sizes.
    int offset = 0;
    quint32 walk = steering | 1u;
    while (offset < line.size()) {
        walk = walk * 1103515245u + 12345u;
        const int chunk = 1 + int((walk >> 16) % 37);
        const QByteArray piece = line.mid(offset, chunk);
        offset += piece.size();
        protocol.feed(piece);
        reference.feed(piece);
        if (withFlushes && (walk & 0x700) == 0) {
            // Only the state is reset: a half-assembled packet survives on purpose.
            protocol.flush(false);
            reference.flush(false);
        }
    }
    check(protocol.queuedPackets() == reference.packets.size(), "queued packets match reference");
    const QList<QByteArray> packets = drain(protocol);
    check(packets == reference.packets, "packets match the byte-by-byte reading");
    check(protocol.deque().isNull(), "empty queue gives a null array");
    if (!withFlushes) {
        check(readySignals == packets.size(), "one packetReady per packet");
        check(decodeWhole(line) == packets, "chunking does not change the packets");
        // Dropping noise removes exactly the frames that cannot be answers, nothing else.
        ESPProtocol answers;
        answers.setAnswersOnly(true);
        answers.feed(line);
        QList<QByteArray> expected;
        for (const QByteArray &packet : packets) {
            if (ESPProtocol::canBeAnswer(packet))
                expected.append(packet);
        }
        check(drain(answers) == expected, "answers only keeps the answers");
    }

    QByteArray stream;
    for (const QByteArray &packet : packets) {
        check(!packet.isEmpty(), "no empty packet is queued");
        const QByteArray frame = ESPProtocol::encode(packet);
        check(frame.size() >= packet.size() + 2, "a frame is at least the packet and two ENDs");
        check(quint8(frame.front()) == 0xC0 && quint8(frame.back()) == 0xC0, "frame delimiters");
        check(!frame.mid(1, frame.size() - 2).contains(char(0xC0)), "no END inside a frame");
        const QList<QByteArray> again = decodeWhole(frame);
        check(again.size() == 1 && again.first() == packet, "a decoded packet re-encodes");
        stream += frame;
    }
    check(decodeWhole(stream) == packets, "re-encoded packets back to back decode the same");

    const QList<QByteArray> raw = decodeWhole(ESPProtocol::encode(line));
    if (line.isEmpty())
        check(raw.isEmpty(), "an empty frame gives no packet");
    else
        check(raw.size() == 1 && raw.first() == line, "any bytes round-trip through a frame");
    return 0;
}
