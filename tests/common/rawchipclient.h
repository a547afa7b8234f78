#pragma once

#include "protocol/espprotocol.h"

#include <QByteArray>
#include <QString>

#include <initializer_list>

// A deliberately small serial client for testing the virtual chip on its own: plain POSIX
// termios, requests built by hand, and every received byte kept, so tests can look at the wire.
class RawChipClient
{
public:
    struct Answer
    {
        bool valid = false; // a frame of at least 10 bytes with direction 1 arrived
        quint8 opcode = 0;
        quint16 length = 0; // body length field
        quint32 value = 0;
        QByteArray body; // including the two status bytes
        quint8 status() const { return body.size() >= 2 ? quint8(body[body.size() - 2]) : 0xFF; }
        quint8 error() const { return body.size() >= 2 ? quint8(body[body.size() - 1]) : 0xFF; }
    };

    RawChipClient() = default;
    ~RawChipClient() { close(); }
    RawChipClient(const RawChipClient &) = delete;
    RawChipClient &operator=(const RawChipClient &) = delete;

    bool open(const QString &path);
    void close();

    bool writeRaw(const QByteArray &bytes);
    bool sendPacket(const QByteArray &packet) { return writeRaw(ESPProtocol::encode(packet)); }
    bool sendCommand(quint8 opcode, const QByteArray &payload, quint32 checksum = 0);
    // FLASH_DATA / MEM_DATA with the data header and the data checksum (spoiled on request).
    bool sendData(quint8 opcode, const QByteArray &data, quint32 sequence, bool goodSum = true);
    bool sendAck(quint32 totalReceived) { return sendPacket(words({totalReceived})); }

    // Next complete frame, unescaped; empty when none arrives within the time.
    QByteArray readFrame(int timeoutMs = 2000);
    Answer readAnswer(int timeoutMs = 2000);
    Answer command(quint8 opcode, const QByteArray &payload, int timeoutMs = 2000);
    quint32 readReg(quint32 address); // 0xFFFFFFFF without a successful answer
    int sync(int timeoutMs = 500);    // the number of answers to one SYNC
    // Downloads `code` (one RAM block) to `address` and jumps there; true once it greeted.
    bool startLoader(quint32 address, const QByteArray &code);

    QByteArray wire() const { return m_wire; } // every byte received so far
    bool waitForHangUp(int timeoutMs = 2000);  // true once a read saw EOF or EIO

    static QByteArray words(std::initializer_list<quint32> values);
    static quint8 checksum(const QByteArray &data);
    static QByteArray syncPayload();

private:
    bool fill(int timeoutMs); // false when nothing arrived in time
    bool takeFrame(QByteArray *frame);

    int m_fd = -1;
    QByteArray m_wire;
    int m_decoded = 0; // bytes of m_wire already run through the decoder
    QByteArray m_frame;
    bool m_escaped = false;
    bool m_skipping = false; // inside a frame with an invalid escape
    bool m_hungUp = false;
};
