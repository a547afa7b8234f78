#pragma once

#include "ptypair.h"

#include <QByteArray>
#include <QList>

#include <atomic>
#include <functional>
#include <thread>

// A device that answers by script, for protocol details that a faithful chip never produces:
// packets in exact batches, odd sizes, stray answers, a wrong greeting.
class ScriptedPeer
{
public:
    struct Reply
    {
        QByteArray bytes; // written as they are (frame them with frame())
        int delayMs = 0;  // pause before writing
    };
    using Script = std::function<QList<Reply>(const QByteArray &request)>;

    explicit ScriptedPeer(Script script);
    ~ScriptedPeer();

    QString port() const { return m_pty.slavePath(); }

    static QByteArray frame(const QByteArray &packet);
    // A response packet: direction 1, opcode, body length, value word, body.
    static QByteArray response(quint8 opcode, const QByteArray &body, quint32 value = 0);
    // The answer to one synchronisation: the burst a ROM loader sends.
    static QList<Reply> syncBurst();

private:
    PtyPair m_pty;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};
