#pragma once

#include <esputility/esputility_core_global.h>

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>

class QIODevice;
class QTemporaryFile;
class QuaZip;

// A package opened for reading: a zip archive whose comment is the package description and
// whose entries are protected with a password derived from that description.
class ESPUTILITY_CORE_EXPORT EspPackage
{
public:
    // Outcome of reading one entry; the dialog shows a different text for each.
    enum class EntryStatus {
        Ok,
        NotFound,    // no entry of that exact name
        CannotOpen,  // the entry exists but cannot be opened (see zipError())
        Corrupt,     // opened, but the bytes are bad: CRC/inflate error, wrong password, no
                     // password, more or fewer bytes than its record says
        OutputFailed // the bytes could not be stored where they were to go (see outputError())
    };

    static const char *const stubEntryName;    // "esp8266_loader_stub.elf"
    static const char *const scatterEntryName; // "scatter.txt"

    // The largest flash an ESP8266 has, in bytes: what a package may unpack to while the
    // chip's own flash size is not known.
    static constexpr quint32 largestFlashBytes = 16u * 1024u * 1024u;
    // Room beside the images for the package's own entries, the loader and the scatter file, so
    // that images filling the whole flash (a full backup) still make a package that loads.
    static constexpr quint32 ownEntriesAllowance = 2u * 1024u * 1024u;
    // What a package may unpack to on a chip with that much flash (0: not known).
    static quint64 sizeLimit(quint32 flashSize);

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
    // The sum of every entry's uncompressed size as the central directory gives it, read when
    // the package was opened (records that cannot be read count nothing: they cannot be read
    // as entries either).
    quint64 totalUncompressedSize() const { return m_totalSize; }

    // Entries are read with the package password, piece by piece, and never beyond the size
    // their record gives, so that no entry needs more memory than a piece.
    // A whole entry in memory, for small ones (the scatter file). On anything but Ok, *data
    // is cleared.
    EntryStatus readEntry(const QString &name, QByteArray *data);
    // The entry written to an open device; on failure the device holds a part of it.
    EntryStatus copyEntry(const QString &name, QIODevice *out);
    // The raw MD5 digest of an entry.
    EntryStatus entryMd5(const QString &name, QByteArray *md5);
    // The entry copied into a temporary file, open and at its start, that another thread may
    // read while the package stays with this one; the file goes away with the object. Null on
    // failure, with *status saying why.
    std::unique_ptr<QTemporaryFile> extractEntry(const QString &name, EntryStatus *status);

    // The zip error code of the last failure (open, entry selection, entry read).
    int zipError() const { return m_zipError; }
    // Why the last OutputFailed happened.
    QString outputError() const { return m_outputError; }

private:
    // Feeds the entry to `sink` piece by piece; a false from it ends the read as OutputFailed.
    EntryStatus streamEntry(const QString &name,
                            const std::function<bool(const QByteArray &)> &sink);
    void sumSizes();

    QString m_path;
    std::unique_ptr<QuaZip> m_zip;
    QStringList m_names; // entry names as listed when the package was opened
    quint64 m_totalSize = 0;
    QByteArray m_password;
    int m_zipError = 0;
    QString m_outputError;
};
