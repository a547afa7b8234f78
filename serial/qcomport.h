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
    QString name;
    QString serialNumber;
};

// The enumerated ports in enumeration order, then the extra paths that exist.
ESPUTILITY_CORE_EXPORT QVector<PortEntry> availablePortEntries();
// Their names.
ESPUTILITY_CORE_EXPORT QStringList availableComPorts();

// Maps a settings table to port settings; absent keys take their defaults and refused values
// fall back to them (values are compared as unsigned, so negative ones are refused).
ESPUTILITY_CORE_EXPORT Settings settingsFromHash(const QHash<QString, QVariant> &settings);

// Finds the port by its exact name, configures it from the table and opens it read-write.
// Returns false without touching the port when no port has that name.
ESPUTILITY_CORE_EXPORT bool setupComPortFromHash(const QString &portName,
                                            const QHash<QString, QVariant> &settings,
                                            QSerialPort &port);

} // namespace QComPort
