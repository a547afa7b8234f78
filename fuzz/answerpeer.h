#pragma once

#include <QByteArray>
#include <QObject>
#include <QSocketNotifier>
#include <QString>
#include <QTimer>

#include <functional>
#include <memory>

// The far end of a pseudo-terminal that answers every request of the protocol client at once,
// in the client's own thread (its notifiers run inside the client's wait loops, so no command
// waits out a time-out). Each answer is the next reply record of a script: a correct answer, a
// damaged one, foreign packets, or line noise. A client that waits for something the script did
// not send (flash read data, a greeting, surplus sync answers) is noticed within a few
// milliseconds and gets the next record as if it had asked (a few times, then the line stays
// quiet). Once the script is spent every request gets a correct answer.
//
// "Correct" answers come from a small model of the chip: registers that describe an ESP8266EX
// with a known flash, and 256 KiB of flash that FLASH_DATA, erase, MD5 and READ_FLASH work on.
class AnswerPeer : public QObject
{
    Q_OBJECT

public:
    // Reply records are read through this: it returns bytes of the script, fewer (or none) when
    // the script runs dry.
    using ScriptSource = std::function<QByteArray(int count)>;

    static constexpr quint32 modelFlashSize = 0x40000;

    AnswerPeer();
    ~AnswerPeer() override;
    AnswerPeer(const AnswerPeer &) = delete;
    AnswerPeer &operator=(const AnswerPeer &) = delete;

    bool isValid() const { return m_master >= 0; }
    QString portName() const { return m_slavePath; }

    // Starts answering with a fresh chip model.
    void begin(ScriptSource script);
    // Stops answering and discards whatever is still on its way in either direction.
    void end();

    QByteArray modelFlash(quint32 offset, quint32 size) const;
    // Replies so far that were not the chip model's answer to a request (damaged, foreign, noise,
    // or sent to a client that waited for more).
    int scriptedReplies() const { return m_scriptedReplies; }

private slots:
    void readRequests();
    void writePending();
    void clientStalled();

private:
    void handleRequest(const QByteArray &request);
    QByteArray nextRecordReply(const QByteArray &request);
    QByteArray correctReply(const QByteArray &request);
    QByteArray modelReply(const QByteArray &request);
    QByteArray fuzzedPacket(quint8 requestOpcode);
    void send(const QByteArray &bytes);
    void discardInFlight();
    quint8 scriptByte();
    quint32 scriptWord();
    quint32 registerValue(quint32 address) const;

    int m_master = -1;
    int m_slave = -1;
    QString m_slavePath;
    std::unique_ptr<QSocketNotifier> m_readNotifier;
    std::unique_ptr<QSocketNotifier> m_writeNotifier;
    QTimer m_stallTimer;
    bool m_active = false;
    ScriptSource m_script;
    int m_scriptedReplies = 0;
    int m_stallReplies = 0; // since the last request

    QByteArray m_out;
    QByteArray m_packet;
    bool m_inFrame = false;
    bool m_escaped = false;
    quint8 m_lastOpcode = 0;

    QByteArray m_flash;
    quint32 m_writeAddress = 0;
    quint32 m_writeOffset = 0;
    bool m_stub = false;
};
