#include "protocol/elfstubimage.h"
#include "testpaths.h"
#include "tools/stubgen/stubelfwriter.h"
#include "tools/stubgen/virtualloaderstub.h"

#include <QBuffer>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

// Random damage is left to the loader fuzz target; these pin each refusal and its message.
namespace {

// Offsets within a 32-bit ELF header (section -1) and section header, for damaging files.
enum Field { TableOffset = 32, EntrySize = 46, SectionCount = 48, NamesIndex = 50 };
enum SectionField { Name = 0, Type = 4, Address = 12, Offset = 16, Size = 20 };

int fieldAt(const QByteArray &bytes, int section, int field)
{
    return section < 0 ? field
                       : int(qFromLittleEndian<quint32>(bytes.constData() + TableOffset)) +
                             section * 40 + field;
}

QByteArray patched(QByteArray bytes, int section, int field, int width, quint32 value)
{
    char *at = bytes.data() + fieldAt(bytes, section, field);
    if (width == 4)
        qToLittleEndian<quint32>(value, at);
    else if (width == 2)
        qToLittleEndian<quint16>(quint16(value), at);
    else
        *at = char(value);
    return bytes;
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

QStringList sectionNames(const ElfStubImage &image)
{
    QStringList names;
    for (const ElfStubImage::Section &section : image.sections())
        names << section.name;
    return names;
}

int makeStub(QStringList arguments, const QString &output)
{
    for (QString &argument : arguments)
        argument.replace("%o", output);
    QProcess process;
    process.start(testBuildDir() + "/tools/stubgen/esp-make-stub", arguments);
    if (!process.waitForFinished(30000) || process.exitStatus() != QProcess::NormalExit)
        return -1;
    return process.readAllStandardError().trimmed().isEmpty() ? process.exitCode()
                                                              : -process.exitCode();
}

} // namespace

class TestElfStubImage : public QObject
{
    Q_OBJECT

private slots:
    void roundTrip_data()
    {
        QTest::addColumn<bool>("hasText");
        QTest::addColumn<quint32>("textAddress");
        QTest::addColumn<int>("textSize");
        QTest::addColumn<bool>("hasData");
        QTest::addColumn<quint32>("dataAddress");
        QTest::newRow("odd sizes, unaligned")
            << true << 0x40100001u << 0x1801 << true << 0x3FFE8003u;
        QTest::newRow("without data") << true << 0x4010E000u << 0x2100 << false << 0u;
        QTest::newRow("without text") << false << 0u << 0 << true << 0x3FFE8000u;
        QTest::newRow("top of address space") << true << 0xFFFFFF00u << 0x100 << true << 0u;
    }

