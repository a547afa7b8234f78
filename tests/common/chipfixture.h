#pragma once

#include "virtualchip/virtualesp8266.h"

#include <QString>

#include <memory>

// A running virtual ESP8266 whose pseudo-terminal is visible to the port enumeration, so the
// code under test opens it like any serial port.
class ChipFixture
{
public:
    explicit ChipFixture(const VirtualEsp8266::Config &config = VirtualEsp8266::Config());
    ~ChipFixture();

    bool start();
    VirtualEsp8266 &chip() { return *m_chip; }
    QString port() const { return m_chip->devicePath(); }

private:
    std::unique_ptr<VirtualEsp8266> m_chip;
};

// The project's stand-in loader stub, generated at build time.
QString generatedStubPath();
// The vendor's loader converted at build time, and in its JSON form: empty when not fetched.
QString vendorStubPath();
QString vendorLoaderJsonPath();
// The loader tests upload when they need one: the vendor's when present, else the stand-in.
QString loaderStubPath();
