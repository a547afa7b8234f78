#pragma once

#include <esputility/espcommunicator.h>
#include <esputility/espprotocol.h>
#include <esputility/esputility_core_global.h>

#include <QByteArray>
#include <QEventLoop>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVector>

#include <memory>

class QIODevice;
class ElfStubImage;
class ESPImageParser;

// Client of the ESP8266 serial boot-loader protocol: talks to the chip's ROM loader and, once
// uploaded, to the RAM flash stub. Every operation is synchronous and waits in a nested event
// loop; failures set the failed flag and leave through commandError()/operationError().
class ESPUTILITY_CORE_EXPORT ESPTool : public QObject
{
    Q_OBJECT

public:
    enum Opcode : quint8 {
        ESP_NO_COMMAND = 0x00,       // wait selector: send nothing, accept any answer
        ESP_RAW_PACKET = 0x01,       // wait selector: accept the next packet of any kind
        ESP_FLASH_BEGIN = 0x02,      // erase a flash region and start a flash download
        ESP_FLASH_DATA = 0x03,       // one flash data block
        ESP_FLASH_END = 0x03,        // leave the flash download; deliberately shares 0x03
        ESP_MEM_BEGIN = 0x05,        // start a RAM download
        ESP_MEM_END = 0x06,          // finish a RAM download, optionally jump to an entry point
        ESP_MEM_DATA = 0x07,         // one RAM data block
        ESP_SYNC = 0x08,             // synchronisation frame
        ESP_WRITE_REG = 0x09,        // write a 32-bit register
        ESP_READ_REG = 0x0A,         // read a 32-bit register
        ESP_SPI_SET_PARAMS = 0x0B,   // flash geometry (stub)
        ESP_SPI_ATTACH = 0x0D,       // attach the SPI flash (stub)
        ESP_CHANGE_BAUDRATE = 0x0F,  // switch the line speed (stub)
        ESP_FLASH_DEFL_BEGIN = 0x10, // start a compressed flash download (loader)
        ESP_FLASH_DEFL_DATA = 0x11,  // one slice of the zlib stream (loader)
        ESP_FLASH_DEFL_END = 0x12,   // leave the compressed download (loader)
        ESP_SPI_FLASH_MD5 = 0x13,    // MD5 of a flash region (stub)
        ESP_ERASE_FLASH = 0xD0,      // erase the whole chip (stub)
        ESP_ERASE_REGION = 0xD1,     // erase a region (stub)
        ESP_READ_FLASH = 0xD2,       // stream a flash region back (stub)
    };
    Q_ENUM(Opcode)

    // Error classes carried by operationError().
    enum ErrorClass {
        SerialWriteFailed = 0,
        NoAnswer = 1,
        MalformedAnswer = 2,
        WrongLoader = 3,
        BadRequest = 4,
    };

    struct ESP_WRITE_REG_PKT
    {
        quint32 address = 0;
        quint32 value = 0;
        quint32 mask = 0;
        quint32 delayUs = 0;
    };

    // Payload of MEM_BEGIN and FLASH_BEGIN.
    struct ESP_FLASH_BEGIN_PKT
    {
        quint32 size = 0; // for flash: the size to erase
        quint32 blocks = 0;
        quint32 blockSize = 0;
        quint32 address = 0;
    };

    struct ESPUTILITY_CORE_EXPORT SPIFLASH_IDENTIFIER
    {
        quint8 manufacturer = 0;
        quint16 device = 0; // memory type * 256 + capacity code
        QString name;
        quint16 pageSize = 0;
        quint16 sectorSize = 0;
        quint16 sectorCount = 0;

        unsigned int flashSizeGuess() const;
        QString toString() const;
    };
    static const QVector<SPIFLASH_IDENTIFIER> KNOWN_SPI_CHIPS;

    // How a connection starts.
    struct ConnectOptions
    {
        // Reset the board into its boot loader through DTR/RTS first.
        bool resetBefore = false;
    };

