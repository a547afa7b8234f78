#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>
#include <QVector>

#include <array>
#include <functional>
#include <memory>

class VirtualChipMachine;

// A virtual ESP8266 behind a pseudo-terminal: answers on the slave side exactly as the chip's ROM
// boot loader does and, once a flash loader was downloaded into RAM and started, as that loader
// ("stub") does. Lets users try every operation without a board and is the test partner of the
// protocol client. The chip runs on a thread of its own; every public method may be called from
// any thread.
class VirtualEsp8266
{
public:
    // Opcodes of the serial boot-loader protocol (byte 1 of every request and answer).
    enum Opcode : quint8 {
        FlashBegin = 0x02,     // erase a region and start a flash write
        FlashData = 0x03,      // one data block of a flash write
        FlashEnd = 0x04,       // end a flash write, optionally reboot
        MemBegin = 0x05,       // start a RAM download
        MemEnd = 0x06,         // end a RAM download, optionally jump to an entry point
        MemData = 0x07,        // one data block of a RAM download
        Sync = 0x08,           // synchronisation: 07 07 12 20 + 32 x 55
        WriteReg = 0x09,       // {address, value, mask, delay us}
        ReadReg = 0x0A,        // {address}; the value comes back in the answer's value word
        SpiSetParams = 0x0B,   // flash geometry (loader only)
        SpiAttach = 0x0D,      // attach the SPI flash (loader only)
        ChangeBaudrate = 0x0F, // {new baud, old baud} (loader only)
        FlashDeflBegin = 0x10, // {uncompressed size, blocks, block size, offset} (loader only)
        FlashDeflData = 0x11,  // one slice of a zlib stream, with a data header (loader only)
        FlashDeflEnd = 0x12,   // end a compressed write, optionally reboot (loader only)
        SpiFlashMd5 = 0x13,    // MD5 of a flash region (loader only)
        EraseFlash = 0xD0,     // erase the whole chip (loader only)
        EraseRegion = 0xD1,    // {start, length}, both sector aligned (loader only)
        ReadFlash = 0xD2       // {offset, size, packet size, packets in flight} (loader only)
    };

    // Error codes of the ROM loader; it answers failures with status byte 1 and this code last.
    enum RomError : quint8 {
        RomInvalidMessage = 0x05, // unknown or malformed command
        RomFailedToAct = 0x06,    // well-formed, but not possible (address, sequence, state)
        RomBadChecksum = 0x07,    // data block checksum mismatch
        RomFlashWriteError = 0x08,
        RomFlashReadError = 0x09
    };

    // Error codes of the loader stub; it puts the code into the status byte itself.
    enum StubError : quint8 {
        StubBadDataLength = 0xC0,  // payload size does not fit the command
        StubBadChecksum = 0xC1,    // data block checksum mismatch
        StubBadBlockSize = 0xC2,   // block size or data size out of range
        StubInvalidCommand = 0xC3, // unknown opcode
        StubFailedSpiOp = 0xC4,    // flash range outside the chip or not sector aligned
        StubNotInFlashMode = 0xC6, // data block without a preceding begin
        StubBadSequence = 0xC7,    // data block out of order
        StubInflateError = 0xC8,   // the compressed stream is corrupt
        StubTooMuchData = 0xC9,    // a compressed write inflates to more than it announced
        StubNotEnoughData = 0xCA   // a compressed write ended before all it announced
    };

    // Which chip the eFuses describe.
    enum class Model { Esp8266EX, Esp8285 };

    // What the chip runs after a boot; GPIO0 decides it when EN is released.
    enum class BootMode {
        Download, // GPIO0 low: the ROM boot loader waits for a host
        Firmware  // GPIO0 high: the user program in flash runs and never answers
    };

    // Who answers on the line.
    enum class LoaderState {
        RomLoader,    // the ROM boot loader (download mode, and after reset())
        StubStarting, // downloaded code was started; the greeting is about to be sent
        Stub,         // the flash loader runs
        Halted,       // jumped into memory without downloaded code: no answers
        Firmware,     // the user program runs (booted with GPIO0 high, or rebooted): no answers
        InReset       // EN is held low: no answers, input dropped, output stopped
    };

    // How a corrupted answer is damaged.
    enum class Corruption {
        BrokenEscape, // an escape byte followed by an invalid code in the middle of the frame
        GarbledBytes, // every byte of the packet scrambled (no longer an answer)
        Truncated,    // only the first 4 bytes of the packet (shorter than a header)
        WrongLength   // the header's body length disagrees with the body
    };

