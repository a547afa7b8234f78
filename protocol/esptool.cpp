#include "esptool.h"

#include "image/espimageparser.h"
#include "protocol/deflatecompressor.h"
#include "protocol/elfstubimage.h"
#include "widgets/texthelpers.h"

#include <QCryptographicHash>
#include <QElapsedTimer>
#include <QFile>
#include <QtEndian>

#include <cmath>

namespace {

// Time-outs, all in milliseconds.
constexpr unsigned int defaultTimeoutMs = 3000;
constexpr unsigned int syncTimeoutMs = 100;
constexpr unsigned int romMemEndTimeoutMs = 50; // the ROM jumps to the stub right after answering
constexpr unsigned int eraseChipTimeoutMs = 120000; // a whole-chip erase takes long
constexpr unsigned int stubGreetingTimeoutMs = 3000;
constexpr unsigned int baudSwitchPauseMs = 50;
// The loader answers a baud-rate change at the old rate before it switches (ms).
constexpr unsigned int baudAnswerTimeoutMs = 500;
// A command that checks the line after a switch (ms).
constexpr unsigned int lineCheckTimeoutMs = 300;
constexpr unsigned int syncBaud = 115200;
// Reset into the boot loader through DTR (GPIO0) and RTS (EN): EN is held low this long (ms),
constexpr unsigned int resetHoldMs = 100;
// then GPIO0 stays low this long after EN was released, first the classic time and then,
// when the first synchronisation fails, a longer one for slow boards (ms).
constexpr unsigned int bootModeHoldMs = 50;
constexpr unsigned int bootModeHoldLongMs = 500;
// A compressed block can unpack to far more than its size, all of it erased and programmed
// before the answer (ms).
constexpr unsigned int deflateBlockTimeoutMs = 10000;
constexpr unsigned int skipBlockSize = 0x10000;
constexpr quint8 stubInvalidCommand = 0xC3; // the loader's status for an unknown opcode
// Per-size time-outs: milliseconds per 1,000,000 bytes.
constexpr unsigned int eraseMsPerMegabyte = 30000;
constexpr unsigned int md5MsPerMegabyte = 8000;

constexpr int syncAttempts = 4;
// After connecting, the line counts as settled once no packet arrived for this long (ms).
constexpr unsigned int lateAnswerQuietMs = 50;
// A line that keeps chattering cannot hold the connect longer than this (ms).
constexpr qint64 lateAnswerLimitMs = 1000;

constexpr unsigned int sectorSize = 4096;
constexpr unsigned int sectorsPerEraseBlock = 16;
constexpr unsigned int romFlashBlockSize = 0x400;
constexpr unsigned int stubFlashBlockSize = 0x4000;
constexpr unsigned int ramBlockSize = 0x1800;
constexpr unsigned int readPacketSize = 4096;
constexpr unsigned int readPacketsInFlight = 64;
constexpr int headerSize = 8;
constexpr int dataHeaderSize = 16;
constexpr int md5Size = 16;
constexpr qint64 md5ReadChunk = 64 * 1024;

// SPI controller registers.
constexpr unsigned int SPI_CMD_REG = 0x60000200;
constexpr unsigned int SPI_USR_REG = 0x6000021C;
constexpr unsigned int SPI_USR1_REG = 0x60000220;
constexpr unsigned int SPI_USR2_REG = 0x60000224;
constexpr unsigned int SPI_W0_REG = 0x60000240;
constexpr unsigned int SPI_CMD_USR = 0x40000;
constexpr unsigned int SPI_USR_COMMAND = 0x80000000;
constexpr unsigned int SPI_USR_MISO = 0x10000000;
constexpr unsigned int SPI_USR_MOSI = 0x08000000;
constexpr unsigned int SPI_USR2_8BIT_COMMAND = 0x70000000;
constexpr int SPI_MOSI_BITLEN_SHIFT = 17;
constexpr int SPI_MISO_BITLEN_SHIFT = 8;
constexpr int spiPollReads = 10;
constexpr unsigned char SPIFLASH_RDID = 0x9F;
constexpr unsigned char SPIFLASH_STATUS_COMMANDS[] = {0x05, 0x35, 0x15};

constexpr unsigned int EFUSE_WORD0 = 0x3FF00050;
constexpr unsigned int EFUSE_WORD1 = 0x3FF00054;
constexpr unsigned int EFUSE_WORD2 = 0x3FF00058;
constexpr unsigned int EFUSE_WORD3 = 0x3FF0005C;

const QByteArray stubGreeting = QByteArrayLiteral("OHAI");

void appendWord(QByteArray &bytes, quint32 value)
{
    char le[4];
    qToLittleEndian(value, le);
    bytes.append(le, 4);
}

QByteArray words(std::initializer_list<quint32> values)
{
    QByteArray bytes;
    bytes.reserve(int(values.size()) * 4);
    for (const quint32 value : values)
        appendWord(bytes, value);
    return bytes;
}

// The status byte of an answer (0: success), or -1 for a frame too short to carry one.
int answerStatus(const QByteArray &answer)
{
    return answer.size() >= headerSize + 2 ? quint8(answer.at(answer.size() - 2)) : -1;
}

quint32 wordAt(const QByteArray &bytes, int offset)
{
    return qFromLittleEndian<quint32>(bytes.constData() + offset);
}

ESPTool::SPIFLASH_IDENTIFIER knownChip(const char *name, quint16 device, quint16 sectors)
{
    ESPTool::SPIFLASH_IDENTIFIER chip;
    chip.manufacturer = 0xEF;
    chip.device = device;
    chip.name = QString::fromLatin1(name);
    chip.pageSize = 256;
    chip.sectorSize = 4096;
    chip.sectorCount = sectors;
    return chip;
}

} // namespace

const QVector<ESPTool::SPIFLASH_IDENTIFIER> ESPTool::KNOWN_SPI_CHIPS = {
    knownChip("W25X05CL", 0x3010, 16),
    knownChip("W25X10CL", 0x3011, 32),
    knownChip("W25X20CL", 0x3012, 64),
    knownChip("W25X40CL", 0x3013, 128),
    knownChip("W25Q40CL", 0x4013, 128),
    knownChip("W25Q80DV", 0x4014, 256),
    knownChip("W25Q16JV", 0x4015, 512),
    knownChip("W25Q16JV-Q", 0x7015, 512),
    knownChip("W25Q32FV", 0x4016, 1024),
    knownChip("W25Q32FV-Q", 0x6016, 1024),
    knownChip("W25Q32JV-M", 0x7016, 1024),
    knownChip("W25Q32JW-M", 0x8016, 1024),
    knownChip("W25Q64FV", 0x4017, 2048),
    knownChip("W25Q64FV-Q", 0x6017, 2048),
    knownChip("W25Q128FV", 0x4018, 4096),
    knownChip("W25Q128FV-Q", 0x6018, 4096),
    SPIFLASH_IDENTIFIER(), // the list ends with a nameless entry
};

