#include "answerpeer.h"

#include <QCryptographicHash>
#include <QtEndian>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

namespace {

// A client that has had no answer for this long (ms) waits for something that is not coming.
constexpr int stallMs = 2;
// Records given to a client that waits without asking, before the peer falls silent until the
// next request: a client that waits for a quiet line (after a sync, say) must get one.
constexpr int maxStallReplies = 8;
// Flash read packets of the loader (bytes); the client asks for this size.
constexpr int readPacketSize = 4096;

// Opcodes the model answers (byte 1 of requests and answers).
enum ModelOpcode : quint8 {
    FlashBegin = 0x02,  // {erase size, blocks, block size, offset}
    FlashData = 0x03,   // {size, sequence, 0, 0, data}; also the flash end with 4 bytes
    MemBegin = 0x05,    // RAM download start
    MemEnd = 0x06,      // {0 = jump, entry}: starts the loader, which greets
    MemData = 0x07,     // RAM block
    Sync = 0x08,        // answered eight times, like the ROM does
    WriteReg = 0x09,    // ignored
    ReadReg = 0x0A,     // value from the register model
    SpiFlashMd5 = 0x13, // {offset, size, 0, 0}
    EraseFlash = 0xD0,  // the whole model flash
    EraseRegion = 0xD1, // {offset, size}
    ReadFlash = 0xD2,   // {offset, size, packet size, in flight}
};

QByteArray word(quint32 value)
{
    char bytes[4];
    qToLittleEndian(value, bytes);
    return QByteArray(bytes, 4);
}

quint32 wordAt(const QByteArray &bytes, int offset)
{
    if (offset < 0 || offset + 4 > bytes.size())
        return 0;
    return qFromLittleEndian<quint32>(bytes.constData() + offset);
}

QByteArray response(quint8 opcode, const QByteArray &body, quint32 value = 0)
{
    QByteArray packet;
    packet.append(char(0x01)).append(char(opcode));
    char length[2];
    qToLittleEndian(quint16(body.size()), length);
    packet.append(length, 2).append(word(value)).append(body);
    return packet;
}

QByteArray ok(quint8 opcode, const QByteArray &data = QByteArray(), quint32 value = 0)
{
    return response(opcode, data + QByteArray(2, '\0'), value);
}

// SLIP framing written here on its own, so that the client's encoder is not its own referee.
QByteArray frame(const QByteArray &packet)
{
    QByteArray out(1, char(0xC0));
    for (const char c : packet) {
        if (quint8(c) == 0xC0)
            out.append("\xDB\xDC", 2);
        else if (quint8(c) == 0xDB)
            out.append("\xDB\xDD", 2);
        else
            out.append(c);
    }
    return out.append(char(0xC0));
}

} // namespace

AnswerPeer::AnswerPeer()
{
    char name[256] = {};
    termios raw{};
    cfmakeraw(&raw);
    if (openpty(&m_master, &m_slave, name, &raw, nullptr) != 0) {
        m_master = m_slave = -1;
        return;
    }
    m_slavePath = QString::fromLocal8Bit(name);
    ::fcntl(m_master, F_SETFL, ::fcntl(m_master, F_GETFL) | O_NONBLOCK);
    m_readNotifier = std::make_unique<QSocketNotifier>(m_master, QSocketNotifier::Read);
    m_writeNotifier = std::make_unique<QSocketNotifier>(m_master, QSocketNotifier::Write);
    m_readNotifier->setEnabled(false);
    m_writeNotifier->setEnabled(false);
    connect(m_readNotifier.get(), &QSocketNotifier::activated, this, &AnswerPeer::readRequests);
    connect(m_writeNotifier.get(), &QSocketNotifier::activated, this, &AnswerPeer::writePending);
    m_stallTimer.setSingleShot(true);
    m_stallTimer.setInterval(stallMs);
    connect(&m_stallTimer, &QTimer::timeout, this, &AnswerPeer::clientStalled);
}

