#include "virtualchip/virtualchiploader.h"

#include <QtEndian>

using LoaderState = VirtualEsp8266::LoaderState;

namespace {

constexpr int headerSize = 8;      // direction, opcode, length (2), checksum / value word (4)
constexpr int dataHeaderSize = 16; // data size, sequence, 0, 0
constexpr quint8 requestDirection = 0x00;
constexpr quint8 answerDirection = 0x01;
constexpr quint8 checksumSeed = 0xEF;
constexpr quint8 romFailure = 0x01; // status byte of every ROM loader failure

quint32 word(const QByteArray &data, int offset)
{
    return qFromLittleEndian<quint32>(data.constData() + offset);
}

void appendWord(QByteArray &data, quint32 value)
{
    char bytes[4];
    qToLittleEndian(value, bytes);
    data.append(bytes, 4);
}

quint8 xorChecksum(const char *data, int size)
{
    quint8 sum = checksumSeed;
    for (int i = 0; i < size; ++i)
        sum ^= quint8(data[i]);
    return sum;
}

bool isStubOnly(quint8 opcode)
{
    switch (opcode) {
    case VirtualEsp8266::SpiSetParams:
    case VirtualEsp8266::SpiAttach:
    case VirtualEsp8266::ChangeBaudrate:
    case VirtualEsp8266::FlashDeflBegin: // the ROM has no compressed download
    case VirtualEsp8266::FlashDeflData:
    case VirtualEsp8266::FlashDeflEnd:
    case VirtualEsp8266::SpiFlashMd5:
    case VirtualEsp8266::EraseFlash:
    case VirtualEsp8266::EraseRegion:
    case VirtualEsp8266::ReadFlash:
        return true;
    default:
        return false;
    }
}

quint32 roundUpToSector(quint64 value)
{
    const quint64 sector = VirtualNorFlash::sectorSize;
    return quint32(qMin<quint64>((value + sector - 1) / sector * sector, 0xFFFFF000u));
}

} // namespace

const QByteArray VirtualChipLoader::syncPayload =
    QByteArray::fromHex("07071220") + QByteArray(32, char(0x55));
const QByteArray VirtualChipLoader::greeting = QByteArrayLiteral("OHAI");

VirtualChipLoader::VirtualChipLoader(const VirtualEsp8266::Config &config)
    : m_initialBaud(config.initialBaud)
    , m_baud(config.initialBaud)
    , m_flashTiming(config.flashTiming)
    , m_registerDelays(config.flashTiming || config.throttle)
    , m_greetingDelayUs(qint64(qMax(0, config.greetingDelayMs)) * 1000)
    , m_readAckTimeoutUs(qint64(qMax(1, config.readAckTimeoutMs)) * 1000)
    , m_flash(config.flashSize)
    , m_registers(config)
    , m_iram(int(iramEnd - iramStart), 0)
    , m_dram(int(dramEnd - dramStart), 0)
{
    m_registers.setUartBaud(m_baud);
}

bool VirtualChipLoader::answering() const
{
    return m_state == LoaderState::RomLoader || m_state == LoaderState::Stub;
}

bool VirtualChipLoader::takesCommand(const QByteArray &frame) const
{
    return answering() && !m_read.active && frame.size() >= headerSize &&
           quint8(frame[0]) == requestDirection;
}

qint64 VirtualChipLoader::busyUntilUs() const
{
    return qMax(m_busyUntilUs, isStub() ? m_backgroundUntilUs : 0);
}

VirtualEsp8266::CommandRecord VirtualChipLoader::recordOf(const QByteArray &frame) const
{
    VirtualEsp8266::CommandRecord record;
    record.opcode = quint8(frame[1]);
    record.payloadLength = qFromLittleEndian<quint16>(frame.constData() + 2);
    record.checksum = quint8(frame[4]);
    record.byStub = isStub();
    const QByteArray payload = frame.mid(headerSize);
    if ((record.opcode == VirtualEsp8266::FlashData || record.opcode == VirtualEsp8266::MemData ||
         record.opcode == VirtualEsp8266::FlashDeflData) &&
        payload.size() >= dataHeaderSize) {
        record.dataPacket = true;
        record.dataSize = word(payload, 0);
        record.sequence = word(payload, 4);
    }
    return record;
}

