// esp-utility-gui: the host program of the flasher dialog. It opens ESPFlasher in the upgrade or
// the tool mode, can pick the board by its USB serial number, and can start a virtual ESP8266 in
// the same process so that every operation can be tried without a board.

#include "flasher/espflasher.h"
#include "resources/esputilitytranslation.h"
#include "serial/qcomport.h"
#include "virtualchip/virtualboard.h"

#include <QApplication>
#include <QCommandLineParser>
#include <QLocale>
#include <QTextStream>

#include <memory>

namespace {

// The serial number the virtual chip's port carries, so that it can be chosen like a board.
const QString virtualSerial = QStringLiteral("VIRTUAL-ESP8266");

QTextStream &err()
{
    static QTextStream stream(stderr);
    return stream;
}

// Starts the chip, wired like a board with the auto-reset circuit, and lists its terminal among
// the ports, with its own serial number.
std::unique_ptr<VirtualBoard> startVirtualChip(bool fast)
{
    VirtualEsp8266::Config config;
    config.throttle = !fast; // feel like a real line unless asked otherwise
    auto chip = std::make_unique<VirtualBoard>(config);
    if (!chip->start()) {
        err() << "esp-utility-gui: the virtual ESP8266 could not start: " << chip->errorString()
              << '\n';
        return nullptr;
    }
    QByteArray list = qgetenv(QComPort::extraPortsVariable);
    if (!list.isEmpty())
        list.append(':');
    list.append((chip->devicePath() + QLatin1Char('=') + virtualSerial).toLocal8Bit());
    qputenv(QComPort::extraPortsVariable, list);
    return chip;
}

} // namespace

int main(int argc, char *argv[])
{
    QCoreApplication::setOrganizationName(QStringLiteral("ESP Utility"));
    QCoreApplication::setApplicationName(QStringLiteral("esp-utility-gui"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ESP_UTILITY_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Flashes ESP8266EX and ESP8285 boards over a serial port.\nThe exit code is the dialog's result: 1 when it was accepted (an upgrade succeeded), 0 otherwise."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption modeOption(
        QStringLiteral("mode"),
        QStringLiteral(
            "upgrade: identify the board, ask for a package, flash it and close; tool (default): the interactive tool."),
        QStringLiteral("upgrade|tool"), QStringLiteral("tool"));
    const QCommandLineOption serialOption(
        QStringLiteral("serial"),
        QStringLiteral(
            "Connect to the board whose USB serial number is SN (or preselect its port)."),
        QStringLiteral("SN"));
    const QCommandLineOption virtualOption(
        QStringLiteral("virtual"),
        QStringLiteral(
            "Start a virtual ESP8266 in this program, list it among the ports and preselect it."));
    const QCommandLineOption fastOption(
        QStringLiteral("virtual-fast"),
        QStringLiteral("With --virtual: no line-rate throttling (as fast as the computer goes)."));
    const QCommandLineOption langOption(
        QStringLiteral("lang"),
        QStringLiteral("Language of the texts: ru or en (default: the system locale)."),
        QStringLiteral("ru|en"));
    parser.addOptions({modeOption, serialOption, virtualOption, fastOption, langOption});
    // Parsed before the application object exists, so that --help works without a display.
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QString::fromLocal8Bit(argv[i]);
    if (!parser.parse(arguments)) {
        err() << "esp-utility-gui: " << parser.errorText() << '\n';
        return 2;
    }
    if (parser.isSet(QStringLiteral("help"))) {
        const QCoreApplication helpOnly(argc, argv); // the help text needs the program's name
        QTextStream(stdout) << parser.helpText();
        return 0;
    }
    if (parser.isSet(QStringLiteral("version"))) {
        QTextStream(stdout) << "esp-utility-gui " << ESP_UTILITY_VERSION << '\n';
        return 0;
    }

    const QString mode = parser.value(modeOption);
    if (mode != QLatin1String("upgrade") && mode != QLatin1String("tool")) {
        err() << "esp-utility-gui: --mode must be upgrade or tool, not \"" << mode << "\"\n";
        return 2;
    }
    const QLocale locale =
        parser.isSet(langOption) ? QLocale(parser.value(langOption)) : QLocale::system();
    if (parser.isSet(langOption) && parser.value(langOption) != QLatin1String("ru") &&
        parser.value(langOption) != QLatin1String("en")) {
        err() << "esp-utility-gui: --lang must be ru or en\n";
        return 2;
    }

    QApplication app(argc, argv);
    installEspUtilityTranslation(locale);

    std::unique_ptr<VirtualBoard> chip;
    if (parser.isSet(virtualOption)) {
        chip = startVirtualChip(parser.isSet(fastOption));
        if (!chip)
            return 2;
    }

    ESPFlasher flasher(mode == QLatin1String("upgrade") ? ESPFlasher::RUN_MODE_UPGRADE
                                                        : ESPFlasher::RUN_MODE_STANDALONE);
    const QString serial = parser.value(serialOption);
    if (!serial.isEmpty()) {
        if (!flasher.autoconnect(serial))
            flasher.guess(serial);
    } else if (chip) {
        // The virtual chip is preselected; the upgrade mode goes ahead with it at once.
        if (mode == QLatin1String("tool") || !flasher.autoconnect(virtualSerial))
            flasher.guess(virtualSerial);
    }
    return flasher.exec();
}