AnswerPeer::~AnswerPeer()
{
    m_readNotifier.reset();
    m_writeNotifier.reset();
    if (m_master >= 0)
        ::close(m_master);
    if (m_slave >= 0)
        ::close(m_slave);
}

void AnswerPeer::begin(ScriptSource script)
{
    discardInFlight();
    m_script = std::move(script);
    m_scriptedReplies = 0;
    m_stallReplies = 0;
    m_flash = QByteArray(int(modelFlashSize), char(0xFF));
    m_writeAddress = m_writeOffset = 0;
    m_stub = false;
    m_lastOpcode = 0;
    m_active = isValid();
    if (m_active)
        m_readNotifier->setEnabled(true);
}

void AnswerPeer::end()
{
    m_active = false;
    m_stallTimer.stop();
    if (isValid()) {
        m_readNotifier->setEnabled(false);
        m_writeNotifier->setEnabled(false);
    }
    discardInFlight();
    m_script = ScriptSource();
}

void AnswerPeer::discardInFlight()
{
    m_out.clear();
    m_packet.clear();
    m_inFrame = m_escaped = false;
    if (!isValid())
        return;
    char sink[4096];
    while (::read(m_master, sink, sizeof sink) > 0) {
    }
    // Both queues of the terminal: answers the client never read, requests not yet seen.
    ::tcflush(m_slave, TCIOFLUSH);
    ::tcflush(m_master, TCIOFLUSH);
}

QByteArray AnswerPeer::modelFlash(quint32 offset, quint32 size) const
{
    if (offset >= modelFlashSize)
        return QByteArray();
    return m_flash.mid(int(offset), int(qMin<quint32>(size, modelFlashSize - offset)));
}

quint8 AnswerPeer::scriptByte()
{
    const QByteArray byte = m_script ? m_script(1) : QByteArray();
    return byte.isEmpty() ? 0 : quint8(byte.at(0));
}

quint32 AnswerPeer::scriptWord()
{
    QByteArray bytes = m_script ? m_script(4) : QByteArray();
    bytes.append(4 - bytes.size(), '\0');
    return wordAt(bytes, 0);
}

void AnswerPeer::readRequests()
{
    char chunk[4096];
    for (;;) {
        const ssize_t n = ::read(m_master, chunk, sizeof chunk);
        if (n <= 0)
            break;
        for (ssize_t i = 0; i < n && m_active; ++i) {
            const quint8 byte = quint8(chunk[i]);
            if (!m_inFrame) {
                m_inFrame = byte == 0xC0;
            } else if (m_escaped) {
                m_packet.append(byte == 0xDC ? char(0xC0) : char(0xDB));
                m_escaped = false;
            } else if (byte == 0xDB) {
                m_escaped = true;
            } else if (byte != 0xC0) {
                m_packet.append(char(byte));
            } else if (!m_packet.isEmpty()) {
                const QByteArray request = m_packet;
                m_packet.clear();
                m_inFrame = false;
                handleRequest(request);
            }
        }
    }
    if (m_active)
        m_stallTimer.start();
}

void AnswerPeer::clientStalled()
{
    // A request that arrived while the client was busy is an answer owed, not a stall.
    pollfd pending{m_master, POLLIN, 0};
    if (m_active && ::poll(&pending, 1, 0) > 0 && (pending.revents & POLLIN)) {
        readRequests();
        return;
    }
    // The client waits for more than it asked an answer for: give it the next record. Not an
    // answer of the chip model, whatever the record says.
    if (!m_active || m_stallReplies >= maxStallReplies)
        return;
    if (m_out.isEmpty()) {
        ++m_scriptedReplies;
        ++m_stallReplies;
        send(nextRecordReply(QByteArray()));
    }
    m_stallTimer.start();
}

void AnswerPeer::handleRequest(const QByteArray &request)
{
    m_stallReplies = 0;
    if (request.size() >= 8 && request.at(0) == 0)
        m_lastOpcode = quint8(request.at(1));
    send(nextRecordReply(request));
}

void AnswerPeer::send(const QByteArray &bytes)
{
    m_out.append(bytes);
    writePending();
}

