#include "flasher/scatterwriter.h"

#include "flasher/esppackage.h"
#include "protocol/esptool.h"
#include "widgets/texthelpers.h"

#include <QCoreApplication>
#include <QDir>
#include <QJsonDocument>
#include <QSaveFile>

QString ScatterWriter::chipName(const QString &chipDescription)
{
    return chipDescription.split(QLatin1Char('/')).first().trimmed();
}

QString ScatterWriter::typeName(const ScatterSection &row)
{
    return row.isApplication() ? QStringLiteral("application") : QStringLiteral("firmware");
}

QJsonObject ScatterWriter::sectionObject(const ScatterSection &row, const QString &md5,
                                         const QString &file)
{
    QJsonObject section;
    section.insert(QStringLiteral("type"), typeName(row));
    section.insert(QStringLiteral("address"), row.startAddressText());
    section.insert(QStringLiteral("md5"), md5);
    section.insert(QStringLiteral("file"), file);
    if (!row.isApplication()) {
        QJsonObject flash;
        flash.insert(QStringLiteral("size"), row.flashSize);
        flash.insert(QStringLiteral("mode"), row.flashMode);
        flash.insert(QStringLiteral("frequency"), row.flashFrequency);
        QJsonObject options;
        options.insert(QStringLiteral("flash"), flash);
        section.insert(QStringLiteral("options"), options);
    }
    return section;
}

QJsonObject ScatterWriter::packageDocument(const QString &chipDescription,
                                           const QJsonArray &sections)
{
    QJsonObject document;
    document.insert(QStringLiteral("chip"), chipName(chipDescription));
    document.insert(QStringLiteral("stub"), QString::fromLatin1(EspPackage::stubEntryName));
    document.insert(QStringLiteral("sections"), sections);
    return document;
}

QJsonObject ScatterWriter::savedDocument(const QString &chipDescription, const QString &loaderPath,
                                         const QVector<ScatterSection> &rows, const QDir &dir)
{
    QJsonArray sections;
    for (const ScatterSection &row : rows) {
        if (!row.hasCells || !row.active)
            continue;
        const QString path = dir.absoluteFilePath(row.file);
        const QString md5 = hexlify(ESPTool::get_file_md5(path), true);
        sections.append(sectionObject(row, md5, dir.relativeFilePath(path)));
    }
    QJsonObject document;
    document.insert(QStringLiteral("chip"), chipName(chipDescription));
    document.insert(QStringLiteral("stub"), dir.relativeFilePath(loaderPath));
    document.insert(QStringLiteral("sections"), sections);
    return document;
}

bool ScatterWriter::save(const QString &path, const QJsonObject &document, QString *error)
{
    // Written beside the file and moved over it at once: a failure leaves the old one whole.
    QSaveFile file(path);
    const QByteArray text = QJsonDocument(document).toJson(QJsonDocument::Indented);
    const bool written =
        file.open(QIODevice::WriteOnly) && file.write(text) == text.size() && file.commit();
    if (!written && error) {
        *error = QCoreApplication::translate("ESPFlasher", "Cannot write to %1: %2")
                     .arg(file.fileName(), file.errorString());
    }
    return written;
}
