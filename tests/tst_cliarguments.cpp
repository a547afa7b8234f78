#include "chipfixture.h"
#include "cliprocess.h"
#include "scattertestfiles.h"

#include "flasher/esppackage.h"

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
    ChipFixture m_chip;

    QString path(const QString &name) const { return m_dir.filePath(name); }
    QString scatter(const QString &name, const QString &md5) const
    {
        const QJsonObject section{
            {"type", "application"}, {"address", "0x10000"}, {"file", "app.bin"}, {"md5", md5}};
        const QJsonObject document{
            {"chip", "ESP8266EX"}, {"stub", "loader.elf"}, {"sections", QJsonArray{section}}};
        return writeTestFile(m_dir.path(), name, QJsonDocument(document).toJson());
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid() && m_chip.start());
        writeTestFile(m_dir.path(), "app.bin", patternBytes(0x400, 1));
        QVERIFY(QFile::copy(generatedStubPath(), path("loader.elf")));
        const QByteArray password = EspPackage::password("d");
        QVERIFY(writeTestZip(path("noscatter.zip"), "d", {{"esp8266_loader_stub.elf", "x"}},
                             &password));
        const QByteArray other = "other";
        QVERIFY(writeTestZip(path("foreign.zip"), "d", {{"scatter.txt", "{}"}}, &other));
        QVERIFY(!scatter("good.txt", md5Hex(patternBytes(0x400, 1))).isEmpty());
        QVERIFY(!scatter("corrupt.txt", md5Hex("other bytes")).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "notjson.txt", "[1, 2").isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "BROKEN.ZIP", "PK but no archive").isEmpty());
    }

    // Arguments split at blanks; PORT, STUB and DIR/ stand for the board, the loader and the
    // test directory.
    void refused_data()
    {
        QTest::addColumn<QString>("arguments");
        QTest::addColumn<QString>("message");
        const auto row = [](const char *name, const char *arguments, const char *message) {
            QTest::newRow(name) << arguments << message;
        };
        row("no command", "", "no command given");
        row("unknown command", "frob", "unknown command frob");
        row("unknown option", "info --bogus", "unknown option --bogus");
        row("missing value", "info --port", "--port needs a value");
        row("flag with value", "info --yes=1", "--yes takes no value");
        row("baud", "info --baud 9600", "--baud is not supported");
        row("virtual zero", "info --virtual=0", "--virtual takes");
        row("no board", "info", "no board: pass --port PATH or --virtual");
        row("unknown port", "info --port /dev/none", "no serial port /dev/none");
        row("port twice", "info --port PORT --port PORT", "is given twice");
        row("flash without file", "flash --port PORT", "usage: esp-utility flash");
        row("missing scatter", "flash DIR/none.txt --port PORT", "DIR/none.txt could not be read");
        row("not json", "flash DIR/notjson.txt --port PORT", "is not a valid scatter file");
        row("broken package, upper-case name", "flash DIR/BROKEN.ZIP --port PORT",
            "Package DIR/BROKEN.ZIP is invalid and cannot be opened");
        row("package without scatter.txt", "flash DIR/noscatter.zip --port PORT",
            "scatter.txt not found in package DIR/noscatter.zip");
        row("package of another password", "verify DIR/foreign.zip --port PORT",
            "scatter.txt from package DIR/foreign.zip cannot be read");
        row("corrupt data", "verify DIR/corrupt.txt --port PORT",
            "The data within the package is corrupted");
        row("bad only", "flash DIR/good.txt --only boot --port PORT",
            "--only takes firmware or application");
        row("no such kind", "flash DIR/good.txt --only firmware --port PORT",
            "has no firmware section");
        row("missing loader option", "flash DIR/good.txt --stub DIR/none.elf --port PORT",
            "cannot read the flash loader");
        row("read without scatter", "read 0x0:0x1000 --stub STUB", "read needs --scatter");
        row("read without region", "read --scatter DIR/r.txt --stub STUB", "one or more regions");
        row("read without loader", "read --scatter DIR/r.txt 0x0:0x1000 --port PORT",
            "read needs the flash loader: pass --stub FILE");
        row("read empty region", "read --scatter DIR/r.txt 0x1000-0x1000 --stub STUB",
            "region 0x1000-0x1000 is empty");
        row("read past 4 GiB", "read --scatter DIR/r.txt 0xFFFFF000:0x2000 --stub STUB",
            "is empty or runs past 4 GiB");
        row("read bad region", "read --scatter DIR/r.txt 0x0:zz --stub STUB",
            "region 0x0:zz is not ADDRESS:SIZE or ADDRESS-END");
        row("read region twice", "read --scatter DIR/r.txt 0x0:0x1000 0-0x1000 --stub STUB",
            "region 0-0x1000 is given twice");
        row("read two boards", "read --scatter DIR/r.txt 0x0:0x1000 --stub STUB --virtual 2",
            "read works on one board at a time");
        row("erase without colon", "erase 0x1000 --stub STUB",
            "Invalid erase region format: 0x1000");
        row("erase bad number", "erase 0x1000:zz --stub STUB",
            "region 0x1000:zz is not ADDRESS:SIZE");
        row("erase without loader", "erase all --port PORT", "erase needs the flash loader");
        row("pack without output", "pack DIR/good.txt", "pack needs -o PACKAGE.zip");
        row("pack without description", "pack DIR/good.txt -o DIR/p.zip",
            "pack needs --description");
        row("pack a package", "pack DIR/BROKEN.ZIP -o DIR/p.zip --description x", "is a package");
        row("pack corrupt data", "pack DIR/corrupt.txt -o DIR/p.zip --description x",
            "The data within the package is corrupted (saved md5");
        row("image-info without file", "image-info", "usage: esp-utility image-info");
        row("image-info missing", "image-info DIR/none.bin", "cannot read DIR/none.bin");
        row("image-info bad trailer", "image-info DIR/app.bin --trailer x",
            "--trailer takes an offset");
        row("demo missing package", "demo DIR/none.zip", "cannot read the demo package");
    }

    void refused()
    {
        QFETCH(QString, arguments);
        QFETCH(QString, message);
        const auto expand = [this](QString text) {
            return text.replace("PORT", m_chip.port())
                .replace("STUB", generatedStubPath())
                .replace("DIR/", m_dir.path() + "/");
        };
        m_chip.chip().clearCommandLog();
        const CliRun run = runCli(expand(arguments).split(' ', Qt::SkipEmptyParts));
        QVERIFY2(run.finished && run.exitCode == 2 && run.out.isEmpty(),
                 qPrintable(run.transcript()));
        QCOMPARE(run.errLines().size(), 1);
        QVERIFY2(run.err.startsWith("esp-utility: ") && run.err.contains(expand(message)),
                 qPrintable(run.transcript()));
        QCOMPARE(m_chip.chip().commandLog().size(), 0);
        QVERIFY(!QFile::exists(path("p.zip")));
    }

    void helpVersionAndPorts()
    {
        const CliRun help = runCli({"--help"});
        QCOMPARE(help.exitCode, 0);
        QVERIFY(help.out.contains("usage: esp-utility COMMAND"));
        const CliRun version = runCli({"--version"});
        QCOMPARE(version.out, QString("ESP Utility %1\n").arg(ESP_UTILITY_VERSION));
        const CliRun ports = runCli({"ports"});
        QCOMPARE(ports.exitCode, 0);
        QVERIFY2(ports.outLines().contains(m_chip.port()), qPrintable(ports.transcript()));
    }
};

QTEST_GUILESS_MAIN(TestCliArguments)
#include "tst_cliarguments.moc"
