#include "serial/qcomport.h"

#include <QCoreApplication>
#include <QTextStream>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("esp-utility"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ESP_UTILITY_VERSION));

    QTextStream out(stdout);
    const QStringList args = QCoreApplication::arguments().mid(1);
    if (args.value(0) == QLatin1String("--version")) {
        out << "ESP Utility " << ESP_UTILITY_VERSION << '\n';
        return 0;
    }
    if (args.value(0) == QLatin1String("ports")) {
        const QStringList ports = QComPort::availableComPorts();
        if (ports.isEmpty())
            out << "No serial ports found\n";
        for (const QString &port : ports)
            out << port << '\n';
        return 0;
    }
    QTextStream(stderr) << "usage: esp-utility --version | ports\n";
    return 2;
}
