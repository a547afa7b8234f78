#include "ptypair.h"
#include "serial/espcommunicator.h"
#include "serial/modemlineregistry.h"
#include "serial/qcomport.h"

#include <QSerialPort>
#include <QtTest>

#include <cerrno>

using Settings = QHash<QString, QVariant>;

class TestQComPort : public QObject
{
    Q_OBJECT

private slots:
    void mapping_data()
    {
        QTest::addColumn<Settings>("settings");
        QTest::addColumn<QList<int>>("expected"); // baud, parity, bits, flow, stop
        const QList<int> defaults{115200, 0, 8, 0, 1};
        const Settings all{{"COM/Baud", 74880},
                           {"COM/Parity", 5},
                           {"COM/Bits", 5},
                           {"COM/FlowCtrl", 2},
                           {"COM/StopBits", 3}};
        const Settings negative{
            {"COM/Parity", -2}, {"COM/Bits", -8}, {"COM/FlowCtrl", -1}, {"COM/StopBits", -1}};
        QTest::newRow("defaults") << Settings{} << defaults;
        QTest::newRow("all accepted") << all << QList<int>{74880, 5, 5, 2, 3};
        QTest::newRow("parity 1 refused") << Settings{{"COM/Parity", 1}} << defaults;
        QTest::newRow("bits 9 refused") << Settings{{"COM/Bits", 9}} << defaults;
        QTest::newRow("negative values refused") << negative << defaults;
    }

    void mapping()
    {
        QFETCH(Settings, settings);
        const QComPort::Settings s = QComPort::settingsFromHash(settings);
        QTEST((QList<int>{int(s.baudRate), int(s.parity), int(s.dataBits), int(s.flowControl),
                          int(s.stopBits)}),
              "expected");
    }

    // A board whose terminal went away removes its reset lines by its registration, so a new
    // board that got the same name keeps its own.
    void modemLinesStayWithTheNewOwnerOfAName()
    {
        const QString path = QStringLiteral("/dev/esp-utility-test-no-such-port");
        QString reached;
        const quint64 first =
            ModemLineRegistry::add(path, [&](bool, bool) { reached = QStringLiteral("first"); });
        const quint64 second =
            ModemLineRegistry::add(path, [&](bool, bool) { reached = QStringLiteral("second"); });
        QVERIFY(first != 0 && second != first);
        ModemLineRegistry::remove(path, first);
        const ModemLineRegistry::Setter setter = ModemLineRegistry::find(path);
        QVERIFY(setter);
        setter(true, false);
        QCOMPARE(reached, QStringLiteral("second"));
        ModemLineRegistry::remove(path, second);
        QVERIFY(!ModemLineRegistry::find(path));
    }

    void opensPseudoTerminalWithSettings()
    {
        PtyPair pty;
        pty.publish();
        QSerialPort port;
        // Port names are matched exactly, case included; a port not found is left untouched.
        QVERIFY(!QComPort::setupComPortFromHash(pty.slavePath().toUpper(), Settings{}, port));
        QVERIFY(!port.isOpen() && port.portName().isEmpty());
        const Settings settings{
            {"COM/Baud", 9600}, {"COM/Parity", 2}, {"COM/Bits", 7}, {"COM/StopBits", 2}};
        QVERIFY(QComPort::setupComPortFromHash(pty.slavePath(), settings, port));
        QCOMPARE(port.openMode(), QIODevice::ReadWrite);
        QCOMPARE(port.baudRate(QSerialPort::Input), 9600);
        QCOMPARE(port.parity(), QSerialPort::EvenParity);
        QCOMPARE(port.dataBits(), QSerialPort::Data7);
        QCOMPARE(port.stopBits(), QSerialPort::TwoStop);
    }

    void openFailureReasons_data()
    {
        QTest::addColumn<int>("error");
        QTest::addColumn<QString>("text"); // for /dev/ttyUSB0
        const QString start = "Cannot open /dev/ttyUSB0: ";
        QTest::newRow("EACCES") << EACCES
                                << start + "permission denied (add your user to the dialout "
                                           "group and log in again)";
        QTest::newRow("EPERM") << EPERM
                               << start + "permission denied (add your user to the dialout "
                                          "group and log in again)";
        QTest::newRow("EBUSY") << EBUSY << start + "the port is busy (another program has it open)";
        QTest::newRow("ENOENT") << ENOENT << start + "no such port (is the board plugged in?)";
        QTest::newRow("ENXIO") << ENXIO << start + "no such port (is the board plugged in?)";
        QTest::newRow("ENOTTY") << ENOTTY << start + "not a serial device";
        QTest::newRow("EIO") << EIO << start + "Input/output error";
    }

    void openFailureReasons()
    {
        QFETCH(int, error);
        const QComPort::OpenFailure failure = QComPort::openFailureFromErrno(error);
        QTEST(QComPort::openFailureText(failure, "/dev/ttyUSB0", "Input/output error"), "text");
    }

    // Not found and not a serial device are shown on real paths by the dialog's connect tests;
    // root may open any device, so permission cannot be shown at all.
    void busyPort()
    {
        PtyPair pty;
        qputenv(QComPort::extraPortsVariable, pty.slavePath().toLocal8Bit());
        ESPCommunicator first, second;
        QSignalSpy errors(&second, &ESPCommunicator::error);
        QSignalSpy closes(&second, &ESPCommunicator::disconnected);
        QVERIFY(first.open(pty.slavePath(), 115200));
        QVERIFY(!second.open(pty.slavePath(), 115200));
        QCOMPARE(second.openFailure(), QComPort::OpenFailure::Busy);
        QCOMPARE(second.openFailureText(), "Cannot open " + pty.slavePath() +
                                               ": the port is busy (another program has it open)");
        // A port that never opened says nothing else.
        QCOMPARE(errors.count(), 0);
        QCOMPARE(closes.count(), 0);
        qunsetenv(QComPort::extraPortsVariable);
    }
};

QTEST_GUILESS_MAIN(TestQComPort)
#include "tst_qcomport.moc"
