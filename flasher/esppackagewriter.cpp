#include "flasher/esppackagewriter.h"

#include "flasher/esppackage.h"
#include "flasher/packagefile.h"
#include "flasher/scatterwriter.h"
#include "widgets/texthelpers.h"

#include <QCoreApplication>
#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>

#include <quazip.h>
#include <quazipfile.h>
#include <quazipnewinfo.h>

namespace {

// Plain copies move this many bytes at a time.
constexpr qint64 copyChunkBytes = 4096;
// Trimming looks at the image in pieces of this many bytes; only whole pieces of 0xFF (or a
// short all-0xFF last piece) are dropped, so the saved count is always a multiple of it.
constexpr int trimBlockBytes = 512;

QString dialogText(const char *source)
{
    return QCoreApplication::translate("ESPFlasher", source);
}

QString ownSourceMessage(const QString &target, const QString &source)
{
    return dialogText(
               QT_TRANSLATE_NOOP("ESPFlasher", "Package %1 would replace its source file %2"))
        .arg(target, source);
}

} // namespace

EspPackageWriter::EspPackageWriter(LogSink log)
    : m_log(std::move(log)), m_file(std::make_unique<PackageFile>())
{}

QString EspPackageWriter::target() const
{
    return m_file->fileName();
}

EspPackageWriter::~EspPackageWriter()
{
    discard();
}

QString EspPackageWriter::withZipSuffix(const QString &fileName)
{
    if (fileName.endsWith(QLatin1String(".zip")))
        return fileName;
    return fileName + QLatin1String(".zip");
}

void EspPackageWriter::log(Severity severity, const QString &text) const
{
    if (m_log)
        m_log(severity, text);
}

bool EspPackageWriter::failed(const QString &message)
{
    m_lastError = message;
    log(Severity::Error, message);
    discard();
    return false;
}

bool EspPackageWriter::ready()
{
    if (m_zip && m_zip->isOpen())
        return true;
    return failed(dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "No package is open for writing")));
}

void EspPackageWriter::discard()
{
    if (m_file->isOpen())
        m_file->cancelWriting();
    if (m_zip && m_zip->isOpen())
        m_zip->close();
    m_zip.reset();
    // A cancelled file is removed, not moved over the target.
    if (m_file->isOpen())
        m_file->commit();
}

bool EspPackageWriter::isTarget(const QString &source) const
{
    return !m_canonicalTarget.isEmpty() &&
           QFileInfo(source).canonicalFilePath() == m_canonicalTarget;
}

QString EspPackageWriter::writeError(const QuaZipFile &entry) const
{
    return m_file->firstWriteError().isEmpty() ? entry.errorString() : m_file->firstWriteError();
}

bool EspPackageWriter::targetFailed(const QString &reason)
{
    return failed(dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "File %1 is not writable: %2"))
                      .arg(m_file->fileName(), reason));
}

bool EspPackageWriter::open(const QString &target)
{
    discard();
    m_sections = QJsonArray();
    m_entrySources.clear();
    m_lastError.clear();

    m_file->setFileName(target);
    m_file->clearWriteError();
    m_canonicalTarget = QFileInfo(target).canonicalFilePath();
    // Unbuffered: a write that fails says so at once, with the system's reason.
    if (!m_file->open(QIODevice::WriteOnly | QIODevice::Unbuffered))
        return targetFailed(m_file->errorString());

    m_zip = std::make_unique<QuaZip>(m_file.get());
    // The file is committed or dropped here, not by the archive.
    m_zip->setAutoClose(false);
    m_zip->setCommentCodec("UTF-8");
    // Entry names are flagged as UTF-8 so that they read back the same under any locale.
    m_zip->setUtf8Enabled(true);
    if (!m_zip->open(QuaZip::mdCreate)) {
        const int code = m_zip->getZipError();
        discard();
        return targetFailed(QStringLiteral("zip error %1").arg(code));
    }
    setDescription(QString());
    return true;
}