VirtualEsp8266::CommandRecord VirtualChipLoader::handleCommand(const QByteArray &frame,
                                                               qint64 nowUs)
{
    VirtualEsp8266::CommandRecord record = recordOf(frame);
    const QByteArray payload = frame.mid(headerSize);
    m_opcode = record.opcode;
    Result result;
    if (payload.size() != record.payloadLength)
        result = fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
    else
        result = dispatch(record.opcode, frame, payload, nowUs);
    record.answered = result.answered;
    record.status = result.status;
    record.error = result.error;
    return record;
}

VirtualEsp8266::CommandRecord VirtualChipLoader::refuseCommand(const QByteArray &frame, quint8 code,
                                                               qint64 nowUs)
{
    VirtualEsp8266::CommandRecord record = recordOf(frame);
    const QByteArray payload = frame.mid(headerSize);
    m_opcode = record.opcode;
    const quint8 romCode = code ? code : quint8(VirtualEsp8266::RomFailedToAct);
    const quint8 stubCode = code ? code : quint8(VirtualEsp8266::StubFailedSpiOp);
    const Result result = fail(nowUs, romCode, stubCode);
    record.answered = result.answered;
    record.status = result.status;
    record.error = result.error;
    return record;
}

VirtualChipLoader::Result VirtualChipLoader::dispatch(quint8 opcode, const QByteArray &frame,
                                                      const QByteArray &payload, qint64 nowUs)
{
    if (!isStub() && isStubOnly(opcode))
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, 0);
    switch (opcode) {
    case VirtualEsp8266::Sync:
        return sync(payload, nowUs);
    case VirtualEsp8266::ReadReg:
        return readReg(payload, nowUs);
    case VirtualEsp8266::WriteReg:
        return writeReg(payload, nowUs);
    case VirtualEsp8266::MemBegin:
        return memBegin(payload, nowUs);
    case VirtualEsp8266::MemData:
        return memData(frame, payload, nowUs);
    case VirtualEsp8266::MemEnd:
        return memEnd(payload, nowUs);
    case VirtualEsp8266::FlashBegin:
        return flashBegin(payload, nowUs);
    case VirtualEsp8266::FlashData:
        return flashData(frame, payload, nowUs);
    case VirtualEsp8266::FlashEnd:
        return flashEnd(payload, nowUs);
    case VirtualEsp8266::FlashDeflBegin:
        return deflBegin(payload, nowUs);
    case VirtualEsp8266::FlashDeflData:
        return deflData(frame, payload, nowUs);
    case VirtualEsp8266::FlashDeflEnd:
        return deflEnd(payload, nowUs);
    case VirtualEsp8266::SpiAttach:
        return spiAttach(payload, nowUs);
    case VirtualEsp8266::SpiSetParams:
        return spiSetParams(payload, nowUs);
    case VirtualEsp8266::ChangeBaudrate:
        return changeBaudrate(payload, nowUs);
    case VirtualEsp8266::SpiFlashMd5:
        return flashMd5(payload, nowUs);
    case VirtualEsp8266::EraseFlash:
        return eraseFlash(nowUs);
    case VirtualEsp8266::EraseRegion:
        return eraseRegion(payload, nowUs);
    case VirtualEsp8266::ReadFlash:
        return readFlash(payload, nowUs);
    default:
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubInvalidCommand);
    }
}

VirtualChipLoader::Result VirtualChipLoader::sync(const QByteArray &payload, qint64 nowUs)
{
    if (payload != syncPayload)
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
    // The ROM answers one synchronisation with a burst; the flash loader answers once.
    const int count = isStub() ? 1 : syncAnswers;
    Result result;
    for (int i = 0; i < count; ++i)
        result = succeed(nowUs, isStub() ? 0 : romSyncValue);
    return result;
}

VirtualChipLoader::Result VirtualChipLoader::readReg(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 4)
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
    return succeed(nowUs, m_registers.read(word(payload, 0)));
}

