#pragma once

#include "virtualchip/virtualchipbootoutput.h"
#include "virtualchip/virtualchipinflater.h"
#include "virtualchip/virtualchipregisters.h"
#include "virtualchip/virtualesp8266.h"
#include "virtualchip/virtualnorflash.h"

#include <QPair>
#include <QVector>

// The command interpreter of the virtual chip: the ROM boot loader after reset and the flash
// loader once downloaded code was started. Takes decoded request frames and produces unframed
// output packets with the time they are due; knows nothing about the terminal.
class VirtualChipLoader
{
public:
    // One packet to put on the line.
    struct Output
    {
        QByteArray packet;     // unframed
        qint64 dueUs = 0;      // not before this time (steady clock, microseconds)
        bool answer = false;   // an answer to a command (the target of answer faults)
        quint32 baudAfter = 0; // when non-zero: the line switches to this rate once sent
        bool unframed = false; // bytes for the line as they are (boot messages), no SLIP frame
    };

    static constexpr quint32 iramStart = 0x40100000; // instruction RAM, downloadable
    static constexpr quint32 iramEnd = 0x40110000;
    static constexpr quint32 dramStart = 0x3FFE8000; // data RAM, downloadable
    static constexpr quint32 dramEnd = 0x40000000;
    static constexpr quint32 maxBlockSize = 0x10000;      // largest data block accepted, bytes
    static constexpr qint64 maxRegisterDelayUs = 1000000; // WRITE_REG delays are capped, us
    static const QByteArray syncPayload;                  // 07 07 12 20 + 32 x 55
    static const QByteArray greeting;                     // "OHAI"
    static constexpr int syncAnswers = 8;                 // answers the ROM sends to one SYNC
    // Value word of the ROM's SYNC answers; the flash loader answers with 0, which is how
    // clients tell a running loader from the ROM.
    static constexpr quint32 romSyncValue = 0x20120707;

    explicit VirtualChipLoader(const VirtualEsp8266::Config &config);

    // A request (direction 0, full header) that the loader would take as a command now.
    bool takesCommand(const QByteArray &frame) const;
    // True while a flash read streams: every frame is an acknowledgement.
    bool readingFlash() const { return m_read.active; }
    // Handled commands only while the ROM loader or the flash loader runs.
    bool answering() const;

    // Time before which no input may be handled (erasing / programming in the foreground, or
    // background programming of the flash loader still in progress).
    qint64 busyUntilUs() const;

    VirtualEsp8266::CommandRecord handleCommand(const QByteArray &frame, qint64 nowUs);
    // Answers the command with a failure status without acting on it (`code` 0: default code).
    VirtualEsp8266::CommandRecord refuseCommand(const QByteArray &frame, quint8 code, qint64 nowUs);
    // A frame received while a flash read streams.
    void handleAck(const QByteArray &frame, qint64 nowUs);
    // The line moved bytes of a flash read: the host is still there.
    void noteReadProgress(qint64 nowUs);
    // Greeting, flash read streaming and its time-out.
    void tick(qint64 nowUs);
    // Earliest time tick() has something to do; -1 when nothing is scheduled.
    qint64 nextTickUs() const;

    QVector<Output> takeOutput();
    QVector<VirtualEsp8266::EraseRecord> takeErases();
    int takeAcks();

    void reset();
    // Boots as the reset circuit or the power supply starts the chip: reset() plus the boot
    // messages, then the ROM loader or the user program.
    void boot(VirtualEsp8266::BootMode mode, VirtualChipBootOutput::Cause cause, qint64 nowUs);
    // EN held low: nothing runs, nothing is answered.
    void holdInReset();
    VirtualEsp8266::BootMode bootMode() const { return m_bootMode; }
    void setEraseFactor(int factor) { m_eraseFactor = qMax(1, factor); }

    VirtualEsp8266::LoaderState state() const { return m_state; }
    quint32 baudRate() const { return m_baud; }
    VirtualEsp8266::SpiParams spiParams() const { return m_spiParams; }
    VirtualNorFlash &flash() { return m_flash; }
    const VirtualNorFlash &flash() const { return m_flash; }
    QByteArray ram(quint32 address, quint32 size) const;

private:
    // The log record of a received request, before it is answered.
    VirtualEsp8266::CommandRecord recordOf(const QByteArray &frame) const;
    struct MemSession
    {
        bool active = false;
        quint32 address = 0;
        quint32 blockSize = 0;
        quint32 nextSequence = 0;
    };
    struct FlashSession
    {
        bool active = false;
        quint32 offset = 0;
        quint32 blockSize = 0;
        quint32 nextSequence = 0;
        // Erase time of the flash loader's begin is charged as the data reaches each sector.
        quint32 eraseChargedTo = 0;
        quint32 eraseEnd = 0;
        // A compressed write: `size` bytes announced, `written` of them inflated and programmed.
        bool compressed = false;
        quint32 size = 0;
        quint32 written = 0;
    };
    struct ReadSession
    {
        bool active = false;
        quint32 offset = 0;
        quint32 size = 0;
        quint32 packetSize = 0;
        quint32 maxInFlight = 0;
        quint32 sentBytes = 0;
        quint32 sentPackets = 0;
        quint32 ackedBytes = 0;
        qint64 lastActivityUs = 0;
    };
    // What handling a command produced, for the log.
    struct Result
    {
        quint8 status = 0;
        quint8 error = 0;
        bool answered = false;
    };