ESPTool::ESPTool(QObject *parent)
    : QObject(parent), communicator(this), protocol(this), waitLoop(this), waitTimer(this)
{
    communicator.setHandler(&protocol);
    connect(&communicator, &ESPCommunicator::disconnected, this, &ESPTool::connection_closed);
    connect(&communicator, &ESPCommunicator::error, this, &ESPTool::connection_error);
    waitTimer.setSingleShot(true);
    connect(&waitTimer, &QTimer::timeout, &waitLoop, &QEventLoop::quit);
    connect(&protocol, &ESPProtocol::packetReady, &waitLoop, &QEventLoop::quit);
    // Boot messages and broken frames must neither end a wait nor stand in for an answer.
    protocol.setAnswersOnly(true);
}

ESPTool::~ESPTool()
{
    if (waitLoop.isRunning())
        waitLoop.quit();
    communicator.close();
}

// ---------------------------------------------------------------------------------------------
// Transport and synchronisation

quint8 ESPTool::esp_crc(const QByteArray &data)
{
    quint8 crc = 0xEF;
    for (const char byte : data)
        crc ^= static_cast<quint8>(byte);
    return crc;
}

void ESPTool::reportOperationError(int code, const QString &text)
{
    failed = true;
    ++reportCount;
    emit operationError(code, text);
}

void ESPTool::reportCommandError(int code)
{
    failed = true;
    ++reportCount;
    emit commandError(code);
}

QByteArray ESPTool::request(Opcode op, const QByteArray &payload)
{
    QByteArray packet;
    packet.reserve(headerSize + payload.size());
    packet.append(char(0x00));
    packet.append(char(op));
    char length[2];
    qToLittleEndian(quint16(payload.size()), length);
    packet.append(length, 2);
    quint32 checksum = 0;
    const bool dataBlock = op == ESP_FLASH_DATA || op == ESP_MEM_DATA || op == ESP_FLASH_DEFL_DATA;
    if (dataBlock && payload.size() > dataHeaderSize)
        checksum = esp_crc(payload.mid(dataHeaderSize));
    appendWord(packet, checksum);
    packet.append(payload);
    return packet;
}

bool ESPTool::esp_command(Opcode op, const QByteArray &payload, bool waitAnswer,
                          unsigned int timeoutMs)
{
    if (op != ESP_NO_COMMAND) {
        if (!communicator.write(request(op, payload))) {
            reportOperationError(SerialWriteFailed, communicator.errorString());
            return false;
        }
    }
    if (!waitAnswer)
        return true;

    waitTimer.stop();
    waitTimer.setInterval(int(timeoutMs));
    response = getPacket(op);
    if (response.isEmpty()) {
        // Exactly one wait: a stray packet that wakes it makes the command fail.
        waitTimer.start();
        waitLoop.exec();
        waitTimer.stop();
        response = getPacket(op);
    }
    if (response.isEmpty()) {
        reportOperationError(
            NoAnswer,
            QStringLiteral("No response for 0x%1 command").arg(uint(op), 2, 16, QLatin1Char('0')));
        return false;
    }
    return true;
}

QByteArray ESPTool::getPacket(quint8 op)
{
    for (;;) {
        QByteArray packet = protocol.deque();
        if (op == ESP_RAW_PACKET || packet.isEmpty())
            return packet;
        if (packet.size() < headerSize)
            continue;
        if (quint8(packet.at(0)) == 0x01 && (op == ESP_NO_COMMAND || quint8(packet.at(1)) == op))
            return packet;
    }
}

QByteArray ESPTool::esp_command_secure(Opcode op, const QByteArray &payload, unsigned int timeoutMs)
{
    if (!esp_command(op, payload, true, timeoutMs))
        return QByteArray();
    const int size = response.size();
    const int bodyLength = qFromLittleEndian<quint16>(response.constData() + 2);
    if (bodyLength < 2 || size - headerSize != bodyLength)
        return QByteArray();
    const quint8 status = quint8(response.at(size - 2));
    if (status == 0) {
        if (bodyLength < 3)
            return response.mid(4, 4);
        return response.mid(headerSize, size - headerSize - 2);
    }
    // The ROM puts its error code in the last byte, the stub in the status byte itself.
    reportCommandError(stubRunning ? status : quint8(response.at(size - 1)));
    return QByteArray();
}

void ESPTool::sync()
{
    QByteArray frame = QByteArrayLiteral("\x07\x07\x12\x20");
    frame.append(32, char(0x55));

    syncAnswered = false;
    int succeeded = -1;
    // A refused synchronisation took no effect: it has no surplus answers either, and must not
    // pass for the single answer of a running flash loader.
    const auto accepted = [this] { return answerStatus(response) == 0; };
    for (int attempt = 0; attempt < syncAttempts; ++attempt) {
        if (esp_command(ESP_SYNC, frame, true, syncTimeoutMs) && accepted()) {
            succeeded = attempt;
            break;
        }
        if (attempt + 1 < syncAttempts)
            failed = false;
    }
    if (succeeded < 0)
        return;
    syncAnswered = true;
    // The ROM answers one synchronisation several times, a running flash loader once: a
    // synchronisation without surplus answers found the loader of an earlier session.
    if (discardLateAnswers() == 0) {
        stubRunning = 1;
        emit notice(QStringLiteral("The flash loader is already running; it is used as it is"));
    }
}

bool ESPTool::esp_connect(const QString &name)
{
    return esp_connect(name, ConnectOptions());
}

bool ESPTool::esp_connect(const QString &name, const ConnectOptions &options)
{
    failed = false;
    // A fresh connection talks to the ROM loader: whatever stub ran before is gone.
    stubRunning = 0;
    stubImage.reset();
    deflateRefused = false;
    modemLinesNoted = false;
    syncAnswered = false;
    lastConnectFailure = ConnectFailure::None;
    lastOpenFailure.clear();
    // A port left open by an earlier connect whose synchronisation failed would refuse to open
    // again, and every retry would fail without a word.
    communicator.close();
    if (!communicator.open(name, syncBaud)) {
        lastConnectFailure = ConnectFailure::OpenFailed;
        lastOpenFailure = communicator.openFailureText();
        return false;
    }
    portName = name;
    protocol.flush(true);
    if (!options.resetBefore) {
        sync();
    } else {
        // The classic sequence first; a board that needs longer in reset gets a second try.
        for (const unsigned int holdMs : {bootModeHoldMs, bootModeHoldLongMs}) {
            const bool reset = enterBootLoader(holdMs);
            failed = false;
            sync();
            if (!failed || !reset)
                break;
        }
    }
    if (!syncAnswered)
        lastConnectFailure = ConnectFailure::SyncUnanswered;
    return !failed;
}

