#pragma once

#include <esputility/esputility_core_global.h>

#include <QByteArray>
#include <QList>
#include <QObject>

// SLIP framing of the boot-loader protocol: encodes outgoing packets and assembles incoming
// bytes into whole packets, queued oldest first.
class ESPUTILITY_CORE_EXPORT ESPProtocol : public QObject
{
    Q_OBJECT

public:
    // Framing bytes of RFC 1055.
    enum SlipByte : quint8 {
        SLIP_END = 0xC0,     // frame delimiter, before and after every frame
        SLIP_ESC = 0xDB,     // escape introducer
        SLIP_ESC_END = 0xDC, // after ESC: a data byte 0xC0
        SLIP_ESC_ESC = 0xDD, // after ESC: a data byte 0xDB
    };

    explicit ESPProtocol(QObject *parent = nullptr);

    static QByteArray encode(const QByteArray &data);

    // Consumes raw bytes; emits packetReady() once per completed packet, from inside the call.
    void feed(const QByteArray &data);
    // Oldest queued packet, or a null array when none is queued.
    QByteArray deque();
    // Resets the receive state only: a half-assembled packet is kept and becomes the head of the
    // next frame's packet. The queue is emptied on request.
    void flush(bool clearQueue);

    int queuedPackets() const { return m_queue.size(); }

    // With answers only, a frame that cannot be an answer (shorter than an answer header or not
    // marked as one) is noise: it is dropped without packetReady(), so boot messages and broken
    // frames neither end a command's wait nor take the place of its answer. Off by default;
    // the client turns it off while it expects raw frames (the loader's greeting, flash data).
    void setAnswersOnly(bool answersOnly) { m_answersOnly = answersOnly; }
    bool answersOnly() const { return m_answersOnly; }
    // Frames dropped as noise since construction.
    int droppedFrames() const { return m_droppedFrames; }
    // Whether a decoded frame has the shape of an answer.
    static bool canBeAnswer(const QByteArray &frame);

signals:
    void packetReady();

private:
    enum State { WaitingForStart = 0, InFrame = 1, AfterEscape = 2 };

    void endFrame();

    int m_state = WaitingForStart;
    QByteArray m_packet;
    QList<QByteArray> m_queue;
    bool m_answersOnly = false;
    int m_droppedFrames = 0;
};
