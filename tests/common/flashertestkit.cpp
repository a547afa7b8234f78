#include "flashertestkit.h"

#include "chipfixture.h"
#include "scattertestfiles.h"

#include "flasher/esppackage.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSettings>
#include <QTest>
#include <QTextBlock>
#include <QTextBrowser>

namespace FlasherTestKit {

QString line(const char *colour, const QString &text)
{
    return QLatin1String(colour) + QLatin1Char('|') + text;
}

QStringList logLines(QWidget *flasher, int from)
{
    QStringList lines;
    const QTextDocument *document = child<QTextBrowser>(flasher, "logBrowser")->document();
    if (document->isEmpty())
        return lines;
    for (QTextBlock block = document->begin(); block.isValid(); block = block.next()) {
        QString text = block.text();
        // A line of dots only stays as it is.
        while (text.size() > 1 && text.endsWith(QLatin1Char('.')))
            text.chop(1);
        const QString colour =
            block.begin().atEnd()
                ? QString()
                : block.begin().fragment().charFormat().foreground().color().name();
        lines.append(colour + QLatin1Char('|') + text);
    }
    return lines.mid(qMax(0, from));
}

bool waitForLogLine(QWidget *flasher, const QString &wanted, int from)
{
    return QTest::qWaitFor([&] { return logLines(flasher, from).contains(wanted); },
                           workerStepTimeoutMs);
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

QVariantList chipInfo()
{
    return QVariantList{"ESP8266EX", "00a1b2c3", "18FE34A1B2C3", "Test flash (0xef:0x4016) 4Mb",
                        0x400000u};
}

QJsonObject firmwareSection(const QString &address, const QString &file, const QString &md5,
                            const QString &mode)
{
    const QJsonObject flash{{"mode", mode}, {"size", "4MB"}, {"frequency", "40m"}};
    QJsonObject section{{"type", "firmware"},
                        {"address", address},
                        {"file", file},
                        {"options", QJsonObject{{"flash", flash}}}};
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

bool FlashTestFiles::create(const QDir &dir)
{
    EspImageBuilder builder;
    builder.setFlashMode(0);      // qio
    builder.setFlashSize(2);      // 1 MB
    builder.setFlashFrequency(1); // 26 MHz
    builder.addRandomSegment(0x40100000, 0x2400, 11);
    builder.addRandomSegment(0x3FFE8000, 0x300, 12);
    firmware = builder.build();
    patchedFirmware = firmware;
    patchedFirmware[2] = 2;    // dio
    patchedFirmware[3] = 0x40; // 4 MB, 40 MHz
    application = EspImageBuilder::application(0x5000, 0, 13);

    QFile loader(generatedStubPath());
    if (!loader.open(QIODevice::ReadOnly))
        return false;
    stub = writeTestFile(dir, QStringLiteral("loader.elf"), loader.readAll());
    scatter = writeTestFile(dir, QStringLiteral("scatter.txt"), QJsonDocument(document()).toJson());
    package = dir.absoluteFilePath(QStringLiteral("package.zip"));
    return !stub.isEmpty() && !scatter.isEmpty() &&
           !writeTestFile(dir, QStringLiteral("boot.bin"), firmware).isEmpty() &&
           !writeTestFile(dir, QStringLiteral("app.bin"), application).isEmpty() &&
           writePackage(package, firmware);
}

QJsonObject FlashTestFiles::document() const
{
    return QJsonObject{
        {"chip", "ESP8266EX"},
        {"stub", "loader.elf"},
        {"sections", QJsonArray{firmwareSection("0x0", "boot.bin", md5Hex(firmware)),
                                applicationSection("0x10000", "app.bin", md5Hex(application))}}};
}

bool FlashTestFiles::writePackage(const QString &path, const QByteArray &firmwareImage) const
{
    QFile loader(stub);
    QJsonObject packed = document();
    packed.insert("stub", EspPackage::stubEntryName);
    const QString description = QStringLiteral("Flash test package 2.1");
    const QByteArray password = EspPackage::password(description);
    return loader.open(QIODevice::ReadOnly) &&
           writeTestZip(path, description,
                        {{EspPackage::stubEntryName, loader.readAll()},
                         {"boot.bin", firmwareImage},
                         {"app.bin", application},
                         {"scatter.txt", QJsonDocument(packed).toJson()}},
                        &password);
}

} // namespace FlasherTestKit