bool ESPTool::setModemLines(bool dtrAsserted, bool rtsAsserted)
{
    if (communicator.setModemLines(dtrAsserted, rtsAsserted))
        return true;
    if (!modemLinesNoted) {
        modemLinesNoted = true;
        emit notice(QStringLiteral("The board is not reset: %1 has no modem lines (DTR/RTS)")
                        .arg(portName));
    }
    return false;
}

void ESPTool::pause(unsigned int ms)
{
    waitTimer.stop();
    waitTimer.setInterval(int(ms));
    waitTimer.start();
    // Packets arriving meanwhile end the loop early; wait out the rest.
    QElapsedTimer elapsed;
    elapsed.start();
    while (elapsed.elapsed() < qint64(ms) && communicator.isOpen()) {
        waitLoop.exec();
        if (!waitTimer.isActive())
            break;
    }
    waitTimer.stop();
}

bool ESPTool::enterBootLoader(unsigned int gpio0HoldMs)
{
    // EN (RTS) low with GPIO0 (DTR) high, then EN released while GPIO0 is low: the chip starts
    // its serial boot loader. Then GPIO0 is released.
    if (!setModemLines(false, true))
        return false;
    pause(resetHoldMs);
    setModemLines(true, false);
    pause(gpio0HoldMs);
    setModemLines(false, false);
    // Whatever the chip said while booting is no answer.
    protocol.flush(true);
    return true;
}

bool ESPTool::hard_reset()
{
    if (!communicator.isOpen())
        return false;
    if (!setModemLines(false, true))
        return false;
    pause(resetHoldMs);
    setModemLines(false, false);
    stubRunning = 0;
    return true;
}

QByteArray ESPTool::quietCommand(Opcode op, const QByteArray &payload, unsigned int timeoutMs)
{
    if (!communicator.write(request(op, payload)))
        return QByteArray();
    QElapsedTimer elapsed;
    elapsed.start();
    // Unlike esp_command, packets of other kinds do not end the wait.
    while (elapsed.elapsed() < qint64(timeoutMs) && communicator.isOpen()) {
        waitForPacket(timeoutMs - unsigned(elapsed.elapsed()));
        const QByteArray answer = getPacket(op);
        if (!answer.isEmpty())
            return answer;
    }
    return QByteArray();
}

bool ESPTool::lineAnswers()
{
    const QByteArray answer = quietCommand(ESP_READ_REG, words({EFUSE_WORD0}), lineCheckTimeoutMs);
    return answerStatus(answer) == 0;
}

bool ESPTool::switch_baudrate(unsigned int baud)
{
    const unsigned int old = communicator.baudrate();
    if (!stubRunning || baud == 0 || baud == old)
        return true;
    protocol.flush(true);
    const QByteArray answer =
        quietCommand(ESP_CHANGE_BAUDRATE, words({baud, old}), baudAnswerTimeoutMs);
    if (answerStatus(answer) != 0) {
        // Ignored or refused: the loader still talks at the old rate.
        if (lineAnswers()) {
            emit notice(QStringLiteral("The board did not switch to %1 baud; staying at %2 baud")
                            .arg(baud)
                            .arg(old));
            return true;
        }
    } else {
        communicator.setBaudrate(baud);
        pause(baudSwitchPauseMs);
        protocol.flush(true);
        if (lineAnswers())
            return true;
        // The loader moved, the line does not carry the new rate: both go back.
        quietCommand(ESP_CHANGE_BAUDRATE, words({old, baud}), baudAnswerTimeoutMs);
        communicator.setBaudrate(old);
        pause(baudSwitchPauseMs);
        protocol.flush(true);
        if (lineAnswers()) {
            emit notice(QStringLiteral("The line does not carry %1 baud; back at %2 baud")
                            .arg(baud)
                            .arg(old));
            return true;
        }
    }
    reportOperationError(
        NoAnswer,
        QStringLiteral("The board stopped answering while switching to %1 baud").arg(baud));
    return false;
}

int ESPTool::discardLateAnswers()
{
    // Answers nobody waits for (the surplus of a synchronisation, the ROM's answer to a flash end
    // that is not awaited) arrive after the call that caused them has returned. Arriving during
    // the next command's only wait, one would end that wait and fail the command, so they are
    // taken off the line here.
    // Only whole packets are dropped: the decoder keeps its place in the byte stream.
    int discarded = 0;
    QElapsedTimer settling;
    settling.start();
    while (settling.elapsed() < lateAnswerLimitMs) {
        waitForPacket(lateAnswerQuietMs);
        if (protocol.queuedPackets() == 0)
            return discarded;
        while (!protocol.deque().isEmpty())
            ++discarded;
    }
    return discarded;
}

void ESPTool::esp_disconnect()
{
    communicator.close();
}

void ESPTool::connection_closed(const QString &reason)
{
    if (waitLoop.isRunning())
        waitLoop.quit();
    emit connectionLost(reason);
}

void ESPTool::connection_error(QSerialPort::SerialPortError) {}

void ESPTool::waitForPacket(unsigned int timeoutMs)
{
    waitTimer.stop();
    if (protocol.queuedPackets() > 0)
        return;
    waitTimer.setInterval(int(timeoutMs));
    waitTimer.start();
    waitLoop.exec();
    waitTimer.stop();
}

// ---------------------------------------------------------------------------------------------
// Registers, RAM and flash downloads

unsigned int ESPTool::read_reg(unsigned int address)
{
    const QByteArray result = esp_command_secure(ESP_READ_REG, words({address}), defaultTimeoutMs);
    if (result.size() != 4) {
        reportOperationError(
            MalformedAnswer,
            QStringLiteral("Invalid reply to the READ_REG command - expected 4 bytes, received %1")
                .arg(result.size()));
        return 0xFFFFFFFF;
    }
    return wordAt(result, 0);
}

void ESPTool::write_reg(unsigned int address, unsigned int value, unsigned int mask,
                        unsigned int delayUs)
{
    write_reg(ESP_WRITE_REG_PKT{address, value, mask, delayUs});
}

void ESPTool::write_reg(const ESP_WRITE_REG_PKT &pkt)
{
    esp_command_secure(ESP_WRITE_REG, words({pkt.address, pkt.value, pkt.mask, pkt.delayUs}),
                       defaultTimeoutMs);
}

void ESPTool::write_ram_prep(unsigned int address, unsigned int size, unsigned int blocks,
                             unsigned int blockSize)
{
    write_ram_prep(ESP_FLASH_BEGIN_PKT{size, blocks, blockSize, address});
}

