#include "flasher/scattervalidator.h"

#include "flasher/esppackage.h"
#include "flasher/flashplan.h"
#include "flasher/scatterprompts.h"
#include "flasher/scatterwriter.h"
#include "image/espimageparser.h"
#include "protocol/esptool.h"
#include "widgets/texthelpers.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>

namespace {

const char *const firmwareTypeKey = QT_TRANSLATE_NOOP("ESPFlasher", "Firmware");
const char *const applicationTypeKey = QT_TRANSLATE_NOOP("ESPFlasher", "Application");

bool fail(QString *error, const QString &message)
{
    if (error)
        *error = message;
    return false;
}

QString loaderMissingMessage()
{
    return QCoreApplication::translate("ESPFlasher", "The mandatory flash loader file is missing");
}

// Bytes of a flash size text; 0 when the text names no usable size.
quint32 flashSizeBytes(const QString &text)
{
    const unsigned char code = ESPImageParser::fs_fromString(text);
    return code == ESPImageParser::kCodeNotGiven ? 0 : ESPImageParser::flash_size_bytes(code);
}

// The options go into the image header as codes: a text without one would leave the image's own
// value in place while the run reports the options as written.
bool validFlashOptions(const ScatterSection &row)
{
    return ESPImageParser::fm_fromString(row.flashMode) != ESPImageParser::kCodeNotGiven &&
           ESPImageParser::ff_fromString(row.flashFrequency) != ESPImageParser::kCodeNotGiven &&
           flashSizeBytes(row.flashSize) != 0;
}

// One past the last byte a section occupies: its region, and at least its whole file.
quint64 extentEnd(const ScatterSection &row, qint64 fileSize)
{
    const quint32 length = row.endAddress - row.startAddress;
    return quint64(row.startAddress) + qMax<quint64>(length, quint64(qMax<qint64>(fileSize, 0)));
}

} // namespace

// Where a section's bytes come from: loose files beside the scatter file, or package entries.
class ScatterValidator::SectionFiles
{
public:
    virtual ~SectionFiles() = default;
    // What the row's source and the messages name: an absolute path or an entry name.
    virtual QString source(const QString &file) const = 0;
    virtual bool exists(const QString &file) const = 0;
    virtual bool checksums() const = 0;
    virtual bool digest(const QString &file, QByteArray *md5, QString *error) = 0;
    virtual qint64 size(const QString &file) const = 0;
};

class ScatterValidator::LooseFiles : public ScatterValidator::SectionFiles
{
public:
    LooseFiles(const QDir &dir, bool strict) : m_dir(dir), m_strict(strict) {}
    QString source(const QString &file) const override { return m_dir.absoluteFilePath(file); }
    bool exists(const QString &file) const override
    {
        return !m_strict || QFileInfo(source(file)).isFile();
    }
    bool checksums() const override { return m_strict; }
    bool digest(const QString &file, QByteArray *md5, QString *error) override
    {
        *md5 = ESPTool::get_file_md5(source(file));
        if (md5->isEmpty()) {
            return fail(error, QCoreApplication::translate("ESPFlasher", "File %1 cannot be read")
                                   .arg(source(file)));
        }
        return true;
    }
    qint64 size(const QString &file) const override { return QFileInfo(source(file)).size(); }

private:
    QDir m_dir;
    bool m_strict;
};

class ScatterValidator::PackageFiles : public ScatterValidator::SectionFiles
{
public:
    explicit PackageFiles(EspPackage &package) : m_package(package) {}
    QString source(const QString &file) const override { return file; }
    bool exists(const QString &file) const override { return m_package.contains(file); }
    bool checksums() const override { return true; }
    bool digest(const QString &file, QByteArray *md5, QString *error) override
    {
        switch (m_package.entryMd5(file, md5)) {
        case EspPackage::EntryStatus::Ok:
            return true;
        case EspPackage::EntryStatus::NotFound:
            return fail(error, QCoreApplication::translate(
                                   "ESPFlasher", "The package is corrupted (near file %1)")
                                   .arg(file));
        case EspPackage::EntryStatus::CannotOpen:
        case EspPackage::EntryStatus::Corrupt:
        case EspPackage::EntryStatus::OutputFailed:
            break;
        }
        return fail(error, QCoreApplication::translate(
                               "ESPFlasher", "File %1 within the package cannot be read (%2)")
                               .arg(file)
                               .arg(m_package.zipError()));
    }
    qint64 size(const QString &file) const override
    {
        return qMax<qint64>(0, m_package.uncompressedSize(file));
    }

private:
    EspPackage &m_package;
};