VirtualChipLoader::Result VirtualChipLoader::writeReg(const QByteArray &payload, qint64 nowUs)
{
    if (payload.isEmpty() || payload.size() % 16 != 0)
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
    qint64 delayUs = 0;
    for (int at = 0; at < payload.size(); at += 16) {
        m_registers.write(word(payload, at), word(payload, at + 4), word(payload, at + 8));
        delayUs += word(payload, at + 12);
    }
    return succeed(nowUs, 0, QByteArray(),
                   m_registerDelays ? qMin(delayUs, maxRegisterDelayUs) : 0);
}

VirtualChipLoader::Result VirtualChipLoader::memBegin(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 16)
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
    const quint32 size = word(payload, 0);
    const quint32 blockSize = word(payload, 8);
    const quint32 address = word(payload, 12);
    quint32 base = 0;
    if (!ramFor(address, size, &base) || blockSize > maxBlockSize)
        return fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubBadBlockSize);
    m_mem = MemSession{true, address, blockSize, 0};
    return succeed(nowUs);
}

VirtualChipLoader::Result VirtualChipLoader::memData(const QByteArray &frame,
                                                     const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() < dataHeaderSize ||
        word(payload, 0) != quint32(payload.size() - dataHeaderSize))
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
    if (!m_mem.active)
        return fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubNotInFlashMode);
    const int dataLength = payload.size() - dataHeaderSize;
    const char *data = payload.constData() + dataHeaderSize;
    if (quint8(frame[4]) != xorChecksum(data, dataLength))
        return fail(nowUs, VirtualEsp8266::RomBadChecksum, VirtualEsp8266::StubBadChecksum);
    const quint32 sequence = word(payload, 4);
    if (sequence != m_mem.nextSequence)
        return fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubBadSequence);
    if (quint32(dataLength) > m_mem.blockSize)
        return fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubBadBlockSize);
    const quint64 target = quint64(m_mem.address) + quint64(sequence) * m_mem.blockSize;
    quint32 base = 0;
    QByteArray *ram =
        target <= 0xFFFFFFFFu ? ramFor(quint32(target), quint32(dataLength), &base) : nullptr;
    if (!ram)
        return fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubBadBlockSize);
    memcpy(ram->data() + (target - base), data, size_t(dataLength));
    m_downloaded.append({quint32(target), quint32(target) + quint32(dataLength)});
    ++m_mem.nextSequence;
    return succeed(nowUs);
}

VirtualChipLoader::Result VirtualChipLoader::memEnd(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 8)
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
    const bool execute = word(payload, 0) == 0;
    const quint32 entry = word(payload, 4);
    m_mem.active = false;
    const Result result = succeed(nowUs);
    if (!execute)
        return result;
    m_flashWrite.active = false;
    if (insideDownloadedCode(entry)) {
        // The downloaded loader starts and greets a moment after the answer.
        m_state = LoaderState::StubStarting;
        m_greetingAtUs = nowUs + m_greetingDelayUs;
    } else {
        // A jump into memory that holds no downloaded code: nothing answers any more.
        m_state = LoaderState::Halted;
    }
    return result;
}

