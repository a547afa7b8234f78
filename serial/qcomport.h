#pragma once

#include <esputility/esputility_core_global.h>

#include <QHash>
#include <QSerialPort>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QVector>

// Serial port discovery and set-up from a settings table whose keys are "COM/Baud",
// "COM/Parity", "COM/Bits", "COM/FlowCtrl" and "COM/StopBits".
namespace QComPort {

// Port settings after defaults and refusals were applied to a settings table.
struct Settings
{
    qint32 baudRate = 115200;
    QSerialPort::Parity parity = QSerialPort::NoParity;
    QSerialPort::DataBits dataBits = QSerialPort::Data8;
    QSerialPort::FlowControl flowControl = QSerialPort::NoFlowControl;
    QSerialPort::StopBits stopBits = QSerialPort::OneStop;
};

// Environment variable naming extra device paths (':'-separated) that the system enumeration
// does not list: pseudo-terminals (the virtual chip) and /dev/serial/by-id links. An entry may
// carry a USB serial number for the port as "path=SERIAL".
constexpr const char *extraPortsVariable = "ESP_UTILITY_EXTRA_PORTS";

struct PortEntry
{
    QString name; // as the enumeration names it (ttyUSB0), or the extra path
    QString serialNumber;
    QString path; // the device path (/dev/ttyUSB0)
    QString description;
    QString manufacturer;
    quint16 vendorId = 0; // 0 when unknown
    quint16 productId = 0;

    // "10c4:ea60", or empty when the adapter gave no identifiers.
    QString vendorProduct() const
    {
        if (vendorId == 0 && productId == 0)
            return QString();
        return QStringLiteral("%1:%2")
            .arg(vendorId, 4, 16, QLatin1Char('0'))
            .arg(productId, 4, 16, QLatin1Char('0'));
    }
};

// Why a port could not be opened.
enum class OpenFailure {
    None,
    NotFound,         // no such device
    PermissionDenied, // the user may not open it
    Busy,             // another program has it open
    NotSerial,        // the path is not a serial device
    Other             // anything else: the port's own error text tells
};

// The enumerated ports in enumeration order, then the extra paths that exist.
ESPUTILITY_CORE_EXPORT QVector<PortEntry> availablePortEntries();
// Their names.
ESPUTILITY_CORE_EXPORT QStringList availableComPorts();

// `path` with symbolic links resolved, or as it is when it does not exist: two names of one
// device compare equal.
ESPUTILITY_CORE_EXPORT QString canonicalPortPath(const QString &path);

// The device path that `name` stands for: /dev/ttyUSB0 for ttyUSB0, /dev/ttyUSB0 or an extra
// path as it is, a symbolic link (/dev/serial/by-id/...) resolved; compared with the
// enumerated ports and the extra paths. Empty when no listed port matches.
ESPUTILITY_CORE_EXPORT QString resolvePortName(const QString &name);

// The reason for an errno value met while opening a device.
ESPUTILITY_CORE_EXPORT OpenFailure openFailureFromErrno(int error);
// Looks at the device itself after QSerialPort failed to open it with `portError`.
ESPUTILITY_CORE_EXPORT OpenFailure diagnoseOpenFailure(const QString &path,
                                                       QSerialPort::SerialPortError portError);
// One line for the user: "Cannot open PATH: ..." (portErrorText is used for Other).
ESPUTILITY_CORE_EXPORT QString openFailureText(OpenFailure failure, const QString &path,
                                               const QString &portErrorText = QString());

// Maps a settings table to port settings; absent keys take their defaults and refused values
// fall back to them (values are compared as unsigned, so negative ones are refused).
ESPUTILITY_CORE_EXPORT Settings settingsFromHash(const QHash<QString, QVariant> &settings);

// Finds the port by its exact name, configures it from the table and opens it read-write.
// Returns false without touching the port when no port has that name.
ESPUTILITY_CORE_EXPORT bool setupComPortFromHash(const QString &portName,
                                                 const QHash<QString, QVariant> &settings,
                                                 QSerialPort &port);

} // namespace QComPort