    // Everything that can be chosen before start().
    struct Config
    {
        Model model = Model::Esp8266EX;
        // What start() boots into, as a board whose GPIO0 is strapped that way at power-up. Later
        // boots go through the reset lines (setModemLines). Either way the chip prints its boot
        // messages first (at power-up without the reset glitch, see setModemLines).
        BootMode powerUpMode = BootMode::Download;
        // How long after EN rises the chip reads GPIO0, ms (a board's delay on EN): a host must
        // keep DTR asserted that long. 0 reads it as EN rises.
        int gpio0SampleDelayMs = 0;
        // Station MAC; OUI 18:FE:34 and AC:D0:74 are encoded in eFuse word 1, any other in word 3.
        QByteArray mac = QByteArray::fromHex("18fe34a1b2c3");
        // When set, the eFuse words 0..3 are exactly `efuseWords` and model / mac are ignored.
        bool overrideEfuses = false;
        std::array<quint32, 4> efuseWords{};
        quint32 flashSize = 4 * 1024 * 1024; // bytes, a multiple of 4096
        // JEDEC id bytes: manufacturer, memory type, capacity code.
        QByteArray jedecId = QByteArray::fromHex("ef4016");
        // Flash status registers 1, 2 and 3 (SPI commands 0x05, 0x35, 0x15).
        std::array<quint8, 3> statusRegisters{{0x00, 0x02, 0x60}};
        // How many reads of the SPI command register still show a started command as busy.
        int spiBusyReads = 1;
        // Move bytes no faster than the line rate (8N1) in both directions.
        bool throttle = false;
        // Erase and program take as long as on a real SPI NOR part.
        bool flashTiming = false;
        // Pause between the answer to a MEM_END that starts the loader and its greeting, ms.
        int greetingDelayMs = 10;
        quint32 initialBaud = 115200;
        // A flash read is abandoned when acknowledgements stop for this long, ms.
        int readAckTimeoutMs = 3000;
    };

    // One received command, as logged.
    struct CommandRecord
    {
        quint8 opcode = 0;
        quint16 payloadLength = 0; // the header's length field
        bool dataPacket = false;   // FLASH_DATA / MEM_DATA with a full 16-byte data header
        quint32 dataSize = 0;      // data header: size field (data packets only)
        quint32 sequence = 0;      // data header: sequence field (data packets only)
        quint8 checksum = 0;       // low byte of the header's checksum word
        bool byStub = false;       // handled by the flash loader (else by the ROM loader)
        bool answered = false;     // an answer was queued (false when dropped or not answered)
        quint8 status = 0;         // status bytes of the answer: 0 0 on success
        quint8 error = 0;
    };

    // What an erase touched.
    enum class EraseKind {
        RomFlashBegin,  // FLASH_BEGIN handled by the ROM loader (its own arithmetic)
        StubFlashBegin, // FLASH_BEGIN handled by the flash loader
        StubDeflBegin,  // FLASH_DEFL_BEGIN (flash loader only)
        Region,         // ERASE_REGION
        Chip            // ERASE_FLASH
    };
    struct EraseRecord
    {
        EraseKind kind = EraseKind::Region;
        quint32 offset = 0;
        quint32 size = 0; // bytes actually erased (after clipping to the flash)
    };

    // Traffic and activity since start or clearCounters().
    struct Counters
    {
        QMap<quint8, int> commands; // received commands by opcode
        qint64 bytesIn = 0;         // bytes taken from the line
        qint64 bytesOut = 0;        // bytes put on the line
        int framesSent = 0;         // complete SLIP frames put on the line
        int acksReceived = 0;       // flash-read acknowledgements
        QVector<EraseRecord> erases;
        // Bytes moved at each line rate (baud -> bytes), in each direction.
        QMap<quint32, qint64> bytesInByBaud;
        QMap<quint32, qint64> bytesOutByBaud;
    };

    // Flash set-up received by the flash loader.
    struct SpiParams
    {
        bool attached = false;  // SPI_ATTACH received
        bool paramsSet = false; // SPI_SET_PARAMS received
        quint32 id = 0;
        quint32 totalSize = 0;
        quint32 blockSize = 0;
        quint32 sectorSize = 0;
        quint32 pageSize = 0;
        quint32 statusMask = 0;
    };

    VirtualEsp8266(); // default configuration
    explicit VirtualEsp8266(const Config &config);
    ~VirtualEsp8266();
    VirtualEsp8266(const VirtualEsp8266 &) = delete;
    VirtualEsp8266 &operator=(const VirtualEsp8266 &) = delete;