void ESPTool::write_ram_prep(const ESP_FLASH_BEGIN_PKT &pkt)
{
    if (stubRunning && stubImage) {
        // A RAM download must not overwrite the stub that answers it.
        const quint64 begin = pkt.address;
        const quint64 end = begin + pkt.size;
        for (const ElfStubImage::Section &section : stubImage->sections()) {
            const quint64 start = section.address;
            const quint64 stop = start + section.size;
            if (begin < stop && start < end) {
                reportOperationError(
                    BadRequest,
                    QStringLiteral(
                        "To be written RAM region [0x%1:0x%2] overlaps with already loaded stub section %3 at [0x%4:0x%5]")
                        .arg(hex8(pkt.address), hex8(quint32(end)), section.name,
                             hex8(quint32(start)), hex8(quint32(stop))));
                return;
            }
        }
    }
    blockSequence = 0;
    esp_command_secure(ESP_MEM_BEGIN, words({pkt.size, pkt.blocks, pkt.blockSize, pkt.address}),
                       defaultTimeoutMs);
}

void ESPTool::write_ram(const QByteArray &data)
{
    QByteArray payload = words({quint32(data.size()), blockSequence++, 0, 0});
    payload.append(data);
    esp_command_secure(ESP_MEM_DATA, payload, defaultTimeoutMs);
}

void ESPTool::write_ram_finish(bool execute, unsigned int entry)
{
    const QByteArray payload = words({execute ? 0u : 1u, execute ? entry : 0u});
    if (stubRunning)
        esp_command_secure(ESP_MEM_END, payload, defaultTimeoutMs);
    else
        esp_command(ESP_MEM_END, payload, true, romMemEndTimeoutMs);
}

void ESPTool::write_flash_prep(unsigned int offset, unsigned int size)
{
    ESP_FLASH_BEGIN_PKT pkt;
    if (stubRunning) {
        pkt.blockSize = stubFlashBlockSize;
        pkt.blocks = (size + stubFlashBlockSize - 1) / stubFlashBlockSize;
        pkt.size = pkt.blocks * stubFlashBlockSize;
    } else {
        pkt.blockSize = romFlashBlockSize;
        pkt.blocks = (size + romFlashBlockSize - 1) / romFlashBlockSize;
        pkt.size = get_erase_size(offset, size);
    }
    pkt.address = offset;
    write_flash_prep(pkt);
}

void ESPTool::write_flash_prep(const ESP_FLASH_BEGIN_PKT &pkt)
{
    unsigned int timeoutMs = defaultTimeoutMs;
    if (!stubImage && !stubRunning) {
        // The product is taken in 32 bits on purpose: it wraps for sizes above 143165 bytes.
        const quint32 product = pkt.size * eraseMsPerMegabyte;
        const auto t = static_cast<unsigned int>(product / 1000000.0);
        timeoutMs = t >= defaultTimeoutMs ? t : defaultTimeoutMs;
    }
    esp_command_secure(ESP_FLASH_BEGIN, words({pkt.size, pkt.blocks, pkt.blockSize, pkt.address}),
                       timeoutMs);
    blockSequence = 0;
}

unsigned int ESPTool::get_erase_size(unsigned int offset, unsigned int size)
{
    const unsigned int sectors = (size + sectorSize - 1) / sectorSize;
    const unsigned int startSector = (offset / sectorSize) % sectorsPerEraseBlock;
    unsigned int head = sectorsPerEraseBlock - startSector;
    if (sectors < head)
        head = sectors;
    if (sectors < 2 * head)
        return ((sectors + 1) / 2) * sectorSize;
    return (sectors - head) * sectorSize;
}

void ESPTool::write_flash(const QByteArray &data)
{
    QByteArray payload = words({quint32(data.size()), blockSequence++, 0, 0});
    payload.append(data);
    esp_command_secure(ESP_FLASH_DATA, payload, defaultTimeoutMs);
}

void ESPTool::write_flash_finish(bool reboot)
{
    QByteArray payload(4, '\0');
    payload[0] = reboot ? 0 : 1;
    if (stubImage || stubRunning) {
        esp_command_secure(ESP_FLASH_END, payload, defaultTimeoutMs);
        return;
    }
    esp_command(ESP_FLASH_END, payload, false, defaultTimeoutMs);
    // No answer is awaited, but the ROM answers all the same (it takes the request for a short
    // data block and refuses it); arriving during the next command's only wait, that answer
    // would fail the command, so it is taken off the line here.
    if (!failed)
        discardLateAnswers();
}

void ESPTool::change_baudrate(unsigned int baud)
{
    if (!stubRunning)
        return;
    esp_command(ESP_CHANGE_BAUDRATE, words({baud, communicator.baudrate()}), false, 0);
    communicator.setBaudrate(baud);
    // Let the line settle, then drop whatever arrived around the switch.
    waitTimer.stop();
    waitTimer.setInterval(int(baudSwitchPauseMs));
    waitTimer.start();
    waitLoop.exec();
    waitTimer.stop();
    protocol.flush(true);
}

// ---------------------------------------------------------------------------------------------
// Flash services

void ESPTool::erase_flash()
{
    // The ROM cannot do it; the request still goes out so that the chip's answer is reported.
    if (!stubRunning)
        reportOperationError(WrongLoader,
                             QStringLiteral("Flash erase command is unsupported in ROM loader"));
    esp_command_secure(ESP_ERASE_FLASH, QByteArray(), eraseChipTimeoutMs);
}

void ESPTool::erase_flash_region(unsigned int offset, unsigned int size)
{
    if (!stubRunning)
        reportOperationError(WrongLoader,
                             QStringLiteral("Flash erase command is unsupported in ROM loader"));
    const unsigned int start = offset / sectorSize * sectorSize;
    const unsigned int length =
        (size + offset % sectorSize + sectorSize - 1) / sectorSize * sectorSize;
    const auto t = static_cast<unsigned int>(quint64(length) * eraseMsPerMegabyte / 1000000.0);
    esp_command_secure(ESP_ERASE_REGION, words({start, length}),
                       t >= defaultTimeoutMs ? t : defaultTimeoutMs);
}

void ESPTool::read_flash(unsigned int offset, unsigned int size, QIODevice *out, QByteArray *digest)
{
    if (digest)
        digest->clear();
    if (!stubRunning)
        reportOperationError(WrongLoader,
                             QStringLiteral("Flash read command is unsupported in ROM loader"));
    // Flash data and the digest come as raw frames, the first right behind the answer.
    protocol.setAnswersOnly(false);
    esp_command_secure(ESP_READ_FLASH, words({offset, size, readPacketSize, readPacketsInFlight}),
                       defaultTimeoutMs);
    emit operationProgress(int(size), 0);
    receiveFlashData(size, out, digest);
    protocol.setAnswersOnly(true);
}

