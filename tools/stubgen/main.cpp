// esp-make-stub: writes the project's stand-in loader stub for the virtual ESP8266, or converts a
// loader published in JSON form into an ELF file.

#include "protocol/elfstubimage.h"
#include "tools/stubgen/stubelfwriter.h"
#include "tools/stubgen/virtualloaderstub.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <QTextStream>

namespace {

QTextStream &err()
{
    static QTextStream stream(stderr);
    return stream;
}

// Accepts decimal, "0x" hexadecimal and leading-zero octal, like the other tools of the project.
bool parseNumber(const QCommandLineParser &parser, const QString &option, quint32 *value)
{
    if (!parser.isSet(option))
        return true;
    bool ok = false;
    const uint parsed = parser.value(option).toUInt(&ok, 0);
    if (!ok) {
        err() << "esp-make-stub: --" << option << " needs a number, got \"" << parser.value(option)
              << "\"\n";
        return false;
    }
    *value = parsed;
    return true;
}

bool checkSection(const char *name, quint32 address, quint32 size)
{
    if (size > VirtualLoaderStub::MaxSectionSize) {
        err() << "esp-make-stub: " << name << " size " << size << " exceeds the limit of "
              << VirtualLoaderStub::MaxSectionSize << " bytes\n";
        return false;
    }
    if (quint64(address) + size > (quint64(1) << 32)) {
        err() << "esp-make-stub: " << name << " runs past the end of the 32-bit address space\n";
        return false;
    }
    return true;
}

} // namespace

// Writes the sections and entry point of a JSON-form loader as an ELF file, so that scatter
// files and packages can name it like any other loader.
int convertJson(const QString &jsonPath, const QString &outputPath)
{
    QFile file(jsonPath);
    if (!file.open(QIODevice::ReadOnly)) {
        err() << "esp-make-stub: cannot read " << jsonPath << ": " << file.errorString() << "\n";
        return 1;
    }
    ElfStubImage image;
    if (!image.load(&file)) {
        err() << "esp-make-stub: " << jsonPath << ": " << image.errorString() << "\n";
        return 1;
    }
    const ElfStubImage::Section *text = image.section(QStringLiteral(".text"));
    const ElfStubImage::Section *data = image.section(QStringLiteral(".data"));
    if (!text || !data) {
        err() << "esp-make-stub: " << jsonPath << " lacks a .text or .data section\n";
        return 1;
    }
    StubElfWriter writer;
    writer.setText(text->address, text->data);
    writer.setData(data->address, data->data);
    writer.setEntry(image.entry());
    QString error;
    if (!writer.write(outputPath, &error)) {
        err() << "esp-make-stub: " << error << "\n";
        return 1;
    }
    return 0;
}

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("esp-make-stub"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Writes ESP Utility's stand-in loader stub for its virtual ESP8266: a 32-bit Xtensa ELF file with a \".text\" and a \".data\" section of deterministic filler bytes and an entry point inside \".text\".\nThe virtual chip does not execute the code; it starts its emulated loader when the entry point lies inside downloaded code. This file is NOT a loader for real boards: a real chip would run garbage."));
    parser.addHelpOption();
    const QString output = QStringLiteral("output");
    const QString textSize = QStringLiteral("text-size");
    const QString dataSize = QStringLiteral("data-size");
    const QString textAddr = QStringLiteral("text-addr");
    const QString dataAddr = QStringLiteral("data-addr");
    const QString entry = QStringLiteral("entry");
    const QString noText = QStringLiteral("no-text");
    const QString noData = QStringLiteral("no-data");
    const QString fromJson = QStringLiteral("from-json");
    parser.addOptions({
        {fromJson,
         QStringLiteral(
             "Convert a loader published in JSON form (base64 \"text\" and \"data\", \"text_start\", \"data_start\", \"entry\") into an ELF file instead of writing the stand-in; the size and address options do not apply."),
         QStringLiteral("file")},
        {{QStringLiteral("o"), output},
         QStringLiteral("ELF file to write (required)."),
         QStringLiteral("file")},
        {textSize,
         QStringLiteral("Size of \".text\" in bytes (default 0x%1).")
             .arg(VirtualLoaderStub::DefaultTextSize, 0, 16),
         QStringLiteral("bytes")},
        {dataSize,
         QStringLiteral("Size of \".data\" in bytes (default 0x%1).")
             .arg(VirtualLoaderStub::DefaultDataSize, 0, 16),
         QStringLiteral("bytes")},
        {textAddr,
         QStringLiteral("Load address of \".text\" (default 0x%1).")
             .arg(VirtualLoaderStub::DefaultTextAddress, 8, 16, QLatin1Char('0')),
         QStringLiteral("address")},
        {dataAddr,
         QStringLiteral("Load address of \".data\" (default 0x%1).")
             .arg(VirtualLoaderStub::DefaultDataAddress, 8, 16, QLatin1Char('0')),
         QStringLiteral("address")},
        {entry, QStringLiteral("Entry point (default: \".text\" address + 4)."),
         QStringLiteral("address")},
        {noText, QStringLiteral("Leave \".text\" out (for tests of a broken loader).")},
        {noData, QStringLiteral("Leave \".data\" out (for tests of a broken loader).")},
    });
    parser.process(app);

    if (!parser.isSet(output) || parser.value(output).isEmpty()) {
        err() << "esp-make-stub: an output file is required (-o FILE); see --help\n";
        return 2;
    }
    if (!parser.positionalArguments().isEmpty()) {
        err() << "esp-make-stub: unexpected argument \"" << parser.positionalArguments().first()
              << "\"\n";
        return 2;
    }

    if (parser.isSet(fromJson))
        return convertJson(parser.value(fromJson), parser.value(output));

    quint32 textAddress = VirtualLoaderStub::DefaultTextAddress;
    quint32 textBytes = VirtualLoaderStub::DefaultTextSize;
    quint32 dataAddress = VirtualLoaderStub::DefaultDataAddress;
    quint32 dataBytes = VirtualLoaderStub::DefaultDataSize;
    if (!parseNumber(parser, textAddr, &textAddress) ||
        !parseNumber(parser, textSize, &textBytes) ||
        !parseNumber(parser, dataAddr, &dataAddress) || !parseNumber(parser, dataSize, &dataBytes))
        return 2;
    quint32 entryPoint = textAddress + VirtualLoaderStub::EntryOffset;
    if (!parseNumber(parser, entry, &entryPoint))
        return 2;

    StubElfWriter writer;
    if (!parser.isSet(noText)) {
        if (!checkSection(".text", textAddress, textBytes))
            return 2;
        writer.setText(textAddress, VirtualLoaderStub::textBytes(textBytes));
    }
    if (!parser.isSet(noData)) {
        if (!checkSection(".data", dataAddress, dataBytes))
            return 2;
        writer.setData(dataAddress, VirtualLoaderStub::dataBytes(dataBytes));
    }
    writer.setEntry(entryPoint);

    QString error;
    if (!writer.write(parser.value(output), &error)) {
        err() << "esp-make-stub: " << error << "\n";
        return 1;
    }
    return 0;
}
