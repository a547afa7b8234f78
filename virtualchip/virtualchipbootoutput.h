#pragma once

#include "virtualchip/virtualesp8266.h"

// What the chip prints when it boots, as a host listening at the line rate receives it: the
// ROM's boot message goes out at 74880 baud, so a receiver at 115200 samples garbled bytes; in
// firmware mode the user program then prints its own lines at the line rate.
class VirtualChipBootOutput
{
public:
    enum class Cause {
        PowerOn,  // start(): the supply comes up
        ResetPin, // EN released after the host held it low
        Reboot    // a loader command restarted into the user program
    };

    static constexpr quint32 romBaud = 74880; // rate of the ROM's boot message
    // While EN is held low the TX pin is not driven and the line sags; when the chip comes out of
    // reset it drives the pin high again after about seven bit times at 115200, which a receiver
    // reads as one byte with only its top bits set. With the ROM's text after it, a SLIP decoder
    // sees a frame start followed by a half frame.
    static constexpr quint8 resetGlitch = 0xC0;

    // Bytes that a UART at `rxBaud` (8N1, each bit sampled in its middle, a start bit looked for
    // on every falling edge) makes of `text` sent at `txBaud`.
    static QByteArray resample(const QByteArray &text, quint32 txBaud, quint32 rxBaud);
    // The ROM's boot message as sent (at romBaud); a reboot into the user program prints none.
    static QByteArray romText(VirtualEsp8266::BootMode mode, Cause cause);
    // The user program's start-up lines, sent at the line rate.
    static QByteArray firmwareText();
    // Everything a host at `lineBaud` receives after a boot.
    static QByteArray output(VirtualEsp8266::BootMode mode, Cause cause, quint32 lineBaud);
};