void AnswerPeer::writePending()
{
    while (!m_out.isEmpty()) {
        const ssize_t n = ::write(m_master, m_out.constData(), size_t(m_out.size()));
        if (n <= 0)
            break;
        m_out.remove(0, int(n));
    }
    m_writeNotifier->setEnabled(m_active && !m_out.isEmpty());
    m_stallTimer.start();
}

QByteArray AnswerPeer::modelReply(const QByteArray &request)
{
    return request.isEmpty() ? frame(ok(m_lastOpcode)) : correctReply(request);
}

QByteArray AnswerPeer::nextRecordReply(const QByteArray &request)
{
    const QByteArray modeByte = m_script ? m_script(1) : QByteArray();
    if (modeByte.isEmpty())
        return modelReply(request);
    const quint8 requestOpcode = request.size() >= 2 ? quint8(request.at(1)) : m_lastOpcode;
    const quint8 mode = quint8(modeByte.at(0));
    const bool thenCorrect = mode & 0x80;
    switch (mode % 8) {
    case 3: {
        // Refused with the script's status and error bytes (status never 0).
        QByteArray packet = ok(requestOpcode);
        packet[packet.size() - 2] = char(scriptByte() | 1);
        packet[packet.size() - 1] = char(scriptByte());
        ++m_scriptedReplies;
        return frame(packet) + (thenCorrect ? modelReply(request) : QByteArray());
    }
    case 4:
        ++m_scriptedReplies;
        return frame(fuzzedPacket(requestOpcode));
    case 5: {
        // A plausible answer with a few bytes overwritten or appended.
        QByteArray packet = ok(requestOpcode);
        if (requestOpcode == ReadReg)
            packet = ok(ReadReg, QByteArray(), registerValue(wordAt(request, 8)));
        const int edits = 1 + scriptByte() % 3;
        for (int i = 0; i < edits; ++i) {
            const int at = scriptByte() % (packet.size() + 2);
            const char value = char(scriptByte());
            if (at < packet.size())
                packet[at] = value;
            else
                packet.append(value);
        }
        ++m_scriptedReplies;
        return frame(packet) + (thenCorrect ? modelReply(request) : QByteArray());
    }
    case 6: {
        // Several packets in one burst: foreign ones and the right one, in any order.
        QByteArray burst;
        const int count = 1 + scriptByte() % 4;
        for (int i = 0; i < count; ++i)
            burst += (scriptByte() & 1) ? frame(fuzzedPacket(requestOpcode)) : modelReply(request);
        ++m_scriptedReplies;
        return burst;
    }
    case 7: {
        // Line noise, then an escape with an invalid code: whatever state the noise left the
        // client's decoder in, the half frame is abandoned and the answer after it gets through.
        const int length = scriptByte() % 64;
        const QByteArray noise = m_script ? m_script(length) : QByteArray();
        ++m_scriptedReplies;
        return noise + QByteArray("\xDB\x01", 2) + modelReply(request);
    }
    default:
        return modelReply(request);
    }
}

QByteArray AnswerPeer::fuzzedPacket(quint8 requestOpcode)
{
    const quint8 flags = scriptByte();
    int bodyLength = scriptByte() % 48;
    if (flags & 0x40)
        bodyLength = readPacketSize - 8 + int(scriptByte() % 16); // about a flash read packet
    QByteArray body = m_script ? m_script(bodyLength) : QByteArray();
    // A short script still gives a body of the chosen length.
    while (body.size() < bodyLength)
        body.append(char(body.size() * 29 + 7));
    if (flags & 0x20) {
        // Raw bytes without a header: flash read data, digests, greetings.
        return body.isEmpty() ? QByteArray(1, char(flags)) : body;
    }
    QByteArray packet;
    packet.append(char((flags & 1) ? 0x01 : scriptByte()));
    packet.append(char((flags & 2) ? requestOpcode : scriptByte()));
    char length[2];
    qToLittleEndian(quint16((flags & 4) ? scriptByte() : body.size()), length);
    packet.append(length, 2);
    packet.append(word((flags & 8) ? scriptWord() : 0));
    return packet + body;
}

