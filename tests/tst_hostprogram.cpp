#include "testpaths.h"

#include <QProcess>
#include <QTest>

// The host program's command line: what it accepts and refuses before the dialog opens.
class TestHostProgram : public QObject
{
    Q_OBJECT

private slots:
    void arguments_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("output");
        QTest::newRow("help") << QStringList{"--help"} << 0 << "--mode <upgrade|tool>";
        QTest::newRow("version") << QStringList{"--version"} << 0
                                 << "esp-utility-gui " ESP_UTILITY_VERSION;
        QTest::newRow("unknown mode")
            << QStringList{"--mode", "auto"} << 2 << "--mode must be upgrade or tool, not \"auto\"";
        QTest::newRow("unknown language")
            << QStringList{"--lang", "de"} << 2 << "--lang must be ru or en";
    }

    void arguments()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, output);
        QProcess process;
        process.start(testBuildDir() + QStringLiteral("/host/esp-utility-gui"), arguments);
        QVERIFY(process.waitForFinished(10000));
        QTEST(process.exitCode(), "exitCode");
        const QString all = QString::fromLocal8Bit(process.readAllStandardOutput() +
                                                   process.readAllStandardError());
        QVERIFY2(all.contains(output), qPrintable(all));
    }
};

QTEST_GUILESS_MAIN(TestHostProgram)
#include "tst_hostprogram.moc"
