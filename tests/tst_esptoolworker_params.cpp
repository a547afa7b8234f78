#include "worker/esptoolworker.h"

#include <QBuffer>
#include <QSignalSpy>
#include <QtTest>

// Parameter checks of every worker command: each refusal gives its exact message and one
// finished(false) without touching the (unconnected) protocol client.
class TestEspToolWorkerParams : public QObject
{
    Q_OBJECT

private slots:
    void refusedParameters_data();
    void refusedParameters();
    void operationNames_data();
    void operationNames();
    void fileDescriptionStrings();
};

void TestEspToolWorkerParams::refusedParameters_data()
{
    QTest::addColumn<int>("cmd");
    QTest::addColumn<QVariantList>("params");
    QTest::addColumn<QString>("message");

    const QString connectMsg = "Invalid command: provide a port name for the 'connect' cmd";
    const QString stubMsg = "Invalid command: provide a stub file for the 'load_stub' cmd";
    const QString fwMsg = "Invalid command: provide a file, an integer address, and flash memory "
                          "size/mode/frequency for the 'write_fw' cmd";
    const QString dataMsg = "Invalid command: provide a file, an integer address, and flash "
                            "memory size for the 'write_data' cmd";
    const QString readMsg =
        "Invalid command: provide a file, an integer address and size for the 'read_data' cmd";
    const QString eraseMsg = "Invalid command: provide an address and size, or make a 911 call.";
    const QString md5Msg = "Invalid command: provide an address and size";
    const QVariant notANumber = QVariantMap{{"a", 1}};

    QTest::newRow("connect without port") << 0 << QVariantList{} << connectMsg;
    QTest::newRow("connect with two ports") << 0 << QVariantList{"a", "b"} << connectMsg;
    QTest::newRow("load stub without file") << 2 << QVariantList{} << stubMsg;
    QTest::newRow("load stub with two files") << 2 << QVariantList{"a", "b"} << stubMsg;
    QTest::newRow("write firmware, four items")
        << 4 << QVariantList{"f", 0u, "4MB", "dio"} << fwMsg;
    QTest::newRow("write firmware, address not a number")
        << 4 << QVariantList{"f", notANumber, "4MB", "dio", "40m"} << fwMsg;
    QTest::newRow("write data, two items") << 5 << QVariantList{"f", 0u} << dataMsg;
    QTest::newRow("write data, address not a number")
        << 5 << QVariantList{"f", notANumber, "4MB"} << dataMsg;
    QTest::newRow("read data, two items") << 6 << QVariantList{"f", 0u} << readMsg;
    QTest::newRow("read data, size not a number")
        << 6 << QVariantList{"f", 0u, notANumber} << readMsg;
    QTest::newRow("read data, path not text") << 6 << QVariantList{notANumber, 0u, 16u} << readMsg;
    QTest::newRow("erase, nothing") << 7 << QVariantList{} << eraseMsg;
    QTest::newRow("erase, 0x910 is not the magic") << 7 << QVariantList{0x910u} << eraseMsg;
    QTest::newRow("erase, three items") << 7 << QVariantList{0u, 1u, 2u} << eraseMsg;
    QTest::newRow("erase, size not a number") << 7 << QVariantList{0u, notANumber} << eraseMsg;
    QTest::newRow("md5, one item") << 8 << QVariantList{0u} << md5Msg;
    QTest::newRow("md5, address not a number") << 8 << QVariantList{notANumber, 16u} << md5Msg;
    QTest::newRow("unknown 9") << 9 << QVariantList{} << "Unknown command code 9";
    QTest::newRow("unknown -1") << -1 << QVariantList{1u} << "Unknown command code -1";
}

void TestEspToolWorkerParams::refusedParameters()
{
    QFETCH(int, cmd);
    QFETCH(QVariantList, params);
    QFETCH(QString, message);

    ESPToolWorker worker;
    QSignalSpy errors(&worker, &ESPToolWorker::error);
    QSignalSpy finished(&worker, &ESPToolWorker::finished);
    worker.execute(cmd, params);

    QCOMPARE(errors.count(), 1);
    QCOMPARE(errors.first().first().toString(), message);
    QCOMPARE(finished.count(), 1);
    QCOMPARE(finished.first().at(0).toBool(), false);
    QCOMPARE(finished.first().at(1).toInt(), cmd);
    QVERIFY(finished.first().at(2).toList().isEmpty());
}

void TestEspToolWorkerParams::operationNames_data()
{
    QTest::addColumn<int>("cmd");
    QTest::addColumn<QString>("name");
    const char *names[] = {"connect",    "disconnect", "load stub",   "get info", "write firmware",
                           "write data", "read data",  "erase flash", "flash md5"};
    for (int i = 0; i < 9; ++i)
        QTest::addRow("%d", i) << i << names[i];
    QTest::newRow("9") << 9 << "unknown";
    QTest::newRow("-1") << -1 << "unknown";
}

void TestEspToolWorkerParams::operationNames()
{
    QFETCH(int, cmd);
    QFETCH(QString, name);
    QCOMPARE(ESPToolWorker::operationName(cmd), name);
}

void TestEspToolWorkerParams::fileDescriptionStrings()
{
    QBuffer buffer;
    const IODeviceDescriptor descriptor{&buffer, QStringLiteral("image.bin")};
    QCOMPARE(gFileDescrString(QVariant::fromValue(descriptor)), QStringLiteral("image.bin"));
    QCOMPARE(gFileDescrString(QStringLiteral("/tmp/a.bin")), QStringLiteral("/tmp/a.bin"));
    QVERIFY(QMetaType::type("IODeviceDescriptor") != QMetaType::UnknownType);
}

QTEST_GUILESS_MAIN(TestEspToolWorkerParams)
#include "tst_esptoolworker_params.moc"
