#include "rawchipclient.h"

#include <QElapsedTimer>
#include <QtEndian>

#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

RawChipClient::~RawChipClient()
{
    close();
}

bool RawChipClient::open(const QString &path)
{
    close();
    m_fd = ::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (m_fd < 0)
        return false;
    termios attributes{};
    if (tcgetattr(m_fd, &attributes) == 0) {
        cfmakeraw(&attributes);
        tcsetattr(m_fd, TCSANOW, &attributes);
    }
    m_hungUp = false;
    m_wire.clear();
    m_decoded = 0;
    m_inFrame = false;
    m_escaped = false;
    m_frame.clear();
    m_brokenFrames = 0;
    return true;
}

void RawChipClient::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

bool RawChipClient::writeRaw(const QByteArray &bytes)
{
    int done = 0;
    QElapsedTimer timer;
    timer.start();
    while (m_fd >= 0 && done < bytes.size()) {
        const ssize_t n = ::write(m_fd, bytes.constData() + done, size_t(bytes.size() - done));
        if (n > 0) {
            done += int(n);
            continue;
        }
        if (n < 0 && errno != EAGAIN && errno != EINTR)
            return false;
        if (timer.elapsed() > 5000)
            return false;
        pollfd fd{m_fd, POLLOUT, 0};
        poll(&fd, 1, 50);
    }
    return m_fd >= 0;
}

bool RawChipClient::sendPacket(const QByteArray &packet)
{
    QByteArray frame(1, char(0xC0));
    for (const char c : packet) {
        if (quint8(c) == 0xC0)
            frame.append("\xDB\xDC", 2);
        else if (quint8(c) == 0xDB)
            frame.append("\xDB\xDD", 2);
        else
            frame.append(c);
    }
    frame.append(char(0xC0));
    return writeRaw(frame);
}

bool RawChipClient::sendCommand(quint8 opcode, const QByteArray &payload, quint32 checksum)
{
    QByteArray packet;
    packet.append(char(0x00));
    packet.append(char(opcode));
    packet.append(char(payload.size() & 0xFF));
    packet.append(char((payload.size() >> 8) & 0xFF));
    packet.append(words({checksum}));
    packet.append(payload);
    return sendPacket(packet);
}

bool RawChipClient::sendData(quint8 opcode, const QByteArray &data, quint32 sequence,
                             bool goodChecksum)
{
    const quint8 sum = checksum(data);
    const QByteArray payload = words({quint32(data.size()), sequence, 0, 0}) + data;
    return sendCommand(opcode, payload, goodChecksum ? sum : quint8(sum ^ 0x01));
}

bool RawChipClient::sendAck(quint32 totalReceived)
{
    return sendPacket(words({totalReceived}));
}

bool RawChipClient::fill(int timeoutMs)
{
    if (m_fd < 0)
        return false;
    pollfd fd{m_fd, POLLIN, 0};
    if (poll(&fd, 1, timeoutMs) <= 0)
        return false;
    char buffer[65536];
    bool got = false;
    for (;;) {
        const ssize_t n = ::read(m_fd, buffer, sizeof buffer);
        if (n > 0) {
            m_wire.append(buffer, int(n));
            got = true;
            continue;
        }
        if (n == 0 || (errno != EAGAIN && errno != EINTR))
            m_hungUp = true;
        break;
    }
    return got;
}

bool RawChipClient::takeFrame(QByteArray *frame)
{
    while (m_decoded < m_wire.size()) {
        const quint8 byte = quint8(m_wire[m_decoded++]);
        if (m_escaped) {
            m_escaped = false;
            if (byte == 0xDC) {
                m_frame.append(char(0xC0));
            } else if (byte == 0xDD) {
                m_frame.append(char(0xDB));
            } else {
                ++m_brokenFrames;
                m_frame.clear();
                m_inFrame = byte == 0xC0;
            }
            continue;
        }
        if (byte == 0xC0) {
            if (m_inFrame && !m_frame.isEmpty()) {
                *frame = m_frame;
                m_frame.clear();
                return true;
            }
            m_inFrame = true;
            continue;
        }
        if (!m_inFrame)
            continue;
        if (byte == 0xDB)
            m_escaped = true;
        else
            m_frame.append(char(byte));
    }
    return false;
}

