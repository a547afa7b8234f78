#pragma once

#include "virtualchip/virtualboard.h"

#include <QString>

#include <memory>

// A running virtual ESP8266 whose pseudo-terminal is visible to the port enumeration, so the
// code under test opens it like any serial port. Wired like a board with the auto-reset circuit
// unless a test asks for a jig (no reset lines, powered up in download mode).
class ChipFixture
{
public:
    explicit ChipFixture(const VirtualEsp8266::Config &config = VirtualEsp8266::Config(),
                         VirtualBoard::Wiring wiring = VirtualBoard::Wiring::AutoReset);
    ~ChipFixture();

    bool start();
    VirtualEsp8266 &chip() { return m_board->chip(); }
    QString port() const { return m_board->devicePath(); }

private:
    std::unique_ptr<VirtualBoard> m_board;
};

// The project's stand-in loader stub, generated at build time.
QString generatedStubPath();
// The vendor's loader converted at build time, and in its JSON form: empty when not fetched.
QString vendorStubPath();
QString vendorLoaderJsonPath();
// The loader tests upload when they need one: the vendor's when present, else the stand-in.
QString loaderStubPath();
