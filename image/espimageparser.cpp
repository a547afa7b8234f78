#include "image/espimageparser.h"

#include <QCryptographicHash>
#include <QFile>
#include <QRegExp>
#include <QtEndian>

#include <algorithm>
#include <cstddef>
#include <limits>

namespace {

struct SizePattern
{
    const char *pattern;
    Qt::CaseSensitivity sensitivity;
    unsigned char code;
};

// Tried in this order: the "c1" form of 2 MB goes before plain 4 MB. Three patterns are
// case-sensitive on purpose, so "4MB" is accepted while "4MBc1" and "16MB" are not.
const SizePattern kSizePatterns[] = {
    {"512(k|kb)?", Qt::CaseInsensitive, 0},          {"256(k|kb)?", Qt::CaseInsensitive, 1},
    {"(1mb|1024(k|kb)?)", Qt::CaseInsensitive, 2},   {"(2mb|2048(k|kb)?)", Qt::CaseInsensitive, 3},
    {"(2mb|2048(k|kb)?)c1", Qt::CaseInsensitive, 5}, {"(4mb|4096(k|kb)?)", Qt::CaseInsensitive, 4},
    {"(4mb|4096(k|kb)?)c1", Qt::CaseSensitive, 6},   {"(4mb|4096(k|kb)?)c2", Qt::CaseSensitive, 7},
    {"(8mb|8192(k|kb)?)", Qt::CaseInsensitive, 8},   {"(16mb|16384(k|kb)?)", Qt::CaseSensitive, 9},
};

struct NamedCode
{
    const char *name;
    unsigned char code;
};

// Flash sizes named in megabits.
const NamedCode kMegabitNames[] = {
    {"2m", 1},  {"4m", 0},     {"8m", 2},     {"16m", 3}, {"16m-c1", 5},
    {"32m", 4}, {"32m-c1", 6}, {"32m-c2", 7}, {"64m", 8}, {"128m", 9},
};

const NamedCode kModeNames[] = {
    {"qio", 0},
    {"qout", 1},
    {"dio", 2},
    {"dout", 3},
};

// 80 MHz texts give the 40 MHz code, not 15: kept so that existing scatter files flash as before.
const NamedCode kFrequencyNames[] = {
    {"40mhz", 0}, {"40m", 0}, {"40e6", 0}, {"26mhz", 1}, {"26m", 1}, {"26e6", 1},
    {"20mhz", 2}, {"20m", 2}, {"20e6", 2}, {"80mhz", 0}, {"80m", 0}, {"80e6", 0},
};

// Bytes per size code 0..9; the "c2" layout (7) has no usable size.
const unsigned int kFlashSizeBytes[] = {
    0x80000, 0x40000, 0x100000, 0x200000, 0x400000, 0x200000, 0x400000, 0, 0x800000, 0x1000000,
};

const int kHashChunkSize = 0x10000; // bytes read at a time for md5()
const int kUpyChunkSize = 1024;     // bytes read at a time for md5_upy()
const int kTrailerDigestSize = 16;  // recorded MD5 at the very end
const int kTrailerTotalSize = 4;    // recorded total length before the second part
const int kMinUpySize = 21;         // smaller devices hash nothing

template <size_t N>
unsigned char lookupName(const NamedCode (&table)[N], const QString &text)
{
    for (const NamedCode &entry : table) {
        if (text.compare(QLatin1String(entry.name), Qt::CaseInsensitive) == 0)
            return entry.code;
    }
    return ESPImageParser::kCodeNotGiven;
}

quint32 littleEndian32(const QByteArray &bytes, int offset)
{
    return qFromLittleEndian<quint32>(bytes.constData() + offset);
}

// Reads at most `remaining` bytes in chunks into the hash; stops early when the device runs dry
// (a file truncated under us) so the loop always ends.
void hashDevice(QIODevice *device, QCryptographicHash &hash, qint64 remaining, int chunkSize)
{
    while (remaining > 0) {
        const QByteArray chunk = device->read(std::min<qint64>(remaining, chunkSize));
        if (chunk.isEmpty())
            break;
        hash.addData(chunk);
        remaining -= chunk.size();
    }
}

} // namespace

ESPImageParser::ESPImageParser(QObject *parent) : QObject(parent) {}

ESPImageParser::~ESPImageParser()
{
    close_image();
}

