#pragma once

#include <esputility/esputility_core_global.h>
#include <esputility/scattersection.h>

#include <QJsonObject>
#include <QString>
#include <QVector>

class EspPackage;
class QFileInfo;
class ScatterPrompts;

// Checks a scatter document against the connected chip and the files it names, and produces
// the scatter table rows exactly as the dialog's table ends up: one row per section, fewer by
// one for every skipped section, rows addressed by the section's index in the document (so a
// section after a skipped one may land on a row without cells, or outside the table and be
// dropped), and the rows filled so far kept when a check fails.
//
// Questions and amber log lines go through ScatterPrompts while the check runs, in the order
// the dialog shows them. Error texts are translated in the dialog's context.
class ESPUTILITY_CORE_EXPORT ScatterValidator
{
public:
    // chipDescription: the connected chip as the dialog shows it ("ESP8266EX / 00a1b2c3").
    // loaderText: the current flash loader field. prompts may be null: every question is then
    // answered No (or cancelled) and notices are dropped.
    ScatterValidator(const QString &chipDescription, const QString &loaderText,
                     ScatterPrompts *prompts = nullptr);

    // The connected chip's flash size in bytes, as its flash id tells; 0 (the default) when
    // unknown, and then nothing is checked against the chip.
    void setDetectedFlashSize(quint32 bytes) { m_detectedFlashSize = bytes; }

    // A loose scatter document; relative paths resolve against scatterFile's directory. The
    // strict flag is off when the document only serves as a template for reading flash; then
    // a different chip is not an error but is written into the document's `chip`, files and
    // checksums are not checked and firmware options are neither checked nor kept.
    bool parseScatterObject(QJsonObject &scatter, bool strict, const QFileInfo &scatterFile,
                            QString *error);
    // A document read from an open package; always strict, entries instead of files.
    bool parseScatterPack(const QJsonObject &scatter, EspPackage &package, QString *error);

    // False when the last parse failed before the table was cleared: the caller's table must
    // then stay exactly as it was. True means rows() is the table's new content.
    bool tableRebuilt() const { return m_tableRebuilt; }
    const QVector<ScatterSection> &rows() const { return m_rows; }
    // The flash loader field after the last parse (it may change even when the parse fails).
    QString loaderText() const { return m_loaderText; }

    // Title of the questions asked through ScatterPrompts.
    static QString promptTitle();

private:
    class SectionFiles;
    class LooseFiles;
    class PackageFiles;
    // A row of the table with the bytes its file holds.
    struct PlacedSection
    {
        int row = 0;
        QJsonObject section;
        qint64 fileSize = 0;
    };

    bool checkChip(QJsonObject &scatter, bool strict, QString *error) const;
    bool checkLooseLoader(const QJsonObject &scatter, bool strict, const QFileInfo &scatterFile,
                          QString *error);
    bool parseSections(const QJsonObject &scatter, bool strict, SectionFiles &files,
                       QString *error);
    bool checkPlacement(const QVector<PlacedSection> &placed, QString *error);
    bool checkFlashSizeOption(const ScatterSection &row, QString *error);
    void clearRowsFrom(int row);
    bool verifyChecksum(const QJsonObject &section, const QString &source, SectionFiles &files,
                        ScatterSection *row, QString *error);
    void reset();

    QString m_chipDescription;
    QString m_loaderText;
    ScatterPrompts *m_prompts = nullptr;
    quint32 m_detectedFlashSize = 0;
    bool m_tableRebuilt = false;
    QVector<ScatterSection> m_rows;
};
