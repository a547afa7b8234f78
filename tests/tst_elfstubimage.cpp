#include "chipfixture.h"
#include "protocol/elfstubimage.h"
#include "protocol/esptool.h"
#include "scattertestfiles.h"
#include "testpaths.h"
#include "tools/stubgen/stubelfwriter.h"
#include "tools/stubgen/virtualloaderstub.h"

#include <QtTest>

// The flash loader reader, for ELF files and for the JSON form in which loaders are published.
// Random damage is left to the loader fuzz target; these pin each refusal and its message.
namespace {

// Offsets within a 32-bit ELF header (section -1) and section header, for damaging files.
enum Field { TableOffset = 32, EntrySize = 46, NamesIndex = 50 };
enum SectionField { Name = 0, Type = 4, Address = 12, Offset = 16, Size = 20 };

int fieldAt(const QByteArray &bytes, int section, int field)
{
    return section < 0 ? field
                       : int(qFromLittleEndian<quint32>(bytes.constData() + TableOffset)) +
                             section * 40 + field;
}

QByteArray patched(QByteArray bytes, int section, int field, int width, quint32 value)
{
    char little[4];
    qToLittleEndian(value, little);
    return bytes.replace(fieldAt(bytes, section, field), width, little, width);
}

// Sections 1 .text, 2 .data, 3 .shstrtab; the section table comes last.
QByteArray stubBytes(int textSize = 0x2100, int dataSize = 0x200)
{
    StubElfWriter writer;
    writer.setText(0x4010E000, VirtualLoaderStub::textBytes(quint32(textSize)));
    writer.setData(0x3FFE8000, VirtualLoaderStub::dataBytes(quint32(dataSize)));
    writer.setEntry(0x4010E004);
    return writer.toBytes();
}

// A loader in JSON form; `key` set to `value` when given.
QByteArray loaderJson(const char *key = nullptr, const QJsonValue &value = {})
{
    QJsonObject object{
        {"text", QString::fromLatin1(QByteArray(0x1900, 'T').toBase64())},
        {"data", QString::fromLatin1(QByteArray(0x80, 'D').toBase64())},
        {"text_start", 0x4010C500},
        {"data_start", 0x3FFFAE6C},
        {"entry", 0x4010C504},
        {"bss_start", 0x3FFE8100}, // extra keys are ignored
    };
    if (key)
        object.insert(QLatin1String(key), value);
    return QJsonDocument(object).toJson();
}

} // namespace

class TestElfStubImage : public QObject
{
    Q_OBJECT

private slots:
    void roundTrip()
    {
        // Sections may be left out, and may end exactly at the top of the address space.
        StubElfWriter writer;
        writer.setData(0xFFFFFF00, VirtualLoaderStub::dataBytes(0x100));
        writer.setEntry(0xFFFFFFFF);
        ElfStubImage image;
        QVERIFY2(image.load(writer.toBytes()), qPrintable(image.errorString()));
        QCOMPARE(image.entry(), 0xFFFFFFFFu);
        QCOMPARE(image.sections().size(), 2); // and .shstrtab
        QCOMPARE(image.section(".data")->address, 0xFFFFFF00u);
        QCOMPARE(image.section(".data")->data, VirtualLoaderStub::dataBytes(0x100));
        QVERIFY(!image.section(".text") && !image.section(".DATA")); // names match exactly
        // Whatever the cut, a shortened loader is refused.
        const QByteArray small = stubBytes(0x30, 0x11);
        for (int cut = 0; cut < small.size(); ++cut)
            QVERIFY2(!image.load(small.left(cut)), qPrintable(QString::number(cut)));
    }

    void readFromDevices()
    {
        // Parsing starts at the device's position (a package entry need not start at 0).
        QByteArray bytes = "leading junk" + stubBytes(0x300, 0x40);
        QBuffer buffer(&bytes);
        QVERIFY(buffer.open(QIODevice::ReadOnly));
        QVERIFY(buffer.seek(12));
        ElfStubImage image;
        QVERIFY2(image.load(&buffer), qPrintable(image.errorString()));
        QCOMPARE(image.section(".text")->size, 0x300u);
        QVERIFY(buffer.seek(0) && !image.load(&buffer));

        // Far more bytes than any loader has are refused without draining the device beyond the
        // limit; exactly at the limit is still read.
        bytes = stubBytes(0x20, 0x20) + QByteArray(int(ElfStubImage::MaxFileSize), '\0');
        QBuffer huge(&bytes);
        QVERIFY(huge.open(QIODevice::ReadOnly));
        QVERIFY(!image.load(&huge));
        QVERIFY2(image.errorString().contains("too large"), qPrintable(image.errorString()));
        QCOMPARE(huge.pos(), ElfStubImage::MaxFileSize + 1);
        QVERIFY(image.load(bytes.left(int(ElfStubImage::MaxFileSize))));
    }