QByteArray RawChipClient::readFrame(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    QByteArray frame;
    while (!takeFrame(&frame)) {
        const int left = timeoutMs - int(timer.elapsed());
        if (left <= 0 || m_hungUp || !fill(left))
            return QByteArray();
    }
    return frame;
}

RawChipClient::Answer RawChipClient::readAnswer(int timeoutMs)
{
    Answer answer;
    const QByteArray frame = readFrame(timeoutMs);
    if (frame.size() < 10 || quint8(frame[0]) != 0x01)
        return answer;
    answer.valid = true;
    answer.opcode = quint8(frame[1]);
    answer.length = qFromLittleEndian<quint16>(frame.constData() + 2);
    answer.value = qFromLittleEndian<quint32>(frame.constData() + 4);
    answer.body = frame.mid(8);
    return answer;
}

RawChipClient::Answer RawChipClient::command(quint8 opcode, const QByteArray &payload,
                                             int timeoutMs)
{
    if (!sendCommand(opcode, payload))
        return Answer();
    return readAnswer(timeoutMs);
}

quint32 RawChipClient::readReg(quint32 address)
{
    const Answer answer = command(0x0A, words({address}));
    return answer.valid && answer.opcode == 0x0A && answer.status() == 0 ? answer.value
                                                                         : 0xFFFFFFFF;
}

bool RawChipClient::writeReg(quint32 address, quint32 value)
{
    const Answer answer = command(0x09, words({address, value, 0xFFFFFFFF, 0}));
    return answer.valid && answer.opcode == 0x09 && answer.status() == 0;
}

int RawChipClient::sync(int timeoutMs)
{
    if (!sendCommand(0x08, syncPayload()))
        return 0;
    // The burst comes at once; a short wait after it shows whether more follow.
    constexpr int surplusWaitMs = 100;
    int answers = 0;
    while (readAnswer(answers == 0 ? timeoutMs : surplusWaitMs).valid)
        ++answers;
    return answers;
}

bool RawChipClient::startLoader(quint32 address, const QByteArray &code, quint32 entry)
{
    const quint32 blockSize = 0x1800;
    const quint32 blocks = (quint32(code.size()) + blockSize - 1) / blockSize;
    if (command(0x05, words({quint32(code.size()), blocks, blockSize, address})).status() != 0)
        return false;
    for (quint32 i = 0; i < blocks; ++i) {
        if (!sendData(0x07, code.mid(int(i * blockSize), int(blockSize)), i) ||
            readAnswer().status() != 0)
            return false;
    }
    const Answer end = command(0x06, words({0, entry}));
    return end.valid && end.status() == 0 && readFrame() == QByteArrayLiteral("OHAI");
}

bool RawChipClient::waitForHangUp(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    while (!m_hungUp && timer.elapsed() < timeoutMs)
        fill(int(qMax<qint64>(1, timeoutMs - timer.elapsed())));
    return m_hungUp;
}

QByteArray RawChipClient::words(std::initializer_list<quint32> values)
{
    QByteArray bytes;
    for (const quint32 value : values) {
        char word[4];
        qToLittleEndian(value, word);
        bytes.append(word, 4);
    }
    return bytes;
}

quint8 RawChipClient::checksum(const QByteArray &data)
{
    quint8 sum = 0xEF;
    for (const char c : data)
        sum ^= quint8(c);
    return sum;
}

QByteArray RawChipClient::syncPayload()
{
    return QByteArray::fromHex("07071220") + QByteArray(32, char(0x55));
}