void ESPTool::receiveFlashData(unsigned int size, QIODevice *out, QByteArray *digest)
{
    unsigned int received = 0;
    unsigned int packetsLeft = (size + readPacketSize - 1) / readPacketSize;
    while (received < size) {
        waitForPacket(defaultTimeoutMs);
        if (protocol.queuedPackets() == 0) {
            reportOperationError(
                NoAnswer,
                QStringLiteral("The device did not send any flash data (receviced %1 of %2)")
                    .arg(received)
                    .arg(size));
            return;
        }
        for (QByteArray packet = protocol.deque(); !packet.isEmpty(); packet = protocol.deque()) {
            if (packetsLeft != 1 && uint(packet.size()) < readPacketSize) {
                reportOperationError(
                    MalformedAnswer,
                    QStringLiteral("Corrupt data, received 0x%1 of expected 0x%2 bytes")
                        .arg(hex8(quint32(packet.size())), hex8(readPacketSize)));
                return;
            }
            if (out)
                out->write(packet);
            received += uint(packet.size());
            if (!communicator.write(words({received}))) {
                reportOperationError(
                    SerialWriteFailed,
                    QStringLiteral("Cannot write ack packet: %1").arg(communicator.errorString()));
                return;
            }
            --packetsLeft;
        }
        emit operationProgress(int(size), int(received));
    }

    waitForPacket(defaultTimeoutMs);
    const QByteArray last = protocol.deque();
    if (last.size() == md5Size) {
        if (digest)
            *digest = last;
    } else {
        reportOperationError(
            MalformedAnswer,
            QStringLiteral("Digest not received (expected 16 bytes, got %1").arg(last.size()));
    }
}

QByteArray ESPTool::get_flash_md5(unsigned int address, unsigned int size)
{
    if (!stubRunning) {
        reportOperationError(WrongLoader,
                             QStringLiteral("MD5 checksum is not supported by the ROM loader"));
        return QByteArray();
    }
    const auto t =
        static_cast<unsigned int>(std::floor(size * double(md5MsPerMegabyte) / 1000000.0 + 0.5));
    QByteArray result = esp_command_secure(ESP_SPI_FLASH_MD5, words({address, size, 0, 0}),
                                           t >= defaultTimeoutMs ? t : defaultTimeoutMs);
    if (result.size() == 2 * md5Size)
        result = QByteArray::fromHex(result);
    if (result.size() != md5Size) {
        reportOperationError(
            MalformedAnswer,
            QStringLiteral("MD5 reply contains %1 bytes of 16").arg(result.size()));
        return QByteArray();
    }
    return result;
}

QByteArray ESPTool::get_data_md5(const QByteArray &data)
{
    return QCryptographicHash::hash(data, QCryptographicHash::Md5);
}

QByteArray ESPTool::get_md5(QIODevice *device)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (device) {
        while (!device->atEnd()) {
            const QByteArray chunk = device->read(md5ReadChunk);
            if (chunk.isEmpty())
                break;
            hash.addData(chunk);
        }
    }
    return hash.result();
}

QByteArray ESPTool::get_file_md5(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    return get_md5(&file);
}

void ESPTool::flash_spi_attach(bool hspi)
{
    if (hspi) {
        reportOperationError(BadRequest,
                             QStringLiteral("ESP8266 does not support HSPI bootloader mode"));
        return;
    }
    if (!stubRunning) {
        // A flash begin for nothing makes the ROM attach the flash.
        ESP_FLASH_BEGIN_PKT pkt;
        pkt.blockSize = romFlashBlockSize;
        write_flash_prep(pkt);
        return;
    }
    esp_command_secure(ESP_SPI_ATTACH, QByteArray(4, '\0'), defaultTimeoutMs);
}

void ESPTool::flash_set_params(unsigned int size)
{
    if (!stubRunning)
        return;
    constexpr quint32 blockSize = 0x10000;
    constexpr quint32 pageSize = 256;
    constexpr quint32 statusMask = 0xFFFF;
    esp_command_secure(ESP_SPI_SET_PARAMS,
                       words({0, size, blockSize, sectorSize, pageSize, statusMask}),
                       defaultTimeoutMs);
}

unsigned int ESPTool::run_spiflash_command(unsigned char command, const QByteArray &data,
                                           unsigned int readBits)
{
    if (readBits > 32) {
        reportOperationError(
            BadRequest,
            QStringLiteral(
                "Reading more than 32 bits back from a SPI flash operation is unsupported"));
        return 0xFFFFFFFF;
    }
    if (data.size() > 64) {
        reportOperationError(
            BadRequest,
            QStringLiteral(
                "Writing more than 64 bytes of data with one SPI command is unsupported"));
        return 0xFFFFFFFF;
    }
    // Once the chip has stopped answering, each further register access would only wait out its
    // time-out (half a minute for one command): the command ends at the first failure.
    const quint64 reportsBefore = reportCount;
    quint64 pollReports = 0; // the late-completion report below is no silence
    const auto answering = [&] { return reportCount == reportsBefore + pollReports; };
    const unsigned int savedUser = read_reg(SPI_USR_REG);
    const unsigned int savedUser2 = answering() ? read_reg(SPI_USR2_REG) : 0;

    unsigned int user1 = 0;
    unsigned int user = SPI_USR_COMMAND;
    if (!data.isEmpty()) {
        user1 |= (unsigned(data.size()) * 8 - 1) << SPI_MOSI_BITLEN_SHIFT;
        user |= SPI_USR_MOSI;
    }
    if (readBits > 0) {
        user1 |= (readBits - 1) << SPI_MISO_BITLEN_SHIFT;
        user |= SPI_USR_MISO;
    }
    quint32 word0 = 0;
    if (!data.isEmpty()) {
        QByteArray first = data.left(4);
        first.append(4 - first.size(), '\0');
        word0 = wordAt(first, 0);
    }
    const ESP_WRITE_REG_PKT setup[] = {
        {SPI_USR1_REG, user1, 0xFFFFFFFF, 0},
        {SPI_USR_REG, user, 0xFFFFFFFF, 0},
        {SPI_USR2_REG, SPI_USR2_8BIT_COMMAND | command, 0xFFFFFFFF, 0},
        {SPI_W0_REG, word0, 0xFFFFFFFF, 0},
        {SPI_CMD_REG, SPI_CMD_USR, 0xFFFFFFFF, 0},
    };
    for (const ESP_WRITE_REG_PKT &reg : setup) {
        if (!answering())
            return 0xFFFFFFFF;
        write_reg(reg);
    }

    // Only a command that finishes on the very last poll is reported; one that never finishes
    // is not. The asymmetry is kept as the tool has always behaved.
    for (int counter = spiPollReads - 1; counter >= 0 && answering(); --counter) {
        if ((read_reg(SPI_CMD_REG) & SPI_CMD_USR) == 0) {
            if (counter == 0) {
                reportOperationError(NoAnswer,
                                     QStringLiteral("SPI command did not complete in time"));
                ++pollReports;
            }
            break;
        }
    }
    if (!answering())
        return 0xFFFFFFFF;
    const unsigned int result = read_reg(SPI_W0_REG);
    if (answering())
        write_reg(SPI_USR_REG, savedUser, 0xFFFFFFFF, 0);
    if (answering())
        write_reg(SPI_USR2_REG, savedUser2, 0xFFFFFFFF, 0);
    return result;
}