    // Why the last connect failed before any synchronisation.
    enum class ConnectFailure {
        None,           // opened (a failed synchronisation is reported through the signals)
        OpenFailed,     // the port could not be opened: see openFailureText()
        SyncUnanswered, // opened, but the chip never answered the synchronisation
    };

    // One erase request of the ROM loader: a flash begin whose size field makes the ROM erase
    // exactly the sectors meant (it erases more than asked; see romErasePlan).
    struct RomErase
    {
        quint32 offset = 0;
        quint32 sizeField = 0;
    };

    explicit ESPTool(QObject *parent = nullptr);
    ~ESPTool() override;

    // Transport and synchronisation.
    static quint8 esp_crc(const QByteArray &data);
    bool esp_command(Opcode op, const QByteArray &payload, bool waitAnswer, unsigned int timeoutMs);
    QByteArray esp_command_secure(Opcode op, const QByteArray &payload, unsigned int timeoutMs);
    void sync();
    bool esp_connect(const QString &portName);
    bool esp_connect(const QString &portName, const ConnectOptions &options);
    void esp_disconnect();
    ConnectFailure connectFailure() const { return lastConnectFailure; }
    QString openFailureText() const { return lastOpenFailure; }
    // Resets the board so that the written firmware runs (RTS pulse, GPIO0 released). False,
    // with a notice, when the port has no modem lines.
    bool hard_reset();

    // Registers, RAM download, flash download, line speed.
    unsigned int read_reg(unsigned int address);
    void write_reg(unsigned int address, unsigned int value, unsigned int mask,
                   unsigned int delayUs);
    void write_reg(const ESP_WRITE_REG_PKT &pkt);
    void write_ram_prep(unsigned int address, unsigned int size, unsigned int blocks,
                        unsigned int blockSize);
    void write_ram_prep(const ESP_FLASH_BEGIN_PKT &pkt);
    void write_ram(const QByteArray &data);
    void write_ram_finish(bool execute, unsigned int entry);
    void write_flash_prep(unsigned int offset, unsigned int size);
    void write_flash_prep(const ESP_FLASH_BEGIN_PKT &pkt);
    static unsigned int get_erase_size(unsigned int offset, unsigned int size);
    void write_flash(const QByteArray &data);
    void write_flash_finish(bool reboot);
    void change_baudrate(unsigned int baud);
    // Switches the loader and the port to `baud` and checks the line; when that fails both go
    // back to the old rate with one notice. False only when the line is lost altogether.
    bool switch_baudrate(unsigned int baud);

    // The flash-begin requests that make the ROM loader erase exactly the sectors covering
    // [address, address + size): the last one is the begin of the data itself. Empty with
    // *impossible set when no sequence of requests can do it (a lone sector).
    static QVector<RomErase> romErasePlan(unsigned int address, unsigned int size,
                                          bool *impossible = nullptr);

    // Flash services.
    void erase_flash();
    void erase_flash_region(unsigned int offset, unsigned int size);
    void read_flash(unsigned int offset, unsigned int size, QIODevice *out, QByteArray *digest);
    QByteArray get_flash_md5(unsigned int address, unsigned int size);
    static QByteArray get_data_md5(const QByteArray &data);
    static QByteArray get_md5(QIODevice *device);
    static QByteArray get_file_md5(const QString &path);
    void flash_spi_attach(bool hspi);
    void flash_set_params(unsigned int size);
    unsigned int run_spiflash_command(unsigned char command, const QByteArray &data,
                                      unsigned int readBits);
    unsigned int spiflash_status(int count);

    // Identification.
    QByteArray get_efuses();
    QString get_chip_description();
    unsigned int get_chip_id();
    QByteArray get_chip_mac();
    SPIFLASH_IDENTIFIER get_flash_id();
    static int detect_image_version(const QString &path);

    // Loader stub upload.
    bool write_loader_stub(const QString &path);
    bool write_loader_stub(QIODevice *device);

