#pragma once

#include <QByteArray>
#include <QString>

#include <initializer_list>

// A deliberately small serial client for testing the virtual chip on its own: plain POSIX
// termios, requests framed by hand, and a decoder that keeps every received byte, so tests can
// look at the wire itself.
class RawChipClient
{
public:
    // One decoded answer packet.
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
    ~RawChipClient();
    RawChipClient(const RawChipClient &) = delete;
    RawChipClient &operator=(const RawChipClient &) = delete;

    bool open(const QString &path);
    void close();
    bool isOpen() const { return m_fd >= 0; }

    bool writeRaw(const QByteArray &bytes);
    // Frames `packet` and sends it.
    bool sendPacket(const QByteArray &packet);
    bool sendCommand(quint8 opcode, const QByteArray &payload, quint32 checksum = 0);
    // FLASH_DATA / MEM_DATA with the data header and the data checksum (spoiled on request).
    bool sendData(quint8 opcode, const QByteArray &data, quint32 sequence,
                  bool goodChecksum = true);
    // The 4-byte acknowledgement of a flash read.
    bool sendAck(quint32 totalReceived);

    // Next complete frame (unescaped); empty when none arrives within the time.
    QByteArray readFrame(int timeoutMs = 2000);
    Answer readAnswer(int timeoutMs = 2000);
    // Sends a command and returns the next answer.
    Answer command(quint8 opcode, const QByteArray &payload, int timeoutMs = 2000);
    // READ_REG through command(); the value word, or 0xFFFFFFFF without a valid answer.
    quint32 readReg(quint32 address);
    bool writeReg(quint32 address, quint32 value);
    // Syncs and takes the whole burst; the number of answers received.
    int sync(int timeoutMs = 500);

    // Downloads `code` to RAM at `address` and jumps to `entry`; true when the MEM_END answer
    // and then the greeting arrived.
    bool startLoader(quint32 address, const QByteArray &code, quint32 entry);

    // Every byte received so far, and whether the line hung up (EOF or EIO on read).
    QByteArray wire() const { return m_wire; }
    bool hungUp() const { return m_hungUp; }
    // Frames dropped by the decoder because of an invalid escape.
    int brokenFrames() const { return m_brokenFrames; }
    // Waits until the line hangs up; false when it did not within the time.
    bool waitForHangUp(int timeoutMs);

    static QByteArray words(std::initializer_list<quint32> values);
    static quint8 checksum(const QByteArray &data);
    static QByteArray syncPayload();

private:
    // Reads what is there (waiting up to timeoutMs for the first byte); false on time-out.
    bool fill(int timeoutMs);
    bool takeFrame(QByteArray *frame);

    int m_fd = -1;
    QByteArray m_wire;
    int m_decoded = 0; // bytes of m_wire already run through the decoder
    bool m_inFrame = false;
    bool m_escaped = false;
    QByteArray m_frame;
    bool m_hungUp = false;
    int m_brokenFrames = 0;
};
