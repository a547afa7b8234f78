#include "rawchipclient.h"

#include <QElapsedTimer>
#include <QtEndian>

#include <fcntl.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

bool RawChipClient::open(const QString &path)
{
    close();
    m_fd = ::open(path.toLocal8Bit().constData(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    termios attributes{};
    if (m_fd >= 0 && tcgetattr(m_fd, &attributes) == 0) {
        cfmakeraw(&attributes);
        tcsetattr(m_fd, TCSANOW, &attributes);
    }
    m_wire.clear();
    m_decoded = 0;
    m_frame.clear();
    m_escaped = m_skipping = m_hungUp = false;
    return m_fd >= 0;
}

void RawChipClient::close()
{
    if (m_fd >= 0)
        ::close(m_fd);
    m_fd = -1;
}

bool RawChipClient::writeRaw(const QByteArray &bytes)
{
    // Blocking: returns once the chip took everything (or the terminal went away).
    return m_fd >= 0 && ::write(m_fd, bytes.constData(), size_t(bytes.size())) == bytes.size();
}

bool RawChipClient::sendCommand(quint8 opcode, const QByteArray &payload, quint32 checksum)
{
    const QByteArray header = QByteArray(1, 0x00) + char(opcode) + char(payload.size() & 0xFF) +
                              char(payload.size() >> 8);
    return sendPacket(header + words({checksum}) + payload);
}

bool RawChipClient::sendData(quint8 opcode, const QByteArray &data, quint32 sequence, bool goodSum)
{
    const QByteArray payload = words({quint32(data.size()), sequence, 0, 0}) + data;
    return sendCommand(opcode, payload, checksum(data) ^ (goodSum ? 0 : 1));
}

bool RawChipClient::fill(int timeoutMs)
{
    pollfd fd{m_fd, POLLIN, 0};
    if (m_fd < 0 || m_hungUp || timeoutMs <= 0 || poll(&fd, 1, timeoutMs) <= 0)
        return false;
    char buffer[65536];
    const ssize_t n = ::read(m_fd, buffer, sizeof buffer); // poll said it will not block
    m_hungUp = n <= 0;
    if (n > 0)
        m_wire.append(buffer, int(n));
    return n > 0;
}

bool RawChipClient::takeFrame(QByteArray *frame)
{
    // Plain RFC 1055; a frame with an invalid escape is dropped up to its closing delimiter.
    while (m_decoded < m_wire.size()) {
        const quint8 byte = quint8(m_wire[m_decoded++]);
        if (m_escaped || m_skipping) {
            const bool valid = m_escaped && (byte == 0xDC || byte == 0xDD);
            m_frame = valid ? m_frame + char(byte == 0xDC ? 0xC0 : 0xDB) : QByteArray();
            m_skipping = !valid && byte != 0xC0;
            m_escaped = false;
        } else if (byte == 0xDB) {
            m_escaped = true;
        } else if (byte != 0xC0) {
            m_frame += char(byte);
        } else if (!m_frame.isEmpty()) {
            *frame = m_frame;
            m_frame.clear();
            return true;
        }
    }
    return false;
}

QByteArray RawChipClient::readFrame(int timeoutMs)
{
    QElapsedTimer timer;
    timer.start();
    QByteArray frame;
    while (!takeFrame(&frame)) {
        if (!fill(timeoutMs - int(timer.elapsed())))
            return QByteArray();
    }
    return frame;
}

RawChipClient::Answer RawChipClient::readAnswer(int timeoutMs)
{
    Answer answer;
    const QByteArray frame = readFrame(timeoutMs);
    answer.valid = frame.size() >= 10 && frame[0] == 0x01;
    if (answer.valid) {
        answer.opcode = quint8(frame[1]);
        answer.length = qFromLittleEndian<quint16>(frame.constData() + 2);
        answer.value = qFromLittleEndian<quint32>(frame.constData() + 4);
        answer.body = frame.mid(8);
    }
    return answer;
}

RawChipClient::Answer RawChipClient::command(quint8 opcode, const QByteArray &payload,
                                             int timeoutMs)
{
    return sendCommand(opcode, payload) ? readAnswer(timeoutMs) : Answer();
}

quint32 RawChipClient::readReg(quint32 address)
{
    const Answer answer = command(0x0A, words({address}));
    return answer.opcode == 0x0A && answer.status() == 0 ? answer.value : 0xFFFFFFFF;
}

int RawChipClient::sync(int timeoutMs)
{
    constexpr int surplusWaitMs = 100; // the burst comes at once: more after this is none
    int answers = 0;
    if (sendCommand(0x08, syncPayload())) {
        while (readAnswer(answers == 0 ? timeoutMs : surplusWaitMs).valid)
            ++answers;
    }
    return answers;
}

bool RawChipClient::startLoader(quint32 address, const QByteArray &code)
{
    const quint32 size = quint32(code.size());
    return command(0x05, words({size, 1, size, address})).status() == 0 &&
           sendData(0x07, code, 0) && readAnswer().status() == 0 &&
           command(0x06, words({0, address})).status() == 0 && readFrame() == "OHAI";
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
