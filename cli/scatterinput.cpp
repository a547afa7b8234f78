#include "cli/scatterinput.h"

#include "flasher/esppackage.h"
#include "flasher/scatterloader.h"
#include "flasher/scattervalidator.h"
#include "worker/esptoolworker.h"

#include <QBuffer>
#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

namespace {

QString dialogText(const char *source)
{
    return QCoreApplication::translate("ESPFlasher", source);
}

std::unique_ptr<QBuffer> bufferOf(const QByteArray &data)
{
    auto buffer = std::make_unique<QBuffer>();
    buffer->setData(data);
    buffer->open(QIODevice::ReadOnly);
    return buffer;
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

bool ScatterInput::run(const QString &chipDescription, CliScatterPrompts &prompts,
                       QVector<ScatterSection> *rows, QString *loaderText, QString *error)
{
    ScatterValidator validator(chipDescription, m_loaderPath, &prompts);
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
    const bool valid = run(documentChip(), prompts, &m_rows, &m_loaderText, error);
    m_needsYes = !valid && prompts.refused();
    return valid;
}

bool ScatterInput::validate(const QString &chipDescription, QVector<ScatterSection> *rows,
                            QString *error)
{
    CliScatterPrompts prompts(m_yes, m_loaderPath);
    QString loaderText;
    return run(chipDescription, prompts, rows, &loaderText, error);
}

bool ScatterInput::entryData(const QString &name, QByteArray *data, QString *error)
{
    const auto cached = m_entries.constFind(name);
    if (cached != m_entries.constEnd()) {
        *data = *cached;
        return true;
    }
    switch (m_package->readEntry(name, data)) {
    case EspPackage::EntryStatus::Ok:
        m_entries.insert(name, *data);
        return true;
    case EspPackage::EntryStatus::NotFound:
        *error =
            dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "File %1 is not in the package")).arg(name);
        return false;
    case EspPackage::EntryStatus::CannotOpen:
    case EspPackage::EntryStatus::Corrupt:
        break;
    }
    *error = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "File %1 cannot be read (%2)"))
                 .arg(name)
                 .arg(m_package->zipError());
    return false;
}

bool ScatterInput::loaderParameter(QVariant *parameter, std::unique_ptr<QBuffer> *holder,
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
    QByteArray data;
    if (!entryData(m_loaderText, &data, error))
        return false;
    *holder = bufferOf(data);
    *parameter = QVariant::fromValue(IODeviceDescriptor{holder->get(), m_loaderText});
    return true;
}

bool ScatterInput::rowParameter(const ScatterSection &row, QVariant *parameter,
                                std::unique_ptr<QBuffer> *holder, QString *error)
{
    if (!m_isPackage) {
        // A missing file fails in the worker, with its own message.
        *parameter = row.source;
        return true;
    }
    QByteArray data;
    if (!entryData(row.file, &data, error))
        return false;
    *holder = bufferOf(data);
    *parameter = QVariant::fromValue(IODeviceDescriptor{holder->get(), row.file});
    return true;
}

std::unique_ptr<QIODevice> ScatterInput::openRow(const ScatterSection &row, QString *error)
{
    if (m_isPackage) {
        QByteArray data;
        if (!entryData(row.file, &data, error))
            return nullptr;
        return bufferOf(data);
    }
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
    QByteArray data;
    if (!entryData(m_loaderText, &data, error))
        return QString();
    QSaveFile file(exportedLoaderPath(dir));
    if (!file.open(QIODevice::WriteOnly) || file.write(data) != data.size() || !file.commit()) {
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
