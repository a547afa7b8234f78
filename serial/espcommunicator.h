#pragma once

#include <esputility/esputility_core_global.h>

#include <QObject>
#include <QSerialPort>

#include <esputility/qcomport.h>

class ESPProtocol;

// Owns the serial line to the chip: opens it, writes SLIP frames, feeds received bytes to the
// SLIP decoder and reports port errors and an unexpected close.
class ESPUTILITY_CORE_EXPORT ESPCommunicator : public QObject
{
    Q_OBJECT

public:
    explicit ESPCommunicator(QObject *parent = nullptr);

    // Stores the decoder (not owned) and resets it.
    void setHandler(ESPProtocol *handler);
    bool open(const QString &portName, unsigned int baud);
    // Why the last open() failed, and the line that says so.
    QComPort::OpenFailure openFailure() const { return lastOpenFailure; }
    QString openFailureText() const { return lastOpenFailureText; }
    // Sets DTR and RTS (true = asserted): through the modem-line registry for a port that an
    // in-process chip registered, else on the port. False when the port has no modem lines.
    bool setModemLines(bool dtrAsserted, bool rtsAsserted);
    // A deliberate close never emits disconnected().
    void close();
    bool write(const QByteArray &packet);
    QString dumpInfo() const;
    bool setBaudrate(unsigned int baud);

    bool isOpen() const { return port.isOpen(); }
    unsigned int baudrate() const;
    QString errorString() const { return port.errorString(); }

signals:
    void error(QSerialPort::SerialPortError error);
    void disconnected(const QString &reason);

private slots:
    void port_aboutToClose();
    void port_readyRead();
    void port_errorOccurred(QSerialPort::SerialPortError error);

private:
    QSerialPort port;
    ESPProtocol *handler = nullptr;
    bool closingOnError = false;
    QString openedName;
    QComPort::OpenFailure lastOpenFailure = QComPort::OpenFailure::None;
    QString lastOpenFailureText;
};
