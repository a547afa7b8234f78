#pragma once

#include "virtualchip/virtualchipfaults.h"
#include "virtualchip/virtualchiploader.h"
#include "virtualchip/virtualesp8266.h"
#include "virtualchip/virtualslip.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

// The running virtual chip: owns the pseudo-terminal and the chip thread, which moves bytes
// between the terminal and the loader (SLIP, line-rate throttling, scheduled output, faults).
// All state is guarded by one mutex; the thread holds it only while it is not waiting.
class VirtualChipMachine
{
public:
    explicit VirtualChipMachine(const VirtualEsp8266::Config &config);
    ~VirtualChipMachine();

    bool start();
    void stop();
    bool isRunning() const;
    QString devicePath() const;
    QString errorString() const;
    const VirtualEsp8266::Config &config() const { return m_config; }

    QByteArray flash(quint32 offset, quint32 size) const;
    void setFlash(quint32 offset, const QByteArray &data);
    quint32 flashSize() const;
    QByteArray ram(quint32 address, quint32 size) const;
    VirtualEsp8266::LoaderState loaderState() const;
    quint32 baudRate() const;
    VirtualEsp8266::SpiParams spiParams() const;
    void reset();
    bool vanished() const;
    void setModemLines(bool dtrAsserted, bool rtsAsserted);
    VirtualEsp8266::BootMode bootMode() const;
    int resetCount() const;

    QVector<VirtualEsp8266::CommandRecord> commandLog() const;
    void clearCommandLog();
    VirtualEsp8266::Counters counters() const;
    void clearCounters();
    void setCommandObserver(std::function<void(const VirtualEsp8266::CommandRecord &)> observer);

    void armSilence(int commands);
    void armDropAnswer(int nth);
    void armCorruptAnswer(int nth, VirtualEsp8266::Corruption kind);
    void armStrayAnswer(int nth);
    void armErrorStatus(int nth, quint8 code);
    void armVanishAfterCommands(int commands);
    void armVanishAfterBytes(qint64 bytes);
    void armSlowErase(int factor);
    void vanishNow();
    void disarmFaults();

private:
    // Bytes read from the terminal, with the time they were read.
    struct RxChunk
    {
        QByteArray data;
        int position = 0;
        qint64 arrivalNs = 0;
    };
    // A framed packet waiting for its time or for the line.
    struct TxFrame
    {
        QByteArray wire;
        qint64 dueNs = 0;
        int written = 0;
        quint32 baudAfter = 0;
    };

    static constexpr int maxLogRecords = 1000000;      // oldest records are dropped beyond
    static constexpr qint64 txQuantumNs = 4000000;     // throttled writes run ahead by 4 ms
    static constexpr qint64 vanishGraceNs = 200000000; // answers get 200 ms to be read
    static constexpr qint64 vanishPollNs = 5000000;    // 5 ms between delivery checks
    static constexpr qint64 vanishSettleNs = 30000000; // 30 ms for written bytes to arrive
    static constexpr int readChunkSize = 16384;        // bytes per read() from the terminal
    static constexpr int maxFramesPerWrite = 64;       // frames gathered into one writev()

    static qint64 nowNs();
    void run();
    // One pass over input, timers and output; returns how long the thread may wait (ns, -1 =
    // until something happens) and whether it waits for the terminal to accept output.
    qint64 iterate(qint64 nowNs, bool *waitWritable,
                   QVector<VirtualEsp8266::CommandRecord> *handled);
    void readTerminal(qint64 nowNs);
    qint64 processInput(qint64 nowNs, QVector<VirtualEsp8266::CommandRecord> *handled);
    void handleFrame(const QByteArray &frame, qint64 nowNs,
                     QVector<VirtualEsp8266::CommandRecord> *handled);
    void collectOutput(const VirtualChipFaults::Plan &plan, VirtualEsp8266::CommandRecord *record);
    void schedule(const QByteArray &wire, qint64 dueNs, quint32 baudAfter);
    static QByteArray corrupted(const QByteArray &packet, VirtualEsp8266::Corruption kind);
    static QByteArray strayAnswer(quint8 answeredOpcode);
    qint64 writeTerminal(qint64 nowNs, bool *waitWritable);
    void checkVanish(qint64 nowNs);
    // EN has risen: boots now, or once GPIO0 is read.
    void releaseReset(qint64 nowNs);
    void bootFromLines(qint64 nowNs);
    void closeTerminal();
    void clearLine();
    qint64 byteNs(quint32 baud) const;
    void wake();

    const VirtualEsp8266::Config m_config;
    mutable std::mutex m_mutex;
    std::condition_variable m_vanishedSignal;
    std::thread m_thread;
    std::atomic<bool> m_stopRequested{false};

    VirtualChipLoader m_loader;
    VirtualSlip m_decoder;
    VirtualChipFaults m_faults;

    int m_master = -1;
    int m_slave = -1; // kept open so that the host closing its side does not hang up the master
    int m_wakeRead = -1;
    int m_wakeWrite = -1;
    bool m_running = false;
    bool m_vanished = false;
    bool m_vanishRequested = false;
    bool m_vanishPending = false;
    qint64 m_vanishDeadlineNs = 0;
    qint64 m_vanishEarliestNs = 0;
    QString m_path;
    QString m_error;

    std::deque<RxChunk> m_rx;
    qint64 m_rxWireNs = 0; // when the last consumed byte finished crossing the wire
    std::deque<TxFrame> m_scheduled;
    std::deque<TxFrame> m_tx;
    qint64 m_txWireNs = 0; // when the line is free again
    quint32 m_txBaud;
    quint32 m_rxBaud; // the UART switches both directions at once

    bool m_dtrAsserted = false;
    bool m_rtsAsserted = false;
    int m_resetCount = 0;
    qint64 m_bootAtNs = -1; // when GPIO0 is read after EN rose; -1 = no boot pending

    QVector<VirtualEsp8266::CommandRecord> m_log;
    VirtualEsp8266::Counters m_counters;
    std::function<void(const VirtualEsp8266::CommandRecord &)> m_observer;
};
