#pragma once

#include <esputility/esputility_core_global.h>
#include <esputility/scattersection.h>

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QVector>

class QDir;

// Builds and writes scatter documents: the one a package carries and the one saved after
// reading flash. The keys are the ones the validators read.
class ESPUTILITY_CORE_EXPORT ScatterWriter
{
public:
    // The chip name a document carries: the chip description up to its first "/", trimmed.
    static QString chipName(const QString &chipDescription);
    // "application" for application rows, "firmware" for everything else.
    static QString typeName(const ScatterSection &row);
    // type, address (the row's start address text), md5, file and, for firmware rows only,
    // options.flash with size, mode and frequency.
    static QJsonObject sectionObject(const ScatterSection &row, const QString &md5,
                                     const QString &file);
    // The "scatter.txt" of a package: chip, the fixed stub entry name, the given sections.
    static QJsonObject packageDocument(const QString &chipDescription, const QJsonArray &sections);
    // The document saved after a flash read: active rows that have cells, in table order, with
    // paths relative to dir and the upper-case MD5 of each file as it is on disk now. A row's
    // `file` is the "Source" text: relative names resolve against dir.
    static QJsonObject savedDocument(const QString &chipDescription, const QString &loaderPath,
                                     const QVector<ScatterSection> &rows, const QDir &dir);
    // Replaces the file with the indented document, at once: on failure the file stays as it
    // was and *error receives "Cannot write to %1: %2".
    static bool save(const QString &path, const QJsonObject &document, QString *error);
};
