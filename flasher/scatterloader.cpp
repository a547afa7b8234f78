#include "flasher/scatterloader.h"

#include "flasher/esppackage.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonParseError>

ScatterLoader::ScatterLoader() = default;
ScatterLoader::~ScatterLoader() = default;

bool ScatterLoader::isPackagePath(const QString &path)
{
    return path.endsWith(QLatin1String(".zip"), Qt::CaseInsensitive);
}

std::unique_ptr<EspPackage> ScatterLoader::takePackage()
{
    return std::move(m_package);
}

bool ScatterLoader::failed(const QString &message)
{
    m_error = message;
    m_package.reset();
    return false;
}

bool ScatterLoader::load(const QString &path, quint32 flashSize)
{
    m_package.reset();
    m_document = QJsonObject();
    m_error.clear();
    m_isPackage = isPackagePath(path);

    QByteArray bytes;
    if (!(m_isPackage ? readPackage(path, flashSize, &bytes) : readLooseFile(path, &bytes)))
        return false;

    QJsonParseError parseError;
    const QJsonDocument document = QJsonDocument::fromJson(bytes, &parseError);
    if (document.isNull() || !document.isObject()) {
        const QString name = m_isPackage ? QString::fromLatin1(EspPackage::scatterEntryName) : path;
        return failed(
            QCoreApplication::translate("ESPFlasher", "%1 is not a valid scatter file: %2")
                .arg(name, parseError.errorString()));
    }
    m_document = document.object();
    return true;
}

bool ScatterLoader::checkPackageSize(const EspPackage &package, quint32 flashSize, QString *error)
{
    const quint64 limit = EspPackage::sizeLimit(flashSize);
    if (package.totalUncompressedSize() <= limit)
        return true;
    if (error) {
        *error = QCoreApplication::translate(
                     "ESPFlasher",
                     "Package %1 unpacks to %2 bytes, more than the flash memory can hold (%3 "
                     "bytes)")
                     .arg(package.path())
                     .arg(package.totalUncompressedSize())
                     .arg(limit);
    }
    return false;
}

bool ScatterLoader::readPackage(const QString &path, quint32 flashSize, QByteArray *bytes)
{
    m_package = std::make_unique<EspPackage>(path);
    if (!m_package->open()) {
        return failed(
            QCoreApplication::translate("ESPFlasher", "Package %1 is invalid and cannot be opened")
                .arg(path));
    }
    // Checked on the central directory, before anything is unpacked.
    QString tooLarge;
    if (!checkPackageSize(*m_package, flashSize, &tooLarge))
        return failed(tooLarge);
    const QString name = QString::fromLatin1(EspPackage::scatterEntryName);
    switch (m_package->readEntry(name, bytes)) {
    case EspPackage::EntryStatus::Ok:
        return true;
    case EspPackage::EntryStatus::NotFound:
        return failed(
            QCoreApplication::translate("ESPFlasher", "scatter.txt not found in package %1")
                .arg(path));
    case EspPackage::EntryStatus::CannotOpen:
    case EspPackage::EntryStatus::Corrupt:
    case EspPackage::EntryStatus::OutputFailed:
        break;
    }
    return failed(
        QCoreApplication::translate("ESPFlasher", "scatter.txt from package %1 cannot be read")
            .arg(path));
}

bool ScatterLoader::readLooseFile(const QString &path, QByteArray *bytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return failed(QCoreApplication::translate("ESPFlasher", "%1 could not be read: %2")
                          .arg(file.fileName(), file.errorString()));
    }
    *bytes = file.readAll();
    return true;
}

QString ScatterLoader::invalidMessage(const QString &path, bool package, const QString &reason)
{
    if (!package)
        return reason;
    return QCoreApplication::translate("ESPFlasher", "%1 package is invalid: %2").arg(path, reason);
}

QString ScatterLoader::loadedPackageMessage(const QString &path, const QString &description)
{
    return QCoreApplication::translate("ESPFlasher", "Loaded package %1: %2")
        .arg(path, description);
}