VirtualChipLoader::Result VirtualChipLoader::flashBegin(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 16)
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
    const quint32 size = word(payload, 0);
    const quint32 blockSize = word(payload, 8);
    const quint32 offset = word(payload, 12);
    // The erase is clipped to the flash (a loader rounds it up to whole blocks, which may run
    // past the end); only a start outside the flash is refused. Data beyond the end fails later.
    if (offset > m_flash.size() || (offset == m_flash.size() && size > 0))
        return fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubFailedSpiOp);
    if (blockSize > maxBlockSize)
        return fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubBadBlockSize);

    const quint32 sector = VirtualNorFlash::sectorSize;
    const quint32 firstSector = offset / sector;
    FlashSession session;
    session.active = true;
    session.offset = offset;
    session.blockSize = blockSize;
    if (isStub()) {
        const quint32 start = firstSector * sector;
        const quint32 end = roundUpToSector(quint64(offset) + size);
        erase(VirtualEsp8266::EraseKind::StubFlashBegin, start, end - start);
        // The flash loader erases ahead of the data it receives, in the background.
        session.eraseChargedTo = start;
        session.eraseEnd = end;
        m_flashWrite = session;
        return succeed(nowUs);
    }
    // The ROM counts the sectors up to the next 64 KiB boundary twice.
    const quint32 sectors = quint32((quint64(size) + sector - 1) / sector);
    const quint32 headSectors = qMin(16 - firstSector % 16, sectors);
    const quint64 eraseBytes = quint64(sectors + headSectors) * sector;
    const qint64 busyUs = erase(VirtualEsp8266::EraseKind::RomFlashBegin, firstSector * sector,
                                quint32(qMin<quint64>(eraseBytes, m_flash.size())));
    m_flashWrite = session;
    return succeed(nowUs, 0, QByteArray(), busyUs);
}

bool VirtualChipLoader::checkDataBlock(const QByteArray &frame, const QByteArray &payload,
                                       bool compressed, qint64 nowUs, Result *failure)
{
    if (payload.size() < dataHeaderSize ||
        word(payload, 0) != quint32(payload.size() - dataHeaderSize)) {
        *failure =
            fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
        return false;
    }
    if (!m_flashWrite.active || m_flashWrite.compressed != compressed) {
        *failure = fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubNotInFlashMode);
        return false;
    }
    const int dataLength = payload.size() - dataHeaderSize;
    if (quint8(frame[4]) != xorChecksum(payload.constData() + dataHeaderSize, dataLength)) {
        *failure = fail(nowUs, VirtualEsp8266::RomBadChecksum, VirtualEsp8266::StubBadChecksum);
        return false;
    }
    if (word(payload, 4) != m_flashWrite.nextSequence) {
        *failure = fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubBadSequence);
        return false;
    }
    if (quint32(dataLength) > m_flashWrite.blockSize) {
        *failure = fail(nowUs, VirtualEsp8266::RomFailedToAct, VirtualEsp8266::StubBadBlockSize);
        return false;
    }
    return true;
}

VirtualChipLoader::Result VirtualChipLoader::flashData(const QByteArray &frame,
                                                       const QByteArray &payload, qint64 nowUs)
{
    Result failure;
    if (!checkDataBlock(frame, payload, false, nowUs, &failure))
        return failure;
    const QByteArray data = payload.mid(dataHeaderSize);
    const quint64 target =
        quint64(m_flashWrite.offset) + quint64(m_flashWrite.nextSequence) * m_flashWrite.blockSize;
    if (target > m_flash.size() || !m_flash.contains(quint32(target), quint32(data.size())))
        return fail(nowUs, VirtualEsp8266::RomFlashWriteError, VirtualEsp8266::StubFailedSpiOp);
    ++m_flashWrite.nextSequence;
    return programBlock(quint32(target), data, nowUs);
}

VirtualChipLoader::Result VirtualChipLoader::programBlock(quint32 target, const QByteArray &data,
                                                          qint64 nowUs)
{
    m_flash.program(target, data);
    const quint32 dataLength = quint32(data.size());
    const qint64 workUs = programTime(dataLength);
    if (!isStub())
        return succeed(nowUs, 0, QByteArray(), workUs);
    // The flash loader acknowledges at once and erases / programs while the next block arrives.
    const qint64 eraseUs = chargeStubErase(target, roundUpToSector(quint64(target) + dataLength));
    m_backgroundUntilUs = qMax(m_backgroundUntilUs, nowUs) + eraseUs + workUs;
    return succeed(nowUs);
}

VirtualChipLoader::Result VirtualChipLoader::flashEnd(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 4)
        return fail(nowUs, VirtualEsp8266::RomInvalidMessage, VirtualEsp8266::StubBadDataLength);
    const bool reboot = word(payload, 0) == 0;
    m_flashWrite.active = false;
    const Result result = succeed(nowUs);
    if (reboot)
        rebootIntoFirmware(nowUs);
    return result;
}