ScatterValidator::ScatterValidator(const QString &chipDescription, const QString &loaderText,
                                   ScatterPrompts *prompts)
    : m_chipDescription(chipDescription), m_loaderText(loaderText), m_prompts(prompts)
{}

QString ScatterValidator::promptTitle()
{
    return QCoreApplication::translate("ESPFlasher", "Parse scatter file");
}

void ScatterValidator::reset()
{
    m_tableRebuilt = false;
    m_rows.clear();
}

bool ScatterValidator::parseScatterObject(QJsonObject &scatter, bool strict,
                                          const QFileInfo &scatterFile, QString *error)
{
    reset();
    if (!checkChip(scatter, strict, error))
        return false;
    if (!checkLooseLoader(scatter, strict, scatterFile, error))
        return false;
    LooseFiles files(scatterFile.absoluteDir(), strict);
    return parseSections(scatter, strict, files, error);
}

bool ScatterValidator::parseScatterPack(const QJsonObject &scatter, EspPackage &package,
                                        QString *error)
{
    reset();
    QJsonObject document = scatter;
    if (!checkChip(document, true, error))
        return false;
    const QString stub = scatter.value(QLatin1String("stub")).toString();
    if (!package.contains(stub))
        return fail(error, loaderMissingMessage());
    m_loaderText = stub;
    PackageFiles files(package);
    return parseSections(scatter, true, files, error);
}

bool ScatterValidator::checkChip(QJsonObject &scatter, bool strict, QString *error) const
{
    const QString chip = scatter.value(QLatin1String("chip")).toString();
    if (scatter.contains(QLatin1String("chip")) &&
        chip == ScatterWriter::chipName(m_chipDescription))
        return true;
    if (strict) {
        return fail(error,
                    QCoreApplication::translate(
                        "ESPFlasher", "This scatter file belongs to a different chip (%1 vs %2)")
                        .arg(chip, m_chipDescription));
    }
    // A template read from another chip is adopted by the connected one.
    scatter.insert(QStringLiteral("chip"), m_chipDescription);
    return true;
}

bool ScatterValidator::checkLooseLoader(const QJsonObject &scatter, bool strict,
                                        const QFileInfo &scatterFile, QString *error)
{
    const QString stubPath =
        scatterFile.absoluteDir().absoluteFilePath(scatter.value(QLatin1String("stub")).toString());
    if (scatter.contains(QLatin1String("stub")) && QFileInfo(stubPath).isFile()) {
        m_loaderText = stubPath;
        return true;
    }
    if (!m_loaderText.isEmpty() && QFileInfo(m_loaderText).isFile())
        return true;
    if (strict) {
        const QString question =
            QCoreApplication::translate(
                "ESPFlasher",
                "This scatter file does not specify a flash loader, but should. Or the flash loader file (%1) is missing")
                .arg(stubPath);
        if (!m_prompts || !m_prompts->confirmMissingLoader(question, stubPath))
            return fail(error, loaderMissingMessage());
    }
    const QString chosen = m_prompts ? m_prompts->chooseLoader() : QString();
    if (!chosen.isEmpty())
        m_loaderText = chosen;
    // Only emptiness is checked here: a stale loader path left in the field is accepted.
    if (m_loaderText.isEmpty())
        return fail(error, loaderMissingMessage());
    return true;
}

