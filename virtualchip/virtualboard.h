#pragma once

#include "virtualchip/virtualesp8266.h"

#include <QString>

#include <memory>

// A virtual ESP8266 wired like a board for a client in the same process: its reset circuit
// (DTR to GPIO0, RTS to EN) is reached through the client's modem-line registry, since its
// pseudo-terminal has no modem lines, and it powers up into its firmware, so the client reaches
// the ROM loader only through the reset. A jig has no reset wiring and powers up in download
// mode instead.
class VirtualBoard
{
public:
    enum class Wiring {
        AutoReset, // DTR/RTS drive the chip; it powers up into its firmware
        Jig        // no reset lines; it powers up into the ROM loader
    };

    explicit VirtualBoard(const VirtualEsp8266::Config &config = VirtualEsp8266::Config(),
                          Wiring wiring = Wiring::AutoReset);
    ~VirtualBoard();
    VirtualBoard(const VirtualBoard &) = delete;
    VirtualBoard &operator=(const VirtualBoard &) = delete;

    // Starts the chip and registers its reset lines; false (see errorString()) when it cannot
    // start.
    bool start();
    // Removes the reset lines from the registry, then stops the chip.
    void stop();
    VirtualEsp8266 &chip() { return *m_chip; }
    QString devicePath() const { return m_chip->devicePath(); }
    QString errorString() const { return m_chip->errorString(); }

private:
    // Shared with the registered setter, which a client may still hold while the board stops.
    std::shared_ptr<VirtualEsp8266> m_chip;
    const Wiring m_wiring;
    QString m_registeredPath;
    quint64 m_registration = 0; // ours only while no other board took the name over
};