VirtualChipLoader::Result VirtualChipLoader::deflBegin(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 16)
        return fail(nowUs, 0, VirtualEsp8266::StubBadDataLength);
    const quint32 size = word(payload, 0);
    const quint32 blockSize = word(payload, 8);
    const quint32 offset = word(payload, 12);
    // The size is that of the inflated data, so unlike FLASH_BEGIN nothing is rounded up.
    if (!m_flash.contains(offset, size))
        return fail(nowUs, 0, VirtualEsp8266::StubFailedSpiOp);
    if (blockSize == 0 || blockSize > maxBlockSize)
        return fail(nowUs, 0, VirtualEsp8266::StubBadBlockSize);
    const quint32 start = offset - offset % VirtualNorFlash::sectorSize;
    const quint32 end = roundUpToSector(quint64(offset) + size);
    erase(VirtualEsp8266::EraseKind::StubDeflBegin, start, end - start);
    FlashSession session;
    session.active = true;
    session.compressed = true;
    session.offset = offset;
    session.blockSize = blockSize;
    session.size = size;
    session.eraseChargedTo = start;
    session.eraseEnd = end;
    m_flashWrite = session;
    m_inflater.begin();
    return succeed(nowUs);
}

VirtualChipLoader::Result VirtualChipLoader::deflData(const QByteArray &frame,
                                                      const QByteArray &payload, qint64 nowUs)
{
    Result failure;
    if (!checkDataBlock(frame, payload, true, nowUs, &failure))
        return failure;
    QByteArray inflated;
    switch (m_inflater.feed(payload.mid(dataHeaderSize), m_flashWrite.size - m_flashWrite.written,
                            &inflated)) {
    case VirtualChipInflater::Result::Ok:
    case VirtualChipInflater::Result::Finished:
        break;
    case VirtualChipInflater::Result::Corrupt:
        return fail(nowUs, 0, VirtualEsp8266::StubInflateError);
    case VirtualChipInflater::Result::TooMuchData:
        return fail(nowUs, 0, VirtualEsp8266::StubTooMuchData);
    }
    const quint32 target = m_flashWrite.offset + m_flashWrite.written;
    m_flashWrite.written += quint32(inflated.size());
    ++m_flashWrite.nextSequence;
    return programBlock(target, inflated, nowUs);
}

VirtualChipLoader::Result VirtualChipLoader::deflEnd(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 4)
        return fail(nowUs, 0, VirtualEsp8266::StubBadDataLength);
    if (!m_flashWrite.active || !m_flashWrite.compressed)
        return fail(nowUs, 0, VirtualEsp8266::StubNotInFlashMode);
    const bool complete = m_inflater.finished() && m_flashWrite.written == m_flashWrite.size;
    m_flashWrite.active = false;
    if (!complete)
        return fail(nowUs, 0, VirtualEsp8266::StubNotEnoughData);
    const Result result = succeed(nowUs);
    if (word(payload, 0) == 0)
        rebootIntoFirmware(nowUs);
    return result;
}

void VirtualChipLoader::rebootIntoFirmware(qint64 nowUs)
{
    // The answer is already queued (boot() would drop it) and still leaves at the current rate;
    // the user program then prints at the initial one.
    QVector<Output> answer = m_output;
    if (m_baud != m_initialBaud && !answer.isEmpty())
        answer.last().baudAfter = m_initialBaud;
    boot(VirtualEsp8266::BootMode::Firmware, VirtualChipBootOutput::Cause::Reboot, nowUs);
    m_output = answer + m_output;
}

VirtualChipLoader::Result VirtualChipLoader::spiAttach(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 4 && payload.size() != 8)
        return fail(nowUs, 0, VirtualEsp8266::StubBadDataLength);
    m_spiParams.attached = true;
    return succeed(nowUs);
}

VirtualChipLoader::Result VirtualChipLoader::spiSetParams(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 24)
        return fail(nowUs, 0, VirtualEsp8266::StubBadDataLength);
    m_spiParams.paramsSet = true;
    m_spiParams.id = word(payload, 0);
    m_spiParams.totalSize = word(payload, 4);
    m_spiParams.blockSize = word(payload, 8);
    m_spiParams.sectorSize = word(payload, 12);
    m_spiParams.pageSize = word(payload, 16);
    m_spiParams.statusMask = word(payload, 20);
    return succeed(nowUs);
}

