#pragma once

#include <esputility/esputility_core_global.h>
#include <esputility/espprotocol.h>
#include <esputility/espcommunicator.h>

#include <QByteArray>
#include <QEventLoop>
#include <QObject>
#include <QString>
#include <QTimer>
#include <QVector>

#include <memory>

class QIODevice;
class ElfStubImage;

// Client of the ESP8266 serial boot-loader protocol: talks to the chip's ROM loader and, once
// uploaded, to the RAM flash stub. Every operation is synchronous and waits in a nested event
// loop; failures set the failed flag and leave through commandError()/operationError().
class ESPUTILITY_CORE_EXPORT ESPTool : public QObject
{
    Q_OBJECT

public:
    enum Opcode : quint8 {
        ESP_NO_COMMAND = 0x00,      // wait selector: send nothing, accept any answer
        ESP_RAW_PACKET = 0x01,      // wait selector: accept the next packet of any kind
        ESP_FLASH_BEGIN = 0x02,     // erase a flash region and start a flash download
        ESP_FLASH_DATA = 0x03,      // one flash data block
        ESP_FLASH_END = 0x03,       // leave the flash download; deliberately shares 0x03
        ESP_MEM_BEGIN = 0x05,       // start a RAM download
        ESP_MEM_END = 0x06,         // finish a RAM download, optionally jump to an entry point
        ESP_MEM_DATA = 0x07,        // one RAM data block
        ESP_SYNC = 0x08,            // synchronisation frame
        ESP_WRITE_REG = 0x09,       // write a 32-bit register
        ESP_READ_REG = 0x0A,        // read a 32-bit register
        ESP_SPI_SET_PARAMS = 0x0B,  // flash geometry (stub)
        ESP_SPI_ATTACH = 0x0D,      // attach the SPI flash (stub)
        ESP_CHANGE_BAUDRATE = 0x0F, // switch the line speed (stub)
        ESP_FLASH_DEFL_DATA = 0x11, // compressed flash data block (checksum rule only)
        ESP_SPI_FLASH_MD5 = 0x13,   // MD5 of a flash region (stub)
        ESP_ERASE_FLASH = 0xD0,     // erase the whole chip (stub)
        ESP_ERASE_REGION = 0xD1,    // erase a region (stub)
        ESP_READ_FLASH = 0xD2,      // stream a flash region back (stub)
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

    explicit ESPTool(QObject *parent = nullptr);
    ~ESPTool() override;

    // Transport and synchronisation.
    static quint8 esp_crc(const QByteArray &data);
    bool esp_command(Opcode op, const QByteArray &payload, bool waitAnswer, unsigned int timeoutMs);
    QByteArray esp_command_secure(Opcode op, const QByteArray &payload, unsigned int timeoutMs);
    void sync();
    bool esp_connect(const QString &portName);
    void esp_disconnect();

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

private slots:
    void connection_closed(const QString &reason);
    void connection_error(QSerialPort::SerialPortError error);

private:
    QByteArray getPacket(quint8 op);
    // Drops answers that are still arriving after a synchronisation, until the line is quiet.
    void discardLateAnswers();
    // Runs the wait loop for at most timeoutMs unless a packet is already queued.
    void waitForPacket(unsigned int timeoutMs);
    void reportOperationError(int code, const QString &text);
    void reportCommandError(int code);
    unsigned int flashBlockSize() const;
    unsigned int flashEraseSize(unsigned int address, unsigned int total) const;
    bool uploadStubSection(const QByteArray &data, quint32 address, int total, int *sent);

    int stubRunning = 0;
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
