#include "scriptedpeer.h"

#include "protocol/espprotocol.h"

#include <QtEndian>

#include <chrono>

ScriptedPeer::ScriptedPeer(Script script)
{
    m_pty.publish();
    m_thread = std::thread([this, script] {
        ESPProtocol decoder; // the product's own: its framing rules are pinned by its tests
        while (!m_stop) {
            decoder.feed(m_pty.readMaster(20, 1));
            for (QByteArray packet = decoder.deque(); !packet.isNull(); packet = decoder.deque()) {
                for (const Reply &reply : script(packet)) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(reply.delayMs));
                    m_pty.writeMaster(reply.bytes);
                }
            }
        }
    });
}

ScriptedPeer::~ScriptedPeer()
{
    m_stop = true;
    m_thread.join();
}

QByteArray ScriptedPeer::frame(const QByteArray &packet)
{
    return ESPProtocol::encode(packet);
}

QByteArray ScriptedPeer::response(quint8 opcode, const QByteArray &body, quint32 value)
{
    QByteArray packet(8, '\0');
    packet[0] = 0x01;
    packet[1] = char(opcode);
    qToLittleEndian(quint16(body.size()), packet.data() + 2);
    qToLittleEndian(value, packet.data() + 4);
    return packet + body;
}

QList<ScriptedPeer::Reply> ScriptedPeer::syncBurst()
{
    return {{frame(response(0x08, QByteArray(2, '\0'))).repeated(8), 0}};
}
