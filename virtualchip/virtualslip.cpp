#include "virtualchip/virtualslip.h"

QByteArray VirtualSlip::encode(const QByteArray &data)
{
    QByteArray frame;
    frame.reserve(data.size() + data.size() / 16 + 2);
    frame.append(char(End));
    frame.append(escape(data));
    frame.append(char(End));
    return frame;
}

QByteArray VirtualSlip::escape(const QByteArray &data)
{
    QByteArray frame;
    frame.reserve(data.size() + data.size() / 16);
    for (const char c : data) {
        const quint8 byte = quint8(c);
        if (byte == End) {
            frame.append(char(Esc));
            frame.append(char(EscEnd));
        } else if (byte == Esc) {
            frame.append(char(Esc));
            frame.append(char(EscEsc));
        } else {
            frame.append(c);
        }
    }
    return frame;
}

bool VirtualSlip::feed(quint8 byte)
{
    ++m_pendingWire;
    switch (m_state) {
    case State::Idle:
        // Line noise between frames is ignored; a delimiter opens a frame.
        if (byte == End)
            m_state = State::InFrame;
        return false;
    case State::InFrame:
        if (byte == End) {
            // Back-to-back delimiters are frame boundaries, not empty frames: stay in a frame.
            if (m_frame.isEmpty())
                return false;
            m_completed = m_frame;
            m_frame.clear();
            m_completedWire = m_pendingWire;
            m_pendingWire = 0;
            return true;
        }
        if (byte == Esc)
            m_state = State::Escaped;
        else
            m_frame.append(char(byte));
        return false;
    case State::Escaped:
        if (byte == EscEnd || byte == EscEsc) {
            m_frame.append(char(byte == EscEnd ? End : Esc));
            m_state = State::InFrame;
            return false;
        }
        ++m_brokenFrames;
        m_frame.clear();
        // A delimiter right after the escape still starts the next frame.
        m_state = byte == End ? State::InFrame : State::Idle;
        return false;
    }
    return false;
}

QByteArray VirtualSlip::takeFrame()
{
    QByteArray frame;
    frame.swap(m_completed);
    return frame;
}

void VirtualSlip::clear()
{
    m_state = State::Idle;
    m_frame.clear();
    m_completed.clear();
    m_pendingWire = 0;
    m_completedWire = 0;
}