VirtualChipLoader::Result VirtualChipLoader::changeBaudrate(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 8 || word(payload, 0) == 0)
        return fail(nowUs, 0, VirtualEsp8266::StubBadDataLength);
    const quint32 baud = word(payload, 0);
    // The answer still leaves at the old rate; what the host sends next comes at the new one.
    const Result result = succeed(nowUs, 0, QByteArray(), 0, baud);
    setBaud(baud);
    return result;
}

VirtualChipLoader::Result VirtualChipLoader::flashMd5(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 16)
        return fail(nowUs, 0, VirtualEsp8266::StubBadDataLength);
    const quint32 address = word(payload, 0);
    const quint32 size = word(payload, 4);
    if (!m_flash.contains(address, size))
        return fail(nowUs, 0, VirtualEsp8266::StubFailedSpiOp);
    return succeed(nowUs, 0, m_flash.md5(address, size));
}

VirtualChipLoader::Result VirtualChipLoader::eraseFlash(qint64 nowUs)
{
    const qint64 busyUs = erase(VirtualEsp8266::EraseKind::Chip, 0, m_flash.size());
    return succeed(nowUs, 0, QByteArray(), busyUs);
}

VirtualChipLoader::Result VirtualChipLoader::eraseRegion(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 8)
        return fail(nowUs, 0, VirtualEsp8266::StubBadDataLength);
    const quint32 start = word(payload, 0);
    const quint32 length = word(payload, 4);
    if (start % VirtualNorFlash::sectorSize != 0 || length % VirtualNorFlash::sectorSize != 0 ||
        !m_flash.contains(start, length))
        return fail(nowUs, 0, VirtualEsp8266::StubFailedSpiOp);
    const qint64 busyUs = erase(VirtualEsp8266::EraseKind::Region, start, length);
    return succeed(nowUs, 0, QByteArray(), busyUs);
}

VirtualChipLoader::Result VirtualChipLoader::readFlash(const QByteArray &payload, qint64 nowUs)
{
    if (payload.size() != 16)
        return fail(nowUs, 0, VirtualEsp8266::StubBadDataLength);
    ReadSession read;
    read.offset = word(payload, 0);
    read.size = word(payload, 4);
    read.packetSize = word(payload, 8);
    read.maxInFlight = word(payload, 12);
    if (!m_flash.contains(read.offset, read.size))
        return fail(nowUs, 0, VirtualEsp8266::StubFailedSpiOp);
    if (read.packetSize == 0 || read.packetSize > maxBlockSize || read.maxInFlight == 0)
        return fail(nowUs, 0, VirtualEsp8266::StubBadBlockSize);
    const Result result = succeed(nowUs);
    read.active = true;
    read.lastActivityUs = nowUs;
    m_read = read;
    sendReadPackets(nowUs);
    return result;
}

void VirtualChipLoader::handleAck(const QByteArray &frame, qint64 nowUs)
{
    if (!m_read.active || frame.size() != 4)
        return; // anything else while streaming is line noise to the loader
    ++m_acks;
    const quint32 acked = word(frame, 0);
    if (acked > m_read.ackedBytes && acked <= m_read.sentBytes) {
        m_read.ackedBytes = acked;
        m_read.lastActivityUs = nowUs;
    }
    sendReadPackets(nowUs);
}

void VirtualChipLoader::noteReadProgress(qint64 nowUs)
{
    if (m_read.active)
        m_read.lastActivityUs = nowUs;
}

