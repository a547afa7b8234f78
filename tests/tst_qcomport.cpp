#include "ptypair.h"
#include "serial/qcomport.h"

#include <QSerialPort>
#include <QtTest>

using Settings = QHash<QString, QVariant>;

class TestQComPort : public QObject
{
    Q_OBJECT

private slots:
    void mapping_data();
    void mapping();
    void opensPseudoTerminalWithSettings_data();
    void opensPseudoTerminalWithSettings();
    void unknownPortLeavesPortUntouched_data();
    void unknownPortLeavesPortUntouched();
    void extraPortsListedOnlyWhenPresent();
    void extraPortsCarrySerialNumbers();
};

void TestQComPort::mapping_data()
{
    QTest::addColumn<Settings>("settings");
    QTest::addColumn<int>("baud");
    QTest::addColumn<int>("parity");
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("flow");
    QTest::addColumn<int>("stop");

    QTest::newRow("defaults") << Settings{} << 115200 << 0 << 8 << 0 << 1;
    QTest::newRow("all accepted") << Settings{{"COM/Baud", 9600},
                                              {"COM/Parity", 3},
                                              {"COM/Bits", 7},
                                              {"COM/FlowCtrl", 1},
                                              {"COM/StopBits", 2}}
                                  << 9600 << 3 << 7 << 1 << 2;
    QTest::newRow("parity 1 refused") << Settings{{"COM/Parity", 1}} << 115200 << 0 << 8 << 0 << 1;
    QTest::newRow("parity 7 refused") << Settings{{"COM/Parity", 7}} << 115200 << 0 << 8 << 0 << 1;
    QTest::newRow("parity mark") << Settings{{"COM/Parity", 5}} << 115200 << 5 << 8 << 0 << 1;
    QTest::newRow("bits 4 refused") << Settings{{"COM/Bits", 4}} << 115200 << 0 << 8 << 0 << 1;
    QTest::newRow("bits 9 refused") << Settings{{"COM/Bits", 9}} << 115200 << 0 << 8 << 0 << 1;
    QTest::newRow("bits 5") << Settings{{"COM/Bits", 5}} << 115200 << 0 << 5 << 0 << 1;
    QTest::newRow("flow 3 refused") << Settings{{"COM/FlowCtrl", 3}} << 115200 << 0 << 8 << 0 << 1;
    QTest::newRow("software flow") << Settings{{"COM/FlowCtrl", 2}} << 115200 << 0 << 8 << 2 << 1;
    QTest::newRow("stop 0 refused") << Settings{{"COM/StopBits", 0}} << 115200 << 0 << 8 << 0 << 1;
    QTest::newRow("stop one and a half")
        << Settings{{"COM/StopBits", 3}} << 115200 << 0 << 8 << 0 << 3;
    QTest::newRow("negative values refused") << Settings{{"COM/Parity", -2},
                                                         {"COM/Bits", -8},
                                                         {"COM/FlowCtrl", -1},
                                                         {"COM/StopBits", -1}}
                                             << 115200 << 0 << 8 << 0 << 1;
    QTest::newRow("baud used unchanged")
        << Settings{{"COM/Baud", 74880}} << 74880 << 0 << 8 << 0 << 1;
}

void TestQComPort::mapping()
{
    QFETCH(Settings, settings);
    const QComPort::Settings s = QComPort::settingsFromHash(settings);
    QTEST(int(s.baudRate), "baud");
    QTEST(int(s.parity), "parity");
    QTEST(int(s.dataBits), "bits");
    QTEST(int(s.flowControl), "flow");
    QTEST(int(s.stopBits), "stop");
}

void TestQComPort::opensPseudoTerminalWithSettings_data()
{
    QTest::addColumn<Settings>("settings");
    QTest::addColumn<int>("baud");
    QTest::addColumn<int>("parity");
    QTest::addColumn<int>("bits");
    QTest::addColumn<int>("stop");

    QTest::newRow("empty table") << Settings{} << 115200 << 0 << 8 << 1;
    QTest::newRow("7E2 at 9600") << Settings{{"COM/Baud", 9600},
                                             {"COM/Parity", 2},
                                             {"COM/Bits", 7},
                                             {"COM/StopBits", 2}}
                                 << 9600 << 2 << 7 << 2;
    QTest::newRow("refused values")
        << Settings{{"COM/Parity", 1}, {"COM/Bits", 9}} << 115200 << 0 << 8 << 1;
}

