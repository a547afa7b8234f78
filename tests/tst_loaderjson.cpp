#include "chipfixture.h"
#include "protocol/elfstubimage.h"
#include "protocol/esptool.h"
#include "testpaths.h"

#include <QBuffer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QtTest>

// The flash loader in its published JSON form: parsing, upload to the chip, and the conversion
// into an ELF file that scatter files and packages can name.
class TestLoaderJson : public QObject
{
    Q_OBJECT

private slots:
    void parsesTheJsonForm();
    void refusesMalformedJson_data();
    void refusesMalformedJson();
    void uploadsFromJson();
    void malformedJsonEndsTheUploadWithABadRequest();
    void convertedElfMatchesTheJson();
    void vendorLoaderRunsOnTheVirtualChip();

private:
    static QJsonObject loaderObject();
};

QJsonObject TestLoaderJson::loaderObject()
{
    return QJsonObject{
        {"text", QString::fromLatin1(QByteArray(0x1900, 'T').toBase64())},
        {"data", QString::fromLatin1(QByteArray(0x80, 'D').toBase64())},
        {"text_start", 0x4010C500},
        {"data_start", 0x3FFFAE6C},
        {"entry", 0x4010C504},
        {"bss_start", 0x3FFE8100}, // extra keys are ignored
    };
}

void TestLoaderJson::parsesTheJsonForm()
{
    const QByteArray json = "\n  " + QJsonDocument(loaderObject()).toJson();
    ElfStubImage image;
    QVERIFY2(image.load(json), qPrintable(image.errorString()));
    QCOMPARE(image.entry(), 0x4010C504u);
    QCOMPARE(image.sections().size(), 2);
    const ElfStubImage::Section *text = image.section(QStringLiteral(".text"));
    const ElfStubImage::Section *data = image.section(QStringLiteral(".data"));
    QVERIFY(text && data);
    QCOMPARE(text->address, 0x4010C500u);
    QCOMPARE(text->size, 0x1900u);
    QCOMPARE(text->data, QByteArray(0x1900, 'T'));
    QCOMPARE(data->address, 0x3FFFAE6Cu);
    QCOMPARE(data->data, QByteArray(0x80, 'D'));
}

void TestLoaderJson::refusesMalformedJson_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<QString>("messageStart");

    const auto with = [](const char *key, const QJsonValue &value) {
        QJsonObject object = loaderObject();
        object.insert(QLatin1String(key), value);
        return QJsonDocument(object).toJson();
    };
    const auto without = [](const char *key) {
        QJsonObject object = loaderObject();
        object.remove(QLatin1String(key));
        return QJsonDocument(object).toJson();
    };
    const QString needBase64 = "The loader's JSON needs \"text\" and \"data\" as base64 strings";
    const QString needAddresses = "The loader's JSON needs \"text_start\", \"data_start\" and "
                                  "\"entry\" as 32-bit addresses";

    QTest::newRow("broken syntax")
        << QByteArray("{\"text\": ") << "The loader's JSON cannot be parsed";
    QTest::newRow("trailing garbage") << QByteArray("{} x") << "The loader's JSON cannot be parsed";
    QTest::newRow("no text") << without("text") << needBase64;
    QTest::newRow("data not a string") << with("data", 12) << needBase64;
    QTest::newRow("text not base64") << with("text", "@@@###") << needBase64;
    QTest::newRow("no entry") << without("entry") << needAddresses;
    QTest::newRow("address as text") << with("text_start", "0x4010C500") << needAddresses;
    QTest::newRow("negative address") << with("data_start", -4) << needAddresses;
    QTest::newRow("fractional address") << with("entry", 1.5) << needAddresses;
    QTest::newRow("address beyond 32 bits") << with("text_start", 4294967296.0) << needAddresses;
    QTest::newRow("section past the address space")
        << with("text_start", 4294967295.0) << "The loader's .text section runs past the end";
}

void TestLoaderJson::refusesMalformedJson()
{
    QFETCH(QByteArray, json);
    QFETCH(QString, messageStart);
    ElfStubImage image;
    QVERIFY(!image.load(json));
    QVERIFY2(image.errorString().startsWith(messageStart), qPrintable(image.errorString()));
    QVERIFY(image.sections().isEmpty());
}

void TestLoaderJson::uploadsFromJson()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("loader.json"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(QJsonDocument(loaderObject()).toJson());
    file.close();

    ChipFixture fixture;
    QVERIFY(fixture.start());
    ESPTool tool;
    QVERIFY(tool.esp_connect(fixture.port()));
    QVERIFY(tool.write_loader_stub(path));
    QVERIFY(tool.isStubRunning());
    QCOMPARE(fixture.chip().ram(0x4010C500, 0x1900), QByteArray(0x1900, 'T'));
    QCOMPARE(fixture.chip().ram(0x3FFFAE6C, 0x80), QByteArray(0x80, 'D'));
}

