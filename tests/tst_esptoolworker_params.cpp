#include "worker/esptoolworker.h"

#include <QBuffer>
#include <QSignalSpy>
#include <QtTest>

// Parameter checks of the worker commands: each refusal gives its exact message and one
// finished(false) without touching the (unconnected) protocol client.
class TestEspToolWorkerParams : public QObject
{
    Q_OBJECT

private slots:
    void refusedParameters_data()
    {
        QTest::addColumn<int>("cmd");
        QTest::addColumn<QVariantList>("params");
        QTest::addColumn<QString>("message");
        const QString fw = "Invalid command: provide a file, an integer address, and flash memory "
                           "size/mode/frequency for the 'write_fw' cmd";
        const QString read = "Invalid command: provide a file, an integer address and size for "
                             "the 'read_data' cmd";
        const QString erase = "Invalid command: provide an address and size, or make a 911 call.";
        const QVariant notANumber = QVariantMap{{"a", 1}};
        QTest::newRow("connect with two ports")
            << 0 << QVariantList{"a", "b"}
            << "Invalid command: provide a port name for the 'connect' cmd";
        QTest::newRow("load stub without file")
            << 2 << QVariantList{}
            << "Invalid command: provide a stub file for the 'load_stub' cmd";
        QTest::newRow("write firmware, four items")
            << 4 << QVariantList{"f", 0u, "4MB", "dio"} << fw;
        QTest::newRow("write firmware, address not a number")
            << 4 << QVariantList{"f", notANumber, "4MB", "dio", "40m"} << fw;
        QTest::newRow("write data, two items")
            << 5 << QVariantList{"f", 0u}
            << "Invalid command: provide a file, an integer address, and flash memory size for "
               "the 'write_data' cmd";
        QTest::newRow("read data, size not a number")
            << 6 << QVariantList{"f", 0u, notANumber} << read;
        QTest::newRow("read data, path not text") << 6 << QVariantList{notANumber, 0u, 16u} << read;
        QTest::newRow("erase, 0x910 is not the magic") << 7 << QVariantList{0x910u} << erase;
        QTest::newRow("erase, three items") << 7 << QVariantList{0u, 1u, 2u} << erase;
        QTest::newRow("md5, address not a number")
            << 8 << QVariantList{notANumber, 16u} << "Invalid command: provide an address and size";
        QTest::newRow("unknown -1") << -1 << QVariantList{1u} << "Unknown command code -1";
    }

    void refusedParameters()
    {
        QFETCH(int, cmd);
        QFETCH(QVariantList, params);
        ESPToolWorker worker;
        QSignalSpy errors(&worker, &ESPToolWorker::error);
        QSignalSpy finished(&worker, &ESPToolWorker::finished);
        worker.execute(cmd, params);
        QCOMPARE(errors.count(), 1);
        QTEST(errors.first().first().toString(), "message");
        QCOMPARE(finished.count(), 1);
        QCOMPARE(finished.first(), (QList<QVariant>{false, cmd, QVariantList()}));
    }

    void namesInMessages()
    {
        QStringList names;
        for (int cmd = -1; cmd <= 9; ++cmd)
            names << ESPToolWorker::operationName(cmd);
        QCOMPARE(names, (QStringList{"unknown", "connect", "disconnect", "load stub", "get info",
                                     "write firmware", "write data", "read data", "erase flash",
                                     "flash md5", "unknown"}));
        QBuffer buffer;
        const IODeviceDescriptor descriptor{&buffer, QStringLiteral("pkg:image.bin")};
        QCOMPARE(gFileDescrString(QVariant::fromValue(descriptor)),
                 QStringLiteral("pkg:image.bin"));
        QCOMPARE(gFileDescrString(QStringLiteral("/tmp/a.bin")), QStringLiteral("/tmp/a.bin"));
    }
};

QTEST_GUILESS_MAIN(TestEspToolWorkerParams)
#include "tst_esptoolworker_params.moc"
