#include "ptypair.h"
#include "serial/qcomport.h"

#include <QSerialPort>
#include <QtTest>

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
};

QTEST_GUILESS_MAIN(TestQComPort)
#include "tst_qcomport.moc"
