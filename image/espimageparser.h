#pragma once

#include <esputility/esputility_core_global.h>

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPair>
#include <QPointer>
#include <QString>

class QIODevice;

// Reads an ESP8266 firmware image (magic 0xE9, segment list, checksum block) and serves it for
// flashing: blocks whose header carries the flash parameters wanted on the target, and the MD5
// the chip will report for those blocks.
//
// Flash parameter codes are those of the image header; 0xFF means "not given": the text parsers
// return it for unknown text, and load() keeps the header's own value for it.
class ESPUTILITY_CORE_EXPORT ESPImageParser : public QObject
{
    Q_OBJECT

public:
    using Segment = QPair<unsigned int, unsigned int>; // (load address, length)

    static constexpr unsigned char kCodeNotGiven = 0xFF;
    static constexpr unsigned char kImageMagic = 0xE9;
    static constexpr int kHeaderSize = 8;
    static constexpr int kSegmentHeaderSize = 8;
    // get_block refuses larger blocks: no flash is bigger than this (bytes).
    static constexpr unsigned int kMaxBlockSize = 0x1000000;

    explicit ESPImageParser(QObject *parent = nullptr);
    ~ESPImageParser() override;

    // Text to header code; 0xFF when the text is not recognised.
    static unsigned char fm_fromString(const QString &text);
    static unsigned char fs_fromString(const QString &text);
    static unsigned char ff_fromString(const QString &text);
    // A byte count as "<n>Mb" for whole megabytes, else truncated "<n>Kb".
    static QString flashSizeString(unsigned int bytes);
    // Bytes of a size code; 0 for the "c2" layout and for unknown codes.
    static unsigned int flash_size_bytes(unsigned char code);

    // Opens the file itself (owned) or takes an open, random-access device (not owned, never
    // closed). Codes of 0xFF keep the header's values. False for anything that is no image.
    bool load(const QString &path, unsigned char mode, unsigned char size, unsigned char freq);
    bool load(QIODevice *device, unsigned char mode, unsigned char size, unsigned char freq);
    void close_image();
    bool isLoaded() const { return !m_device.isNull(); }

    // Header fields as they stand in the file; 0 / 0xFF when they cannot be read.
    unsigned int entry_point() const;
    unsigned char flash_mode_int() const;
    unsigned char flash_size_int() const;
    unsigned char flash_frequency_int() const;

    // Texts of the codes that will be written.
    QString getFlashMode() const;
    QString getFlashSize() const;
    QString getFlashFrequency() const;

    unsigned int file_size() const;
    unsigned int write_size() const;

    // MD5 of the image with its header patched, as the chip reports it after writing.
    QByteArray md5() const;
    // MD5 of the bytes between the first 4 and the last 16 (an image with its own digest).
    QByteArray md5_upy() const;

    void prepare_read();
    // The next `size` bytes, padded with 0xFF; the block at offset 0 gets the wanted header codes.
    QByteArray get_block(unsigned int size);

    // Human-readable description; trailerOffset, when not 0, is where the second part starts.
    QString dumpInfo(unsigned int trailerOffset) const;

    const QList<Segment> &segments() const { return m_segments; }

private:
    bool parse_image(unsigned char mode, unsigned char size, unsigned char freq);
    void forgetDevice();
    qint64 deviceSize() const;
    bool seekClamped(qint64 position) const;
    QByteArray readAt(qint64 offset, qint64 length) const;
    QByteArray patchedHeaderBytes(QByteArray header, unsigned char freqMask) const;

    QPointer<QIODevice> m_device;
    bool m_owned = true;
    unsigned char m_flashMode = kCodeNotGiven;
    unsigned char m_flashSize = kCodeNotGiven;
    unsigned char m_flashFrequency = kCodeNotGiven;
    QList<Segment> m_segments;
};
