#include "scriptedpeer.h"

#include <QtEndian>

#include <chrono>

ScriptedPeer::ScriptedPeer(Script script) : m_script(std::move(script))
{
    m_pty.publish();
    m_thread = std::thread([this] { run(); });
}

ScriptedPeer::~ScriptedPeer()
{
    m_stop = true;
    m_thread.join();
}

QList<QByteArray> ScriptedPeer::requests() const
{
    QMutexLocker lock(&m_mutex);
    return m_requests;
}

QByteArray ScriptedPeer::frame(const QByteArray &packet)
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
    out.append(char(0xC0));
    return out;
}

QByteArray ScriptedPeer::response(quint8 opcode, const QByteArray &body, quint32 value)
{
    QByteArray packet;
    packet.append(char(0x01)).append(char(opcode));
    char word[4];
    qToLittleEndian(quint16(body.size()), word);
    packet.append(word, 2);
    qToLittleEndian(value, word);
    packet.append(word, 4);
    packet.append(body);
    return packet;
}

QList<ScriptedPeer::Reply> ScriptedPeer::syncBurst()
{
    QByteArray burst;
    for (int i = 0; i < 8; ++i)
        burst.append(frame(response(0x08, QByteArray(2, '\0'))));
    return {{burst, 0}};
}

void ScriptedPeer::run()
{
    QByteArray packet;
    bool inFrame = false;
    bool escaped = false;
    while (!m_stop) {
        const QByteArray chunk = m_pty.readMaster(20, 1);
        for (const char c : chunk) {
            const quint8 byte = quint8(c);
            if (!inFrame) {
                inFrame = byte == 0xC0;
                continue;
            }
            if (escaped) {
                packet.append(byte == 0xDC ? char(0xC0) : char(0xDB));
                escaped = false;
            } else if (byte == 0xDB) {
                escaped = true;
            } else if (byte != 0xC0) {
                packet.append(c);
            } else if (!packet.isEmpty()) {
                {
                    QMutexLocker lock(&m_mutex);
                    m_requests.append(packet);
                }
                for (const Reply &reply : m_script(packet)) {
                    if (reply.delayMs > 0)
                        std::this_thread::sleep_for(std::chrono::milliseconds(reply.delayMs));
                    m_pty.writeMaster(reply.bytes);
                }
                packet.clear();
                inFrame = false;
            }
        }
    }
}