    void roundTrip()
    {
        QFETCH(bool, hasText);
        QFETCH(quint32, textAddress);
        QFETCH(int, textSize);
        QFETCH(bool, hasData);
        QFETCH(quint32, dataAddress);
        const QByteArray text = VirtualLoaderStub::textBytes(quint32(textSize));
        const QByteArray data = VirtualLoaderStub::dataBytes(3);
        StubElfWriter writer;
        if (hasText)
            writer.setText(textAddress, text);
        if (hasData)
            writer.setData(dataAddress, data);
        writer.setEntry(0xFFFFFFFF);
        ElfStubImage image;
        QVERIFY2(image.load(writer.toBytes()), qPrintable(image.errorString()));
        QCOMPARE(image.entry(), 0xFFFFFFFFu);
        QCOMPARE(image.machine(), quint16(94)); // Xtensa
        QStringList names{".shstrtab"};
        if (hasData)
            names.prepend(".data");
        if (hasText)
            names.prepend(".text");
        QCOMPARE(sectionNames(image), names);
        if (hasText) {
            QCOMPARE(image.section(".text")->address, textAddress);
            QCOMPARE(image.section(".text")->size, quint32(textSize));
            QCOMPARE(image.section(".text")->data, text);
        }
        if (hasData) {
            QCOMPARE(image.section(".data")->address, dataAddress);
            QCOMPARE(image.section(".data")->data, data);
        }
        // Names are matched exactly.
        QVERIFY(!image.section("text") && !image.section(".TEXT") && !image.section(".text "));
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
        QVERIFY(buffer.seek(0));
        QVERIFY(!image.load(&buffer));
        QCOMPARE(image.errorString(), QStringLiteral("Not an ELF file"));

        QVERIFY(!image.load(static_cast<QIODevice *>(nullptr)));
        QVERIFY(image.errorString().contains("not open for reading"));
        buffer.close();
        QVERIFY(buffer.open(QIODevice::WriteOnly));
        QVERIFY(!image.load(&buffer));
        QVERIFY(image.errorString().contains("not open for reading"));

        // Far more bytes than any loader has are refused without draining the device beyond the
        // limit; exactly at the limit is still read.
        bytes = stubBytes(0x20, 0x20).leftJustified(int(ElfStubImage::MaxFileSize) + 1, '\0');
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
        row("firmware image", QByteArray("\xe9\x03\x02\x20", 4) + good, "Not an ELF file");
        row("cut inside magic", good.left(3), "Not an ELF file");
        row("cut inside header", good.left(51), "truncated");
        row("cut inside text", good.left(textStart + 0x1000), "truncated");
        row("64-bit", patched(good, -1, 4, 1, 2), "64-bit");
        row("class 3", patched(good, -1, 4, 1, 3), "unknown class");
        row("big-endian", patched(good, -1, 5, 1, 2), "big-endian");
        row("text beyond end", patched(good, 1, Offset, 4, 0x4000), "truncated");
        row("text offset wraps 32 bits", patched(good, 1, Offset, 4, 0xFFFFFFF0), "truncated");
        row("text wraps address space", patched(good, 1, Address, 4, 0xFFFFF000), "address space");
        row("names not a string table", patched(good, 3, Type, 4, 1), "name");
        row("name offset outside names", patched(good, 1, Name, 4, 0x1000), "name");
        row("table overlaps header", patched(good, -1, TableOffset, 4, 8), "overlaps");
        row("too many sections", patched(good, -1, SectionCount, 2, 0xFFFF), "truncated");
        row("wrong entry size", patched(good, -1, EntrySize, 2, 32), "entries of 32 bytes");
        row("names index out of range", patched(good, -1, NamesIndex, 2, 9), "name");
    }

    void refused()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, message);
        ElfStubImage image;
        QVERIFY(image.load(stubBytes(0x20, 0x20)));
        QVERIFY(!image.load(bytes));
        QVERIFY(!image.isValid());
        QVERIFY(image.sections().isEmpty()); // nothing of the earlier load is left
        QVERIFY2(image.errorString().contains(message), qPrintable(image.errorString()));

