#include "scriptedpeer.h"

#include "protocol/espprotocol.h"

#include <QtEndian>

ScriptedPeer::ScriptedPeer(Script script)
{
    m_pty.publish();
    m_thread = std::thread([this, script] {
        ESPProtocol decoder; // the product's own: its framing rules are pinned by its tests
        while (!m_stop) {
            decoder.feed(m_pty.readMaster(20));
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

QByteArray ScriptedPeer::success(quint8 opcode, quint32 value)
{
    QByteArray packet(10, '\0'); // direction, opcode, body size, value, status and error 0
    packet[0] = 0x01;
    packet[1] = char(opcode);
    packet[2] = 2;
    qToLittleEndian(value, packet.data() + 4);
    return ESPProtocol::encode(packet);
}

QList<ScriptedPeer::Reply> ScriptedPeer::syncBurst()
{
    return {{success(0x08).repeated(8), 0}};
}
