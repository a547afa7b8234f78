#pragma once

#include <esputility/esputility_core_global.h>
#include <esputility/scattersection.h>

#include <QByteArray>
#include <QHash>
#include <QJsonArray>
#include <QString>
#include <QVector>

#include <functional>
#include <memory>

class QCryptographicHash;
class QDir;
class QIODevice;
class QuaZip;
class PackageFile;
class QuaZipFile;

// Writes a package step by step, so that a caller can ask its questions in between:
// open(target) -> setDescription() -> addStub() -> addSection() per active row -> finish().
// Every entry is deflated and protected with the password of the description; "scatter.txt"
// is written last, by finish(). The archive is written beside the target and moved over it only
// by a successful finish(): a failed or refused step logs its error, and the target, a previous
// package of that name included, stays as it was.
class ESPUTILITY_CORE_EXPORT EspPackageWriter
{
public:
    enum class Severity { Success, Notice, Error };
    using LogSink = std::function<void(Severity, const QString &)>;

    explicit EspPackageWriter(LogSink log = LogSink());
    ~EspPackageWriter();
    EspPackageWriter(const EspPackageWriter &) = delete;
    EspPackageWriter &operator=(const EspPackageWriter &) = delete;

    // The target name with ".zip" appended unless it already ends with it.
    static QString withZipSuffix(const QString &fileName);

    // Creates the target file and the archive on it. Error: "File %1 is not writable: %2".
    bool open(const QString &target);
    // The package comment (stored as UTF-8); the entry password derives from it. Without a
    // call the description is empty, which still makes a valid package.
    void setDescription(const QString &description);
    // Copies the loader as "esp8266_loader_stub.elf". Error: "Stub file could not be copied: %1".
    bool addStub(const QString &loaderPath);
    // Copies one row's image; row.file is the "Source" text, relative names resolve against
    // scatterDir; the entry is named after the file-name part. With trimApplications, trailing
    // 0xFF blocks of application images are dropped. Error: "File %1 could not be copied: %2".
    // Refused: a source that is the target, an entry name taken by another section or by the
    // package's own loader and scatter entries.
    bool addSection(const ScatterSection &row, const QDir &scatterDir, bool trimApplications);
    // Every active row that has cells, in order; stops at the first failure.
    bool addSections(const QVector<ScatterSection> &rows, const QDir &scatterDir,
                     bool trimApplications);
    // Writes "scatter.txt", closes the archive and the file. Success: "Created zip package in %1".
    bool finish(const QString &chipDescription);

    // The scatter document finish() writes (or wrote).
    QJsonObject document(const QString &chipDescription) const;
    // The text of the last error logged, empty when none.
    QString lastError() const { return m_lastError; }
    QString target() const;

private:
    bool openEntry(QuaZipFile &entry, const QString &name, const QString &sourcePath);
    bool copyPlain(QIODevice &source, QuaZipFile &entry, QCryptographicHash &md5);
    bool copyTrimmed(QIODevice &source, QuaZipFile &entry, QCryptographicHash &md5,
                     int *droppedBlocks);
    bool closeEntry(QuaZipFile &entry);
    // Opens the entry, lets `copy` write it and closes it. *error: why the archive failed.
    bool writeEntry(const QString &name, const QString &sourcePath,
                    const std::function<bool(QuaZipFile &)> &copy, QString *error);
    bool ready();
    bool isTarget(const QString &source) const;
    // Why writing an entry failed: the package file's error (a full disk) before the entry's.
    QString writeError(const QuaZipFile &entry) const;
    bool targetFailed(const QString &reason);
    bool failed(const QString &message);
    // Drops the archive written so far; the target stays as it was.
    void discard();
    void log(Severity severity, const QString &text) const;

    LogSink m_log;
    // The archive goes into a temporary file that replaces the target on success only.
    std::unique_ptr<PackageFile> m_file;
    // The target as it is on disk (links resolved); empty when there is none yet.
    QString m_canonicalTarget;
    std::unique_ptr<QuaZip> m_zip;
    QByteArray m_password;
    QJsonArray m_sections;
    // Entry name -> the file stored under it.
    QHash<QString, QString> m_entrySources;
    QString m_lastError;
};