quint32 AnswerPeer::registerValue(quint32 address) const
{
    switch (address) {
    case 0x3FF00050: // eFuse word 0: chip id bits
        return 0xA1000000;
    case 0x3FF00054: // eFuse word 1: OUI 18:FE:34, MAC bytes
        return 0x0000B2C3;
    case 0x3FF00058: // eFuse word 2: an ESP8266EX
    case 0x3FF0005C: // eFuse word 3: no OUI of its own
        return 0;
    case 0x60000240: // SPI W0: the JEDEC id of a 4 MiB flash
        return 0x1640EF;
    default: // SPI command register: the command is done
        return 0;
    }
}

QByteArray AnswerPeer::correctReply(const QByteArray &request)
{
    if (request.size() == 4)
        return QByteArray(); // a flash read acknowledgement needs no answer
    if (request.size() < 8)
        return frame(response(m_lastOpcode, QByteArrayLiteral("\x01\x05")));
    const quint8 opcode = quint8(request.at(1));
    const QByteArray payload = request.mid(8);
    switch (opcode) {
    case Sync: {
        QByteArray burst;
        for (int i = 0; i < 8; ++i)
            burst += frame(ok(Sync));
        return burst;
    }
    case ReadReg:
        return frame(ok(ReadReg, QByteArray(), registerValue(wordAt(payload, 0))));
    case MemEnd: {
        QByteArray reply = frame(ok(MemEnd));
        if (wordAt(payload, 0) == 0) {
            m_stub = true;
            reply += frame(QByteArrayLiteral("OHAI"));
        }
        return reply;
    }
    case FlashBegin:
        m_writeAddress = wordAt(payload, 12);
        m_writeOffset = 0;
        return frame(ok(FlashBegin));
    case FlashData: {
        if (payload.size() > 16) {
            const QByteArray data = payload.mid(16);
            const quint64 at = quint64(m_writeAddress) + m_writeOffset;
            if (at < modelFlashSize)
                m_flash.replace(int(at), int(qMin<quint64>(data.size(), modelFlashSize - at)),
                                data.left(int(qMin<quint64>(data.size(), modelFlashSize - at))));
            m_writeOffset += quint32(data.size());
        }
        return frame(ok(FlashData));
    }
    case SpiFlashMd5: {
        const quint32 offset = wordAt(payload, 0);
        const quint32 size = wordAt(payload, 4);
        QByteArray region = modelFlash(offset, size);
        if (quint64(size) <= 16 * 1024 * 1024)
            region.append(int(size) - region.size(), char(0xFF));
        const QByteArray digest = QCryptographicHash::hash(region, QCryptographicHash::Md5);
        // The ROM answers in hexadecimal text, the loader in raw bytes.
        return frame(ok(SpiFlashMd5, m_stub ? digest : digest.toHex()));
    }
    case EraseFlash:
        m_flash.fill(char(0xFF));
        return frame(ok(EraseFlash));
    case EraseRegion: {
        const quint32 offset = wordAt(payload, 0);
        const quint32 size = wordAt(payload, 4);
        if (offset < modelFlashSize)
            m_flash.replace(int(offset), int(qMin<quint32>(size, modelFlashSize - offset)),
                            QByteArray(int(qMin<quint32>(size, modelFlashSize - offset)), '\xFF'));
        return frame(ok(EraseRegion));
    }
    case ReadFlash: {
        const quint32 offset = wordAt(payload, 0);
        const quint32 size = qMin<quint32>(wordAt(payload, 4), 64 * 1024);
        QByteArray region = modelFlash(offset, size);
        region.append(int(size) - region.size(), char(0xFF));
        QByteArray reply = frame(ok(ReadFlash));
        for (int at = 0; at < region.size(); at += readPacketSize)
            reply += frame(region.mid(at, readPacketSize));
        return reply + frame(QCryptographicHash::hash(region, QCryptographicHash::Md5));
    }
    case MemBegin:
    case MemData:
    case WriteReg:
    default:
        return frame(ok(opcode));
    }
}