void TestLoaderJson::malformedJsonEndsTheUploadWithABadRequest()
{
    ChipFixture fixture;
    QVERIFY(fixture.start());
    ESPTool tool;
    QVERIFY(tool.esp_connect(fixture.port()));
    fixture.chip().clearCommandLog();
    QByteArray json = R"({"text": "AAAA", "data": "AAAA"})";
    QBuffer buffer(&json);
    buffer.open(QIODevice::ReadOnly);
    QSignalSpy errors(&tool, &ESPTool::operationError);
    QVERIFY(!tool.write_loader_stub(&buffer));
    QCOMPARE(errors.count(), 1);
    QCOMPARE(errors.first().at(0).toInt(), int(ESPTool::BadRequest));
    QVERIFY(errors.first().at(1).toString().startsWith(QStringLiteral("Invalid flash loader: ")));
    QCOMPARE(fixture.chip().commandLog().size(), 0);
}

void TestLoaderJson::convertedElfMatchesTheJson()
{
    // The project's converter, run on a JSON loader of our own and on the vendor's when present.
    QTemporaryDir dir;
    QStringList jsonFiles{dir.filePath(QStringLiteral("own.json"))};
    QFile own(jsonFiles.first());
    QVERIFY(own.open(QIODevice::WriteOnly));
    own.write(QJsonDocument(loaderObject()).toJson());
    own.close();
    if (!vendorLoaderJsonPath().isEmpty())
        jsonFiles << vendorLoaderJsonPath();

    for (const QString &jsonPath : jsonFiles) {
        const QString elfPath = dir.filePath(QStringLiteral("out.elf"));
        QProcess::execute(testBuildDir() + QStringLiteral("/tools/stubgen/esp-make-stub"),
                          {QStringLiteral("--from-json"), jsonPath, QStringLiteral("-o"), elfPath});
        QFile jsonFile(jsonPath);
        QVERIFY(jsonFile.open(QIODevice::ReadOnly));
        const QJsonObject object = QJsonDocument::fromJson(jsonFile.readAll()).object();
        QFile elfFile(elfPath);
        QVERIFY(elfFile.open(QIODevice::ReadOnly));
        const QByteArray elfBytes = elfFile.readAll();
        QVERIFY2(elfBytes.startsWith("\x7F"
                                     "ELF"),
                 "the converter must write an ELF file, not copy the JSON");
        ElfStubImage elf;
        QVERIFY2(elf.load(elfBytes), qPrintable(elf.errorString()));
        QCOMPARE(elf.entry(), quint32(object.value("entry").toDouble()));
        QCOMPARE(elf.section(".text")->address, quint32(object.value("text_start").toDouble()));
        QCOMPARE(elf.section(".data")->address, quint32(object.value("data_start").toDouble()));
        QCOMPARE(elf.section(".text")->data,
                 QByteArray::fromBase64(object.value("text").toString().toLatin1()));
        QCOMPARE(elf.section(".data")->data,
                 QByteArray::fromBase64(object.value("data").toString().toLatin1()));
        QFile::remove(elfPath);
    }
    if (vendorLoaderJsonPath().isEmpty())
        qInfo("the vendor's loader was not fetched; only the project's own JSON was converted");

    // A file that is not a loader is refused with a message and no output.
    const QString bad = dir.filePath(QStringLiteral("bad.json"));
    QFile badFile(bad);
    QVERIFY(badFile.open(QIODevice::WriteOnly));
    badFile.write(R"({"text": 1})");
    badFile.close();
    QProcess process;
    process.start(testBuildDir() + QStringLiteral("/tools/stubgen/esp-make-stub"),
                  {QStringLiteral("--from-json"), bad, QStringLiteral("-o"),
                   dir.filePath(QStringLiteral("bad.elf"))});
    QVERIFY(process.waitForFinished());
    QCOMPARE(process.exitCode(), 1);
    QVERIFY(process.readAllStandardError().contains(
        "The loader's JSON needs \"text\" and \"data\" as base64 strings"));
    QVERIFY(!QFile::exists(dir.filePath(QStringLiteral("bad.elf"))));
}

void TestLoaderJson::vendorLoaderRunsOnTheVirtualChip()
{
    if (vendorStubPath().isEmpty())
        QSKIP("the vendor's flash loader was not fetched (no npm or no registry access)");
    ChipFixture fixture;
    QVERIFY(fixture.start());
    ESPTool tool;
    QVERIFY(tool.esp_connect(fixture.port()));
    QVERIFY(tool.write_loader_stub(vendorStubPath()));
    QVERIFY(fixture.chip().stubRunning());
    fixture.chip().setFlash(0x2000, QByteArray(0x1000, 'z'));
    QCOMPARE(tool.get_flash_md5(0x2000, 0x1000), ESPTool::get_data_md5(QByteArray(0x1000, 'z')));
}

QTEST_GUILESS_MAIN(TestLoaderJson)
#include "tst_loaderjson.moc"
