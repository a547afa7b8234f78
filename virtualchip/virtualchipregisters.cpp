#include "virtualchip/virtualchipregisters.h"

namespace {

// Data word 0 after a JEDEC id read: manufacturer in the low byte. Missing bytes read as 0.
quint32 jedecWord(const QByteArray &id)
{
    quint32 word = 0;
    for (int i = 0; i < qMin(3, id.size()); ++i)
        word |= quint32(quint8(id[i])) << (8 * i);
    return word;
}

} // namespace

VirtualChipRegisters::VirtualChipRegisters(const VirtualEsp8266::Config &config)
    : m_efuses(VirtualEsp8266::efuseWordsFor(config))
    , m_jedecWord(jedecWord(config.jedecId))
    , m_status(config.statusRegisters)
    , m_busyReadsAfterStart(qMax(0, config.spiBusyReads))
{}

quint32 VirtualChipRegisters::read(quint32 address)
{
    if (address >= efuseBase && address < efuseBase + 16 && address % 4 == 0)
        return m_efuses[(address - efuseBase) / 4];
    if (address == chipMagic)
        return esp8266Magic;
    if (address == uartClockDivider) // clients derive the crystal frequency from it
        return m_uartBaud ? (uartClockHz + m_uartBaud / 2) / m_uartBaud & 0xFFFFF : 0;
    const quint32 value = m_values.value(address, 0);
    if (address != spiCommand)
        return value;
    // A started user command shows as busy for a few polls, as on the real controller.
    if (m_busyReadsLeft > 0) {
        --m_busyReadsLeft;
        return value | spiUserStart;
    }
    return value & ~spiUserStart;
}

void VirtualChipRegisters::write(quint32 address, quint32 value, quint32 mask)
{
    if ((address >= efuseBase && address < efuseBase + 16) || address == chipMagic ||
        address == uartClockDivider)
        return;
    const quint32 old = m_values.value(address, 0);
    const quint32 updated = (old & ~mask) | (value & mask);
    m_values.insert(address, updated);
    if (address == spiCommand && (updated & spiUserStart)) {
        runSpiCommand();
        m_values.insert(address, updated & ~spiUserStart);
        m_busyReadsLeft = m_busyReadsAfterStart;
    }
}

void VirtualChipRegisters::reset()
{
    m_values.clear();
    m_busyReadsLeft = 0;
}

void VirtualChipRegisters::runSpiCommand()
{
    const quint8 command = quint8(m_values.value(spiUser2, 0) & 0xFF);
    quint32 result = m_values.value(spiData0, 0);
    switch (command) {
    case ReadJedecId:
        result = m_jedecWord;
        break;
    case ReadStatus1:
        result = m_status[0];
        break;
    case ReadStatus2:
        result = m_status[1];
        break;
    case ReadStatus3:
        result = m_status[2];
        break;
    default:
        // Other commands (write enable, ...) have no visible effect on the data word.
        break;
    }
    m_values.insert(spiData0, result);
}