unsigned int ESPTool::spiflash_status(int count)
{
    unsigned int status = 0xFFFFFF;
    const int commands = qMin(count, int(sizeof(SPIFLASH_STATUS_COMMANDS)));
    for (int i = 0; i < commands; ++i) {
        const unsigned int value =
            run_spiflash_command(SPIFLASH_STATUS_COMMANDS[i], QByteArray(), 8) & 0xFF;
        const int shift = 8 * i;
        status = (status & ~(0xFFu << shift)) | (value << shift);
    }
    return status;
}

// ---------------------------------------------------------------------------------------------
// Identification

QByteArray ESPTool::get_efuses()
{
    // A read that fails yields all ones; once one has failed the rest would only wait out their
    // time-outs for the same result, so they are not asked for.
    const quint64 reportsBefore = reportCount;
    QByteArray efuses;
    for (const unsigned int address : {EFUSE_WORD3, EFUSE_WORD2, EFUSE_WORD1, EFUSE_WORD0}) {
        const quint32 word = reportCount == reportsBefore ? read_reg(address) : 0xFFFFFFFF;
        char be[4];
        qToBigEndian(word, be);
        efuses.append(be, 4);
    }
    return efuses;
}

QString ESPTool::get_chip_description()
{
    const QByteArray efuses = get_efuses();
    if (efuses.size() != 16)
        return QStringLiteral("Unknown");
    const bool esp8285 = (quint8(efuses.at(5)) & 0x01) || (quint8(efuses.at(15)) & 0x10);
    return esp8285 ? QStringLiteral("ESP8285") : QStringLiteral("ESP8266EX");
}

unsigned int ESPTool::get_chip_id()
{
    const unsigned int word0 = read_reg(EFUSE_WORD0);
    const unsigned int word1 = read_reg(EFUSE_WORD1);
    return (word0 >> 24) | ((word1 & 0xFFFFFF) << 8);
}

QByteArray ESPTool::get_chip_mac()
{
    const unsigned int word0 = read_reg(EFUSE_WORD0);
    const unsigned int word1 = read_reg(EFUSE_WORD1);
    const unsigned int word3 = read_reg(EFUSE_WORD3);
    QByteArray mac;
    if (word3 != 0) {
        mac.append(char(word3 >> 16)).append(char(word3 >> 8)).append(char(word3));
    } else {
        switch ((word1 >> 16) & 0xFF) {
        case 0:
            mac = QByteArrayLiteral("\x18\xFE\x34");
            break;
        case 1:
            mac = QByteArrayLiteral("\xAC\xD0\x74");
            break;
        default:
            reportOperationError(BadRequest,
                                 QStringLiteral("Cannot read MAC - unknown OUI [0x%1, 0x%2, 0x%3]")
                                     .arg(hex8(word0), hex8(word1), hex8(word3)));
            return QByteArray();
        }
    }
    mac.append(char(word1 >> 8)).append(char(word1)).append(char(word0 >> 24));
    return mac;
}

ESPTool::SPIFLASH_IDENTIFIER ESPTool::get_flash_id()
{
    if (!stubRunning) {
        // A flash begin for nothing makes the ROM attach the flash first.
        ESP_FLASH_BEGIN_PKT pkt;
        pkt.blockSize = romFlashBlockSize;
        write_flash_prep(pkt);
    }
    const unsigned int id = run_spiflash_command(SPIFLASH_RDID, QByteArray(), 24);
    SPIFLASH_IDENTIFIER result;
    result.manufacturer = quint8(id & 0xFF);
    result.device = quint16((((id >> 8) & 0xFF) << 8) | ((id >> 16) & 0xFF));
    result.name = QStringLiteral("NONAME");
    for (const SPIFLASH_IDENTIFIER &known : KNOWN_SPI_CHIPS) {
        if (known.name.isEmpty())
            break;
        if (known.manufacturer == result.manufacturer && known.device == result.device) {
            result.name = known.name;
            result.pageSize = known.pageSize;
            result.sectorSize = known.sectorSize;
            result.sectorCount = known.sectorCount;
            break;
        }
    }
    if (!stubRunning)
        write_flash_finish(false);
    return result;
}

unsigned int ESPTool::SPIFLASH_IDENTIFIER::flashSizeGuess() const
{
    if (sectorSize != 0 && sectorCount != 0)
        return unsigned(sectorSize) * sectorCount;
    constexpr double minimum = 4096;
    constexpr double maximum = 0x40000000;
    const int capacity = device & 0xFF;
    const double units = std::floor(std::pow(2.0, capacity - 16) + 0.5);
    const double bytes = units * 65536.0;
    if (bytes < minimum || bytes > maximum)
        return 0;
    return static_cast<unsigned int>(bytes);
}

QString ESPTool::SPIFLASH_IDENTIFIER::toString() const
{
    QString sizeText = QStringLiteral("?K");
    if (sectorSize != 0 && sectorCount != 0) {
        sizeText = ESPImageParser::flashSizeString(unsigned(sectorSize) * sectorCount);
    } else {
        const unsigned int guess = flashSizeGuess();
        if (guess != 0)
            sizeText = ESPImageParser::flashSizeString(guess) + QStringLiteral("(?)");
    }
    return QStringLiteral("%1 (0x%2:0x%3) %4")
        .arg(name)
        .arg(manufacturer, 2, 16, QLatin1Char('0'))
        .arg(device, 4, 16, QLatin1Char('0'))
        .arg(sizeText);
}

int ESPTool::detect_image_version(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    char magic = 0;
    if (file.read(&magic, 1) != 1)
        return 0;
    switch (static_cast<quint8>(magic)) {
    case 0xE9:
        return 1;
    case 0xEA:
        return 2;
    default:
        return 0;
    }
}

// ---------------------------------------------------------------------------------------------
// Loader stub upload

bool ESPTool::write_loader_stub(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        reportOperationError(
            BadRequest,
            QStringLiteral("Cannot read stub data from %1: %2").arg(path, file.errorString()));
        return false;
    }
    return write_loader_stub(&file);
}

bool ESPTool::uploadStubSection(const QByteArray &data, quint32 address, int total, int *sent)
{
    const quint64 reportsBefore = reportCount;
    const auto size = unsigned(data.size());
    write_ram_prep(address, size, (size + ramBlockSize - 1) / ramBlockSize, ramBlockSize);
    emit operationProgress(total, 0);
    for (unsigned int offset = 0; offset < size && reportCount == reportsBefore;
         offset += ramBlockSize) {
        const QByteArray block = data.mid(int(offset), int(qMin(ramBlockSize, size - offset)));
        write_ram(block);
        *sent += block.size();
        emit operationProgress(total, *sent);
    }
    return reportCount == reportsBefore;
}