    bool isStub() const { return m_state == VirtualEsp8266::LoaderState::Stub; }
    Result dispatch(quint8 opcode, const QByteArray &frame, const QByteArray &payload,
                    qint64 nowUs);
    Result sync(const QByteArray &payload, qint64 nowUs);
    Result readReg(const QByteArray &payload, qint64 nowUs);
    Result writeReg(const QByteArray &payload, qint64 nowUs);
    Result memBegin(const QByteArray &payload, qint64 nowUs);
    Result memData(const QByteArray &frame, const QByteArray &payload, qint64 nowUs);
    Result memEnd(const QByteArray &payload, qint64 nowUs);
    Result flashBegin(const QByteArray &payload, qint64 nowUs);
    Result flashData(const QByteArray &frame, const QByteArray &payload, qint64 nowUs);
    Result flashEnd(const QByteArray &payload, qint64 nowUs);
    Result deflBegin(const QByteArray &payload, qint64 nowUs);
    Result deflData(const QByteArray &frame, const QByteArray &payload, qint64 nowUs);
    Result deflEnd(const QByteArray &payload, qint64 nowUs);
    // The checks that FLASH_DATA and FLASH_DEFL_DATA share; an answered failure, or nothing.
    bool checkDataBlock(const QByteArray &frame, const QByteArray &payload, bool compressed,
                        qint64 nowUs, Result *failure);
    // Programs `data` at `target` within the current write, with the time it takes.
    Result programBlock(quint32 target, const QByteArray &data, qint64 nowUs);
    // After the answer: the chip restarts into the user program.
    void rebootIntoFirmware(qint64 nowUs);
    Result spiAttach(const QByteArray &payload, qint64 nowUs);
    Result spiSetParams(const QByteArray &payload, qint64 nowUs);
    Result changeBaudrate(const QByteArray &payload, qint64 nowUs);
    Result flashMd5(const QByteArray &payload, qint64 nowUs);
    Result eraseFlash(qint64 nowUs);
    Result eraseRegion(const QByteArray &payload, qint64 nowUs);
    Result readFlash(const QByteArray &payload, qint64 nowUs);

    // Queues an answer to the current command after `delayUs` (the chip is busy until then).
    Result succeed(qint64 nowUs, quint32 value = 0, const QByteArray &body = QByteArray(),
                   qint64 delayUs = 0, quint32 baudAfter = 0);
    // Queues a failure answer with the code of whichever loader runs.
    Result fail(qint64 nowUs, quint8 romCode, quint8 stubCode);
    Result answerWithStatus(qint64 nowUs, quint32 value, const QByteArray &body, quint8 status,
                            quint8 error, qint64 delayUs, quint32 baudAfter);
    void queueRaw(const QByteArray &packet, qint64 dueUs);
    void queueUnframed(const QByteArray &bytes, qint64 dueUs);
    void setBaud(quint32 baud);

    // Erase with bookkeeping and the time it takes (0 without flash timing or slow erase).
    qint64 erase(VirtualEsp8266::EraseKind kind, quint32 offset, quint32 length);
    qint64 scaledEraseTime(qint64 nominalUs) const;
    qint64 programTime(quint32 length) const;
    // Charges the flash loader's pending erase time for the sectors of [offset, end).
    qint64 chargeStubErase(quint32 offset, quint32 end);

    // RAM store for downloads: the byte array and base of the range holding [address, +size).
    QByteArray *ramFor(quint32 address, quint32 size, quint32 *base);
    bool insideDownloadedCode(quint32 address) const;

    void sendReadPackets(qint64 nowUs);

    VirtualEsp8266::LoaderState m_state = VirtualEsp8266::LoaderState::RomLoader;
    VirtualEsp8266::BootMode m_bootMode = VirtualEsp8266::BootMode::Download;
    quint32 m_initialBaud;
    quint32 m_baud;
    bool m_flashTiming;
    bool m_registerDelays;
    qint64 m_greetingDelayUs;
    qint64 m_readAckTimeoutUs;
    int m_eraseFactor = 1;

    quint8 m_opcode = 0; // opcode of the command being answered
    qint64 m_busyUntilUs = 0;
    qint64 m_backgroundUntilUs = 0;
    qint64 m_greetingAtUs = -1;

    VirtualNorFlash m_flash;
    VirtualChipRegisters m_registers;
    QByteArray m_iram;
    QByteArray m_dram;
    QVector<QPair<quint32, quint32>> m_downloaded; // [start, end) filled by MEM_DATA
    MemSession m_mem;
    FlashSession m_flashWrite;
    VirtualChipInflater m_inflater;
    ReadSession m_read;
    VirtualEsp8266::SpiParams m_spiParams;

    QVector<Output> m_output;
    QVector<VirtualEsp8266::EraseRecord> m_erases;
    int m_acks = 0;
};
