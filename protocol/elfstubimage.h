#pragma once

#include "esputility_core_global.h"

#include <QByteArray>
#include <QString>
#include <QVector>

class QIODevice;

// The flash loader as the uploader needs it: entry point and sections with their load addresses
// and bytes. Takes either a 32-bit little-endian ELF file or the JSON form in which loaders are
// also published (an object with base64 "text" and "data", their load addresses "text_start" and
// "data_start", and "entry"); the form is recognised by content. Everything kept is copied out,
// so no parser state outlives load(). Any input bytes are safe to hand in: a file that cannot be
// read completely and consistently is refused with a message for the user.
class ESPUTILITY_CORE_EXPORT ElfStubImage
{
public:
    struct Section
    {
        QString name;
        quint32 address = 0; // where the section is loaded (sh_addr)
        quint32 size = 0;    // size in memory (sh_size)
        QByteArray data; // the file's bytes, size bytes; empty for sections without file content
    };

    // Loader files are a few tens of kilobytes; anything far bigger is not one.
    static constexpr qint64 MaxFileSize = 16 * 1024 * 1024;

    ElfStubImage() = default;

    // Replaces whatever was loaded before; on failure the image is empty and errorString() says
    // why.
    bool load(const QByteArray &bytes);
    // Reads everything from the device's current position to its end.
    bool load(QIODevice *device);
    void clear();

    bool isValid() const { return m_valid; }
    QString errorString() const { return m_error; }

    quint32 entry() const { return m_entry; }
    quint16 machine() const { return m_machine; }
    // Sections in section-table order, without the reserved null section at index 0.
    const QVector<Section> &sections() const { return m_sections; }
    // First section with exactly this name, or nullptr; valid until the next load() or clear().
    const Section *section(const QString &name) const;

private:
    bool fail(const QString &message);
    bool loadElf(const QByteArray &bytes);
    bool loadJson(const QByteArray &bytes);

    bool m_valid = false;
    QString m_error;
    quint32 m_entry = 0;
    quint16 m_machine = 0;
    QVector<Section> m_sections;
};
