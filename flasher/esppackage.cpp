#include "flasher/esppackage.h"

#include <QCryptographicHash>
#include <QTemporaryFile>
#include <QVector>

#include <quazip.h>
#include <quazipfile.h>
#include <quazipfileinfo.h>

#include <limits>

const char *const EspPackage::stubEntryName = "esp8266_loader_stub.elf";
const char *const EspPackage::scatterEntryName = "scatter.txt";

namespace {

// The package salt: part of the package format. Changing any byte makes every existing package
// unreadable, so these stay as they are.
const QVector<QByteArray> &packageSalt()
{
    static const QVector<QByteArray> salt{
        QByteArrayLiteral("\x89\x02\x2e\x37\x7b\x67\x5f\xf0\x5b\xc4\x9d\xb5\x78\x53\x33\x91\x3f"
                          "\x3d\xf7\x63\xee\xd6\xaf"),
        QByteArrayLiteral("\x14\x0d\x51\x9a\xdb\xa7\x41\x80\xe6\xf5"),
        QByteArrayLiteral("\x6f\x46\xe4\xf9\x8e\x7e\x46\x53\x3f\x24\xcc\x41\xbf\x6e\x48\x8f\x56"
                          "\x7c"),
        QByteArrayLiteral("\x6d\xf6\xab\x0f\xc9\x1a\xe3\xa0\x6b\x81\x7e\xf2\x05"),
        QByteArrayLiteral("\x24\x6e\xed\x09\x04\x61\x88\x63\xb0\x61"),
        QByteArrayLiteral("\xdb\xf5\x1c\x7a\x24\xdb\xd7\x39"),
        QByteArrayLiteral("\x0b\x89\x69\x57\xa1\x99\x1b\xd2\x89\xce\x5c\x74\x90\xb7\xa5"),
        QByteArrayLiteral("\xcb\xa0\xc4\xca\x84\xd0\xa9\xf8\x6c\x8c"),
        QByteArrayLiteral("\x6d\x57\xf8\xf9\x51\xf3"),
        QByteArrayLiteral("\x74\xa1\xa6\x74\x9e\x5c\xe7\x0e\x26\x19\xdf\x6e\xb3\x25\x6a\x09"),
        QByteArrayLiteral("\xc0\x3c\xaa\x59\x7e\x3a\xb1\x9a\x0c\x2f\x50\x1c\xc9"),
        QByteArrayLiteral("\x02\x1c\xc9\xdd\x53\xf4\xa9"),
        QByteArrayLiteral("\x01\xbc\xe2\x03\xd7\xa8\x25\x61\x95"),
        QByteArrayLiteral("\xfd\x65\x05\xc0\xa0\x40\x96\xcf\x21\xa0\xa5\x27\x50\xba\x26\x6c"),
        QByteArrayLiteral("\x94\x35\x1d\x40\xca\xad\x58\xd1\xb3\x71\x3b\x39\x81\xfa\x1b\x0e\xa7"
                          "\xea\x2f"),
        QByteArrayLiteral("\x1c\x61\xfb\x32\xe1\xad\x4f\xda\x76\x02\x75\x1b\x5d"),
    };
    return salt;
}

// Bit 0 of the general purpose flags: the entry is encrypted.
constexpr quint16 encryptedEntryFlag = 0x0001;
// Largest entry read into memory as a whole, in bytes: a scatter file is far smaller.
constexpr quint64 maxWholeEntryBytes = EspPackage::largestFlashBytes;
// Entries are read in pieces of this many bytes.
constexpr qint64 readPieceBytes = 64 * 1024;

} // namespace

QByteArray EspPackage::password(const QString &comment)
{
    QCryptographicHash hash(QCryptographicHash::Sha3_512);
    hash.addData(comment.toUtf8());
    for (const QByteArray &piece : packageSalt())
        hash.addData(piece);
    QByteArray digest = hash.result();
    // The password is used as a C string by the archive code: it ends at the first zero byte.
    const int zero = digest.indexOf('\0');
    if (zero >= 0)
        digest.truncate(zero);
    return digest;
}

quint64 EspPackage::sizeLimit(quint32 flashSize)
{
    return quint64(flashSize != 0 ? flashSize : largestFlashBytes) + ownEntriesAllowance;
}

EspPackage::EspPackage(const QString &path) : m_path(path) {}

EspPackage::~EspPackage()
{
    close();
}

bool EspPackage::open()
{
    close();
    m_zip = std::make_unique<QuaZip>(m_path);
    m_zip->setCommentCodec("UTF-8");
    if (!m_zip->open(QuaZip::mdUnzip)) {
        m_zipError = m_zip->getZipError();
        m_zip.reset();
        return false;
    }
    m_zipError = UNZ_OK;
    // Listed once: the archive code lists relative to its current entry, and on a damaged
    // archive a second listing may come back empty although the first one found every entry.
    m_names = m_zip->getFileNameList();
    sumSizes();
    m_password = password(comment());
    return true;
}

void EspPackage::sumSizes()
{
    // Record by record: one that cannot be read must not hide the sizes of the others.
    m_totalSize = 0;
    for (bool more = m_zip->goToFirstFile(); more; more = m_zip->goToNextFile()) {
        QuaZipFileInfo64 info;
        if (!m_zip->getCurrentFileInfo(&info))
            continue;
        // Saturating: sizes near 2^64 from a forged record must not wrap to a small sum.
        const quint64 room = std::numeric_limits<quint64>::max() - m_totalSize;
        m_totalSize += qMin(room, info.uncompressedSize);
    }
}