    // Flash file writing: firmware images get their header patched to the given codes (size,
    // mode, frequency; 0xFF keeps the image's own); data is written unchanged. Both end with a
    // comparison against the chip's MD5 of the written region.
    bool write_flash_file(QIODevice *device, const QString &name, bool firmware,
                          unsigned int address, unsigned char size, unsigned char mode,
                          unsigned char freq);
    bool write_flash_file(const QString &path, bool firmware, unsigned int address,
                          unsigned char size, unsigned char mode, unsigned char freq);

    // Compare the flash with the image per 64 KiB block before a loader write and send only
    // the blocks that differ.
    void setSkipUnchanged(bool skip) { skipUnchanged = skip; }
    bool skipsUnchanged() const { return skipUnchanged; }

    bool isFailed() const { return failed; }
    bool isStubRunning() const { return stubRunning != 0; }
    bool hasStubImage() const { return stubImage != nullptr; }
    bool isConnected() const { return communicator.isOpen(); }
    QByteArray lastResponse() const { return response; }
    QString portInfo() const { return communicator.dumpInfo(); }

signals:
    void commandError(int error);
    void operationError(int code, const QString &descr);
    void operationProgress(int total, int current);
    // News for the log that is not a failure: a reset skipped, a baud-rate fallback, blocks
    // left unwritten.
    void notice(const QString &text);
    // The port went away (a board unplugged); a deliberate disconnect says nothing.
    void connectionLost(const QString &reason);

private slots:
    void connection_closed(const QString &reason);
    void connection_error(QSerialPort::SerialPortError error);

private:
    QByteArray getPacket(quint8 op);
    // Drops answers that are still arriving after a synchronisation, until the line is quiet.
    int discardLateAnswers(); // the number of answers dropped
    // Runs the wait loop for at most timeoutMs unless a packet is already queued.
    void waitForPacket(unsigned int timeoutMs);
    // Sends a request and waits for its answer without reporting anything: for probes whose
    // failure has a fallback. The answer, or empty.
    // The framed request for `op`: header, checksum of a data block's data, payload.
    static QByteArray request(Opcode op, const QByteArray &payload);
    QByteArray quietCommand(Opcode op, const QByteArray &payload, unsigned int timeoutMs);
    // Classic auto-reset into the boot loader; false when the port has no modem lines.
    bool enterBootLoader(unsigned int gpio0HoldMs);
    bool setModemLines(bool dtrAsserted, bool rtsAsserted);
    void pause(unsigned int ms);
    bool lineAnswers();
    // Reads a write's whole content (a firmware image with its header patched).
    bool readImage(QIODevice *device, ESPImageParser *parser, unsigned int total,
                   QByteArray *image);
    bool writeThroughLoader(const QByteArray &image, unsigned int address);
    bool writeCompressed(const QByteArray &data, unsigned int address, int total, int done);
    bool writeUncompressed(const QByteArray &data, unsigned int address, int total, int done);
    bool writeThroughRom(QIODevice *device, ESPImageParser *parser, unsigned int address,
                         unsigned int total);
    void reportOperationError(int code, const QString &text);
    void reportCommandError(int code);
    void receiveFlashData(unsigned int size, QIODevice *out, QByteArray *digest);
    bool uploadStubSection(const QByteArray &data, quint32 address, int total, int *sent);

    int stubRunning = 0;
    bool skipUnchanged = true;
    // The loader refused compressed data once: later writes go uncompressed.
    bool deflateRefused = false;
    // The modem-line note is given once per connection.
    bool modemLinesNoted = false;
    bool syncAnswered = false;
    ConnectFailure lastConnectFailure = ConnectFailure::None;
    QString lastOpenFailure;
    QString portName;
    bool failed = false;
    quint32 blockSequence = 0;
    std::unique_ptr<ElfStubImage> stubImage;
    ESPCommunicator communicator;
    ESPProtocol protocol;
    QEventLoop waitLoop;
    QTimer waitTimer;
    QByteArray response;
    // Counts every report; long loops stop at the first new one instead of waiting out each block.
    quint64 reportCount = 0;
};