bool ESPTool::write_loader_stub(QIODevice *device)
{
    if (stubRunning == 1) {
        reportOperationError(WrongLoader, QStringLiteral("Cannot re-load stub"));
        return false;
    }
    stubImage.reset();
    auto image = std::make_unique<ElfStubImage>();
    // The loader class reads the device, so its size limit bounds the read itself.
    if (!device || !image->load(device)) {
        reportOperationError(BadRequest,
                             QStringLiteral("Invalid flash loader: %1")
                                 .arg(device ? image->errorString() : QStringLiteral("no data")));
        return false;
    }
    const ElfStubImage::Section *text = image->section(QStringLiteral(".text"));
    const ElfStubImage::Section *data = image->section(QStringLiteral(".data"));
    if (!text || !data) {
        reportOperationError(BadRequest,
                             QStringLiteral("Invalid flash loader: the %1 section is missing")
                                 .arg(text ? QStringLiteral(".data") : QStringLiteral(".text")));
        return false;
    }
    stubImage = std::move(image);

    const int total = text->data.size() + data->data.size();
    int sent = 0;
    // A transport failure ends the upload: every further block would only wait out its time-out.
    if (!uploadStubSection(text->data, text->address, total, &sent) ||
        !uploadStubSection(data->data, data->address, total, &sent))
        return false;
    // The greeting is a raw frame, not an answer.
    protocol.setAnswersOnly(false);
    write_ram_finish(true, stubImage->entry());
    emit operationProgress(total, total);

    waitForPacket(stubGreetingTimeoutMs);
    const QByteArray greeting = getPacket(ESP_RAW_PACKET);
    protocol.setAnswersOnly(true);
    if (greeting == stubGreeting) {
        stubRunning = 1;
        return true;
    }
    reportOperationError(NoAnswer, QStringLiteral("Stub failed to start - OHAI not received"));
    return false;
}

// ---------------------------------------------------------------------------------------------
// Flash file writing

bool ESPTool::write_flash_file(const QString &path, bool firmware, unsigned int address,
                               unsigned char size, unsigned char mode, unsigned char freq)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        reportOperationError(
            BadRequest,
            QStringLiteral("Cannot read data from %1: %2").arg(path, file.errorString()));
        return false;
    }
    return write_flash_file(&file, path, firmware, address, size, mode, freq);
}

bool ESPTool::write_flash_file(QIODevice *device, const QString &name, bool firmware,
                               unsigned int address, unsigned char size, unsigned char mode,
                               unsigned char freq)
{
    const auto unreadable = [&] {
        const QString format = firmware ? QStringLiteral("Cannot read firmware from %1: %2")
                                        : QStringLiteral("Cannot read data from %1: %2");
        reportOperationError(BadRequest, format.arg(name, device ? device->errorString()
                                                                 : QStringLiteral("no device")));
        return false;
    };
    if (!device || !device->seek(0))
        return unreadable();
    // The fit check comes before anything reads the file: a huge file is refused at once.
    const quint64 flashSize = ESPImageParser::flash_size_bytes(size);
    const auto fileSize = quint64(qMax<qint64>(device->size(), 0));
    if (fileSize + address > flashSize) {
        const QString format =
            firmware ? QStringLiteral("firmware %1 (size %2 @ %3) will not fit in flash %4")
                     : QStringLiteral("Data file %1 (size %2 @ %3) will not fit in flash %4");
        reportOperationError(BadRequest,
                             format.arg(name).arg(fileSize).arg(address).arg(flashSize));
        return false;
    }
    const auto total = unsigned(fileSize);

    std::unique_ptr<ESPImageParser> parser;
    QByteArray expected;
    if (firmware) {
        parser = std::make_unique<ESPImageParser>();
        if (!parser->load(device, mode, size, freq))
            return unreadable();
        expected = parser->md5();
    } else {
        expected = get_md5(device);
        if (!device->seek(0))
            return unreadable();
    }

    bool written = false;
    if (stubRunning) {
        QByteArray image;
        if (!readImage(device, parser.get(), total, &image))
            return unreadable();
        parser.reset();
        // What was read is what the flash must hold: a file that changed meanwhile is caught.
        if (!firmware)
            expected = get_data_md5(image);
        written = writeThroughLoader(image, address);
    } else {
        written = writeThroughRom(device, parser.get(), address, total);
    }
    parser.reset();
    if (!written)
        return false;

    const QByteArray actual = get_flash_md5(address, total);
    if (actual != expected) {
        reportOperationError(
            BadRequest, QStringLiteral("Flashing failed: incorrect MD5 (saved %1 vs returned %2)")
                            .arg(hexlify(expected, true), hexlify(actual, true)));
        return false;
    }
    return true;
}

bool ESPTool::readImage(QIODevice *device, ESPImageParser *parser, unsigned int total,
                        QByteArray *image)
{
    image->clear();
    image->reserve(int(total));
    if (parser) {
        parser->prepare_read();
        while (!device->atEnd() && unsigned(image->size()) < total) {
            const QByteArray block = parser->get_block(stubFlashBlockSize);
            if (block.isEmpty())
                break;
            image->append(block);
        }
        image->truncate(int(total)); // the last block came padded
    } else {
        while (unsigned(image->size()) < total) {
            const QByteArray chunk = device->read(qint64(total) - image->size());
            if (chunk.isEmpty())
                break;
            image->append(chunk);
        }
    }
    return unsigned(image->size()) == total;
}

bool ESPTool::writeThroughRom(QIODevice *device, ESPImageParser *parser, unsigned int address,
                              unsigned int total)
{
    bool impossible = false;
    const QVector<RomErase> plan = romErasePlan(address, total, &impossible);
    if (impossible) {
        reportOperationError(
            BadRequest,
            QStringLiteral("The ROM loader cannot erase the single sector at 0x%1 without "
                           "erasing the next one; load the flash loader to write it")
                .arg(hex8(address / sectorSize * sectorSize)));
        return false;
    }
    emit operationProgress(int(total), 0);
    const quint64 reportsBefore = reportCount;
    // Erase-only requests first; the last request begins the data itself.
    for (int i = 0; i < plan.size() && reportCount == reportsBefore; ++i) {
        ESP_FLASH_BEGIN_PKT begin;
        begin.size = plan.at(i).sizeField;
        begin.blockSize = romFlashBlockSize;
        begin.address = plan.at(i).offset;
        if (i + 1 == plan.size())
            begin.blocks = (total + romFlashBlockSize - 1) / romFlashBlockSize;
        write_flash_prep(begin);
    }

    // The first failure ends the transfer: every further block would only wait out its time-out.
    int written = 0;
    if (parser)
        parser->prepare_read();
    while (reportCount == reportsBefore) {
        QByteArray block;
        if (parser) {
            if (device->atEnd())
                break;
            block = parser->get_block(romFlashBlockSize);
        } else {
            block = device->read(romFlashBlockSize);
            if (block.isEmpty())
                break;
            block.append(int(romFlashBlockSize) - block.size(), char(0xFF));
        }
        write_flash(block);
        ++written;
        emit operationProgress(int(total), int(quint64(written) * romFlashBlockSize));
    }
    return reportCount == reportsBefore;
}