    void refused_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("message"); // a part of the message
        const QByteArray good = stubBytes();
        const auto row = [](const char *name, const QByteArray &bytes, const char *message) {
            QTest::newRow(name) << bytes << QString::fromLatin1(message);
        };
        const int textStart =
            int(qFromLittleEndian<quint32>(good.constData() + fieldAt(good, 1, Offset)));
        row("empty", QByteArray(), "The loader file is empty");
        row("text", "This is a readme, not a loader.\n", "Not an ELF file");
        row("cut inside text", good.left(textStart + 0x1000), "truncated");
        row("64-bit", patched(good, -1, 4, 1, 2), "64-bit");
        row("big-endian", patched(good, -1, 5, 1, 2), "big-endian");
        row("text offset wraps 32 bits", patched(good, 1, Offset, 4, 0xFFFFFFF0), "truncated");
        row("text wraps address space", patched(good, 1, Address, 4, 0xFFFFF000), "address space");
        row("name offset outside names", patched(good, 1, Name, 4, 0x1000), "name");
        row("table overlaps header", patched(good, -1, TableOffset, 4, 8), "overlaps");
        row("wrong entry size", patched(good, -1, EntrySize, 2, 32), "entries of 32 bytes");
        row("names index out of range", patched(good, -1, NamesIndex, 2, 9), "name");
        const char *base64 = "The loader's JSON needs \"text\" and \"data\" as base64 strings";
        const char *addresses = "The loader's JSON needs \"text_start\", \"data_start\" and "
                                "\"entry\" as 32-bit addresses";
        row("JSON with trailing garbage", "{} x", "The loader's JSON cannot be parsed");
        row("JSON text not base64", loaderJson("text", "@@@###"), base64);
        row("JSON address beyond 32 bits", loaderJson("entry", 4294967296.0), addresses);
        row("JSON section past the address space", loaderJson("text_start", 4294967295.0),
            "The loader's .text section runs past the end");
    }

    void refused()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, message);
        ElfStubImage image;
        QVERIFY(image.load(stubBytes(0x20, 0x20)));
        QVERIFY(!image.load(bytes));
        QVERIFY(image.sections().isEmpty()); // nothing of the earlier load is left
        QVERIFY2(image.errorString().contains(message), qPrintable(image.errorString()));
    }

    void jsonForm()
    {
        // Recognised by content, leading white space included; uploaded to the addresses it gives.
        QTemporaryDir dir;
        const QString own = writeTestFile(dir.path(), "own.json", "\n  " + loaderJson());
        ChipFixture fixture;
        ESPTool tool;
        ESPTool::ConnectOptions throughReset;
        throughReset.resetBefore = true;
        QVERIFY(fixture.start() && tool.esp_connect(fixture.port(), throughReset));
        QVERIFY(tool.write_loader_stub(own));
        QCOMPARE(fixture.chip().ram(0x4010C500, 0x1900), QByteArray(0x1900, 'T'));
        QCOMPARE(fixture.chip().ram(0x3FFFAE6C, 0x80), QByteArray(0x80, 'D'));

        // The converter into an ELF file, run on our own loader and on the vendor's when fetched.
        const QString elfPath = dir.filePath("out.elf");
        ElfStubImage image;
        for (const QString &jsonPath : {own, vendorLoaderJsonPath()}) {
            if (jsonPath.isEmpty())
                continue;
            QCOMPARE(QProcess::execute(testBuildDir() + "/tools/stubgen/esp-make-stub",
                                       {"--from-json", jsonPath, "-o", elfPath}),
                     0);
            QFile jsonFile(jsonPath);
            QFile elfFile(elfPath);
            QVERIFY(jsonFile.open(QIODevice::ReadOnly) && elfFile.open(QIODevice::ReadOnly));
            const QJsonObject json = QJsonDocument::fromJson(jsonFile.readAll()).object();
            QCOMPARE(elfFile.peek(4), QByteArray::fromHex("7f454c46")); // ELF, not JSON
            QVERIFY2(image.load(&elfFile), qPrintable(image.errorString()));
            QCOMPARE(image.entry(), quint32(json.value("entry").toDouble()));
            for (const QString section : {"text", "data"}) {
                const ElfStubImage::Section *converted = image.section('.' + section);
                QVERIFY(converted);
                QCOMPARE(converted->address, quint32(json.value(section + "_start").toDouble()));
                QCOMPARE(converted->data,
                         QByteArray::fromBase64(json.value(section).toString().toLatin1()));
            }
        }
    }

    void noBitsSection()
    {
        // It occupies memory but no file bytes, even when far larger than the file.
        const QByteArray bytes = patched(stubBytes(0x100, 0x80), 2, Type, 4, 8); // SHT_NOBITS
        ElfStubImage image;
        QVERIFY2(image.load(patched(bytes, 2, Size, 4, 0x100000)), qPrintable(image.errorString()));
        QCOMPARE(image.section(".data")->size, 0x100000u);
        QVERIFY(image.section(".data")->data.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestElfStubImage)
#include "tst_elfstubimage.moc"
