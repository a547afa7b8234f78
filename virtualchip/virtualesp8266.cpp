#include "virtualchip/virtualesp8266.h"

#include "virtualchip/virtualchipmachine.h"

namespace {

// Bits of the eFuse words that the host does not decode; real parts carry calibration data
// there, and non-zero filler catches decoders that look at the wrong bits.
constexpr quint32 word0Filler = 0x005A2A0A; // bit 4 stays clear (it marks an ESP8285)
constexpr quint32 word1Filler = 0x9C000000;
constexpr quint32 word2Filler = 0x8C0E1D3B; // bit 16 stays clear (it marks an ESP8285)
constexpr quint32 esp8285Flag = 1u << 16;   // in word 2
constexpr quint32 customOuiFiller = 0x40000000;

} // namespace

VirtualEsp8266::VirtualEsp8266() : VirtualEsp8266(Config()) {}

VirtualEsp8266::VirtualEsp8266(const Config &config)
    : m_machine(std::make_unique<VirtualChipMachine>(config))
{}

VirtualEsp8266::~VirtualEsp8266() = default;

std::array<quint32, 4> VirtualEsp8266::efuseWordsFor(const Config &config)
{
    if (config.overrideEfuses)
        return config.efuseWords;
    const QByteArray mac = config.mac.leftJustified(6, '\0', true);
    const auto byte = [&mac](int i) { return quint32(quint8(mac[i])); };
    std::array<quint32, 4> words{};
    words[0] = word0Filler | byte(5) << 24;
    words[1] = word1Filler | byte(3) << 8 | byte(4);
    words[2] = word2Filler;
    const QByteArray oui = mac.left(3);
    if (oui == QByteArray::fromHex("acd074"))
        words[1] |= 1u << 16;
    else if (oui != QByteArray::fromHex("18fe34"))
        words[3] = customOuiFiller | byte(0) << 16 | byte(1) << 8 | byte(2);
    if (config.model == Model::Esp8285)
        words[2] |= esp8285Flag;
    return words;
}

bool VirtualEsp8266::start()
{
    return m_machine->start();
}

void VirtualEsp8266::stop()
{
    m_machine->stop();
}

bool VirtualEsp8266::isRunning() const
{
    return m_machine->isRunning();
}

QString VirtualEsp8266::devicePath() const
{
    return m_machine->devicePath();
}

QString VirtualEsp8266::errorString() const
{
    return m_machine->errorString();
}

VirtualEsp8266::Config VirtualEsp8266::config() const
{
    return m_machine->config();
}

QByteArray VirtualEsp8266::flash(quint32 offset, quint32 size) const
{
    return m_machine->flash(offset, size);
}

void VirtualEsp8266::setFlash(quint32 offset, const QByteArray &data)
{
    m_machine->setFlash(offset, data);
}

quint32 VirtualEsp8266::flashSize() const
{
    return m_machine->flashSize();
}

QByteArray VirtualEsp8266::ram(quint32 address, quint32 size) const
{
    return m_machine->ram(address, size);
}

VirtualEsp8266::LoaderState VirtualEsp8266::loaderState() const
{
    return m_machine->loaderState();
}

bool VirtualEsp8266::stubRunning() const
{
    return loaderState() == LoaderState::Stub;
}

quint32 VirtualEsp8266::baudRate() const
{
    return m_machine->baudRate();
}

VirtualEsp8266::SpiParams VirtualEsp8266::spiParams() const
{
    return m_machine->spiParams();
}

void VirtualEsp8266::reset()
{
    m_machine->reset();
}

void VirtualEsp8266::setModemLines(bool dtrAsserted, bool rtsAsserted)
{
    m_machine->setModemLines(dtrAsserted, rtsAsserted);
}

VirtualEsp8266::BootMode VirtualEsp8266::bootMode() const
{
    return m_machine->bootMode();
}

int VirtualEsp8266::resetCount() const
{
    return m_machine->resetCount();
}

bool VirtualEsp8266::vanished() const
{
    return m_machine->vanished();
}

