#include "qcomport.h"

#include <QFile>
#include <QFileInfo>
#include <QSerialPortInfo>

#include <algorithm>
#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
        entry.path = entry.name;
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
    for (const QSerialPortInfo &info : infos) {
        PortEntry entry;
        entry.name = info.portName();
        entry.serialNumber = info.serialNumber();
        entry.path = info.systemLocation();
        entry.description = info.description();
        entry.manufacturer = info.manufacturer();
        entry.vendorId = info.hasVendorIdentifier() ? info.vendorIdentifier() : 0;
        entry.productId = info.hasProductIdentifier() ? info.productIdentifier() : 0;
        entries.append(entry);
    }
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

QString canonicalPortPath(const QString &path)
{
    const QString resolved = QFileInfo(path).canonicalFilePath();
    return resolved.isEmpty() ? path : resolved;
}

QString resolvePortName(const QString &name)
{
    if (name.isEmpty())
        return QString();
    // A name without a leading slash may mean a device in /dev (ttyUSB0, pts/3); links
    // (by-id, by-path) name the device they point to.
    QStringList wanted{canonicalPortPath(name)};
    if (!name.startsWith(QLatin1Char('/')))
        wanted << canonicalPortPath(QStringLiteral("/dev/") + name);
    for (const PortEntry &entry : availablePortEntries()) {
        if (entry.name == name || entry.path == name ||
            wanted.contains(canonicalPortPath(entry.path)))
            return entry.path;
    }
    return QString();
}

OpenFailure openFailureFromErrno(int error)
{
    switch (error) {
    case 0:
        return OpenFailure::None;
    case ENOENT:
    case ENODEV:
    case ENXIO:
        return OpenFailure::NotFound;
    case EACCES:
    case EPERM:
        return OpenFailure::PermissionDenied;
    case EBUSY:
    case EAGAIN:
        return OpenFailure::Busy;
    case ENOTTY:
    case EISDIR:
        return OpenFailure::NotSerial;
    default:
        return OpenFailure::Other;
    }
}

OpenFailure diagnoseOpenFailure(const QString &path, QSerialPort::SerialPortError portError)
{
    const QByteArray native = QFile::encodeName(path);
    struct stat status = {};
    if (::stat(native.constData(), &status) != 0)
        return openFailureFromErrno(errno);
    if (!S_ISCHR(status.st_mode))
        return OpenFailure::NotSerial;
    const int fd = ::open(native.constData(), O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0)
        return openFailureFromErrno(errno);
    const bool terminal = ::isatty(fd) == 1;
    ::close(fd);
    if (!terminal)
        return OpenFailure::NotSerial;
    // The device opens, yet the port refused it: its lock is held by another program.
    if (portError == QSerialPort::PermissionError)
        return OpenFailure::Busy;
    return OpenFailure::Other;
}

QString openFailureText(OpenFailure failure, const QString &path, const QString &portErrorText)
{
    switch (failure) {
    case OpenFailure::NotFound:
        return QStringLiteral("Cannot open %1: no such port (is the board plugged in?)").arg(path);
    case OpenFailure::PermissionDenied:
        return QStringLiteral(
                   "Cannot open %1: permission denied (add your user to the dialout group and "
                   "log in again)")
            .arg(path);
    case OpenFailure::Busy:
        return QStringLiteral("Cannot open %1: the port is busy (another program has it open)")
            .arg(path);
    case OpenFailure::NotSerial:
        return QStringLiteral("Cannot open %1: not a serial device").arg(path);
    case OpenFailure::None:
    case OpenFailure::Other:
        break;
    }
    return QStringLiteral("Cannot open %1: %2")
        .arg(path, portErrorText.isEmpty() ? QStringLiteral("unknown error") : portErrorText);
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
        // A device path or a link to one (/dev/ttyUSB0, /dev/serial/by-id/...) names the same
        // port as its enumeration name.
        if (!found && portName.contains(QLatin1Char('/'))) {
            const QString wanted = canonicalPortPath(portName);
            for (const QSerialPortInfo &info : infos) {
                if (canonicalPortPath(info.systemLocation()) == wanted) {
                    port.setPort(info);
                    found = true;
                    break;
                }
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