QVector<ESPTool::RomErase> ESPTool::romErasePlan(unsigned int address, unsigned int size,
                                                 bool *impossible)
{
    // The ROM erases s + min(h, s) sectors for a size field of s sectors, h being the sectors
    // left in the 64 KiB block the start lies in: an even count within the first block.
    if (impossible)
        *impossible = false;
    const unsigned int first = address / sectorSize;
    const unsigned int end = (quint64(address) + size + sectorSize - 1) / sectorSize;
    const unsigned int sectors = end - first;
    const unsigned int head = sectorsPerEraseBlock - first % sectorsPerEraseBlock;
    const auto field = [](unsigned int s) { return quint32(s * sectorSize); };
    if (sectors == 0)
        return {{address, 0}};
    if (sectors > 2 * head)
        return {{address, field(sectors - head)}};
    if (sectors % 2 == 0)
        return {{address, field(sectors / 2)}};
    if (sectors == 1) {
        if (impossible)
            *impossible = true;
        return {};
    }
    // Odd and within reach of the doubling: the last two sectors on their own, then the rest
    // (an even count) with the data's begin. The sector they share is erased twice.
    return {{(end - 2) * sectorSize, field(1)}, {address, field((sectors - 1) / 2)}};
}

bool ESPTool::writeThroughLoader(const QByteArray &image, unsigned int address)
{
    const auto total = unsigned(image.size());
    emit operationProgress(int(total), 0);
    if (!skipUnchanged || total == 0)
        return writeCompressed(image, address, int(total), 0);

    // One digest answers the common cases (nothing changed) at once; otherwise block by block.
    const quint64 reportsBefore = reportCount;
    if (get_flash_md5(address, total) == get_data_md5(image)) {
        emit operationProgress(int(total), int(total));
        emit notice(QStringLiteral("%1 of %1 block(s) of 64 KiB unchanged, nothing written")
                        .arg((total + skipBlockSize - 1) / skipBlockSize));
        return true;
    }
    if (reportCount != reportsBefore)
        return false;
    const unsigned int blocks = (total + skipBlockSize - 1) / skipBlockSize;
    QVector<bool> differs(int(blocks), false);
    for (unsigned int i = 0; i < blocks && reportCount == reportsBefore; ++i) {
        const unsigned int offset = i * skipBlockSize;
        const unsigned int length = qMin(skipBlockSize, total - offset);
        differs[int(i)] = get_flash_md5(address + offset, length) !=
                          get_data_md5(image.mid(int(offset), int(length)));
    }
    if (reportCount != reportsBefore)
        return false;

    // Runs of differing blocks go out as one compressed write each.
    int done = 0;
    int skipped = 0;
    for (unsigned int i = 0; i < blocks;) {
        const unsigned int offset = i * skipBlockSize;
        if (!differs.at(int(i))) {
            ++skipped;
            done += int(qMin(skipBlockSize, total - offset));
            emit operationProgress(int(total), done);
            ++i;
            continue;
        }
        unsigned int last = i;
        while (last + 1 < blocks && differs.at(int(last + 1)))
            ++last;
        const unsigned int length = qMin((last + 1) * skipBlockSize, total) - offset;
        if (!writeCompressed(image.mid(int(offset), int(length)), address + offset, int(total),
                             done))
            return false;
        done += int(length);
        i = last + 1;
    }
    if (skipped > 0)
        emit notice(QStringLiteral("%1 of %2 block(s) of 64 KiB unchanged, not written")
                        .arg(skipped)
                        .arg(blocks));
    return true;
}

bool ESPTool::writeCompressed(const QByteArray &data, unsigned int address, int total, int done)
{
    const QByteArray stream = deflateRefused ? QByteArray() : DeflateCompressor::compress(data);
    if (stream.isEmpty())
        return writeUncompressed(data, address, total, done);
    const auto size = unsigned(stream.size());
    const unsigned int blocks = (size + stubFlashBlockSize - 1) / stubFlashBlockSize;
    // The loader erases the sectors the uncompressed data covers, and only those.
    const QByteArray begin = words({unsigned(data.size()), blocks, stubFlashBlockSize, address});
    const auto eraseMs =
        static_cast<unsigned int>(quint64(data.size()) * eraseMsPerMegabyte / 1000000);
    const QByteArray answer =
        quietCommand(ESP_FLASH_DEFL_BEGIN, begin, qMax(defaultTimeoutMs, eraseMs));
    const int status = answerStatus(answer);
    if (status == stubInvalidCommand) {
        deflateRefused = true;
        emit notice(
            QStringLiteral("The flash loader does not take compressed data; writing uncompressed"));
        return writeUncompressed(data, address, total, done);
    }
    if (answer.isEmpty()) {
        reportOperationError(NoAnswer,
                             QStringLiteral("No response for 0x%1 command")
                                 .arg(uint(ESP_FLASH_DEFL_BEGIN), 2, 16, QLatin1Char('0')));
        return false;
    }
    if (status != 0) {
        reportCommandError(qMax(status, 0));
        return false;
    }

    const quint64 reportsBefore = reportCount;
    blockSequence = 0;
    for (unsigned int offset = 0; offset < size && reportCount == reportsBefore;
         offset += stubFlashBlockSize) {
        const QByteArray slice = stream.mid(int(offset), int(stubFlashBlockSize));
        QByteArray payload = words({quint32(slice.size()), blockSequence++, 0, 0});
        payload.append(slice);
        esp_command_secure(ESP_FLASH_DEFL_DATA, payload, deflateBlockTimeoutMs);
        // Progress in uncompressed bytes: the share of the stream sent so far.
        const unsigned int sent = offset + unsigned(slice.size());
        emit operationProgress(total, done + int(quint64(data.size()) * sent / size));
    }
    return reportCount == reportsBefore;
}

bool ESPTool::writeUncompressed(const QByteArray &data, unsigned int address, int total, int done)
{
    const auto size = unsigned(data.size());
    ESP_FLASH_BEGIN_PKT begin;
    // Only the sectors the data covers are erased; the padding of the last block is 0xFF,
    // which leaves flash that was not erased as it is.
    begin.size = size;
    begin.blocks = (size + stubFlashBlockSize - 1) / stubFlashBlockSize;
    begin.blockSize = stubFlashBlockSize;
    begin.address = address;
    const quint64 reportsBefore = reportCount;
    write_flash_prep(begin);
    for (unsigned int offset = 0; offset < size && reportCount == reportsBefore;
         offset += stubFlashBlockSize) {
        QByteArray block = data.mid(int(offset), int(stubFlashBlockSize));
        block.append(int(stubFlashBlockSize) - block.size(), char(0xFF));
        write_flash(block);
        emit operationProgress(total, done + int(qMin(size, offset + stubFlashBlockSize)));
    }
    return reportCount == reportsBefore;
}