bool ScatterValidator::parseSections(const QJsonObject &scatter, bool strict, SectionFiles &files,
                                     QString *error)
{
    const QJsonArray sections = scatter.value(QLatin1String("sections")).toArray();
    if (sections.isEmpty()) {
        return fail(error, QCoreApplication::translate(
                               "ESPFlasher",
                               "This scatter file is invalid (no section definitions present)"));
    }
    m_tableRebuilt = true;
    m_rows = QVector<ScatterSection>(sections.size());
    // The rows in the table, for the checks made once every section is known.
    QVector<PlacedSection> placed;

    for (int index = 0; index < sections.size(); ++index) {
        const QJsonObject section = sections.at(index).toObject();
        const QString type = section.value(QLatin1String("type")).toString();
        const QString file = section.value(QLatin1String("file")).toString();
        const QString addressText = section.value(QLatin1String("address")).toString();

        if (!files.exists(file)) {
            return fail(error,
                        QCoreApplication::translate("ESPFlasher", "File %1 (%2) does not exist")
                            .arg(file, type));
        }
        bool addressOk = false;
        const quint32 address = parseUnsignedInteger(addressText, &addressOk);
        if (!addressOk) {
            // The first placeholder takes the type: that is how this message has always read.
            return fail(
                error, QCoreApplication::translate("ESPFlasher", "Section %1 address %2 is invalid")
                           .arg(type, addressText));
        }

        ScatterSection row;
        row.hasCells = true;
        row.file = file;
        row.source = files.source(file);
        row.startAddress = address;
        if (type == QLatin1String("firmware")) {
            row.typeKey = QString::fromLatin1(firmwareTypeKey);
            if (strict) {
                row.kind = ScatterSection::Firmware;
                row.kindSet = true;
                const QJsonValue options = section.value(QLatin1String("options"));
                const QJsonObject flash =
                    options.toObject().value(QLatin1String("flash")).toObject();
                row.flashMode = flash.value(QLatin1String("mode")).toString();
                row.flashSize = flash.value(QLatin1String("size")).toString();
                row.flashFrequency = flash.value(QLatin1String("frequency")).toString();
                if (!options.isObject() || row.flashMode.isEmpty() || row.flashSize.isEmpty() ||
                    row.flashFrequency.isEmpty()) {
                    return fail(error, QCoreApplication::translate(
                                           "ESPFlasher", "Mandatory firmware options are missing"));
                }
                if (!validFlashOptions(row)) {
                    return fail(
                        error,
                        QCoreApplication::translate(
                            "ESPFlasher",
                            "Firmware %1 has invalid flash options (mode %2, size %3, frequency %4)")
                            .arg(file, row.flashMode, row.flashSize, row.flashFrequency));
                }
            }
        } else if (type == QLatin1String("application")) {
            row.typeKey = QString::fromLatin1(applicationTypeKey);
            row.kind = ScatterSection::Application;
            row.kindSet = true;
        } else {
            if (m_prompts) {
                m_prompts->notice(
                    QCoreApplication::translate("ESPFlasher", "Skip unknown scatter section %1")
                        .arg(type));
            }
            // The table shrinks, but later sections keep their document index as row number.
            m_rows.removeLast();
            continue;
        }

        const qint64 fileSize = files.size(file);
        const quint32 length =
            section.contains(QLatin1String("size"))
                ? parseUnsignedInteger(section.value(QLatin1String("size")).toString())
                : static_cast<quint32>(fileSize);
        row.endAddress = address + length;
        // A row beyond the shortened table is dropped, as the table ignores such cells.
        if (index < m_rows.size()) {
            m_rows[index] = row;
            placed.append({index, section, fileSize});
        }
    }

    if (strict && !checkPlacement(placed, error))
        return false;
    // Hashing comes last: a file that could not be flashed anyway is not read at all.
    if (!files.checksums())
        return true;
    for (const PlacedSection &section : qAsConst(placed)) {
        ScatterSection &row = m_rows[section.row];
        if (!verifyChecksum(section.section, row.source, files, &row, error)) {
            clearRowsFrom(section.row);
            return false;
        }
    }
    return true;
}

