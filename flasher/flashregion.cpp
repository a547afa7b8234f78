#include "flasher/flashregion.h"

#include "image/espimageparser.h"
#include "widgets/texthelpers.h"
#include "worker/esptoolworker.h"

#include <QCoreApplication>
#include <QStringList>

namespace {

// Erases work on whole sectors of this many bytes.
constexpr quint64 sectorBytes = 4096;

bool parseNumber(const QString &text, quint32 *value)
{
    bool ok = false;
    *value = parseUnsignedInteger(text.trimmed(), &ok);
    return ok;
}

} // namespace

FlashRegion::Parse FlashRegion::parseAddressSize(const QString &text, FlashRegion *region)
{
    if (!text.contains(QLatin1Char(':')))
        return Parse::NoColon;
    const QStringList parts = text.split(QLatin1Char(':'));
    FlashRegion parsed;
    if (!parseNumber(parts.at(0), &parsed.address) || !parseNumber(parts.at(1), &parsed.size))
        return Parse::BadNumber;
    if (region)
        *region = parsed;
    return Parse::Ok;
}

FlashRegion::Parse FlashRegion::parseErase(const QString &text, FlashRegion *region)
{
    if (text.contains(QLatin1Char(':')))
        return parseAddressSize(text, region);
    // The ok flag is not consulted: only the value 0x911 matters.
    if (parseUnsignedInteger(text.trimmed()) != ESPToolWorker::wholeChipErase)
        return Parse::NoColon;
    if (region) {
        *region = FlashRegion();
        region->wholeChip = true;
    }
    return Parse::Ok;
}

FlashRegion::Parse FlashRegion::parseRange(const QString &text, FlashRegion *region)
{
    FlashRegion parsed;
    if (text.contains(QLatin1Char(':'))) {
        const Parse result = parseAddressSize(text, &parsed);
        if (result != Parse::Ok)
            return result;
    } else {
        const QStringList parts = text.split(QLatin1Char('-'));
        if (parts.size() != 2)
            return Parse::NoColon;
        quint32 end = 0;
        if (!parseNumber(parts.at(0), &parsed.address) || !parseNumber(parts.at(1), &end))
            return Parse::BadNumber;
        if (end <= parsed.address)
            return Parse::Empty;
        parsed.size = end - parsed.address;
    }
    if (parsed.size == 0 || quint64(parsed.address) + parsed.size > 0x100000000ull)
        return Parse::Empty;
    if (region)
        *region = parsed;
    return Parse::Ok;
}

bool FlashRegion::fitsFlash(quint32 flashSize) const
{
    return wholeChip || flashSize == 0 || quint64(address) + size <= flashSize;
}

QString FlashRegion::pastFlashMessage(quint32 flashSize) const
{
    return QCoreApplication::translate("ESPFlasher",
                                       "Region %1 runs past the end of the flash memory (%2)")
        .arg(regionText(address, quint64(address) + size),
             ESPImageParser::flashSizeString(flashSize));
}

FlashRegion FlashRegion::erasedSectors() const
{
    if (wholeChip)
        return *this;
    const quint64 start = address / sectorBytes * sectorBytes;
    const quint64 end = (quint64(address) + size + sectorBytes - 1) / sectorBytes * sectorBytes;
    // Only a region of nearly 4 GiB could round up to a length that 32 bits do not hold.
    return FlashRegion(quint32(start), quint32(qMin<quint64>(end - start, 0xFFFFFFFFu)));
}

QString FlashRegion::erasedMessage() const
{
    if (wholeChip)
        return QCoreApplication::translate("ESPFlasher", "Erased the whole flash memory");
    const FlashRegion sectors = erasedSectors();
    return QCoreApplication::translate("ESPFlasher", "Erased sectors %1")
        .arg(regionText(sectors.address, quint64(sectors.address) + sectors.size));
}

QVariantList FlashRegion::eraseParameters() const
{
    if (wholeChip)
        return {ESPToolWorker::wholeChipErase};
    return {address, size};
}

QVariantList FlashRegion::md5Parameters(const QString &expectedMd5) const
{
    QVariantList params{address, size};
    if (!expectedMd5.isEmpty())
        params << expectedMd5;
    return params;
}

QString FlashRegion::md5RequestMessage() const
{
    const QChar zero(QLatin1Char('0'));
    return QCoreApplication::translate(
               "ESPFlasher", "Requested flash memory contents md5 for [0x%1:0x%2] (size %3)")
        .arg(address, 8, 16, zero)
        .arg(size, 8, 16, zero)
        .arg(size);
}

QString FlashRegion::invalidEraseFormatMessage()
{
    return QStringLiteral("Invalid erase region format");
}

QString FlashRegion::invalidVerifyFormatMessage()
{
    return QStringLiteral("Invalid region format for flash verification");
}