void EspPackageWriter::setDescription(const QString &description)
{
    if (m_zip)
        m_zip->setComment(description);
    m_password = EspPackage::password(description);
}

bool EspPackageWriter::openEntry(QuaZipFile &entry, const QString &name, const QString &sourcePath)
{
    const QuaZipNewInfo info =
        sourcePath.isEmpty() ? QuaZipNewInfo(name) : QuaZipNewInfo(name, sourcePath);
    // Deflated (raw deflate, default level), CRC computed by the archive writer. The password
    // is a C string: a digest cut at its first zero byte, possibly empty (still encrypted).
    return entry.open(QIODevice::WriteOnly, info, m_password.constData(), 0, Z_DEFLATED,
                      Z_DEFAULT_COMPRESSION, false, -MAX_WBITS, DEF_MEM_LEVEL, Z_DEFAULT_STRATEGY);
}

bool EspPackageWriter::closeEntry(QuaZipFile &entry)
{
    entry.close();
    return entry.getZipError() == ZIP_OK;
}

bool EspPackageWriter::addStub(const QString &loaderPath)
{
    if (!ready())
        return false;
    const QString message =
        dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Stub file could not be copied: %1"));
    QFile stub(loaderPath);
    if (isTarget(stub.fileName()))
        return failed(ownSourceMessage(m_file->fileName(), stub.fileName()));
    if (!stub.open(QIODevice::ReadOnly))
        return failed(message.arg(stub.errorString()));

    const QString name = QString::fromLatin1(EspPackage::stubEntryName);
    QCryptographicHash unused(QCryptographicHash::Md5);
    QString error;
    const bool written = writeEntry(
        name, stub.fileName(), [&](QuaZipFile &entry) { return copyPlain(stub, entry, unused); },
        &error);
    if (stub.error() != QFileDevice::NoError)
        return failed(message.arg(stub.errorString()));
    if (!written)
        return targetFailed(error);
    m_entrySources.insert(name, stub.fileName());
    return true;
}

bool EspPackageWriter::writeEntry(const QString &name, const QString &sourcePath,
                                  const std::function<bool(QuaZipFile &)> &copy, QString *error)
{
    // The entry is gone before the caller handles a failure, which drops the archive: an entry
    // whose closing failed still refers to it.
    QuaZipFile entry(m_zip.get());
    if (!openEntry(entry, name, sourcePath)) {
        *error = writeError(entry);
        return false;
    }
    const bool copied = copy(entry);
    if (!closeEntry(entry) || !copied) {
        *error = writeError(entry);
        return false;
    }
    return true;
}

bool EspPackageWriter::copyPlain(QIODevice &source, QuaZipFile &entry, QCryptographicHash &md5)
{
    while (!source.atEnd()) {
        const QByteArray piece = source.read(copyChunkBytes);
        if (piece.isEmpty())
            break;
        md5.addData(piece);
        if (entry.write(piece) != piece.size())
            return false;
    }
    return true;
}

bool EspPackageWriter::copyTrimmed(QIODevice &source, QuaZipFile &entry, QCryptographicHash &md5,
                                   int *droppedBlocks)
{
    const QByteArray erased(trimBlockBytes, '\xFF');
    int heldBack = 0;
    while (!source.atEnd()) {
        const QByteArray piece = source.read(trimBlockBytes);
        if (piece.isEmpty())
            break;
        // Erased flash reads as 0xFF; such blocks are only written once data follows them.
        if (piece == erased.left(piece.size())) {
            ++heldBack;
            continue;
        }
        for (; heldBack > 0; --heldBack) {
            md5.addData(erased);
            if (entry.write(erased) != erased.size())
                return false;
        }
        md5.addData(piece);
        if (entry.write(piece) != piece.size())
            return false;
    }
    *droppedBlocks = heldBack;
    return true;
}

