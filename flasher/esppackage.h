#pragma once

#include <esputility/esputility_core_global.h>

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <memory>

class QuaZip;

// A package opened for reading: a zip archive whose comment is the package description and
// whose entries are protected with a password derived from that description.
class ESPUTILITY_CORE_EXPORT EspPackage
{
public:
    // Outcome of reading one entry; the dialog shows a different text for each.
    enum class EntryStatus {
        Ok,
        NotFound,   // no entry of that exact name
        CannotOpen, // the entry exists but cannot be opened (see zipError())
        Corrupt     // opened, but the bytes are bad: CRC/inflate error, wrong password, no password
    };

    static const char *const stubEntryName;    // "esp8266_loader_stub.elf"
    static const char *const scatterEntryName; // "scatter.txt"

    // SHA3-512 over the description's UTF-8 bytes and the package salt, cut at the first zero
    // byte of the raw digest (so it may be empty). Same for writing and reading.
    static QByteArray password(const QString &comment);

    explicit EspPackage(const QString &path);
    ~EspPackage();
    EspPackage(const EspPackage &) = delete;
    EspPackage &operator=(const EspPackage &) = delete;

    bool open();
    void close();
    bool isOpen() const;
    QString path() const { return m_path; }

    // The description, read with the UTF-8 codec.
    QString comment() const;
    // Entry names in archive order (duplicates kept).
    QStringList entryNames() const;
    bool contains(const QString &name) const;
    // Uncompressed size of the first entry of that name; -1 when there is none.
    qint64 uncompressedSize(const QString &name) const;

    // Reads a whole entry with the package password. On anything but Ok, *data is cleared.
    EntryStatus readEntry(const QString &name, QByteArray *data);
    // The zip error code of the last failure (open, entry selection, entry read).
    int zipError() const { return m_zipError; }

private:
    QString m_path;
    std::unique_ptr<QuaZip> m_zip;
    QStringList m_names; // entry names as listed when the package was opened
    QByteArray m_password;
    int m_zipError = 0;
};
