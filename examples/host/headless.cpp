// A headless host of the core library: starts a virtual ESP8266 (the esp-virtual-chip program),
// uploads the flash loader, writes a small data image and compares the chip's MD5 of the written
// region with the image's. Exits 0 only when they match.
//   esp-headless-flash [--chip PROGRAM] [--loader LOADER.elf]
#include <esputility/espimageparser.h>
#include <esputility/esptool.h>
#include <esputility/qcomport.h>
#include <esputility/texthelpers.h>

#include <QBuffer>
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QProcess>
#include <QRandomGenerator>
#include <QTextStream>

namespace {

constexpr int chipStartMs = 10000; // how long the chip program may take to print its port, ms
constexpr unsigned int imageAddress = 0x10000;
constexpr int imageSize = 24 * 1024;

QTextStream &out()
{
    static QTextStream stream(stdout);
    return stream;
}

int fail(const QString &message)
{
    out() << "esp-headless-flash: " << message << Qt::endl;
    return 1;
}

// The chip program prints its pseudo-terminal's path on its first line.
QString startChip(QProcess &chip, const QString &program)
{
    chip.start(program, {QStringLiteral("--quiet")});
    while (!chip.canReadLine()) {
        if (!chip.waitForReadyRead(chipStartMs))
            return QString();
    }
    return QString::fromLocal8Bit(chip.readLine()).trimmed();
}

// Writes a pseudo-random image through the flash loader and compares MD5 digests.
int flash(const QString &port, const QString &loader)
{
    ESPTool tool;
    QString error = QStringLiteral("the port could not be opened");
    QObject::connect(&tool, &ESPTool::operationError,
                     [&error](int, const QString &text) { error = text; });
    if (!tool.esp_connect(port))
        return fail(QStringLiteral("no connection: %1").arg(error));
    out() << "Connected: " << tool.get_chip_description() << Qt::endl;
    if (!tool.write_loader_stub(loader))
        return fail(QStringLiteral("the flash loader did not start: %1").arg(error));

    QByteArray image(imageSize, Qt::Uninitialized);
    QRandomGenerator random(imageSize);
    for (char &byte : image)
        byte = char(random.bounded(256));
    QBuffer device(&image);
    device.open(QIODevice::ReadOnly);
    const unsigned char flashSize = ESPImageParser::fs_fromString(QStringLiteral("4MB"));
    if (!tool.write_flash_file(&device, QStringLiteral("image.bin"), false, imageAddress, flashSize,
                               ESPImageParser::kCodeNotGiven, ESPImageParser::kCodeNotGiven))
        return fail(QStringLiteral("writing failed: %1").arg(error));

    const QByteArray expected = ESPTool::get_data_md5(image);
    const QByteArray actual = tool.get_flash_md5(imageAddress, unsigned(image.size()));
    out() << "Image MD5 " << hexlify(expected, true) << ", flash MD5 " << hexlify(actual, true)
          << Qt::endl;
    if (actual != expected)
        return fail(QStringLiteral("the flash does not hold the image"));
    out() << "Flashed and verified " << image.size() << " bytes at 0x"
          << QString::number(imageAddress, 16) << Qt::endl;
    return 0;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption chipOption(QStringLiteral("chip"), QStringLiteral("The chip program."),
                                        QStringLiteral("PROGRAM"),
                                        QStringLiteral(VIRTUAL_CHIP_PROGRAM));
    const QCommandLineOption loaderOption(
        QStringLiteral("loader"), QStringLiteral("The flash loader."), QStringLiteral("ELF"),
        QStringLiteral(VIRTUAL_CHIP_LOADER));
    parser.addOptions({chipOption, loaderOption});
    parser.process(app);

    QProcess chip;
    const QString port = startChip(chip, parser.value(chipOption));
    if (port.isEmpty()) {
        chip.kill();
        chip.waitForFinished();
        return fail(QStringLiteral("the virtual chip did not start: %1").arg(chip.errorString()));
    }
    out() << "Virtual ESP8266 on " << port << Qt::endl;
    // A pseudo-terminal is not among the system's serial ports: name it to the serial link.
    qputenv(QComPort::extraPortsVariable, port.toLocal8Bit());
    const int result = flash(port, parser.value(loaderOption));
    chip.terminate();
    chip.waitForFinished();
    return result;
}
