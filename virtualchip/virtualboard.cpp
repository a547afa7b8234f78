#include "virtualchip/virtualboard.h"

#include "serial/modemlineregistry.h"

namespace {

VirtualEsp8266::Config wired(VirtualEsp8266::Config config, VirtualBoard::Wiring wiring)
{
    config.powerUpMode = wiring == VirtualBoard::Wiring::AutoReset
                             ? VirtualEsp8266::BootMode::Firmware
                             : VirtualEsp8266::BootMode::Download;
    return config;
}

} // namespace

VirtualBoard::VirtualBoard(const VirtualEsp8266::Config &config, Wiring wiring)
    : m_chip(std::make_shared<VirtualEsp8266>(wired(config, wiring))), m_wiring(wiring)
{}

VirtualBoard::~VirtualBoard()
{
    stop();
}

bool VirtualBoard::start()
{
    if (!m_chip->start())
        return false;
    // A chip that vanished and came back has a new device path: its lines move with it.
    if (m_wiring == Wiring::AutoReset && m_registeredPath != m_chip->devicePath()) {
        if (!m_registeredPath.isEmpty())
            ModemLineRegistry::remove(m_registeredPath, m_registration);
        m_registeredPath = m_chip->devicePath();
        const std::weak_ptr<VirtualEsp8266> chip = m_chip;
        m_registration =
            ModemLineRegistry::add(m_registeredPath, [chip](bool dtrAsserted, bool rtsAsserted) {
                if (const auto alive = chip.lock())
                    alive->setModemLines(dtrAsserted, rtsAsserted);
            });
    }
    return true;
}

void VirtualBoard::stop()
{
    if (!m_registeredPath.isEmpty()) {
        ModemLineRegistry::remove(m_registeredPath, m_registration);
        m_registeredPath.clear();
    }
    m_chip->stop();
}
