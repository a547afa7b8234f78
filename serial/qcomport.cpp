#include "qcomport.h"

#include <QFileInfo>
#include <QSerialPortInfo>

#include <algorithm>

namespace {

QVector<QComPort::PortEntry> extraPortEntries()
{
    QVector<QComPort::PortEntry> ports;
    const QString list = QString::fromLocal8Bit(qgetenv(QComPort::extraPortsVariable));
    for (const QString &item : list.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        const int separator = item.indexOf(QLatin1Char('='));
        QComPort::PortEntry entry;
        entry.name = separator < 0 ? item : item.left(separator);
        entry.serialNumber = separator < 0 ? QString() : item.mid(separator + 1);
        const bool listed = std::any_of(ports.cbegin(), ports.cend(), [&](const auto &known) {
            return known.name == entry.name;
        });
        if (QFileInfo::exists(entry.name) && !listed)
            ports.append(entry);
    }
    return ports;
}

bool isExtraPort(const QString &name)
{
    const auto extras = extraPortEntries();
    return std::any_of(extras.cbegin(), extras.cend(),
                       [&](const auto &entry) { return entry.name == name; });
}

uint valueOr(const QHash<QString, QVariant> &settings, const QString &key, uint fallback)
{
    const auto it = settings.constFind(key);
    return it == settings.constEnd() ? fallback : it->toUInt();
}

} // namespace

namespace QComPort {

QVector<PortEntry> availablePortEntries()
{
    QVector<PortEntry> entries;
    const auto infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &info : infos)
        entries.append({info.portName(), info.serialNumber()});
    for (const PortEntry &extra : extraPortEntries()) {
        const bool listed = std::any_of(entries.cbegin(), entries.cend(), [&](const auto &known) {
            return known.name == extra.name;
        });
        if (!listed)
            entries.append(extra);
    }
    return entries;
}

QStringList availableComPorts()
{
    QStringList names;
    for (const PortEntry &entry : availablePortEntries())
        names.append(entry.name);
    return names;
}

Settings settingsFromHash(const QHash<QString, QVariant> &settings)
{
    Settings result;
    result.baudRate = static_cast<qint32>(valueOr(settings, QStringLiteral("COM/Baud"), 115200));

    const uint parity = valueOr(settings, QStringLiteral("COM/Parity"), QSerialPort::NoParity);
    const bool parityAccepted =
        parity == QSerialPort::NoParity || parity == QSerialPort::EvenParity ||
        parity == QSerialPort::OddParity || parity == QSerialPort::SpaceParity ||
        parity == QSerialPort::MarkParity;
    result.parity =
        parityAccepted ? static_cast<QSerialPort::Parity>(parity) : QSerialPort::NoParity;

    const uint bits = valueOr(settings, QStringLiteral("COM/Bits"), QSerialPort::Data8);
    result.dataBits = bits >= QSerialPort::Data5 && bits <= QSerialPort::Data8
                          ? static_cast<QSerialPort::DataBits>(bits)
                          : QSerialPort::Data8;

    const uint flow = valueOr(settings, QStringLiteral("COM/FlowCtrl"), QSerialPort::NoFlowControl);
    result.flowControl = flow <= QSerialPort::SoftwareControl
                             ? static_cast<QSerialPort::FlowControl>(flow)
                             : QSerialPort::NoFlowControl;

    const uint stop = valueOr(settings, QStringLiteral("COM/StopBits"), QSerialPort::OneStop);
    result.stopBits = stop >= QSerialPort::OneStop && stop <= QSerialPort::OneAndHalfStop
                          ? static_cast<QSerialPort::StopBits>(stop)
                          : QSerialPort::OneStop;
    return result;
}

bool setupComPortFromHash(const QString &portName, const QHash<QString, QVariant> &settings,
                          QSerialPort &port)
{
    // Extra ports are unknown to the enumeration (a pseudo-terminal has no port info), so they
    // are opened by name, and looked up first: enumerating the system's ports costs milliseconds
    // on every connect.
    bool found = false;
    if (isExtraPort(portName)) {
        port.setPortName(portName);
        found = true;
    } else {
        const auto infos = QSerialPortInfo::availablePorts();
        for (const QSerialPortInfo &info : infos) {
            if (info.portName() == portName) {
                port.setPort(info);
                found = true;
                break;
            }
        }
    }
    if (!found)
        return false;

    const Settings s = settingsFromHash(settings);
    port.setBaudRate(s.baudRate, QSerialPort::Input);
    port.setBaudRate(s.baudRate, QSerialPort::Output);
    port.setParity(s.parity);
    port.setDataBits(s.dataBits);
    port.setFlowControl(s.flowControl);
    port.setStopBits(s.stopBits);
    return port.open(QIODevice::ReadWrite);
}

} // namespace QComPort