void EspPackage::close()
{
    if (m_zip && m_zip->isOpen())
        m_zip->close();
    m_zip.reset();
    m_names.clear();
    m_totalSize = 0;
}

bool EspPackage::isOpen() const
{
    return m_zip && m_zip->isOpen();
}

QString EspPackage::comment() const
{
    return isOpen() ? m_zip->getComment() : QString();
}

QStringList EspPackage::entryNames() const
{
    return isOpen() ? m_names : QStringList();
}

bool EspPackage::contains(const QString &name) const
{
    return entryNames().contains(name);
}

qint64 EspPackage::uncompressedSize(const QString &name) const
{
    // The entry's own record only: the whole info list is empty as soon as any other record of
    // the archive cannot be read, which would hide the size of every readable entry.
    QuaZipFileInfo64 info;
    if (!isOpen() || !m_zip->setCurrentFile(name, QuaZip::csSensitive) ||
        !m_zip->getCurrentFileInfo(&info))
        return -1;
    return static_cast<qint64>(info.uncompressedSize);
}

EspPackage::EntryStatus EspPackage::readEntry(const QString &name, QByteArray *data)
{
    QByteArray bytes;
    if (data)
        data->clear();
    if (uncompressedSize(name) > qint64(maxWholeEntryBytes)) {
        m_zipError = UNZ_BADZIPFILE;
        return EntryStatus::Corrupt;
    }
    const EntryStatus status = streamEntry(name, [&bytes](const QByteArray &piece) {
        bytes.append(piece);
        return true;
    });
    if (status == EntryStatus::Ok && data)
        *data = bytes;
    return status;
}

EspPackage::EntryStatus EspPackage::copyEntry(const QString &name, QIODevice *out)
{
    return streamEntry(name, [this, out](const QByteArray &piece) {
        if (out->write(piece) == piece.size())
            return true;
        m_outputError = out->errorString();
        return false;
    });
}

EspPackage::EntryStatus EspPackage::entryMd5(const QString &name, QByteArray *md5)
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    const EntryStatus status = streamEntry(name, [&hash](const QByteArray &piece) {
        hash.addData(piece);
        return true;
    });
    if (md5)
        *md5 = status == EntryStatus::Ok ? hash.result() : QByteArray();
    return status;
}

std::unique_ptr<QTemporaryFile> EspPackage::extractEntry(const QString &name, EntryStatus *status)
{
    auto file = std::make_unique<QTemporaryFile>();
    EntryStatus result = EntryStatus::OutputFailed;
    if (!file->open()) {
        m_outputError = file->errorString();
    } else {
        result = copyEntry(name, file.get());
        if (result == EntryStatus::Ok && (!file->flush() || !file->seek(0))) {
            m_outputError = file->errorString();
            result = EntryStatus::OutputFailed;
        }
    }
    if (status)
        *status = result;
    if (result != EntryStatus::Ok)
        file.reset();
    return file;
}

EspPackage::EntryStatus EspPackage::streamEntry(const QString &name,
                                                const std::function<bool(const QByteArray &)> &sink)
{
    if (!isOpen()) {
        m_zipError = UNZ_PARAMERROR;
        return EntryStatus::CannotOpen;
    }
    if (!m_zip->setCurrentFile(name, QuaZip::csSensitive)) {
        m_zipError = m_zip->getZipError();
        return EntryStatus::NotFound;
    }
    QuaZipFileInfo64 info;
    if (!m_zip->getCurrentFileInfo(&info)) {
        m_zipError = m_zip->getZipError();
        return EntryStatus::CannotOpen;
    }
    // An unprotected entry would be "decrypted" into garbage: it does not belong to a package.
    if (!(info.flags & encryptedEntryFlag)) {
        m_zipError = UNZ_BADZIPFILE;
        return EntryStatus::Corrupt;
    }

    QuaZipFile entry(m_zip.get());
    if (!entry.open(QIODevice::ReadOnly, m_password.constData())) {
        m_zipError = entry.getZipError() != UNZ_OK ? entry.getZipError() : m_zip->getZipError();
        return EntryStatus::CannotOpen;
    }
    quint64 received = 0;
    bool stored = true;
    bool tooLong = false;
    QByteArray piece(int(readPieceBytes), Qt::Uninitialized);
    for (;;) {
        const qint64 size = entry.read(piece.data(), readPieceBytes);
        if (size <= 0)
            break;
        // Never more than the record says, whatever the compressed data unpacks to.
        if (received + quint64(size) > info.uncompressedSize) {
            tooLong = true;
            break;
        }
        received += quint64(size);
        if (!sink(piece.left(int(size)))) {
            stored = false;
            break;
        }
    }
    const int readError = entry.getZipError();
    entry.close();
    // A wrong password yields bytes that fail inflation or the CRC check at close.
    const int closeError = entry.getZipError();
    if (!stored) {
        m_zipError = UNZ_OK;
        return EntryStatus::OutputFailed;
    }
    if (tooLong || readError != UNZ_OK || closeError != UNZ_OK ||
        received != info.uncompressedSize) {
        m_zipError =
            readError != UNZ_OK ? readError : (closeError != UNZ_OK ? closeError : UNZ_BADZIPFILE);
        return EntryStatus::Corrupt;
    }
    m_zipError = UNZ_OK;
    return EntryStatus::Ok;
}
