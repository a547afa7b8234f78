#include "chipfixture.h"
#include "cliprocess.h"
#include "scattertestfiles.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

// Bad arguments and unreadable files: exit status 2, one line on stderr that says what is
// wrong, nothing on stdout, and no board touched.
class TestCliArguments : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString m_scatter;
    QString m_corrupt;
    QString m_notJson;
    QString m_badZip;
    ChipFixture m_chip;

    QString path(const QString &name) const { return QDir(m_dir.path()).absoluteFilePath(name); }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(m_chip.start());
        const QDir dir(m_dir.path());
        const QByteArray app = patternBytes(0x400, 1);
        writeTestFile(dir, "app.bin", app);
        QVERIFY(QFile::copy(generatedStubPath(), path("loader.elf")));
        const auto document = [&](const QString &md5) {
            const QJsonObject section{
                {"type", "application"}, {"address", "0x10000"}, {"file", "app.bin"}, {"md5", md5}};
            return QJsonDocument(QJsonObject{{"chip", "ESP8266EX"},
                                             {"stub", "loader.elf"},
                                             {"sections", QJsonArray{section}}})
                .toJson();
        };
        m_scatter = writeTestFile(dir, "scatter.txt", document(md5Hex(app)));
        m_corrupt = writeTestFile(dir, "corrupt.txt", document(md5Hex("other bytes")));
        m_notJson = writeTestFile(dir, "notjson.txt", "[1, 2");
        m_badZip = writeTestFile(dir, "broken.zip", "PK but no archive");
    }

    void refused_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QString>("message");
        const QString stub = generatedStubPath();
        const QString port = m_chip.port();

        QTest::newRow("no command") << QStringList{} << "no command given";
        QTest::newRow("unknown command")
            << QStringList{"frobnicate"} << "unknown command frobnicate";
        QTest::newRow("unknown option")
            << QStringList{"info", "--bogus"} << "unknown option --bogus";
        QTest::newRow("missing value") << QStringList{"info", "--port"} << "--port needs a value";
        QTest::newRow("flag with value")
            << QStringList{"info", "--yes=1"} << "--yes takes no value";
        QTest::newRow("baud") << QStringList{"info", "--baud", "921600"}
                              << "--baud is not supported";
        QTest::newRow("virtual zero") << QStringList{"info", "--virtual=0"} << "--virtual takes";
        QTest::newRow("no board") << QStringList{"info"}
                                  << "no board: pass --port PATH or --virtual";
        QTest::newRow("unknown port") << QStringList{"info", "--port", "/dev/no-such-port"}
                                      << "no serial port /dev/no-such-port";
        QTest::newRow("port twice")
            << QStringList{"info", "--port", port, "--port", port} << "is given twice";
        QTest::newRow("flash without file")
            << QStringList{"flash", "--port", port} << "usage: esp-utility flash";
        QTest::newRow("missing scatter")
            << QStringList{"flash", path("none.txt"), "--port", port} << "could not be read";
        QTest::newRow("not json") << QStringList{"flash", m_notJson, "--port", port}
                                  << "is not a valid scatter file";
        QTest::newRow("broken package")
            << QStringList{"flash", m_badZip, "--port", port} << "is invalid and cannot be opened";
        QTest::newRow("corrupt data") << QStringList{"verify", m_corrupt, "--port", port}
                                      << "The data within the package is corrupted";
        QTest::newRow("bad only") << QStringList{"flash", m_scatter, "--only",
                                                 "boot",  "--port",  port}
                                  << "--only takes firmware or application";
        QTest::newRow("no such kind")
            << QStringList{"flash", m_scatter, "--only", "firmware", "--port", port}
            << "has no firmware section";
        QTest::newRow("missing loader option")
            << QStringList{"flash", m_scatter, "--stub", path("none.elf"), "--port", port}
            << "cannot read the flash loader";
        QTest::newRow("read without scatter")
            << QStringList{"read", "0x0:0x1000", "--stub", stub} << "read needs --scatter";
        QTest::newRow("read without region")
            << QStringList{"read", "--scatter", path("r.txt"), "--stub", stub}
            << "one or more regions";
        QTest::newRow("read without loader")
            << QStringList{"read", "--scatter", path("r.txt"), "0x0:0x1000", "--port", port}
            << "read needs the flash loader: pass --stub FILE";
        QTest::newRow("read empty region")
            << QStringList{"read", "--scatter", path("r.txt"), "0x1000-0x1000", "--stub", stub}
            << "region 0x1000-0x1000 is empty";
        QTest::newRow("read bad region")
            << QStringList{"read", "--scatter", path("r.txt"), "0x0:zz", "--stub", stub}
            << "region 0x0:zz is not ADDRESS:SIZE or ADDRESS-END";
        QTest::newRow("read region twice")
            << QStringList{"read",   "--scatter", path("r.txt"), "0x0:0x1000", "0-0x1000",
                           "--stub", stub,        "--port",      port}
            << "region 0-0x1000 is given twice";
        QTest::newRow("read two boards")
            << QStringList{"read",   "--scatter", path("r.txt"), "0x0:0x1000",
                           "--stub", stub,        "--virtual",   "2"}
            << "read works on one board at a time";
        QTest::newRow("erase without colon") << QStringList{"erase", "0x1000", "--stub", stub}
                                             << "Invalid erase region format: 0x1000";
        QTest::newRow("erase bad number") << QStringList{"erase", "0x1000:zz", "--stub", stub}
                                          << "region 0x1000:zz is not ADDRESS:SIZE";
        QTest::newRow("erase without loader")
            << QStringList{"erase", "all", "--port", port} << "erase needs the flash loader";
        QTest::newRow("verify bad region") << QStringList{"verify", "0x0:zz", "--stub", stub}
                                           << "region 0x0:zz is not ADDRESS:SIZE";
        QTest::newRow("verify no colon, no file")
            << QStringList{"verify", "0x1000", "--port", port} << "could not be read";
        QTest::newRow("pack without output")
            << QStringList{"pack", m_scatter} << "pack needs -o PACKAGE.zip";
        QTest::newRow("pack without description")
            << QStringList{"pack", m_scatter, "-o", path("p.zip")} << "pack needs --description";
        QTest::newRow("pack a package")
            << QStringList{"pack", m_badZip, "-o", path("p.zip"), "--description", "x"}
            << "is a package";
        QTest::newRow("image-info without file")
            << QStringList{"image-info"} << "usage: esp-utility image-info";
        QTest::newRow("image-info missing")
            << QStringList{"image-info", path("none.bin")} << "cannot read " + path("none.bin");
        QTest::newRow("image-info bad trailer")
            << QStringList{"image-info", path("app.bin"), "--trailer", "x"}
            << "--trailer takes an offset";
        QTest::newRow("demo missing package")
            << QStringList{"demo", path("none.zip")} << "cannot read the demo package";
    }

    void refused()
    {
        QFETCH(QStringList, arguments);
        QFETCH(QString, message);
        m_chip.chip().clearCommandLog();
        const CliRun run = runCli(arguments);
        QVERIFY2(run.finished, qPrintable(run.transcript()));
        QCOMPARE(run.exitCode, 2);
        QVERIFY2(run.out.isEmpty(), qPrintable(run.transcript()));
        QCOMPARE(run.errLines().size(), 1);
        QVERIFY2(run.err.startsWith("esp-utility: ") && run.err.contains(message),
                 qPrintable(run.transcript()));
        QCOMPARE(m_chip.chip().commandLog().size(), 0);
        QVERIFY(!QFile::exists(path("p.zip")));
    }

    void helpAndVersion()
    {
        const CliRun help = runCli({"--help"});
        QCOMPARE(help.exitCode, 0);
        QVERIFY(help.out.contains("usage: esp-utility COMMAND"));
        const CliRun version = runCli({"--version"});
        QCOMPARE(version.exitCode, 0);
        QCOMPARE(version.out, QString("ESP Utility %1\n").arg(ESP_UTILITY_VERSION));
    }

    void portsListsTheVirtualChip()
    {
        const CliRun run = runCli({"ports"});
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.outLines().contains(m_chip.port()), qPrintable(run.transcript()));
    }
};

QTEST_GUILESS_MAIN(TestCliArguments)
#include "tst_cliarguments.moc"