void TestQComPort::opensPseudoTerminalWithSettings()
{
    QFETCH(Settings, settings);
    PtyPair pty;
    QVERIFY(pty.isValid());
    pty.publish();

    QSerialPort port;
    QVERIFY(QComPort::setupComPortFromHash(pty.slavePath(), settings, port));
    QVERIFY(port.isOpen());
    QCOMPARE(port.openMode(), QIODevice::ReadWrite);
    QTEST(int(port.baudRate(QSerialPort::Input)), "baud");
    QTEST(int(port.baudRate(QSerialPort::Output)), "baud");
    QTEST(int(port.parity()), "parity");
    QTEST(int(port.dataBits()), "bits");
    QTEST(int(port.stopBits()), "stop");
    QCOMPARE(port.flowControl(), QSerialPort::NoFlowControl);

    // The port really carries bytes.
    QCOMPARE(port.write("ping"), 4);
    QVERIFY(port.waitForBytesWritten(1000));
    QCOMPARE(pty.readMaster(1000, 4), QByteArray("ping"));
}

void TestQComPort::unknownPortLeavesPortUntouched_data()
{
    QTest::addColumn<bool>("upperCase");
    QTest::newRow("absent name") << false;
    QTest::newRow("differs only in case") << true;
}

void TestQComPort::unknownPortLeavesPortUntouched()
{
    QFETCH(bool, upperCase);
    PtyPair pty;
    QVERIFY(pty.isValid());
    pty.publish();
    const QString name =
        upperCase ? pty.slavePath().toUpper() : QStringLiteral("/dev/no-such-port");

    QSerialPort port;
    QVERIFY(!QComPort::setupComPortFromHash(name, Settings{}, port));
    QVERIFY(!port.isOpen());
    QVERIFY(port.portName().isEmpty());
}

void TestQComPort::extraPortsListedOnlyWhenPresent()
{
    PtyPair pty;
    QVERIFY(pty.isValid());
    const QByteArray saved = qgetenv(QComPort::extraPortsVariable);
    qputenv(QComPort::extraPortsVariable, QByteArray("/dev/does-not-exist:") +
                                              pty.slavePath().toLocal8Bit() + ':' +
                                              pty.slavePath().toLocal8Bit());
    const QStringList ports = QComPort::availableComPorts();
    qputenv(QComPort::extraPortsVariable, saved);

    QCOMPARE(ports.count(pty.slavePath()), 1);
    QVERIFY(!ports.contains(QStringLiteral("/dev/does-not-exist")));
    QCOMPARE(ports.last(), pty.slavePath());
}

void TestQComPort::extraPortsCarrySerialNumbers()
{
    PtyPair first;
    PtyPair second;
    QVERIFY(first.isValid() && second.isValid());
    const QByteArray saved = qgetenv(QComPort::extraPortsVariable);
    qputenv(QComPort::extraPortsVariable,
            first.slavePath().toLocal8Bit() + "=SN-1:" + second.slavePath().toLocal8Bit());
    const auto entries = QComPort::availablePortEntries();
    qputenv(QComPort::extraPortsVariable, saved);

    QCOMPARE(entries.size() >= 2, true);
    QCOMPARE(entries.at(entries.size() - 2).name, first.slavePath());
    QCOMPARE(entries.at(entries.size() - 2).serialNumber, QStringLiteral("SN-1"));
    QCOMPARE(entries.last().name, second.slavePath());
    QVERIFY(entries.last().serialNumber.isEmpty());

    // A port given with a serial number still opens by its path.
    qputenv(QComPort::extraPortsVariable, first.slavePath().toLocal8Bit() + "=SN-1");
    QSerialPort port;
    const bool opened = QComPort::setupComPortFromHash(first.slavePath(), Settings{}, port);
    qputenv(QComPort::extraPortsVariable, saved);
    QVERIFY(opened);
}

QTEST_GUILESS_MAIN(TestQComPort)
#include "tst_qcomport.moc"
