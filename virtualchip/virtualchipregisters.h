#pragma once

#include "virtualchip/virtualesp8266.h"

#include <QHash>

#include <array>

// The 32-bit registers the host reaches with READ_REG / WRITE_REG: the eFuse words, the SPI
// controller (which runs JEDEC id and status register commands against the virtual flash) and a
// plain store for every other address.
class VirtualChipRegisters
{
public:
    static constexpr quint32 efuseBase = 0x3FF00050; // eFuse word 0; words 1..3 follow
    static constexpr quint32 chipMagic = 0x40001000; // a ROM word that tells the chip family
    static constexpr quint32 esp8266Magic = 0xFFF0C101;
    static constexpr quint32 uartClockDivider = 0x60000014; // UART0 clock / baud (read-only here)
    static constexpr quint32 uartClockHz = 52000000;        // UART clock with a 26 MHz crystal
    static constexpr quint32 spiCommand = 0x60000200;       // bit 18 starts a user command
    static constexpr quint32 spiUser = 0x6000021C;
    static constexpr quint32 spiUser1 = 0x60000220;
    static constexpr quint32 spiUser2 = 0x60000224;  // command byte in bits 7..0
    static constexpr quint32 spiData0 = 0x60000240;  // data word 0
    static constexpr quint32 spiUserStart = 0x40000; // command register: start / busy bit

    // SPI flash commands the controller understands.
    enum SpiFlashCommand : quint8 {
        ReadJedecId = 0x9F, // manufacturer | type << 8 | capacity << 16
        ReadStatus1 = 0x05,
        ReadStatus2 = 0x35,
        ReadStatus3 = 0x15
    };

    explicit VirtualChipRegisters(const VirtualEsp8266::Config &config);

    quint32 read(quint32 address);
    // Applies value under mask: new = (old & ~mask) | (value & mask). eFuses are read-only.
    void write(quint32 address, quint32 value, quint32 mask);
    // Power-on state (eFuses are permanent).
    void reset();
    // The UART's current rate, which the clock divider register reflects.
    void setUartBaud(quint32 baud) { m_uartBaud = baud; }

private:
    void runSpiCommand();

    std::array<quint32, 4> m_efuses;
    quint32 m_jedecWord;
    std::array<quint8, 3> m_status;
    int m_busyReadsAfterStart;
    int m_busyReadsLeft = 0;
    quint32 m_uartBaud = 115200;
    QHash<quint32, quint32> m_values;
};