QVector<VirtualEsp8266::CommandRecord> VirtualEsp8266::commandLog() const
{
    return m_machine->commandLog();
}

void VirtualEsp8266::clearCommandLog()
{
    m_machine->clearCommandLog();
}

VirtualEsp8266::Counters VirtualEsp8266::counters() const
{
    return m_machine->counters();
}

void VirtualEsp8266::clearCounters()
{
    m_machine->clearCounters();
}

void VirtualEsp8266::setCommandObserver(std::function<void(const CommandRecord &)> observer)
{
    m_machine->setCommandObserver(std::move(observer));
}

void VirtualEsp8266::armSilence(int commands)
{
    m_machine->armSilence(commands);
}

void VirtualEsp8266::armDropAnswer(int nth)
{
    m_machine->armDropAnswer(nth);
}

void VirtualEsp8266::armCorruptAnswer(int nth, Corruption kind)
{
    m_machine->armCorruptAnswer(nth, kind);
}

void VirtualEsp8266::armStrayAnswer(int nth)
{
    m_machine->armStrayAnswer(nth);
}

void VirtualEsp8266::armErrorStatus(int nth, quint8 code)
{
    m_machine->armErrorStatus(nth, code);
}

void VirtualEsp8266::armVanishAfterCommands(int commands)
{
    m_machine->armVanishAfterCommands(commands);
}

void VirtualEsp8266::armVanishAfterBytes(qint64 bytes)
{
    m_machine->armVanishAfterBytes(bytes);
}

void VirtualEsp8266::armSlowErase(int factor)
{
    m_machine->armSlowErase(factor);
}

void VirtualEsp8266::vanishNow()
{
    m_machine->vanishNow();
}

void VirtualEsp8266::disarmFaults()
{
    m_machine->disarmFaults();
}

QString VirtualEsp8266::opcodeName(quint8 opcode)
{
    switch (opcode) {
    case FlashBegin:
        return QStringLiteral("FLASH_BEGIN");
    case FlashData:
        return QStringLiteral("FLASH_DATA");
    case FlashEnd:
        return QStringLiteral("FLASH_END");
    case FlashDeflBegin:
        return QStringLiteral("FLASH_DEFL_BEGIN");
    case FlashDeflData:
        return QStringLiteral("FLASH_DEFL_DATA");
    case FlashDeflEnd:
        return QStringLiteral("FLASH_DEFL_END");
    case MemBegin:
        return QStringLiteral("MEM_BEGIN");
    case MemEnd:
        return QStringLiteral("MEM_END");
    case MemData:
        return QStringLiteral("MEM_DATA");
    case Sync:
        return QStringLiteral("SYNC");
    case WriteReg:
        return QStringLiteral("WRITE_REG");
    case ReadReg:
        return QStringLiteral("READ_REG");
    case SpiSetParams:
        return QStringLiteral("SPI_SET_PARAMS");
    case SpiAttach:
        return QStringLiteral("SPI_ATTACH");
    case ChangeBaudrate:
        return QStringLiteral("CHANGE_BAUDRATE");
    case SpiFlashMd5:
        return QStringLiteral("SPI_FLASH_MD5");
    case EraseFlash:
        return QStringLiteral("ERASE_FLASH");
    case EraseRegion:
        return QStringLiteral("ERASE_REGION");
    case ReadFlash:
        return QStringLiteral("READ_FLASH");
    default:
        return QStringLiteral("0x%1").arg(opcode, 2, 16, QLatin1Char('0'));
    }
}

QString VirtualEsp8266::loaderStateName(LoaderState state)
{
    switch (state) {
    case LoaderState::RomLoader:
        return QStringLiteral("ROM loader");
    case LoaderState::StubStarting:
        return QStringLiteral("flash loader starting");
    case LoaderState::Stub:
        return QStringLiteral("flash loader");
    case LoaderState::Halted:
        return QStringLiteral("halted");
    case LoaderState::Firmware:
        return QStringLiteral("user program");
    case LoaderState::InReset:
        return QStringLiteral("held in reset");
    }
    return QString();
}
