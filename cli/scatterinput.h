#pragma once

#include "cli/cliscatterprompts.h"
#include "flasher/scattersection.h"

#include <QByteArray>
#include <QDir>
#include <QJsonObject>
#include <QString>
#include <QVariant>
#include <QVector>

#include <memory>

class EspPackage;
class QIODevice;

// The scatter file or package a command works on, loaded once and shared by every board.
// Validation is the library's: once up front against the document's own chip (files,
// checksums, loader, questions answered once), then for every board against its chip.
// A package entry is handed to a worker as a temporary file of its own, one at a time.
// Lives in the main thread; nothing here is touched by a worker.
class ScatterInput
{
public:
    // yes: answer the validation's questions with Yes. loaderPath: --stub, may be empty.
    ScatterInput(bool yes, const QString &loaderPath);
    ~ScatterInput();
    ScatterInput(const ScatterInput &) = delete;
    ScatterInput &operator=(const ScatterInput &) = delete;

    // Reads the document (a loose scatter file or a package). *error: the library's message.
    bool load(const QString &path, QString *error);
    // Every check but the chip, with questions and notices going to sink.
    bool preflight(const CliScatterPrompts::Sink &sink, QString *error);
    // The check a board makes once it is identified, against its chip and flash size (bytes, 0
    // when unknown; a package must fit it too); answers as the preflight did, silently, and the
    // one question only a board raises (its flash size) through boardSink.
    bool validate(const QString &chipDescription, quint32 flashSize,
                  const CliScatterPrompts::Sink &boardSink, QVector<ScatterSection> *rows,
                  QString *error);

    bool isPackage() const { return m_isPackage; }
    QString path() const { return m_path; }
    // The package description, empty for a loose file.
    QString description() const;
    // The chip the document names.
    QString documentChip() const;
    QDir directory() const;
    // Rows and flash loader as the preflight left them.
    const QVector<ScatterSection> &rows() const { return m_rows; }
    QString loaderText() const { return m_loaderText; }
    // True when the preflight failed because a question was answered No for want of --yes.
    bool needsYes() const { return m_needsYes; }

    // The "load stub" parameter: the loader's path, or a descriptor of a copy of the package
    // entry (kept alive by *holder until the command finished).
    bool loaderParameter(QVariant *parameter, std::unique_ptr<QIODevice> *holder, QString *error);
    // The file parameter of a row's write command, the same way.
    bool rowParameter(const ScatterSection &row, QVariant *parameter,
                      std::unique_ptr<QIODevice> *holder, QString *error);
    // The flash loader as a file in dir, for a scatter written there: a loose loader stays
    // where it is; a package's loader is copied out. Empty with *error on failure.
    QString exportLoader(const QDir &dir, QString *error);
    // Where exportLoader() puts a package's loader.
    QString exportedLoaderPath(const QDir &dir) const;
    // The row's bytes as an open, seekable device (for the image a verify expects).
    std::unique_ptr<QIODevice> openRow(const ScatterSection &row, QString *error);

private:
    // A copy of a package entry in a temporary file, open at its start.
    std::unique_ptr<QIODevice> extractEntry(const QString &name, QString *error);
    bool run(const QString &chipDescription, quint32 detectedFlashSize, CliScatterPrompts &prompts,
             QVector<ScatterSection> *rows, QString *loaderText, QString *error);

    bool m_yes;
    QString m_loaderPath;
    QString m_path;
    bool m_isPackage = false;
    QJsonObject m_document;
    std::unique_ptr<EspPackage> m_package;
    QVector<ScatterSection> m_rows;
    QString m_loaderText;
    bool m_needsYes = false;
};
