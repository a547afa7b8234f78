#include "chipfixture.h"
#include "protocol/elfstubimage.h"
#include "protocol/esptool.h"
#include "testpaths.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTemporaryDir>
#include <QtTest>

// The flash loader in its published JSON form: parsing, upload, and the conversion into an ELF
// file. The vendor's loader itself runs in the protocol client's tests whenever it was fetched.
class TestLoaderJson : public QObject
{
    Q_OBJECT

    QTemporaryDir m_dir;

    static QByteArray loaderJson(const char *key = nullptr, const QJsonValue &value = {})
    {
        QJsonObject object{
            {"text", QString::fromLatin1(QByteArray(0x1900, 'T').toBase64())},
            {"data", QString::fromLatin1(QByteArray(0x80, 'D').toBase64())},
            {"text_start", 0x4010C500},
            {"data_start", 0x3FFFAE6C},
            {"entry", 0x4010C504},
            {"bss_start", 0x3FFE8100}, // extra keys are ignored
        };
        if (key && value.isUndefined())
            object.remove(QLatin1String(key));
        else if (key)
            object.insert(QLatin1String(key), value);
        return QJsonDocument(object).toJson();
    }

    QString writeFile(const QString &name, const QByteArray &bytes)
    {
        QFile file(m_dir.filePath(name));
        return file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size()
                   ? file.fileName()
                   : QString();
    }

private slots:
    void parsesAndUploads()
    {
        ElfStubImage image;
        // Recognised by content, leading white space included.
        QVERIFY2(image.load("\n  " + loaderJson()), qPrintable(image.errorString()));
        QCOMPARE(image.entry(), 0x4010C504u);
        QCOMPARE(image.sections().size(), 2);
        QCOMPARE(image.section(".text")->address, 0x4010C500u);
        QCOMPARE(image.section(".text")->size, 0x1900u);
        QCOMPARE(image.section(".data")->address, 0x3FFFAE6Cu);

        ChipFixture fixture;
        QVERIFY(fixture.start());
        ESPTool tool;
        QVERIFY(tool.esp_connect(fixture.port()));
        QVERIFY(tool.write_loader_stub(writeFile("loader.json", loaderJson())));
        QVERIFY(tool.isStubRunning());
        QCOMPARE(fixture.chip().ram(0x4010C500, 0x1900), QByteArray(0x1900, 'T'));
        QCOMPARE(fixture.chip().ram(0x3FFFAE6C, 0x80), QByteArray(0x80, 'D'));
    }

    void refusesMalformedJson_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("messageStart");
        const QJsonValue absent(QJsonValue::Undefined);
        const QString base64 = "The loader's JSON needs \"text\" and \"data\" as base64 strings";
        const QString addresses = "The loader's JSON needs \"text_start\", \"data_start\" and "
                                  "\"entry\" as 32-bit addresses";
        QTest::newRow("trailing garbage")
            << QByteArray("{} x") << "The loader's JSON cannot be parsed";
        QTest::newRow("no text") << loaderJson("text", absent) << base64;
        QTest::newRow("data not a string") << loaderJson("data", 12) << base64;
        QTest::newRow("text not base64") << loaderJson("text", "@@@###") << base64;
        QTest::newRow("no entry") << loaderJson("entry", absent) << addresses;
        QTest::newRow("address as text") << loaderJson("text_start", "0x4010C500") << addresses;
        QTest::newRow("negative address") << loaderJson("data_start", -4) << addresses;
        QTest::newRow("fractional address") << loaderJson("entry", 1.5) << addresses;
        QTest::newRow("address beyond 32 bits")
            << loaderJson("text_start", 4294967296.0) << addresses;
        QTest::newRow("section past the address space")
            << loaderJson("text_start", 4294967295.0)
            << "The loader's .text section runs past the end";
    }

    void refusesMalformedJson()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, messageStart);
        ElfStubImage image;
        QVERIFY(!image.load(json));
        QVERIFY2(image.errorString().startsWith(messageStart), qPrintable(image.errorString()));
        QVERIFY(image.sections().isEmpty());
    }

    void convertsToElf()
    {
        // The converter, run on a JSON loader of our own and on the vendor's when present.
        QStringList jsonFiles{writeFile("own.json", loaderJson())};
        if (!vendorLoaderJsonPath().isEmpty())
            jsonFiles << vendorLoaderJsonPath();
        const QString program = testBuildDir() + QStringLiteral("/tools/stubgen/esp-make-stub");
        const QString elfPath = m_dir.filePath("out.elf");
        for (const QString &jsonPath : jsonFiles) {
            QCOMPARE(QProcess::execute(program, {"--from-json", jsonPath, "-o", elfPath}), 0);
            QFile jsonFile(jsonPath);
            QVERIFY(jsonFile.open(QIODevice::ReadOnly));
            const QJsonObject json = QJsonDocument::fromJson(jsonFile.readAll()).object();
            QFile elfFile(elfPath);
            QVERIFY(elfFile.open(QIODevice::ReadOnly));
            QVERIFY2(elfFile.peek(4) == "\x7F"
                                        "ELF",
                     "the converter must write ELF, not JSON");
            ElfStubImage elf;
            QVERIFY2(elf.load(&elfFile), qPrintable(elf.errorString()));
            QCOMPARE(elf.entry(), quint32(json.value("entry").toDouble()));
            for (const QString section : {"text", "data"}) {
                const ElfStubImage::Section *converted = elf.section('.' + section);
                QVERIFY(converted);
                QCOMPARE(converted->address, quint32(json.value(section + "_start").toDouble()));
                QCOMPARE(converted->data,
                         QByteArray::fromBase64(json.value(section).toString().toLatin1()));
            }
            QFile::remove(elfPath);
        }
        // A file that is not a loader is refused with a message and no output.
        QProcess process;
        process.start(program,
                      {"--from-json", writeFile("bad.json", R"({"text": 1})"), "-o", elfPath});
        QVERIFY(process.waitForFinished());
        QCOMPARE(process.exitCode(), 1);
        QVERIFY(process.readAllStandardError().contains(
            "The loader's JSON needs \"text\" and \"data\" as base64 strings"));
        QVERIFY(!QFile::exists(elfPath));
    }
};

QTEST_GUILESS_MAIN(TestLoaderJson)
#include "tst_loaderjson.moc"
