#pragma once

#include <QByteArray>

// The SPI NOR flash of the virtual chip: starts erased (0xFF), erasing sets whole sectors back to
// 0xFF and programming can only clear bits, so a write without a preceding erase leaves the AND
// of old and new contents, as on the real part. Also knows how long each operation takes on a
// typical 4 MiB part, for the optional timing model.
class VirtualNorFlash
{
public:
    static constexpr quint32 sectorSize = 0x1000;        // smallest erasable unit, bytes
    static constexpr quint32 blockSize = 0x10000;        // 64 KiB erase block, bytes
    static constexpr quint32 pageSize = 256;             // program page, bytes
    static constexpr qint64 sectorEraseUs = 45000;       // one 4 KiB sector erase, microseconds
    static constexpr qint64 blockEraseUs = 150000;       // one 64 KiB block erase, microseconds
    static constexpr qint64 chipEraseUsPerMiB = 1000000; // whole-chip erase per MiB, microseconds
    static constexpr qint64 pageProgramUs = 700;         // one 256-byte page program, microseconds

    explicit VirtualNorFlash(quint32 size = 0);

    quint32 size() const { return quint32(m_data.size()); }
    // True when [offset, offset + length) lies inside the flash (without wrapping).
    bool contains(quint32 offset, quint32 length) const;

    // Sets [offset, offset + length) to 0xFF, clipped to the flash.
    void erase(quint32 offset, quint32 length);
    void eraseAll();
    // NOR programming: each byte becomes old & data. Clipped to the flash.
    void program(quint32 offset, const QByteArray &data);
    // Raw store that bypasses NOR rules (preloading images, test set-up). Clipped to the flash.
    void store(quint32 offset, const QByteArray &data);
    // Contents of [offset, offset + length), clipped to the flash.
    QByteArray read(quint32 offset, quint32 length) const;
    // Raw 16-byte MD5 of [offset, offset + length), clipped to the flash.
    QByteArray md5(quint32 offset, quint32 length) const;

    // Time to erase [offset, offset + length) with 64 KiB block erases where a whole aligned block
    // is covered and sector erases elsewhere.
    static qint64 eraseTimeUs(quint32 offset, quint32 length);
    qint64 chipEraseTimeUs() const;
    static qint64 programTimeUs(quint32 length);

private:
    // Length of [offset, offset + length) that lies inside the flash.
    quint32 clippedLength(quint32 offset, quint32 length) const;

    QByteArray m_data;
};