unsigned char ESPImageParser::fm_fromString(const QString &text)
{
    return lookupName(kModeNames, text);
}

unsigned char ESPImageParser::fs_fromString(const QString &text)
{
    for (const SizePattern &entry : kSizePatterns) {
        QRegExp pattern(QLatin1String(entry.pattern), entry.sensitivity);
        if (pattern.exactMatch(text))
            return entry.code;
    }
    return lookupName(kMegabitNames, text);
}

unsigned char ESPImageParser::ff_fromString(const QString &text)
{
    return lookupName(kFrequencyNames, text);
}

QString ESPImageParser::flashSizeString(unsigned int bytes)
{
    const unsigned int megabyte = 0x100000;
    if (bytes >= megabyte && bytes % megabyte == 0)
        return QStringLiteral("%1Mb").arg(bytes / megabyte);
    return QStringLiteral("%1Kb").arg(bytes / 1024);
}

unsigned int ESPImageParser::flash_size_bytes(unsigned char code)
{
    if (code >= sizeof(kFlashSizeBytes) / sizeof(kFlashSizeBytes[0]))
        return 0;
    return kFlashSizeBytes[code];
}

bool ESPImageParser::load(const QString &path, unsigned char mode, unsigned char size,
                          unsigned char freq)
{
    close_image();
    auto *file = new QFile(path, this);
    // Unbuffered: a file cut short by someone else must not be served from a stale read-ahead.
    if (!file->open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        delete file;
        return false;
    }
    m_device = file;
    m_owned = true;
    return parse_image(mode, size, freq);
}

bool ESPImageParser::load(QIODevice *device, unsigned char mode, unsigned char size,
                          unsigned char freq)
{
    close_image();
    m_device = device;
    m_owned = false;
    return parse_image(mode, size, freq);
}

void ESPImageParser::close_image()
{
    if (m_owned && m_device) {
        m_device->close();
        delete m_device.data();
    }
    forgetDevice();
}

void ESPImageParser::forgetDevice()
{
    m_device = nullptr;
    m_segments.clear();
    m_flashMode = kCodeNotGiven;
    m_flashSize = kCodeNotGiven;
    m_flashFrequency = kCodeNotGiven;
}

bool ESPImageParser::parse_image(unsigned char mode, unsigned char size, unsigned char freq)
{
    // The blocks are served by seeking back to the start, so the device must allow it.
    const bool usable =
        m_device && m_device->isOpen() && m_device->isReadable() && !m_device->isSequential();
    QByteArray header;
    if (usable && deviceSize() >= kHeaderSize && m_device->seek(0))
        header = m_device->read(kHeaderSize);
    if (header.size() < kHeaderSize || static_cast<unsigned char>(header.at(0)) != kImageMagic) {
        close_image();
        return false;
    }

    const auto headerByte = [&header](int index) {
        return static_cast<unsigned char>(header.at(index));
    };
    m_flashMode = mode == kCodeNotGiven ? headerByte(2) : mode;
    m_flashSize = size == kCodeNotGiven ? headerByte(3) >> 4 : size;
    m_flashFrequency = freq == kCodeNotGiven ? headerByte(3) & 0x0F : freq;

    const int segmentCount = headerByte(1);
    for (int i = 0; i < segmentCount; ++i) {
        // A segment header cut off by the end of the file ends the list; a segment whose data
        // runs past the end is listed as the header states it.
        const QByteArray segmentHeader = m_device->read(kSegmentHeaderSize);
        if (segmentHeader.size() < kSegmentHeaderSize)
            break;
        const quint32 address = littleEndian32(segmentHeader, 0);
        const quint32 length = littleEndian32(segmentHeader, 4);
        m_segments.append(Segment(address, length));
        seekClamped(m_device->pos() + length);
    }
    seekClamped(0);
    return true;
}

qint64 ESPImageParser::deviceSize() const
{
    if (!m_device)
        return 0;
    return std::max<qint64>(m_device->size(), 0);
}

// Never seeks before the start or past the end: a QBuffer opened for writing would grow.
bool ESPImageParser::seekClamped(qint64 position) const
{
    if (!m_device)
        return false;
    return m_device->seek(std::clamp<qint64>(position, 0, deviceSize()));
}

