#include "espprotocol.h"

namespace {
constexpr int encodeReserve = 10;
constexpr int answerHeaderSize = 8;
constexpr quint8 answerDirection = 0x01;
} // namespace

ESPProtocol::ESPProtocol(QObject *parent) : QObject(parent) {}

QByteArray ESPProtocol::encode(const QByteArray &data)
{
    QByteArray frame;
    frame.reserve(data.size() + encodeReserve);
    frame.append(char(SLIP_END));
    const char *const begin = data.constData();
    const char *const end = begin + data.size();
    const char *run = begin;
    for (const char *p = begin; p != end; ++p) {
        const quint8 byte = static_cast<quint8>(*p);
        if (byte != SLIP_END && byte != SLIP_ESC)
            continue;
        // Copy the run of ordinary bytes in one piece, then the escape pair.
        frame.append(run, int(p - run));
        frame.append(char(SLIP_ESC));
        frame.append(char(byte == SLIP_END ? SLIP_ESC_END : SLIP_ESC_ESC));
        run = p + 1;
    }
    frame.append(run, int(end - run));
    frame.append(char(SLIP_END));
    return frame;
}

void ESPProtocol::feed(const QByteArray &data)
{
    const char *const begin = data.constData();
    const char *const end = begin + data.size();
    for (const char *p = begin; p != end; ++p) {
        const quint8 byte = static_cast<quint8>(*p);
        switch (m_state) {
        case WaitingForStart:
            if (byte == SLIP_END)
                m_state = InFrame;
            break;
        case InFrame:
            if (byte == SLIP_END) {
                endFrame();
            } else if (byte == SLIP_ESC) {
                m_state = AfterEscape;
            } else {
                // Take the whole run of ordinary bytes at once: flash data arrives in 4 KiB frames.
                const char *runEnd = p + 1;
                while (runEnd != end && static_cast<quint8>(*runEnd) != SLIP_END &&
                       static_cast<quint8>(*runEnd) != SLIP_ESC)
                    ++runEnd;
                m_packet.append(p, int(runEnd - p));
                p = runEnd - 1;
            }
            break;
        case AfterEscape:
            if (byte == SLIP_ESC_ESC) {
                m_packet.append(char(SLIP_ESC));
                m_state = InFrame;
            } else if (byte == SLIP_ESC_END) {
                m_packet.append(char(SLIP_END));
                m_state = InFrame;
            } else {
                // A broken escape abandons the frame.
                m_state = WaitingForStart;
                m_packet.clear();
            }
            break;
        }
    }
}

void ESPProtocol::endFrame()
{
    // Every delimiter both ends a frame and may open the next one: a stray 0xC0 or a half frame
    // must not leave the decoder reading the gaps between frames as frames. An empty frame is
    // no frame at all.
    m_state = InFrame;
    if (m_packet.isEmpty())
        return;
    if (m_answersOnly && !canBeAnswer(m_packet)) {
        ++m_droppedFrames;
        m_packet.clear();
        return;
    }
    m_queue.append(m_packet);
    m_packet.clear();
    emit packetReady();
}

bool ESPProtocol::canBeAnswer(const QByteArray &frame)
{
    return frame.size() >= answerHeaderSize && quint8(frame.at(0)) == answerDirection;
}

QByteArray ESPProtocol::deque()
{
    if (m_queue.isEmpty())
        return QByteArray();
    return m_queue.takeFirst();
}

void ESPProtocol::flush(bool clearQueue)
{
    m_state = WaitingForStart;
    if (clearQueue)
        m_queue.clear();
}