void VirtualChipLoader::sendReadPackets(qint64 nowUs)
{
    if (!m_read.active)
        return;
    if (m_read.ackedBytes >= m_read.size) {
        // Only once the host confirmed every byte does the digest follow.
        queueRaw(m_flash.md5(m_read.offset, m_read.size), nowUs);
        m_read.active = false;
        return;
    }
    const quint32 ackedPackets = m_read.ackedBytes / m_read.packetSize;
    while (m_read.sentBytes < m_read.size &&
           m_read.sentPackets - ackedPackets < m_read.maxInFlight) {
        const quint32 length = qMin(m_read.packetSize, m_read.size - m_read.sentBytes);
        queueRaw(m_flash.read(m_read.offset + m_read.sentBytes, length), nowUs);
        m_read.sentBytes += length;
        ++m_read.sentPackets;
    }
}

void VirtualChipLoader::tick(qint64 nowUs)
{
    if (m_state == LoaderState::StubStarting && nowUs >= m_greetingAtUs) {
        queueRaw(greeting, nowUs);
        m_state = LoaderState::Stub;
        m_greetingAtUs = -1;
    }
    if (m_read.active && nowUs - m_read.lastActivityUs >= m_readAckTimeoutUs)
        m_read.active = false; // the host went away: back to commands
}

qint64 VirtualChipLoader::nextTickUs() const
{
    qint64 next = -1;
    if (m_state == LoaderState::StubStarting)
        next = m_greetingAtUs;
    if (m_read.active) {
        const qint64 timeout = m_read.lastActivityUs + m_readAckTimeoutUs;
        next = next < 0 ? timeout : qMin(next, timeout);
    }
    return next;
}

QVector<VirtualChipLoader::Output> VirtualChipLoader::takeOutput()
{
    QVector<Output> output;
    output.swap(m_output);
    return output;
}

QVector<VirtualEsp8266::EraseRecord> VirtualChipLoader::takeErases()
{
    QVector<VirtualEsp8266::EraseRecord> erases;
    erases.swap(m_erases);
    return erases;
}

int VirtualChipLoader::takeAcks()
{
    const int acks = m_acks;
    m_acks = 0;
    return acks;
}

void VirtualChipLoader::reset()
{
    m_state = LoaderState::RomLoader;
    m_bootMode = VirtualEsp8266::BootMode::Download;
    setBaud(m_initialBaud);
    m_busyUntilUs = 0;
    m_backgroundUntilUs = 0;
    m_greetingAtUs = -1;
    m_registers.reset();
    m_iram.fill(0);
    m_dram.fill(0);
    m_downloaded.clear();
    m_mem = MemSession();
    m_flashWrite = FlashSession();
    m_read = ReadSession();
    m_spiParams = VirtualEsp8266::SpiParams();
    m_output.clear();
}

void VirtualChipLoader::boot(VirtualEsp8266::BootMode mode, VirtualChipBootOutput::Cause cause,
                             qint64 nowUs)
{
    reset();
    m_bootMode = mode;
    if (mode == VirtualEsp8266::BootMode::Firmware)
        m_state = LoaderState::Firmware;
    queueUnframed(VirtualChipBootOutput::output(mode, cause, m_baud), nowUs);
}

void VirtualChipLoader::holdInReset()
{
    reset();
    m_state = LoaderState::InReset;
}

void VirtualChipLoader::setBaud(quint32 baud)
{
    m_baud = baud;
    m_registers.setUartBaud(baud);
}

QByteArray VirtualChipLoader::ram(quint32 address, quint32 size) const
{
    const auto slice = [&](const QByteArray &ram, quint32 start, quint32 end) {
        if (address < start || address >= end)
            return QByteArray();
        return ram.mid(int(address - start), int(qMin(size, end - address)));
    };
    const QByteArray inIram = slice(m_iram, iramStart, iramEnd);
    return inIram.isEmpty() ? slice(m_dram, dramStart, dramEnd) : inIram;
}

VirtualChipLoader::Result VirtualChipLoader::succeed(qint64 nowUs, quint32 value,
                                                     const QByteArray &body, qint64 delayUs,
                                                     quint32 baudAfter)
{
    return answerWithStatus(nowUs, value, body, 0, 0, delayUs, baudAfter);
}

VirtualChipLoader::Result VirtualChipLoader::fail(qint64 nowUs, quint8 romCode, quint8 stubCode)
{
    if (isStub())
        return answerWithStatus(nowUs, 0, QByteArray(), stubCode, 0, 0, 0);
    return answerWithStatus(nowUs, 0, QByteArray(), romFailure, romCode, 0, 0);
}

