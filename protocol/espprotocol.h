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

signals:
    void packetReady();

private:
    enum State { WaitingForStart = 0, InFrame = 1, AfterEscape = 2 };

    int m_state = WaitingForStart;
    QByteArray m_packet;
    QList<QByteArray> m_queue;
};