QByteArray ESPImageParser::readAt(qint64 offset, qint64 length) const
{
    if (!m_device || offset < 0 || offset >= deviceSize() || !seekClamped(offset))
        return QByteArray();
    return m_device->read(length);
}

QByteArray ESPImageParser::patchedHeaderBytes(QByteArray header, unsigned char freqMask) const
{
    if (header.size() > 2)
        header[2] = static_cast<char>(m_flashMode);
    if (header.size() > 3)
        header[3] = static_cast<char>((m_flashSize << 4) | (m_flashFrequency & freqMask));
    return header;
}

unsigned int ESPImageParser::entry_point() const
{
    if (!m_device)
        return 0;
    const qint64 saved = m_device->pos();
    const QByteArray bytes = readAt(4, 4);
    seekClamped(saved);
    return bytes.size() == 4 ? littleEndian32(bytes, 0) : 0;
}

unsigned char ESPImageParser::flash_mode_int() const
{
    if (!m_device)
        return kCodeNotGiven;
    const qint64 saved = m_device->pos();
    const QByteArray byte = readAt(2, 1);
    seekClamped(saved);
    return byte.isEmpty() ? kCodeNotGiven : static_cast<unsigned char>(byte.at(0));
}

unsigned char ESPImageParser::flash_size_int() const
{
    if (!m_device)
        return kCodeNotGiven;
    const qint64 saved = m_device->pos();
    const QByteArray byte = readAt(3, 1);
    seekClamped(saved);
    return byte.isEmpty() ? kCodeNotGiven : static_cast<unsigned char>(byte.at(0)) >> 4;
}

unsigned char ESPImageParser::flash_frequency_int() const
{
    if (!m_device)
        return kCodeNotGiven;
    const qint64 saved = m_device->pos();
    const QByteArray byte = readAt(3, 1);
    seekClamped(saved);
    return byte.isEmpty() ? kCodeNotGiven : static_cast<unsigned char>(byte.at(0)) & 0x0F;
}

QString ESPImageParser::getFlashMode() const
{
    switch (m_flashMode) {
    case 0:
        return QStringLiteral("qio");
    case 1:
        return QStringLiteral("qout");
    case 2:
        return QStringLiteral("dio");
    case 3:
        return QStringLiteral("dout");
    default:
        return QStringLiteral("invalid");
    }
}

QString ESPImageParser::getFlashSize() const
{
    // Codes 8 and 9 are accepted as input but have no text of their own.
    switch (m_flashSize) {
    case 0:
        return QStringLiteral("512K");
    case 1:
        return QStringLiteral("256K");
    case 2:
        return QStringLiteral("1Mb");
    case 3:
        return QStringLiteral("2Mb");
    case 4:
        return QStringLiteral("4Mb");
    case 5:
        return QStringLiteral("2MbC1");
    case 6:
        return QStringLiteral("4MbC1");
    default:
        return QStringLiteral("inv");
    }
}

QString ESPImageParser::getFlashFrequency() const
{
    switch (m_flashFrequency) {
    case 0:
        return QStringLiteral("40MHz");
    case 1:
        return QStringLiteral("26MHz");
    case 2:
        return QStringLiteral("20MHz");
    case 15:
        return QStringLiteral("80MHz");
    default:
        return QStringLiteral("inv");
    }
}

unsigned int ESPImageParser::file_size() const
{
    return static_cast<unsigned int>(
        std::min<qint64>(deviceSize(), std::numeric_limits<unsigned int>::max()));
}

unsigned int ESPImageParser::write_size() const
{
    const qint64 rounded = (deviceSize() + 3) & ~qint64(3);
    return static_cast<unsigned int>(std::min<qint64>(rounded, 0xFFFFFFFCu));
}

QByteArray ESPImageParser::md5() const
{
    if (!m_device)
        return QByteArray();
    const qint64 saved = m_device->pos();
    QCryptographicHash hash(QCryptographicHash::Md5);
    const qint64 size = deviceSize();
    // Unlike get_block, the frequency code is not masked here; valid codes give the same bytes.
    hash.addData(patchedHeaderBytes(readAt(0, kHeaderSize), 0xFF));
    if (size > kHeaderSize && seekClamped(kHeaderSize))
        hashDevice(m_device, hash, size - kHeaderSize, kHashChunkSize);
    seekClamped(saved);
    return hash.result();
}

