#include "cli/virtualboards.h"

#include "serial/qcomport.h"
#include "virtualchip/virtualboard.h"

VirtualBoards::VirtualBoards() = default;

VirtualBoards::~VirtualBoards()
{
    for (const auto &chip : m_chips)
        chip->stop();
}

bool VirtualBoards::start(int count)
{
    for (int i = 0; i < count; ++i) {
        VirtualEsp8266::Config config;
        // Distinct MACs, so that a summary tells the boards apart.
        config.mac[5] = char(quint8(config.mac.at(5)) + m_chips.size());
        auto chip = std::make_unique<VirtualBoard>(config);
        if (!chip->start()) {
            m_error = chip->errorString();
            return false;
        }
        // Pseudo-terminals are not enumerated by the system; this variable lists them.
        QByteArray list = qgetenv(QComPort::extraPortsVariable);
        if (!list.isEmpty())
            list.append(':');
        list.append(chip->devicePath().toLocal8Bit());
        qputenv(QComPort::extraPortsVariable, list);
        m_chips.push_back(std::move(chip));
    }
    return true;
}

QStringList VirtualBoards::ports() const
{
    QStringList ports;
    for (const auto &chip : m_chips)
        ports << chip->devicePath();
    return ports;
}
