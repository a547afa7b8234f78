#include "cli/scatterinput.h"

#include "flasher/esppackage.h"
#include "flasher/scatterloader.h"
#include "flasher/scattervalidator.h"
#include "worker/esptoolworker.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QTemporaryFile>

namespace {

QString dialogText(const char *source)
{
    return QCoreApplication::translate("ESPFlasher", source);
}

} // namespace

ScatterInput::ScatterInput(bool yes, const QString &loaderPath)
    : m_yes(yes)
    , m_loaderPath(loaderPath.isEmpty() ? QString() : QFileInfo(loaderPath).absoluteFilePath())
{}

ScatterInput::~ScatterInput() = default;

bool ScatterInput::load(const QString &path, QString *error)
{
    ScatterLoader loader;
    if (!loader.load(path)) {
        *error = loader.error();
        return false;
    }
    m_path = path;
    m_isPackage = loader.isPackage();
    m_document = loader.document();
    m_package = loader.takePackage();
    return true;
}

QString ScatterInput::description() const
{
    return m_package ? m_package->comment() : QString();
}

QString ScatterInput::documentChip() const
{
    return m_document.value(QLatin1String("chip")).toString();
}

QDir ScatterInput::directory() const
{
    return QFileInfo(m_path).absoluteDir();
}

bool ScatterInput::run(const QString &chipDescription, quint32 detectedFlashSize,
                       CliScatterPrompts &prompts, QVector<ScatterSection> *rows,
                       QString *loaderText, QString *error)
{
    ScatterValidator validator(chipDescription, m_loaderPath, &prompts);
    validator.setDetectedFlashSize(detectedFlashSize);
    QString reason;
    bool valid = false;
    if (m_isPackage) {
        valid = validator.parseScatterPack(m_document, *m_package, &reason);
    } else {
        QJsonObject document = m_document;
        valid = validator.parseScatterObject(document, true, QFileInfo(m_path), &reason);
    }
    if (!valid) {
        *error = ScatterLoader::invalidMessage(m_path, m_isPackage, reason);
        return false;
    }
    *rows = validator.rows();
    *loaderText = validator.loaderText();
    return true;
}

bool ScatterInput::preflight(const CliScatterPrompts::Sink &sink, QString *error)
{
    CliScatterPrompts prompts(m_yes, m_loaderPath, sink);
    const bool valid = run(documentChip(), 0, prompts, &m_rows, &m_loaderText, error);
    m_needsYes = !valid && prompts.refused();
    return valid;
}

bool ScatterInput::validate(const QString &chipDescription, quint32 flashSize,
                            const CliScatterPrompts::Sink &boardSink, QVector<ScatterSection> *rows,
                            QString *error)
{
    if (m_package && !ScatterLoader::checkPackageSize(*m_package, flashSize, error))
        return false;
    CliScatterPrompts prompts(m_yes, m_loaderPath, CliScatterPrompts::Sink(), boardSink);
    QString loaderText;
    return run(chipDescription, flashSize, prompts, rows, &loaderText, error);
}

std::unique_ptr<QIODevice> ScatterInput::extractEntry(const QString &name, QString *error)
{
    EspPackage::EntryStatus status = EspPackage::EntryStatus::Ok;
    std::unique_ptr<QTemporaryFile> file = m_package->extractEntry(name, &status);
    if (!file) {
        switch (status) {
        case EspPackage::EntryStatus::NotFound:
            *error = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "File %1 is not in the package"))
                         .arg(name);
            break;
        case EspPackage::EntryStatus::OutputFailed:
            *error = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "File %1 cannot be read (%2)"))
                         .arg(name, m_package->outputError());
            break;
        default:
            *error = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "File %1 cannot be read (%2)"))
                         .arg(name)
                         .arg(m_package->zipError());
            break;
        }
    }
    return file;
}

bool ScatterInput::loaderParameter(QVariant *parameter, std::unique_ptr<QIODevice> *holder,
                                   QString *error)
{
    if (!m_isPackage) {
        if (!QFile::exists(m_loaderText)) {
            *error =
                dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Flash loader file %1 does not exist!"))
                    .arg(m_loaderText);
            return false;
        }
        *parameter = m_loaderText;
        return true;
    }
    *holder = extractEntry(m_loaderText, error);
    if (!*holder)
        return false;
    *parameter = QVariant::fromValue(IODeviceDescriptor{holder->get(), m_loaderText});
    return true;
}

bool ScatterInput::rowParameter(const ScatterSection &row, QVariant *parameter,
                                std::unique_ptr<QIODevice> *holder, QString *error)
{
    if (!m_isPackage) {
        // A missing file fails in the worker, with its own message.
        *parameter = row.source;
        return true;
    }
    *holder = extractEntry(row.file, error);
    if (!*holder)
        return false;
    *parameter = QVariant::fromValue(IODeviceDescriptor{holder->get(), row.file});
    return true;
}

std::unique_ptr<QIODevice> ScatterInput::openRow(const ScatterSection &row, QString *error)
{
    if (m_isPackage)
        return extractEntry(row.file, error);
    auto file = std::make_unique<QFile>(row.source);
    if (!file->open(QIODevice::ReadOnly)) {
        *error = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "File %1 cannot be read (%2)"))
                     .arg(row.file, file->errorString());
        return nullptr;
    }
    return file;
}

QString ScatterInput::exportLoader(const QDir &dir, QString *error)
{
    if (!m_isPackage)
        return m_loaderText;
    QSaveFile file(exportedLoaderPath(dir));
    if (!file.open(QIODevice::WriteOnly) ||
        m_package->copyEntry(m_loaderText, &file) != EspPackage::EntryStatus::Ok ||
        !file.commit()) {
        *error = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Cannot write to %1: %2"))
                     .arg(file.fileName(), file.errorString());
        return QString();
    }
    return file.fileName();
}

QString ScatterInput::exportedLoaderPath(const QDir &dir) const
{
    return dir.absoluteFilePath(QFileInfo(m_loaderText).fileName());
}