QByteArray ESPImageParser::md5_upy() const
{
    if (!m_device)
        return QByteArray();
    const qint64 saved = m_device->pos();
    QCryptographicHash hash(QCryptographicHash::Md5);
    const qint64 size = deviceSize();
    // Bytes 2 and 3 may be rewritten when flashing, and the last 16 hold the recorded digest.
    if (size >= kMinUpySize && seekClamped(4))
        hashDevice(m_device, hash, size - 4 - kTrailerDigestSize, kUpyChunkSize);
    seekClamped(saved);
    return hash.result();
}

void ESPImageParser::prepare_read()
{
    seekClamped(0);
}

QByteArray ESPImageParser::get_block(unsigned int size)
{
    if (!m_device || size == 0 || size > kMaxBlockSize)
        return QByteArray();
    const bool firstBlock = m_device->pos() == 0;
    QByteArray block = m_device->read(size);
    if (block.size() < static_cast<int>(size))
        block.append(static_cast<int>(size) - block.size(), static_cast<char>(0xFF));
    if (firstBlock)
        block = patchedHeaderBytes(block, 0x0F);
    return block;
}

QString ESPImageParser::dumpInfo(unsigned int trailerOffset) const
{
    if (!m_device)
        return QString();
    const qint64 saved = m_device->pos();
    const QChar zero(QLatin1Char('0'));
    const unsigned int fileSize = file_size();

    // The size behind "0x" is octal; existing logs and scripts read it that way.
    QString text =
        QStringLiteral(
            "FLASH:\n{%1 segments, %2 bytes total (0x%3)}\n<FM: %4, FS: %5, FF: %6, PC: 0x%7>\n")
            .arg(m_segments.size())
            .arg(fileSize)
            .arg(fileSize, 16, 8, zero)
            .arg(getFlashMode())
            .arg(getFlashSize())
            .arg(getFlashFrequency())
            .arg(entry_point(), 8, 16, zero);

    // The end address is decimal behind "0x", and the fourth field stays an unfilled "%4".
    seekClamped(kHeaderSize);
    for (int i = 0; i < m_segments.size(); ++i) {
        const Segment &segment = m_segments.at(i);
        text += QStringLiteral("(%1\t0x%2 - 0x%3\t%4)\n")
                    .arg(i)
                    .arg(segment.first, 8, 16, zero)
                    .arg(quint64(segment.first) + segment.second);
        seekClamped(m_device->pos() + kSegmentHeaderSize + segment.second);
    }

    const qint64 checksumOffset = (m_device->pos() & ~qint64(15)) + 15;
    const QByteArray checksum = readAt(checksumOffset, 1);
    text += QStringLiteral("CRC: 0x%1\n")
                .arg(checksum.isEmpty()
                         ? QStringLiteral("??")
                         : QStringLiteral("%1").arg(static_cast<unsigned char>(checksum.at(0)), 2,
                                                    16, zero));

    const qint64 size = deviceSize();
    if (trailerOffset != 0 && trailerOffset < size) {
        const QString none = QStringLiteral("none");
        const QByteArray total =
            trailerOffset >= kTrailerTotalSize
                ? readAt(qint64(trailerOffset) - kTrailerTotalSize, kTrailerTotalSize)
                : QByteArray();
        const QByteArray digest = size >= kTrailerDigestSize
                                      ? readAt(size - kTrailerDigestSize, kTrailerDigestSize)
                                      : QByteArray();
        text += QStringLiteral("\n\nIROM0:\t0x%1 bytes\n")
                    .arg(size - kTrailerDigestSize - qint64(trailerOffset));
        text +=
            QStringLiteral("Total:\t%1 (recorded %2)\n")
                .arg(fileSize)
                .arg(total.size() == kTrailerTotalSize ? QString::number(littleEndian32(total, 0))
                                                       : none);
        text += QStringLiteral("MD5:\t%1 (recorded %2)\n")
                    .arg(QString::fromLatin1(md5_upy().toHex()))
                    .arg(digest.size() == kTrailerDigestSize ? QString::fromLatin1(digest.toHex())
                                                             : none);
    } else {
        text += QStringLiteral("Total:\t%1\n").arg(fileSize);
        text += QStringLiteral("MD5:\t%1\n").arg(QString::fromLatin1(md5().toHex()));
    }

    seekClamped(saved);
    return text;
}
