#pragma once

#include <QByteArray>
#include <QList>

// SLIP framing as the chip's UART code does it: frames are delimited by 0xC0, and 0xC0 / 0xDB
// inside a frame travel as 0xDB 0xDC / 0xDB 0xDD. The chip keeps its own codec so that a mistake
// in the host's framing cannot be mirrored here.
class VirtualSlip
{
public:
    enum Byte : quint8 {
        End = 0xC0,    // frame delimiter
        Esc = 0xDB,    // escape introducer
        EscEnd = 0xDC, // after Esc: a data byte 0xC0
        EscEsc = 0xDD  // after Esc: a data byte 0xDB
    };

    // The whole frame for `data`, delimiters included.
    static QByteArray encode(const QByteArray &data);
    // `data` with its special bytes escaped, without delimiters.
    static QByteArray escape(const QByteArray &data);

    // Consumes one received byte; returns true when it completed a non-empty frame, which is then
    // available through takeFrame(). A broken escape drops the frame being assembled.
    bool feed(quint8 byte);
    QByteArray takeFrame();
    // Bytes the last completed frame took on the line: delimiters, escapes and any noise since
    // the frame before.
    int lastFrameWireSize() const { return m_completedWire; }

    // Forgets any partial frame (used on reset).
    void clear();

    // Number of frames dropped because of an invalid escape sequence.
    int brokenFrames() const { return m_brokenFrames; }

private:
    enum class State { Idle, InFrame, Escaped };
    State m_state = State::Idle;
    QByteArray m_frame;
    QByteArray m_completed;
    int m_brokenFrames = 0;
    int m_pendingWire = 0;
    int m_completedWire = 0;
};
