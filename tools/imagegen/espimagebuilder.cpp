#include "tools/imagegen/espimagebuilder.h"

#include <QCryptographicHash>
#include <QSaveFile>
#include <QtEndian>

namespace {

const int kChecksumBlock = 16; // the checksum is the last byte of a block this large

void appendLittleEndian32(QByteArray &bytes, quint32 value)
{
    char raw[4];
    qToLittleEndian(value, raw);
    bytes.append(raw, sizeof(raw));
}

// xorshift32 behind a seed scrambler: small, fast, and identical on every platform.
class ByteStream
{
public:
    explicit ByteStream(quint32 seed) : m_state(seed * 0x9E3779B9u + 0x6D2B79F5u)
    {
        if (m_state == 0)
            m_state = 0x2545F491u;
    }

    quint32 next()
    {
        m_state ^= m_state << 13;
        m_state ^= m_state >> 17;
        m_state ^= m_state << 5;
        return m_state;
    }

private:
    quint32 m_state;
};

} // namespace

bool EspImageBuilder::addSegment(quint32 address, const QByteArray &data)
{
    if (m_segments.size() >= kMaxSegments)
        return false;
    m_segments.append(Segment{address, data});
    return true;
}

bool EspImageBuilder::addRandomSegment(quint32 address, int length, quint32 seed)
{
    if (length < 0)
        return false;
    return addSegment(address, pseudoRandomBytes(length, seed));
}

void EspImageBuilder::setSecondPart(const QByteArray &part)
{
    m_hasSecondPart = true;
    m_secondPart = part;
}

void EspImageBuilder::clearSecondPart()
{
    m_hasSecondPart = false;
    m_secondPart.clear();
}

quint8 EspImageBuilder::checksum() const
{
    quint8 value = kChecksumSeed;
    for (const Segment &segment : m_segments) {
        for (const char byte : segment.data)
            value ^= static_cast<quint8>(byte);
    }
    return value;
}

quint8 EspImageBuilder::headerSizeFrequencyByte() const
{
    return static_cast<quint8>((m_flashSize << 4) | m_flashFrequency);
}

int EspImageBuilder::firstPartSize() const
{
    int end = kHeaderSize;
    for (const Segment &segment : m_segments)
        end += kSegmentHeaderSize + segment.data.size();
    // Rounded down to the block, plus one whole block: the checksum ends it.
    return (end & ~(kChecksumBlock - 1)) + kChecksumBlock;
}

int EspImageBuilder::trailerOffset() const
{
    return m_hasSecondPart ? firstPartSize() + kTotalLengthSize : 0;
}

QByteArray EspImageBuilder::build() const
{
    QByteArray image;
    image.reserve(firstPartSize() +
                  (m_hasSecondPart ? kTotalLengthSize + m_secondPart.size() + kDigestSize : 0));
    image.append(static_cast<char>(kMagic));
    image.append(static_cast<char>(m_segments.size()));
    image.append(static_cast<char>(m_flashMode));
    image.append(static_cast<char>(headerSizeFrequencyByte()));
    appendLittleEndian32(image, m_entry);
    for (const Segment &segment : m_segments) {
        appendLittleEndian32(image, segment.address);
        appendLittleEndian32(image, static_cast<quint32>(segment.data.size()));
        image.append(segment.data);
    }
    image.append(firstPartSize() - 1 - image.size(), '\0');
    image.append(static_cast<char>(checksum()));

    if (m_hasSecondPart) {
        const int total = image.size() + kTotalLengthSize + m_secondPart.size() + kDigestSize;
        appendLittleEndian32(image, static_cast<quint32>(total));
        image.append(m_secondPart);
        // The first 4 bytes stay out: flashing may rewrite the mode and size/frequency bytes.
        image.append(QCryptographicHash::hash(image.mid(4), QCryptographicHash::Md5));
    }
    return image;
}

bool EspImageBuilder::save(const QString &path, QString *error) const
{
    return saveBytes(build(), path, error);
}

bool EspImageBuilder::saveBytes(const QByteArray &bytes, const QString &path, QString *error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size() || !file.commit()) {
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}

QByteArray EspImageBuilder::pseudoRandomBytes(int length, quint32 seed)
{
    if (length <= 0)
        return QByteArray();
    QByteArray bytes(length, Qt::Uninitialized);
    ByteStream stream(seed);
    quint32 word = 0;
    for (int i = 0; i < length; ++i) {
        if (i % 4 == 0)
            word = stream.next();
        bytes[i] = static_cast<char>(word >> (8 * (i % 4)));
    }
    return bytes;
}

QByteArray EspImageBuilder::application(int length, int ffTail, quint32 seed)
{
    if (length < 0 || ffTail < 0)
        return QByteArray();
    QByteArray bytes = pseudoRandomBytes(length, seed);
    if (!bytes.isEmpty() && static_cast<quint8>(bytes.back()) == 0xFF)
        bytes.back() = static_cast<char>(0xFE);
    bytes.append(ffTail, static_cast<char>(0xFF));
    return bytes;
}
