#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QtGlobal>

// Writes ESP8266 firmware images and raw application images for tests and demos.
//
// Firmware layout (little-endian): magic 0xE9, segment count, flash mode, size << 4 | frequency,
// entry point; then per segment its load address, length and data; then zero padding up to the
// last byte of a 16-byte block, which holds the XOR of all segment data seeded with 0xEF.
//
// With a second part the image continues: the total file length (4 bytes), the second part, and
// the MD5 of everything from offset 4 up to these last 16 bytes. trailerOffset() is where the
// second part starts, so the recorded length sits at trailerOffset() - 4.
//
// Everything is deterministic: the same calls give the same bytes.
class EspImageBuilder
{
public:
    static constexpr quint8 kMagic = 0xE9;
    static constexpr quint8 kChecksumSeed = 0xEF;
    static constexpr int kHeaderSize = 8;
    static constexpr int kSegmentHeaderSize = 8;
    static constexpr int kMaxSegments = 255;
    static constexpr int kDigestSize = 16;
    static constexpr int kTotalLengthSize = 4;

    struct Segment
    {
        quint32 address;
        QByteArray data;
    };

    void setEntry(quint32 entry) { m_entry = entry; }
    void setFlashMode(quint8 mode) { m_flashMode = mode; }
    // Only the low nibble of each is used: they share header byte 3.
    void setFlashSize(quint8 size) { m_flashSize = size & 0x0F; }
    void setFlashFrequency(quint8 frequency) { m_flashFrequency = frequency & 0x0F; }

    // False (and nothing added) once the header's one-byte count is full or for a bad length.
    bool addSegment(quint32 address, const QByteArray &data);
    bool addRandomSegment(quint32 address, int length, quint32 seed);
    const QList<Segment> &segments() const { return m_segments; }

    // Switches to the form with recorded length and digest around `part`.
    void setSecondPart(const QByteArray &part);
    void clearSecondPart();
    bool hasSecondPart() const { return m_hasSecondPart; }

    QByteArray build() const;
    // Header, segments and checksum block.
    int firstPartSize() const;
    // Start of the second part, 0 without one.
    int trailerOffset() const;
    quint8 checksum() const;
    quint8 headerSizeFrequencyByte() const;

    // Writes build() to `path`; on failure `error` (when given) says why.
    bool save(const QString &path, QString *error = nullptr) const;

    // A reproducible byte stream for a seed (any seed, 0 included).
    static QByteArray pseudoRandomBytes(int length, quint32 seed);
    // `length` pseudo-random bytes whose last one is never 0xFF, then `ffTail` bytes of 0xFF, so
    // that trimming trailing 0xFF gives back exactly the payload. Empty for negative lengths.
    static QByteArray application(int length, int ffTail, quint32 seed);
    static bool saveBytes(const QByteArray &bytes, const QString &path, QString *error = nullptr);

private:
    quint32 m_entry = 0x40100004;
    quint8 m_flashMode = 0;
    quint8 m_flashSize = 0;
    quint8 m_flashFrequency = 0;
    QList<Segment> m_segments;
    bool m_hasSecondPart = false;
    QByteArray m_secondPart;
};