    // Opens the pseudo-terminal and starts the chip thread; false (see errorString()) when the
    // configuration is invalid or no terminal can be opened.
    bool start();
    // Stops the thread and closes the terminal; the flash contents stay readable.
    void stop();
    bool isRunning() const;
    // The slave device the host opens, e.g. /dev/pts/3; empty before start().
    QString devicePath() const;
    QString errorString() const;
    Config config() const;

    // The eFuse words 0..3 (at 0x3FF00050, 54, 58, 5C) that `config` yields.
    static std::array<quint32, 4> efuseWordsFor(const Config &config);

    // Flash contents, clipped to the flash.
    QByteArray flash(quint32 offset, quint32 size) const;
    // Raw store, bypassing erase/program rules; clipped to the flash.
    void setFlash(quint32 offset, const QByteArray &data);
    quint32 flashSize() const;
    // Contents of downloaded RAM ranges (bytes never written read as 0).
    QByteArray ram(quint32 address, quint32 size) const;

    LoaderState loaderState() const;
    bool stubRunning() const;
    // The chip's current line rate.
    quint32 baudRate() const;
    SpiParams spiParams() const;
    // Back to the ROM loader at the initial baud rate, answering again; flash is kept, RAM,
    // registers, pending output and armed faults are cleared. Quiet: no boot messages (a reset
    // through the lines that a host sees is setModemLines()).
    void reset();

    // The reset circuit of a USB serial adapter: RTS drives EN (reset), DTR drives GPIO0, both
    // active low, so an asserted line pulls its pin low. A pseudo-terminal has no modem lines,
    // so the host side calls this instead. RTS asserted holds the chip in reset (no answers,
    // input dropped, output stopped); releasing it boots the chip, which samples GPIO0 then:
    // DTR asserted boots the ROM loader at the initial rate (loader and RAM gone, flash kept),
    // otherwise the user program (GPIO0 is read Config::gpio0SampleDelayMs after the release; the
    // chip stays silent until then). Each boot prints the boot messages, led by the reset glitch.
    // DTR alone changes nothing. Armed faults stay armed. Ignored before start(), which powers up
    // with both lines released.
    void setModemLines(bool dtrAsserted, bool rtsAsserted);
    // What the last boot (power-up, reset, or a loader's reboot) started.
    BootMode bootMode() const;
    // Boots through the reset lines since start().
    int resetCount() const;
    // True once the port vanished (fault or vanishNow()); only stop() and start() recover.
    bool vanished() const;

    QVector<CommandRecord> commandLog() const;
    void clearCommandLog();
    Counters counters() const;
    void clearCounters();
    // Called on the chip thread after each received command was handled (not under the chip's
    // lock, so it may call the accessors, the fault methods and reset(), but not stop()).
    void setCommandObserver(std::function<void(const CommandRecord &)> observer);

    // Faults. Each is counted from the moment it is armed; arming again replaces the previous
    // one of the same kind; N counts received commands, 1 being the next one.
    // After `commands` more commands were answered the chip stops answering entirely (0: now).
    void armSilence(int commands);
    // The answer to the Nth next command is not sent (the command still takes effect).
    void armDropAnswer(int nth);
    // The Nth next answer is damaged on the wire.
    void armCorruptAnswer(int nth, Corruption kind = Corruption::BrokenEscape);
    // An answer to another opcode is sent just before the Nth next answer.
    void armStrayAnswer(int nth);
    // The Nth next command is refused with an error status (`code` 0 = a failed-to-act error of
    // the loader that answers) and does not take effect.
    void armErrorStatus(int nth, quint8 code = 0);
    // The port vanishes once `commands` more commands were answered and those answers were
    // delivered (0: now).
    void armVanishAfterCommands(int commands);
    // The port vanishes as soon as `bytes` more bytes were received (mid-transfer).
    void armVanishAfterBytes(qint64 bytes);
    // Every erase takes `factor` times its nominal time, even with flash timing off (1: normal).
    void armSlowErase(int factor);
    // Closes the terminal at once: the host sees the device go away.
    void vanishNow();
    void disarmFaults();

    // Names of opcodes and loader states for logs ("FLASH_BEGIN", "ROM loader", ...).
    static QString opcodeName(quint8 opcode);
    static QString loaderStateName(LoaderState state);

private:
    std::unique_ptr<VirtualChipMachine> m_machine;
};