        // Whatever the cut, a shortened loader is refused.
        const QByteArray small = stubBytes(0x30, 0x11);
        for (int cut = 0; cut < small.size(); ++cut)
            QVERIFY2(!image.load(small.left(cut)), qPrintable(QString::number(cut)));
    }

    void unusualSections()
    {
        // A NOBITS section occupies memory but no file bytes, even when far larger than the file.
        QByteArray bytes = patched(stubBytes(0x100, 0x80), 2, Type, 4, 8);
        ElfStubImage image;
        QVERIFY2(image.load(patched(bytes, 2, Size, 4, 0x100000)), qPrintable(image.errorString()));
        QCOMPARE(image.section(".data")->size, 0x100000u);
        QVERIFY(image.section(".data")->data.isEmpty());
        // Without a name table the sections are read, but none can be found by name.
        QVERIFY(image.load(patched(stubBytes(0x100, 0x80), -1, NamesIndex, 2, 0)));
        QCOMPARE(sectionNames(image), QStringList({"", "", ""}));
        QVERIFY(!image.section(".text"));
        QCOMPARE(image.sections().at(0).data.size(), 0x100);
    }

    void generatedStubIsAStandardElfFile()
    {
        const QString path = testBuildDir() + "/stub/esp8266_loader_stub.elf";
        QFile file(path);
        QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(path));
        ElfStubImage image;
        QVERIFY2(image.load(&file), qPrintable(image.errorString()));
        QCOMPARE(image.entry(), 0x4010C004u);
        QCOMPARE(image.section(".text")->address, 0x4010C000u);
        QCOMPARE(image.section(".text")->data, VirtualLoaderStub::textBytes(0x2100));
        QCOMPARE(image.section(".data")->address, 0x3FFE8000u);
        QCOMPARE(image.section(".data")->data, VirtualLoaderStub::dataBytes(0x200));

        const QString readelf = QStandardPaths::findExecutable("readelf");
        if (readelf.isEmpty())
            QSKIP("readelf is not installed");
        QProcess process;
        process.start(readelf, {"-a", "-W", path});
        QVERIFY(process.waitForFinished(30000));
        const QString out = QString::fromLocal8Bit(process.readAllStandardOutput());
        QCOMPARE(process.exitCode(), 0);
        QVERIFY2(process.readAllStandardError().trimmed().isEmpty(), qPrintable(out));
        QVERIFY2(!out.contains("Warning", Qt::CaseInsensitive), qPrintable(out));
        // One loadable segment per section, each mapping exactly its section.
        for (const char *pattern :
             {R"(Class:\s+ELF32)", R"(Data:\s+2's complement, little endian)", R"(Type:\s+EXEC)",
              R"(Machine:\s+Tensilica Xtensa)", R"(Entry point address:\s+0x4010c004)",
              R"(\.text\s+PROGBITS\s+4010c000\s+\S+\s+002100\s+00\s+AX\s)",
              R"(\.data\s+PROGBITS\s+3ffe8000\s+\S+\s+000200\s+00\s+WA\s)",
              R"(LOAD\s+\S+\s+0x4010c000\s+0x4010c000\s+0x02100\s+0x02100\s+R E)",
              R"(LOAD\s+\S+\s+0x3ffe8000\s+0x3ffe8000\s+0x00200\s+0x00200\s+RW )"})
            QVERIFY2(out.contains(QRegularExpression(pattern)), pattern);
    }

    void makeStubOptions()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("stub.elf");
        QCOMPARE(makeStub({"-o", "%o", "--text-size", "0x1801", "--data-size", "300", "--text-addr",
                           "0x40100000", "--data-addr", "0x3FFE9000"},
                          path),
                 0);
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        ElfStubImage image;
        QVERIFY(image.load(&file));
        QCOMPARE(image.entry(), 0x40100004u);
        QCOMPARE(image.section(".text")->address, 0x40100000u);
        QCOMPARE(image.section(".text")->data, VirtualLoaderStub::textBytes(0x1801));
        QCOMPARE(image.section(".data")->address, 0x3FFE9000u);
        QCOMPARE(image.section(".data")->data, VirtualLoaderStub::dataBytes(300));

        QCOMPARE(makeStub({"-o", "%o", "--no-data", "--entry", "0x3FFE8010"}, path), 0);
        file.close();
        QVERIFY(file.open(QIODevice::ReadOnly));
        QVERIFY(image.load(&file));
        QCOMPARE(sectionNames(image), (QStringList{".text", ".shstrtab"}));
        QCOMPARE(image.entry(), 0x3FFE8010u);
    }

    void makeStubRejectsBadArguments_data()
    {
        QTest::addColumn<QStringList>("arguments");
        QTest::newRow("no output") << QStringList{"--no-data"};
        QTest::newRow("bad size") << QStringList{"-o", "%o", "--text-size", "lots"};
        QTest::newRow("wraps address space")
            << QStringList{"-o", "%o", "--text-addr", "0xFFFFFF00", "--text-size", "0x200"};
        QTest::newRow("stray argument") << QStringList{"-o", "%o", "extra"};
        QTest::newRow("missing directory") << QStringList{"-o", "%o/missing/stub.elf"};
    }

    void makeStubRejectsBadArguments()
    {
        QFETCH(QStringList, arguments);
        QTemporaryDir dir;
        const QString path = dir.filePath("stub.elf");
        const int result = makeStub(arguments, path);
        QVERIFY2(result < 0, qPrintable(QString::number(result))); // failed, with a message
        QVERIFY(!QFile::exists(path));
    }
};

QTEST_GUILESS_MAIN(TestElfStubImage)
#include "tst_elfstubimage.moc"
