#pragma once

#include "ptypair.h"

#include <QList>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

// A device that answers by script, for what a faithful chip never sends: stray answers, packets
// in exact batches or of odd sizes, a wrong greeting.
class ScriptedPeer
{
public:
    struct Reply
    {
        QByteArray bytes; // written as they are
        int delayMs = 0;  // pause before writing
    };
    using Script = std::function<QList<Reply>(const QByteArray &request)>;

    explicit ScriptedPeer(Script script);
    ~ScriptedPeer();
    QString port() const { return m_pty.slavePath(); }

    // A framed successful answer to `opcode` carrying `value`.
    static QByteArray success(quint8 opcode, quint32 value = 0);
    // The ROM's burst of answers to one synchronisation.
    static QList<Reply> syncBurst();

private:
    PtyPair m_pty;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};
