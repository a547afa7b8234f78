#include "espcommunicator.h"

#include "protocol/espprotocol.h"
#include "serial/modemlineregistry.h"
#include "serial/qcomport.h"

#include <QHash>
#include <QVariant>

ESPCommunicator::ESPCommunicator(QObject *parent) : QObject(parent), port(this)
{
    connect(&port, &QSerialPort::errorOccurred, this, &ESPCommunicator::error);
    connect(&port, &QSerialPort::errorOccurred, this, &ESPCommunicator::port_errorOccurred);
    connect(&port, &QSerialPort::aboutToClose, this, &ESPCommunicator::port_aboutToClose);
    connect(&port, &QSerialPort::readyRead, this, &ESPCommunicator::port_readyRead);
}

void ESPCommunicator::setHandler(ESPProtocol *newHandler)
{
    handler = newHandler;
    if (handler)
        handler->flush(true);
}

bool ESPCommunicator::open(const QString &portName, unsigned int baud)
{
    QHash<QString, QVariant> settings;
    settings.insert(QStringLiteral("COM/Baud"), baud);
    // A port that cannot be found or opened must not report errors or a disconnect.
    const bool wasBlocked = port.blockSignals(true);
    port.clearError();
    const bool opened = QComPort::setupComPortFromHash(portName, settings, port);
    if (opened) {
        port.flush();
        openedName = portName;
        lastOpenFailure = QComPort::OpenFailure::None;
        lastOpenFailureText.clear();
    } else {
        // Never found: nothing was opened, so there is no device to look at.
        lastOpenFailure = port.error() == QSerialPort::NoError
                              ? QComPort::OpenFailure::NotFound
                              : QComPort::diagnoseOpenFailure(portName, port.error());
        lastOpenFailureText =
            QComPort::openFailureText(lastOpenFailure, portName, port.errorString());
    }
    port.blockSignals(wasBlocked);
    return opened;
}

bool ESPCommunicator::setModemLines(bool dtrAsserted, bool rtsAsserted)
{
    if (!port.isOpen())
        return false;
    if (const ModemLineRegistry::Setter setter = ModemLineRegistry::find(openedName)) {
        setter(dtrAsserted, rtsAsserted);
        return true;
    }
    // A pseudo-terminal refuses the request; that is no port error worth a signal.
    const bool wasBlocked = port.blockSignals(true);
    const bool set = port.setDataTerminalReady(dtrAsserted) && port.setRequestToSend(rtsAsserted);
    if (!set)
        port.clearError();
    port.blockSignals(wasBlocked);
    return set;
}

void ESPCommunicator::close()
{
    const bool wasBlocked = port.blockSignals(true);
    port.close();
    port.blockSignals(wasBlocked);
}

bool ESPCommunicator::write(const QByteArray &packet)
{
    if (!port.isOpen())
        return false;
    const QByteArray frame = ESPProtocol::encode(packet);
    if (port.write(frame) < frame.size())
        return false;
    return port.flush();
}

QString ESPCommunicator::dumpInfo() const
{
    if (!port.isOpen())
        return QStringLiteral("NaN (not opended)");
    return QStringLiteral("%1 @%2")
        .arg(port.portName())
        .arg(port.baudRate(QSerialPort::AllDirections));
}

bool ESPCommunicator::setBaudrate(unsigned int baud)
{
    return port.setBaudRate(static_cast<qint32>(baud), QSerialPort::AllDirections);
}

unsigned int ESPCommunicator::baudrate() const
{
    return static_cast<unsigned int>(port.baudRate(QSerialPort::AllDirections));
}

void ESPCommunicator::port_aboutToClose()
{
    emit disconnected(port.errorString());
}

void ESPCommunicator::port_readyRead()
{
    if (handler)
        handler->feed(port.readAll());
}

void ESPCommunicator::port_errorOccurred(QSerialPort::SerialPortError portError)
{
    // The port does not close itself when the device goes away: a removed adapter reports a
    // resource error once, a pseudo-terminal whose far end closed reports read errors in a tight
    // loop. Close it here, with signals live, so that the disconnect is reported once and a
    // pending wait ends at once.
    if (portError != QSerialPort::ResourceError && portError != QSerialPort::ReadError)
        return;
    if (closingOnError || !port.isOpen())
        return;
    // Closing may report further errors (the device is gone); they must not close again.
    closingOnError = true;
    port.close();
    closingOnError = false;
}
