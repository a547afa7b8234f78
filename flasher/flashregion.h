#pragma once

#include <esputility/esputility_core_global.h>

#include <QString>
#include <QVariantList>

// A flash region as users type it: "address:size" with both numbers in the syntax of
// parseUnsignedInteger, or, for an erase only, the single value 0x911 that stands for the whole
// chip. The command line also takes "address-end" (end exclusive).
class ESPUTILITY_CORE_EXPORT FlashRegion
{
public:
    enum class Parse {
        Ok,
        BadNumber, // a part is not a number; the dialog ignores such input without a message
        NoColon,   // neither form: "Invalid erase region format" / "... for flash verification"
        Empty      // "address-end" whose end is not above its start, or a region past 4 GiB
    };

    quint32 address = 0;
    quint32 size = 0;
    bool wholeChip = false;

    FlashRegion() = default;
    FlashRegion(quint32 startAddress, quint32 length) : address(startAddress), size(length) {}

    // One past the last byte, in 32-bit arithmetic like the addresses themselves.
    quint32 end() const { return address + size; }

    // False when the region runs past a flash memory of flashSize bytes; a flash of unknown
    // size (0) and the whole chip always fit.
    bool fitsFlash(quint32 flashSize) const;
    // "Region [0x%1:0x%2] runs past the end of the flash memory (%3)" (end exclusive).
    QString pastFlashMessage(quint32 flashSize) const;
    // What an erase of this region clears: whole sectors, the start rounded down to one and the
    // end rounded up.
    FlashRegion erasedSectors() const;
    // The line after an erase: "Erased sectors [0x%1:0x%2]", or that the whole chip was erased.
    QString erasedMessage() const;

    // "address:size": the text is split at every colon and the first two parts are trimmed;
    // further parts are ignored.
    static Parse parseAddressSize(const QString &text, FlashRegion *region);
    // What the erase prompt accepts: "address:size", or without a colon any spelling of 0x911
    // ("2321" as well) for the whole chip.
    static Parse parseErase(const QString &text, FlashRegion *region);
    // "address:size" or "address-end"; refuses empty regions and regions that pass 4 GiB,
    // since the result names files and is read in one go.
    static Parse parseRange(const QString &text, FlashRegion *region);

    // Parameters of "erase flash": [0x911] for the whole chip, else [address, size].
    QVariantList eraseParameters() const;
    // Parameters of "flash md5": [address, size], plus the expected digest when there is one.
    QVariantList md5Parameters(const QString &expectedMd5 = QString()) const;

    // "Requested flash memory contents md5 for [0x%1:0x%2] (size %3)": the second bracketed
    // value is the size, matching the "address:size" the user typed.
    QString md5RequestMessage() const;
    // Untranslated, as the dialog has always logged them.
    static QString invalidEraseFormatMessage();
    static QString invalidVerifyFormatMessage();
};