VirtualChipLoader::Result VirtualChipLoader::answerWithStatus(qint64 nowUs, quint32 value,
                                                              const QByteArray &body, quint8 status,
                                                              quint8 error, qint64 delayUs,
                                                              quint32 baudAfter)
{
    QByteArray packet;
    packet.reserve(headerSize + body.size() + 2);
    packet.append(char(answerDirection));
    packet.append(char(m_opcode));
    const quint16 length = quint16(body.size() + 2);
    packet.append(char(length & 0xFF));
    packet.append(char(length >> 8));
    appendWord(packet, value);
    packet.append(body);
    packet.append(char(status));
    packet.append(char(error));
    const qint64 dueUs = nowUs + delayUs;
    m_busyUntilUs = qMax(m_busyUntilUs, dueUs);
    m_output.append(Output{packet, dueUs, true, baudAfter, false});
    return Result{status, error, true};
}

void VirtualChipLoader::queueRaw(const QByteArray &packet, qint64 dueUs)
{
    m_output.append(Output{packet, dueUs, false, 0, false});
}

void VirtualChipLoader::queueUnframed(const QByteArray &bytes, qint64 dueUs)
{
    m_output.append(Output{bytes, dueUs, false, 0, true});
}

qint64 VirtualChipLoader::erase(VirtualEsp8266::EraseKind kind, quint32 offset, quint32 length)
{
    const quint32 end = quint32(qMin<quint64>(quint64(offset) + length, m_flash.size()));
    const quint32 erased = end > offset ? end - offset : 0;
    m_flash.erase(offset, erased);
    m_erases.append(VirtualEsp8266::EraseRecord{kind, offset, erased});
    if (kind == VirtualEsp8266::EraseKind::Chip)
        return scaledEraseTime(m_flash.chipEraseTimeUs());
    return scaledEraseTime(VirtualNorFlash::eraseTimeUs(offset, erased));
}

qint64 VirtualChipLoader::scaledEraseTime(qint64 nominalUs) const
{
    if (!m_flashTiming && m_eraseFactor <= 1)
        return 0;
    return nominalUs * m_eraseFactor;
}

qint64 VirtualChipLoader::programTime(quint32 length) const
{
    return m_flashTiming ? VirtualNorFlash::programTimeUs(length) : 0;
}

qint64 VirtualChipLoader::chargeStubErase(quint32 offset, quint32 end)
{
    // Like the real loader, erase ahead in whole 64 KiB blocks where the range covers them.
    FlashSession &session = m_flashWrite;
    const quint32 target = qMin(end, session.eraseEnd);
    quint64 position = qMax(session.eraseChargedTo, offset - offset % VirtualNorFlash::sectorSize);
    qint64 nominalUs = 0;
    while (position < target) {
        const quint64 blockEnd = position + VirtualNorFlash::blockSize;
        if (position % VirtualNorFlash::blockSize == 0 && blockEnd <= session.eraseEnd) {
            nominalUs += VirtualNorFlash::blockEraseUs;
            position = blockEnd;
        } else {
            nominalUs += VirtualNorFlash::sectorEraseUs;
            position += VirtualNorFlash::sectorSize;
        }
    }
    session.eraseChargedTo = quint32(qMax<quint64>(session.eraseChargedTo, position));
    return scaledEraseTime(nominalUs);
}

QByteArray *VirtualChipLoader::ramFor(quint32 address, quint32 size, quint32 *base)
{
    const quint64 end = quint64(address) + size;
    if (address >= iramStart && end <= iramEnd) {
        *base = iramStart;
        return &m_iram;
    }
    if (address >= dramStart && end <= dramEnd) {
        *base = dramStart;
        return &m_dram;
    }
    return nullptr;
}

bool VirtualChipLoader::insideDownloadedCode(quint32 address) const
{
    for (const auto &range : m_downloaded) {
        if (address >= range.first && address < range.second)
            return true;
    }
    return false;
}