bool ScatterValidator::checkPlacement(const QVector<PlacedSection> &placed, QString *error)
{
    // Applications are written with the size the whole scatter stands for.
    const QString scatterSize = FlashPlan::scatterFlashSize(m_rows, m_detectedFlashSize);
    for (int i = 0; i < placed.size(); ++i) {
        const ScatterSection &row = m_rows.at(placed.at(i).row);
        const quint64 end = extentEnd(row, placed.at(i).fileSize);
        const QString sizeText = row.isApplication() ? scatterSize : row.flashSize;
        const quint32 flashSize = flashSizeBytes(sizeText);
        QString message;
        if (flashSize != 0 && end > flashSize) {
            message =
                QCoreApplication::translate(
                    "ESPFlasher", "Section %1 %2 runs past the end of its flash memory size %3")
                    .arg(row.file, regionText(row.startAddress, end), sizeText);
        } else if (m_detectedFlashSize != 0 && end > m_detectedFlashSize) {
            message =
                QCoreApplication::translate(
                    "ESPFlasher", "Section %1 %2 runs past the end of the chip's flash memory (%3)")
                    .arg(row.file, regionText(row.startAddress, end),
                         ESPImageParser::flashSizeString(m_detectedFlashSize));
        }
        for (int j = 0; j < i && message.isEmpty(); ++j) {
            const ScatterSection &earlier = m_rows.at(placed.at(j).row);
            const quint64 earlierEnd = extentEnd(earlier, placed.at(j).fileSize);
            // Half-open ranges; an empty one overlaps nothing.
            if (row.startAddress < earlierEnd && earlier.startAddress < end) {
                message =
                    QCoreApplication::translate("ESPFlasher", "Sections %1 %2 and %3 %4 overlap")
                        .arg(earlier.file, regionText(earlier.startAddress, earlierEnd), row.file,
                             regionText(row.startAddress, end));
            }
        }
        if (!message.isEmpty()) {
            clearRowsFrom(placed.at(i).row);
            return fail(error, message);
        }
    }
    for (const PlacedSection &section : placed) {
        if (!checkFlashSizeOption(m_rows.at(section.row), error)) {
            clearRowsFrom(section.row);
            return false;
        }
    }
    return true;
}

bool ScatterValidator::checkFlashSizeOption(const ScatterSection &row, QString *error)
{
    if (row.isApplication() || m_detectedFlashSize == 0 ||
        flashSizeBytes(row.flashSize) <= m_detectedFlashSize)
        return true;
    const QString chipSize = ESPImageParser::flashSizeString(m_detectedFlashSize);
    const QString question =
        QCoreApplication::translate(
            "ESPFlasher",
            "Firmware %1 is set for a flash memory size of %2, but the chip has %3. Flash it anyway?")
            .arg(row.file, row.flashSize, chipSize);
    if (m_prompts && m_prompts->confirmFlashSize(question))
        return true;
    return fail(error,
                QCoreApplication::translate(
                    "ESPFlasher",
                    "Firmware %1 is set for a flash memory size of %2, larger than the chip's %3")
                    .arg(row.file, row.flashSize, chipSize));
}

void ScatterValidator::clearRowsFrom(int row)
{
    // A refused load keeps the rows that passed every check before the refused one.
    for (int index = row; index < m_rows.size(); ++index)
        m_rows[index] = ScatterSection();
}

bool ScatterValidator::verifyChecksum(const QJsonObject &section, const QString &source,
                                      SectionFiles &files, ScatterSection *row, QString *error)
{
    const QString file = section.value(QLatin1String("file")).toString();
    QByteArray digest;
    if (!files.digest(file, &digest, error))
        return false;
    const QString computed = hexlify(digest, true);
    const QString saved = section.value(QLatin1String("md5")).toString();

    if (section.contains(QLatin1String("md5"))) {
        if (saved.compare(computed, Qt::CaseInsensitive) != 0) {
            return fail(
                error,
                QCoreApplication::translate(
                    "ESPFlasher",
                    "The data within the package is corrupted (saved md5 %1 does not match the computed one %2 for file %3)")
                    .arg(saved, computed, source));
        }
    } else {
        const QString question =
            QCoreApplication::translate(
                "ESPFlasher", "Section %1 is missing an md5 checksum. Proceed?<br>Current md5: %2")
                .arg(source, computed);
        if (!m_prompts || !m_prompts->confirmMissingChecksum(question, source, computed)) {
            return fail(
                error,
                QCoreApplication::translate("ESPFlasher", "No saved checksum for %1").arg(source));
        }
        // The placeholder stays unfilled: this line has always been logged like that.
        m_prompts->notice(QCoreApplication::translate(
            "ESPFlasher", "Proceeding without checksum verification for %1 as per users request"));
    }
    row->md5 = saved;
    return true;
}
