#include "flashtestfiles.h"

#include "chipfixture.h"
#include "scattertestfiles.h"

#include "flasher/esppackagewriter.h"
#include "flasher/scattersection.h"
#include "tools/imagegen/espimagebuilder.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>

namespace {

// Header codes of qio, 1 MB, 26 MHz and of dio, 4 MB, 40 MHz.
constexpr quint8 qioMode = 0;
constexpr quint8 oneMegabyte = 2;
constexpr quint8 frequency26 = 1;
constexpr char dioMode = 2;
constexpr char fourMegabytes40MHz = 0x40;

ScatterSection row(ScatterSection::Kind kind, quint32 address, const QString &file)
{
    ScatterSection section;
    section.hasCells = true;
    section.kind = kind;
    section.kindSet = true;
    section.startAddress = address;
    section.file = file;
    if (kind == ScatterSection::Firmware) {
        section.flashMode = QStringLiteral("dio");
        section.flashSize = QStringLiteral("4MB");
        section.flashFrequency = QStringLiteral("40m");
    }
    return section;
}

} // namespace

bool FlashTestFiles::create(const QDir &dir, QString *why)
{
    EspImageBuilder builder;
    builder.setFlashMode(qioMode);
    builder.setFlashSize(oneMegabyte);
    builder.setFlashFrequency(frequency26);
    builder.addRandomSegment(0x40100000, 0x2400, 11);
    builder.addRandomSegment(0x3FFE8000, 0x300, 12);
    firmware = builder.build();
    // The header as the writer patches it; everything else stays.
    patchedFirmware = firmware;
    patchedFirmware[2] = dioMode;
    patchedFirmware[3] = fourMegabytes40MHz;
    application = EspImageBuilder::application(0x5000, 0, 13);

    QFile loader(generatedStubPath());
    if (!loader.open(QIODevice::ReadOnly)) {
        *why = QStringLiteral("no generated loader at ") + loader.fileName();
        return false;
    }
    stub = writeTestFile(dir, QStringLiteral("loader.elf"), loader.readAll());
    if (stub.isEmpty() || writeTestFile(dir, QStringLiteral("boot.bin"), firmware).isEmpty() ||
        writeTestFile(dir, QStringLiteral("app.bin"), application).isEmpty()) {
        *why = QStringLiteral("cannot write the test files");
        return false;
    }
    scatter = writeTestFile(dir, QStringLiteral("scatter.txt"),
                            QJsonDocument(document()).toJson(QJsonDocument::Indented));

    package = dir.absoluteFilePath(QStringLiteral("package.zip"));
    EspPackageWriter writer([why](EspPackageWriter::Severity severity, const QString &text) {
        if (severity == EspPackageWriter::Severity::Error)
            *why = text;
    });
    if (scatter.isEmpty() || !writer.open(package))
        return false;
    writer.setDescription(QString::fromUtf8(packageDescription));
    return writer.addStub(stub) &&
           writer.addSection(row(ScatterSection::Firmware, firmwareAddress, "boot.bin"), dir,
                             false) &&
           writer.addSection(row(ScatterSection::Application, applicationAddress, "app.bin"), dir,
                             false) &&
           writer.finish(QStringLiteral("ESP8266EX / 00000000"));
}

QJsonObject FlashTestFiles::document() const
{
    const QJsonObject flash{{"mode", "dio"}, {"size", "4MB"}, {"frequency", "40m"}};
    const QJsonArray sections{QJsonObject{{"type", "firmware"},
                                          {"address", "0x0"},
                                          {"file", "boot.bin"},
                                          {"md5", md5Hex(firmware)},
                                          {"options", QJsonObject{{"flash", flash}}}},
                              QJsonObject{{"type", "application"},
                                          {"address", "0x10000"},
                                          {"file", "app.bin"},
                                          {"md5", md5Hex(application)}}};
    return QJsonObject{{"chip", "ESP8266EX"}, {"stub", "loader.elf"}, {"sections", sections}};
}