bool EspPackageWriter::addSection(const ScatterSection &row, const QDir &scatterDir,
                                  bool trimApplications)
{
    if (!ready())
        return false;
    const QString message =
        dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "File %1 could not be copied: %2"));
    QFile source(scatterDir.absoluteFilePath(row.file));
    const QString entryName = QFileInfo(source.fileName()).fileName();
    if (isTarget(source.fileName()))
        return failed(ownSourceMessage(m_file->fileName(), source.fileName()));
    if (entryName == QLatin1String(EspPackage::stubEntryName) ||
        entryName == QLatin1String(EspPackage::scatterEntryName)) {
        return failed(dialogText(QT_TRANSLATE_NOOP("ESPFlasher",
                                                   "Section file %1 cannot be packed: the package "
                                                   "keeps its own %2 under that name"))
                          .arg(source.fileName(), entryName));
    }
    if (m_entrySources.contains(entryName)) {
        return failed(
            dialogText(QT_TRANSLATE_NOOP("ESPFlasher",
                                         "Section files %1 and %2 would both be stored as %3"))
                .arg(m_entrySources.value(entryName), source.fileName(), entryName));
    }
    if (!source.open(QIODevice::ReadOnly))
        return failed(message.arg(source.fileName(), source.errorString()));

    QCryptographicHash md5(QCryptographicHash::Md5);
    int droppedBlocks = 0;
    const bool trim = trimApplications && row.isApplication();
    QString error;
    const bool written = writeEntry(
        entryName, source.fileName(),
        [&](QuaZipFile &entry) {
            return trim ? copyTrimmed(source, entry, md5, &droppedBlocks)
                        : copyPlain(source, entry, md5);
        },
        &error);
    if (source.error() != QFileDevice::NoError)
        return failed(message.arg(source.fileName(), source.errorString()));
    if (!written)
        return targetFailed(error);
    m_entrySources.insert(entryName, source.fileName());

    if (droppedBlocks > 0) {
        // Counted in whole blocks even when the last dropped piece was shorter.
        log(Severity::Success,
            dialogText(
                QT_TRANSLATE_NOOP("ESPFlasher", "Saved %1 bytes from %2 (removed trailing FF's)"))
                .arg(QString::number(qint64(droppedBlocks) * trimBlockBytes), source.fileName()));
    }
    m_sections.append(ScatterWriter::sectionObject(row, hexlify(md5.result(), true), entryName));
    return true;
}

bool EspPackageWriter::addSections(const QVector<ScatterSection> &rows, const QDir &scatterDir,
                                   bool trimApplications)
{
    for (const ScatterSection &row : rows) {
        if (!row.hasCells || !row.active)
            continue;
        if (!addSection(row, scatterDir, trimApplications))
            return false;
    }
    return true;
}

QJsonObject EspPackageWriter::document(const QString &chipDescription) const
{
    return ScatterWriter::packageDocument(chipDescription, m_sections);
}

bool EspPackageWriter::finish(const QString &chipDescription)
{
    if (!ready())
        return false;
    const QString name = QString::fromLatin1(EspPackage::scatterEntryName);
    const QByteArray text =
        QJsonDocument(document(chipDescription)).toJson(QJsonDocument::Indented);
    QString error;
    if (!writeEntry(
            name, QString(),
            [&text](QuaZipFile &entry) { return entry.write(text) == text.size(); }, &error))
        return targetFailed(error);

    m_zip->close();
    const int code = m_zip->getZipError();
    m_zip.reset();
    if (code != ZIP_OK) {
        const QString reason = m_file->firstWriteError().isEmpty()
                                   ? QStringLiteral("zip error %1").arg(code)
                                   : m_file->firstWriteError();
        return targetFailed(reason);
    }
    // Only now is the target replaced, at once.
    if (!m_file->commit())
        return targetFailed(m_file->errorString());
    log(Severity::Success, dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Created zip package in %1"))
                               .arg(m_file->fileName()));
    return true;
}
