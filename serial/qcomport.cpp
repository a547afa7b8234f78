#include "qcomport.h"

#include <QFileInfo>
#include <QSerialPortInfo>

namespace {

QStringList extraPorts()
{
    QStringList ports;
    const QString list = QString::fromLocal8Bit(qgetenv(QComPort::extraPortsVariable));
    for (const QString &path : list.split(QLatin1Char(':'), Qt::SkipEmptyParts)) {
        if (QFileInfo::exists(path) && !ports.contains(path))
            ports.append(path);
    }
    return ports;
}

uint valueOr(const QHash<QString, QVariant> &settings, const QString &key, uint fallback)
{
    const auto it = settings.constFind(key);
    return it == settings.constEnd() ? fallback : it->toUInt();
}

} // namespace

namespace QComPort {

QStringList availableComPorts()
{
    QStringList names;
    const auto infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &info : infos)
        names.append(info.portName());
    for (const QString &path : extraPorts()) {
        if (!names.contains(path))
            names.append(path);
    }
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
    bool found = false;
    const auto infos = QSerialPortInfo::availablePorts();
    for (const QSerialPortInfo &info : infos) {
        if (info.portName() == portName) {
            port.setPort(info);
            found = true;
            break;
        }
    }
    // Extra ports are unknown to the enumeration (a pseudo-terminal has no port info), so they
    // are opened by name.
    if (!found && extraPorts().contains(portName)) {
        port.setPortName(portName);
        found = true;
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
