#include "flashertestkit.h"

#include "scattertestfiles.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QSettings>
#include <QTextBlock>
#include <QTextBrowser>
#include <QTextDocument>

namespace FlasherTestKit {

QVector<LogLine> logLines(QWidget *flasher)
{
    QVector<LogLine> lines;
    auto *browser = child<QTextBrowser>(flasher, "logBrowser");
    if (!browser || browser->document()->isEmpty())
        return lines;
    for (QTextBlock block = browser->document()->begin(); block.isValid(); block = block.next()) {
        LogLine entry;
        entry.text = block.text();
        const QTextBlock::iterator first = block.begin();
        if (!first.atEnd())
            entry.colour = first.fragment().charFormat().foreground().color().name();
        lines.append(entry);
    }
    return lines;
}

QStringList logStrings(QWidget *flasher)
{
    QStringList strings;
    for (const LogLine &entry : logLines(flasher))
        strings.append(entry.colour + QLatin1Char('|') + entry.text);
    return strings;
}

QString line(const char *colour, const QString &text)
{
    return QLatin1String(colour) + QLatin1Char('|') + text;
}

bool selectScatter(QObject *flasher)
{
    bool result = false;
    QMetaObject::invokeMethod(flasher, "on_scatterSelTool_clicked", Qt::DirectConnection,
                              Q_RETURN_ARG(bool, result));
    return result;
}

void isolateSettings(const QString &directory)
{
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, directory);
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, directory);
    QCoreApplication::setOrganizationName(QStringLiteral("esp-utility-tests"));
}

bool deliverFinished(QObject *flasher, bool result, int command, const QVariantList &results)
{
    return QMetaObject::invokeMethod(flasher, "worker_finished", Qt::DirectConnection,
                                     Q_ARG(bool, result), Q_ARG(int, command),
                                     Q_ARG(QVariantList, results));
}

QVariantList chipInfo(const QString &description, const QString &chipId, quint32 flashBytes)
{
    return QVariantList{description, chipId, QStringLiteral("18FE34A1B2C3"),
                        QStringLiteral("Test flash (0xef:0x4016) 4Mb"), flashBytes};
}

QString chipField(const QString &description, const QString &chipId)
{
    return description + QStringLiteral(" / ") + chipId;
}

QJsonObject firmwareSection(const QString &address, const QString &file, const QString &md5,
                            const QString &mode, const QString &size, const QString &frequency)
{
    QJsonObject section{{"type", "firmware"},
                        {"address", address},
                        {"file", file},
                        {"options", QJsonObject{{"flash", QJsonObject{{"mode", mode},
                                                                      {"size", size},
                                                                      {"frequency", frequency}}}}}};
    if (!md5.isEmpty())
        section.insert(QStringLiteral("md5"), md5);
    return section;
}

QJsonObject applicationSection(const QString &address, const QString &file, const QString &md5)
{
    QJsonObject section{{"type", "application"}, {"address", address}, {"file", file}};
    if (!md5.isEmpty())
        section.insert(QStringLiteral("md5"), md5);
    return section;
}

ScatterDir::ScatterDir() = default;

QString ScatterDir::write(const QString &name, const QByteArray &bytes) const
{
    return writeTestFile(dir(), name, bytes);
}

QString ScatterDir::writeScatter(const QString &name, const QJsonObject &document) const
{
    return write(name, QJsonDocument(document).toJson(QJsonDocument::Indented));
}

} // namespace FlasherTestKit
