#include "virtualchip/virtualchipbootoutput.h"

#include <QVector>

namespace {

// One start bit, eight data bits (least significant first), one stop bit; idle is high.
QVector<quint8> lineBits(const QByteArray &text)
{
    QVector<quint8> bits;
    bits.reserve(text.size() * 10);
    for (const char c : text) {
        bits.append(0);
        for (int i = 0; i < 8; ++i)
            bits.append(quint8((quint8(c) >> i) & 1));
        bits.append(1);
    }
    return bits;
}

} // namespace

QByteArray VirtualChipBootOutput::resample(const QByteArray &text, quint32 txBaud, quint32 rxBaud)
{
    if (txBaud == 0 || rxBaud == 0)
        return QByteArray();
    // Time in units of 1 / (2 * txBaud * rxBaud) s: a sent bit lasts 2 * rxBaud units and half a
    // received bit txBaud units, so every instant that matters is a whole number.
    const QVector<quint8> bits = lineBits(text);
    const quint64 txBit = 2 * quint64(rxBaud);
    const quint64 rxHalfBit = txBaud;
    const auto level = [&](quint64 t) {
        const quint64 index = t / txBit;
        return index < quint64(bits.size()) ? bits[int(index)] : quint8(1);
    };
    QByteArray received;
    quint64 searchFrom = 0;
    for (quint64 k = 0; k < quint64(bits.size()); ++k) {
        // Falling edges happen only where a sent bit starts.
        const bool falling = bits[int(k)] == 0 && (k == 0 || bits[int(k - 1)] == 1);
        const quint64 edge = k * txBit;
        if (!falling || edge < searchFrom)
            continue;
        if (level(edge + rxHalfBit) != 0) { // a glitch, not a start bit
            searchFrom = edge + 1;
            continue;
        }
        quint8 byte = 0;
        for (int b = 0; b < 8; ++b)
            byte |= quint8(level(edge + quint64(3 + 2 * b) * rxHalfBit) << b);
        received.append(char(byte));
        // The receiver hunts for the next start bit after the middle of the stop bit.
        searchFrom = edge + 19 * rxHalfBit;
    }
    return received;
}

QByteArray VirtualChipBootOutput::romText(VirtualEsp8266::BootMode mode, Cause cause)
{
    if (cause == Cause::Reboot)
        return QByteArray();
    QByteArray text = QByteArrayLiteral(" ets Jan  8 2013,rst cause:");
    text += cause == Cause::PowerOn ? '1' : '2';
    if (mode == VirtualEsp8266::BootMode::Download)
        return text + QByteArrayLiteral(", boot mode:(1,7)\r\n\r\n");
    return text + QByteArrayLiteral(", boot mode:(3,6)\r\n\r\n"
                                    "load 0x40100000, len 2592, room 16 \r\n"
                                    "tail 0\r\nchksum 0x3a\r\ncsum 0x3a\r\n");
}

QByteArray VirtualChipBootOutput::firmwareText()
{
    return QByteArrayLiteral("\r\nuser program 1.0 started\r\n"
                             "mode : sta\r\nscandone\r\nno network found, retrying\r\n");
}

QByteArray VirtualChipBootOutput::output(VirtualEsp8266::BootMode mode, Cause cause,
                                         quint32 lineBaud)
{
    QByteArray bytes;
    if (cause == Cause::ResetPin)
        bytes.append(char(resetGlitch));
    bytes += resample(romText(mode, cause), romBaud, lineBaud);
    if (mode == VirtualEsp8266::BootMode::Firmware)
        bytes += firmwareText();
    return bytes;
}
