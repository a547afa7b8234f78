#include "scattertestfiles.h"

#include "flasher/esppackage.h"
#include "flasher/esppackagewriter.h"
#include "flasher/scatterloader.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

class TestScatterLoader : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QString path(const QString &name) const { return QDir(m_dir.path()).absoluteFilePath(name); }

    QString writePackage(const QString &name, const QString &description, const ZipEntries &entries)
    {
        const QByteArray password = EspPackage::password(description);
        return writeTestZip(path(name), description, entries, &password) ? path(name) : QString();
    }

private slots:
    void initTestCase() { QVERIFY(m_dir.isValid()); }

    void isPackagePath_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("package");
        QTest::newRow("zip") << "/a/release.zip" << true;
        QTest::newRow("upper case") << "FIRMWARE.ZIP" << true;
        QTest::newRow("mixed case") << "x.Zip" << true;
        QTest::newRow("json") << "scatter.json" << false;
        QTest::newRow("txt") << "scatter.txt" << false;
        QTest::newRow("zip then txt") << "a.zip.txt" << false;
        QTest::newRow("no dot") << "azip" << false;
    }

    void isPackagePath()
    {
        QFETCH(QString, path);
        QFETCH(bool, package);
        QCOMPARE(ScatterLoader::isPackagePath(path), package);
    }

    void looseFile()
    {
        const QJsonObject document{{"chip", "ESP8266EX"}};
        const QString file =
            writeTestFile(m_dir.path(), "scatter.json", QJsonDocument(document).toJson());
        ScatterLoader loader;
        QVERIFY(loader.load(file));
        QVERIFY(!loader.isPackage());
        QVERIFY(!loader.package());
        QCOMPARE(loader.document(), document);
        QVERIFY(loader.error().isEmpty());
    }

    void looseFailures_data()
    {
        QTest::addColumn<QByteArray>("content"); // null: no file at all
        QTest::addColumn<QString>("expectedPrefix");
        QTest::newRow("missing") << QByteArray() << "%1 could not be read: ";
        QTest::newRow("JSON array") << QByteArray("[1, 2]") << "%1 is not a valid scatter file: ";
        QTest::newRow("broken JSON")
            << QByteArray("{\"chip\": ") << "%1 is not a valid scatter file: ";
        QTest::newRow("empty file") << QByteArray("") << "%1 is not a valid scatter file: ";
    }

    void looseFailures()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, expectedPrefix);
        const QString file = path(QString("loose-%1.txt").arg(QTest::currentDataTag()));
        if (!content.isNull())
            QVERIFY(!writeTestFile(m_dir.path(), QFileInfo(file).fileName(), content).isEmpty());
        ScatterLoader loader;
        QVERIFY(!loader.load(file));
        QVERIFY2(loader.error().startsWith(expectedPrefix.arg(file)), qPrintable(loader.error()));
        // The reason follows: a file error or the JSON parser's text.
        QVERIFY(loader.error().size() > expectedPrefix.arg(file).size());
        QVERIFY(loader.document().isEmpty());
    }

    void package()
    {
        const QJsonObject document{{"chip", "ESP8266EX"}, {"stub", "esp8266_loader_stub.elf"}};
        const QString file = writePackage("FIRMWARE.ZIP", "Upper-case name",
                                          {{"scatter.txt", QJsonDocument(document).toJson()}});
        QVERIFY(!file.isEmpty());
        ScatterLoader loader;
        QVERIFY2(loader.load(file), qPrintable(loader.error()));
        QVERIFY(loader.isPackage());
        QCOMPARE(loader.document(), document);
        QVERIFY(loader.package());
        QVERIFY(loader.package()->isOpen());
        QCOMPARE(loader.package()->comment(), QString("Upper-case name"));
        std::unique_ptr<EspPackage> taken = loader.takePackage();
        QVERIFY(taken && taken->isOpen());
        QVERIFY(!loader.package());
    }

    void packageFailures_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("expected");
        QTest::newRow("not a zip") << "garbage"
                                   << "Package %1 is invalid and cannot be opened";
        QTest::newRow("no scatter.txt") << "noscatter"
                                        << "scatter.txt not found in package %1";
        QTest::newRow("other password") << "password"
                                        << "scatter.txt from package %1 cannot be read";
        QTest::newRow("array") << "array"
                               << "scatter.txt is not a valid scatter file: ";
    }

    void packageFailures()
    {
        QFETCH(QString, kind);
        QFETCH(QString, expected);
        const QString name = kind + ".zip";
        if (kind == "garbage") {
            QVERIFY(!writeTestFile(m_dir.path(), name, "PK\x03\x04 not really").isEmpty());
        } else if (kind == "noscatter") {
            QVERIFY(!writePackage(name, "d", {{"esp8266_loader_stub.elf", "x"}}).isEmpty());
        } else if (kind == "password") {
            const QByteArray other = "other";
            QVERIFY(writeTestZip(path(name), "d", {{"scatter.txt", "{\"chip\": \"x\"}"}}, &other));
        } else {
            QVERIFY(!writePackage(name, "d", {{"scatter.txt", "[]"}}).isEmpty());
        }
        ScatterLoader loader;
        QVERIFY(!loader.load(path(name)));
        QVERIFY(loader.isPackage());
        const QString prefix = expected.contains("%1") ? expected.arg(path(name)) : expected;
        QVERIFY2(loader.error().startsWith(prefix), qPrintable(loader.error()));
        QVERIFY(!loader.package()); // nothing stays open
        QVERIFY(!loader.takePackage());
    }

    void messages()
    {
        QCOMPARE(ScatterLoader::invalidMessage("/p/a.zip", true, "why"),
                 QString("/p/a.zip package is invalid: why"));
        QCOMPARE(ScatterLoader::invalidMessage("/p/scatter.txt", false, "why"), QString("why"));
        QCOMPARE(ScatterLoader::loadedPackageMessage("/p/a.zip", "Release 2"),
                 QString("Loaded package /p/a.zip: Release 2"));
    }
};

QTEST_GUILESS_MAIN(TestScatterLoader)
#include "tst_scatterloader.moc"
