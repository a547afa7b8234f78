#include "protocol/elfstubimage.h"
#include "testpaths.h"
#include "tools/stubgen/stubelfwriter.h"
#include "tools/stubgen/virtualloaderstub.h"

#include <QBuffer>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

namespace {

// Offsets within a 32-bit ELF header and section header, for corrupting files on purpose.
constexpr int HeaderSectionTableOffset = 32;
constexpr int HeaderSectionEntrySize = 46;
constexpr int HeaderSectionCount = 48;
constexpr int HeaderNamesIndex = 50;
constexpr int SectionHeaderSize = 40;
constexpr int SectionName = 0;
constexpr int SectionType = 4;
constexpr int SectionAddress = 12;
constexpr int SectionOffset = 16;
constexpr int SectionSize = 20;
constexpr quint32 SectionTypeNoBits = 8;
constexpr quint16 MachineXtensa = 94;

quint32 read32(const QByteArray &bytes, int at)
{
    return qFromLittleEndian<quint32>(bytes.constData() + at);
}

quint16 read16(const QByteArray &bytes, int at)
{
    return qFromLittleEndian<quint16>(bytes.constData() + at);
}

void put32(QByteArray &bytes, int at, quint32 value)
{
    qToLittleEndian<quint32>(value, bytes.data() + at);
}

void put16(QByteArray &bytes, int at, quint16 value)
{
    qToLittleEndian<quint16>(value, bytes.data() + at);
}

// Where the header of section `index` starts in the file.
int sectionHeaderAt(const QByteArray &bytes, int index)
{
    return int(read32(bytes, HeaderSectionTableOffset)) + index * SectionHeaderSize;
}

QByteArray randomBytes(quint32 seed, int size)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, Qt::Uninitialized);
    for (char &byte : bytes)
        byte = char(generator.bounded(256));
    return bytes;
}

QByteArray stubBytes(int textSize = 0x2100, int dataSize = 0x200)
{
    StubElfWriter writer;
    writer.setText(0x4010E000, randomBytes(1, textSize));
    writer.setData(0x3FFE8000, randomBytes(2, dataSize));
    writer.setEntry(0x4010E004);
    QString error;
    const QByteArray bytes = writer.toBytes(&error);
    if (bytes.isEmpty())
        qWarning("writer failed: %s", qPrintable(error));
    return bytes;
}

QStringList sectionNames(const ElfStubImage &image)
{
    QStringList names;
    for (const ElfStubImage::Section &section : image.sections())
        names << section.name;
    return names;
}

} // namespace

class TestElfStubImage : public QObject
{
    Q_OBJECT

private slots:
    void roundTrip_data();
    void roundTrip();
    void lookupIsExact();
    void loadFromDevicePosition();
    void loadFromUnreadableDevice();
    void emptyInput();
    void oversizedInputRefused();
    void failureClearsPreviousImage();
    void notElf_data();
    void notElf();
    void truncated_data();
    void truncated();
    void everyTruncationRefused();
    void wrongClassOrByteOrder_data();
    void wrongClassOrByteOrder();
    void real64BitExecutableRefused();
    void brokenSectionTable_data();
    void brokenSectionTable();
    void noBitsSectionHasNoData();
    void sectionsWithoutNameTable();
    void randomCorruptionKeepsInvariants();
    void writerFailsOnMissingDirectory();
    void readelfAcceptsWriterOutput_data();
    void readelfAcceptsWriterOutput();
    void generatedStubLayout();
    void makeStubOptions_data();
    void makeStubOptions();
    void makeStubRejectsBadArguments_data();
    void makeStubRejectsBadArguments();
};

void TestElfStubImage::roundTrip_data()
{
    QTest::addColumn<bool>("hasText");
    QTest::addColumn<quint32>("textAddress");
    QTest::addColumn<int>("textSize");
    QTest::addColumn<bool>("hasData");
    QTest::addColumn<quint32>("dataAddress");
    QTest::addColumn<int>("dataSize");
    QTest::addColumn<quint32>("entry");

    QTest::newRow("loader layout")
        << true << 0x4010E000u << 0x2100 << true << 0x3FFE8000u << 0x200 << 0x4010E004u;
    QTest::newRow("one block each")
        << true << 0x40100000u << 0x1800 << true << 0x3FFE8000u << 0x1800 << 0x40100000u;
    QTest::newRow("odd sizes") << true << 0x4010E000u << 0x1801 << true << 0x3FFE8000u << 3
                               << 0x4010E123u;
    QTest::newRow("empty data") << true << 0x4010E000u << 0x40 << true << 0x3FFE8000u << 0
                                << 0x4010E004u;
    QTest::newRow("without data") << true << 0x4010E000u << 0x2100 << false << 0u << 0
                                  << 0x4010E004u;
    QTest::newRow("without text") << false << 0u << 0 << true << 0x3FFE8000u << 0x200 << 0u;
    QTest::newRow("neither") << false << 0u << 0 << false << 0u << 0 << 0x12345678u;
    QTest::newRow("unaligned addresses")
        << true << 0x40100001u << 17 << true << 0x3FFE8003u << 5 << 0x40100001u;
    QTest::newRow("data above text")
        << true << 0x3FFE8000u << 0x100 << true << 0x4010E000u << 0x100 << 0x3FFE8004u;
    QTest::newRow("top of address space")
        << true << 0xFFFFFF00u << 0x100 << true << 0u << 1 << 0xFFFFFFFFu;
}

void TestElfStubImage::roundTrip()
{
    QFETCH(bool, hasText);
    QFETCH(quint32, textAddress);
    QFETCH(int, textSize);
    QFETCH(bool, hasData);
    QFETCH(quint32, dataAddress);
    QFETCH(int, dataSize);
    QFETCH(quint32, entry);

    const QByteArray text = randomBytes(11, textSize);
    const QByteArray data = randomBytes(12, dataSize);
    StubElfWriter writer;
    if (hasText)
        writer.setText(textAddress, text);
    if (hasData)
        writer.setData(dataAddress, data);
    writer.setEntry(entry);
    QString error;
    const QByteArray bytes = writer.toBytes(&error);
    QVERIFY2(!bytes.isEmpty(), qPrintable(error));

    ElfStubImage image;
    QVERIFY2(image.load(bytes), qPrintable(image.errorString()));
    QVERIFY(image.isValid());
    QVERIFY(image.errorString().isEmpty());
    QCOMPARE(image.entry(), entry);
    QCOMPARE(image.machine(), MachineXtensa);

    QStringList expectedNames;
    if (hasText)
        expectedNames << ".text";
    if (hasData)
        expectedNames << ".data";
    expectedNames << ".shstrtab";
    QCOMPARE(sectionNames(image), expectedNames);

    const ElfStubImage::Section *textSection = image.section(".text");
    QCOMPARE(textSection != nullptr, hasText);
    if (textSection) {
        QCOMPARE(textSection->address, textAddress);
        QCOMPARE(textSection->size, quint32(textSize));
        QCOMPARE(textSection->data, text);
    }
    const ElfStubImage::Section *dataSection = image.section(".data");
    QCOMPARE(dataSection != nullptr, hasData);
    if (dataSection) {
        QCOMPARE(dataSection->address, dataAddress);
        QCOMPARE(dataSection->size, quint32(dataSize));
        QCOMPARE(dataSection->data, data);
    }
    // The name table itself comes through as a section too, with its bytes.
    const ElfStubImage::Section *names = image.section(".shstrtab");
    QVERIFY(names);
    QVERIFY(names->data.contains(QByteArray(".shstrtab\0", 10)));
    QCOMPARE(names->data.size(), int(names->size));
}

void TestElfStubImage::lookupIsExact()
{
    ElfStubImage image;
    QVERIFY(image.load(stubBytes(0x20, 0x10)));
    QVERIFY(image.section(".text"));
    QVERIFY(!image.section("text"));
    QVERIFY(!image.section(".tex"));
    QVERIFY(!image.section(".text "));
    QVERIFY(!image.section(".TEXT"));
    QVERIFY(!image.section(""));
    QVERIFY(!image.section(".bss"));
}

void TestElfStubImage::loadFromDevicePosition()
{
    // A package entry or file may be read from a position other than 0: parsing starts there.
    const QByteArray elf = stubBytes(0x300, 0x40);
    QByteArray stored = QByteArray("leading junk that is not part of the loader");
    const int start = stored.size();
    stored.append(elf);
    QBuffer buffer(&stored);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    QVERIFY(buffer.seek(start));

    ElfStubImage image;
    QVERIFY2(image.load(&buffer), qPrintable(image.errorString()));
    QCOMPARE(image.section(".text")->size, 0x300u);
    QVERIFY(buffer.atEnd());

    // From position 0 the junk comes first and the file is no ELF.
    QVERIFY(buffer.seek(0));
    QVERIFY(!image.load(&buffer));
    QVERIFY(image.errorString().contains("Not an ELF file"));
}

void TestElfStubImage::loadFromUnreadableDevice()
{
    ElfStubImage image;
    QVERIFY(!image.load(static_cast<QIODevice *>(nullptr)));
    QVERIFY(!image.errorString().isEmpty());

    QByteArray bytes = stubBytes(0x20, 0x20);
    QBuffer closed(&bytes);
    QVERIFY(!image.load(&closed));
    QVERIFY(image.errorString().contains("not open for reading"));

    QBuffer writeOnly(&bytes);
    QVERIFY(writeOnly.open(QIODevice::WriteOnly));
    QVERIFY(!image.load(&writeOnly));
    QVERIFY(!image.errorString().isEmpty());

    QFile missing(QDir::temp().filePath("no-such-dir-esp/none.elf"));
    QVERIFY(!missing.open(QIODevice::ReadOnly));
    QVERIFY(!image.load(&missing));
    QVERIFY(!image.isValid());
}

void TestElfStubImage::emptyInput()
{
    ElfStubImage image;
    QVERIFY(!image.load(QByteArray()));
    QVERIFY(!image.isValid());
    QVERIFY(image.errorString().contains("empty"));
    QVERIFY(image.sections().isEmpty());

    QBuffer buffer;
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    QVERIFY(!image.load(&buffer));
    QVERIFY(image.errorString().contains("empty"));
}

void TestElfStubImage::oversizedInputRefused()
{
    // A valid loader followed by far more bytes than any loader has: refused, and the device is
    // not drained beyond the limit.
    QByteArray bytes = stubBytes(0x20, 0x20);
    bytes.append(QByteArray(int(ElfStubImage::MaxFileSize), '\0'));
    ElfStubImage image;
    QVERIFY(!image.load(bytes));
    QVERIFY2(image.errorString().contains("too large"), qPrintable(image.errorString()));

    QBuffer buffer(&bytes);
    QVERIFY(buffer.open(QIODevice::ReadOnly));
    QVERIFY(!image.load(&buffer));
    QVERIFY2(image.errorString().contains("too large"), qPrintable(image.errorString()));
    QCOMPARE(buffer.pos(), ElfStubImage::MaxFileSize + 1);

    // Exactly at the limit is still read.
    bytes.resize(int(ElfStubImage::MaxFileSize));
    QVERIFY2(image.load(bytes), qPrintable(image.errorString()));
}

void TestElfStubImage::failureClearsPreviousImage()
{
    ElfStubImage image;
    QVERIFY(image.load(stubBytes(0x20, 0x20)));
    QVERIFY(image.section(".text"));
    QVERIFY(!image.load(QByteArray("garbage")));
    QVERIFY(!image.isValid());
    QCOMPARE(image.entry(), 0u);
    QVERIFY(image.sections().isEmpty());
    QVERIFY(!image.section(".text"));

    // And a later success clears the old error.
    QVERIFY(image.load(stubBytes(0x20, 0x20)));
    QVERIFY(image.errorString().isEmpty());
}

void TestElfStubImage::notElf_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("text") << QByteArray("This is a readme, not a loader.\n");
    QTest::newRow("one byte") << QByteArray(1, '\x7f');
    QTest::newRow("almost magic") << QByteArray("\x7f"
                                                "ELG\x01\x01\x01",
                                                7) +
                                         QByteArray(60, 0);
    QTest::newRow("zeros") << QByteArray(4096, '\0');
    QTest::newRow("zip") << QByteArray("PK\x03\x04", 4) + QByteArray(100, 'x');
    QTest::newRow("firmware image") << QByteArray("\xe9\x03\x02\x20", 4) + randomBytes(5, 200);
    QTest::newRow("random") << randomBytes(6, 1000);
}

void TestElfStubImage::notElf()
{
    QFETCH(QByteArray, bytes);
    ElfStubImage image;
    QVERIFY(!image.load(bytes));
    QCOMPARE(image.errorString(), QStringLiteral("Not an ELF file"));
}

void TestElfStubImage::truncated_data()
{
    QTest::addColumn<int>("cut");
    QTest::addColumn<QString>("message");

    const QByteArray bytes = stubBytes();
    const int tableStart = int(read32(bytes, HeaderSectionTableOffset));
    const int textStart = int(read32(bytes, sectionHeaderAt(bytes, 1) + SectionOffset));
    const int dataStart = int(read32(bytes, sectionHeaderAt(bytes, 2) + SectionOffset));
    QTest::newRow("inside magic") << 3 << "Not an ELF file";
    QTest::newRow("after magic") << 4 << "truncated";
    QTest::newRow("inside identification") << 15 << "truncated";
    QTest::newRow("identification only") << 16 << "truncated";
    QTest::newRow("header minus one") << 51 << "truncated";
    QTest::newRow("header only") << 52 << "truncated";
    QTest::newRow("inside program headers") << 70 << "truncated";
    QTest::newRow("start of text") << textStart << "truncated";
    QTest::newRow("middle of text") << textStart + 0x1000 << "truncated";
    QTest::newRow("start of data") << dataStart << "truncated";
    QTest::newRow("middle of data") << dataStart + 7 << "truncated";
    QTest::newRow("start of section table") << tableStart << "truncated";
    QTest::newRow("inside section table") << tableStart + 50 << "truncated";
    QTest::newRow("last byte missing") << bytes.size() - 1 << "truncated";
}

void TestElfStubImage::truncated()
{
    QFETCH(int, cut);
    QFETCH(QString, message);
    const QByteArray bytes = stubBytes();
    // The writer puts the section table last, so every cut damages it.
    QCOMPARE(read32(bytes, HeaderSectionTableOffset) +
                 read16(bytes, HeaderSectionCount) * quint32(SectionHeaderSize),
             quint32(bytes.size()));
    ElfStubImage image;
    QVERIFY(!image.load(bytes.left(cut)));
    QVERIFY2(image.errorString().contains(message), qPrintable(image.errorString()));
}

void TestElfStubImage::everyTruncationRefused()
{
    const QByteArray bytes = stubBytes(0x30, 0x11);
    ElfStubImage image;
    for (int cut = 0; cut < bytes.size(); ++cut) {
        QVERIFY2(!image.load(bytes.left(cut)), qPrintable(QString("cut at %1").arg(cut)));
        QVERIFY(!image.errorString().isEmpty());
    }
    QVERIFY(image.load(bytes));
}

void TestElfStubImage::wrongClassOrByteOrder_data()
{
    QTest::addColumn<int>("offset");
    QTest::addColumn<int>("value");
    QTest::addColumn<QString>("message");
    QTest::newRow("64-bit") << 4 << 2 << "64-bit";
    QTest::newRow("no class") << 4 << 0 << "unknown class";
    QTest::newRow("class 3") << 4 << 3 << "unknown class";
    QTest::newRow("big-endian") << 5 << 2 << "big-endian";
    QTest::newRow("no byte order") << 5 << 0 << "unknown byte order";
}

void TestElfStubImage::wrongClassOrByteOrder()
{
    QFETCH(int, offset);
    QFETCH(int, value);
    QFETCH(QString, message);
    QByteArray bytes = stubBytes(0x40, 0x40);
    bytes[offset] = char(value);
    ElfStubImage image;
    QVERIFY(!image.load(bytes));
    QVERIFY2(image.errorString().contains(message), qPrintable(image.errorString()));
}

void TestElfStubImage::real64BitExecutableRefused()
{
    // This test program is itself a 64-bit ELF file on the machines the suite runs on.
    QFile self(QCoreApplication::applicationFilePath());
    QVERIFY(self.open(QIODevice::ReadOnly));
    const QByteArray head = self.peek(5);
    if (!head.startsWith("\x7f"
                         "ELF") ||
        head.at(4) != 2)
        QSKIP("the test program is not a 64-bit ELF file here");
    ElfStubImage image;
    QVERIFY(!image.load(&self));
    QVERIFY2(image.errorString().contains("64-bit"), qPrintable(image.errorString()));
}

void TestElfStubImage::brokenSectionTable_data()
{
    // Each row corrupts one field: (-1 = ELF header, else section index), field offset, width,
    // new value, and a word the message must contain.
    QTest::addColumn<int>("section");
    QTest::addColumn<int>("field");
    QTest::addColumn<int>("width");
    QTest::addColumn<quint32>("value");
    QTest::addColumn<QString>("message");

    QTest::newRow("text beyond end") << 1 << SectionOffset << 4 << 0x4000u << "truncated";
    QTest::newRow("text offset wraps 32 bits")
        << 1 << SectionOffset << 4 << 0xFFFFFFF0u << "truncated";
    QTest::newRow("text size beyond end") << 1 << SectionSize << 4 << 0x10000u << "truncated";
    QTest::newRow("text size huge") << 1 << SectionSize << 4 << 0xFFFFFFF0u << "address space";
    QTest::newRow("data ends one past") << 2 << SectionSize << 4 << 0x4000u << "truncated";
    QTest::newRow("names beyond end") << 3 << SectionOffset << 4 << 0x100000u << "name";
    QTest::newRow("names not a string table") << 3 << SectionType << 4 << 1u << "name";
    QTest::newRow("name offset outside names") << 1 << SectionName << 4 << 0x1000u << "name";
    QTest::newRow("text wraps address space")
        << 1 << SectionAddress << 4 << 0xFFFFF000u << "address space";
    QTest::newRow("table beyond end")
        << -1 << HeaderSectionTableOffset << 4 << 0x100000u << "truncated";
    QTest::newRow("table offset wraps")
        << -1 << HeaderSectionTableOffset << 4 << 0xFFFFFFF0u << "truncated";
    QTest::newRow("table overlaps header")
        << -1 << HeaderSectionTableOffset << 4 << 8u << "overlaps";
    QTest::newRow("too many sections") << -1 << HeaderSectionCount << 2 << 0xFFFFu << "truncated";
    QTest::newRow("wrong entry size")
        << -1 << HeaderSectionEntrySize << 2 << 32u << "entries of 32 bytes";
    QTest::newRow("names index out of range") << -1 << HeaderNamesIndex << 2 << 9u << "name";
}

void TestElfStubImage::brokenSectionTable()
{
    QFETCH(int, section);
    QFETCH(int, field);
    QFETCH(int, width);
    QFETCH(quint32, value);
    QFETCH(QString, message);

    QByteArray bytes = stubBytes(0x2100, 0x200);
    // .data ends where .shstrtab starts; make the "one past" row exactly one byte too long.
    if (QByteArray(QTest::currentDataTag()) == "data ends one past") {
        const int dataHeader = sectionHeaderAt(bytes, 2);
        value = quint32(bytes.size()) - read32(bytes, dataHeader + SectionOffset) + 1;
    }
    const int at = section < 0 ? field : sectionHeaderAt(bytes, section) + field;
    if (width == 4)
        put32(bytes, at, value);
    else
        put16(bytes, at, quint16(value));

    ElfStubImage image;
    QVERIFY(!image.load(bytes));
    QVERIFY(!image.isValid());
    QVERIFY(image.sections().isEmpty());
    QVERIFY(!image.errorString().isEmpty());
    QVERIFY2(image.errorString().contains(message), qPrintable(image.errorString()));
}

void TestElfStubImage::noBitsSectionHasNoData()
{
    // A NOBITS section occupies memory but no file bytes, whatever its size: even one far larger
    // than the file must not be read from the file.
    QByteArray bytes = stubBytes(0x100, 0x80);
    const int dataHeader = sectionHeaderAt(bytes, 2);
    put32(bytes, dataHeader + SectionType, SectionTypeNoBits);
    put32(bytes, dataHeader + SectionSize, 0x100000);
    ElfStubImage image;
    QVERIFY2(image.load(bytes), qPrintable(image.errorString()));
    const ElfStubImage::Section *data = image.section(".data");
    QVERIFY(data);
    QCOMPARE(data->size, 0x100000u);
    QVERIFY(data->data.isEmpty());
    QCOMPARE(image.section(".text")->data.size(), 0x100);
}

void TestElfStubImage::sectionsWithoutNameTable()
{
    // An ELF file may declare no name table: its sections are read, but none can be found by name.
    QByteArray bytes = stubBytes(0x100, 0x80);
    put16(bytes, HeaderNamesIndex, 0);
    ElfStubImage image;
    QVERIFY2(image.load(bytes), qPrintable(image.errorString()));
    QCOMPARE(image.sections().size(), 3);
    QCOMPARE(sectionNames(image), QStringList({"", "", ""}));
    QVERIFY(!image.section(".text"));
    QCOMPARE(image.sections().at(0).address, 0x4010E000u);
    QCOMPARE(image.sections().at(0).data.size(), 0x100);
}

void TestElfStubImage::randomCorruptionKeepsInvariants()
{
    // Whatever comes out of a damaged file is either a refusal with a reason or sections whose
    // bytes match their sizes; never anything in between.
    const QByteArray original = stubBytes(0x80, 0x40);
    QRandomGenerator generator(0xE1F);
    int accepted = 0;
    int refused = 0;
    ElfStubImage image;
    for (int round = 0; round < 3000; ++round) {
        QByteArray bytes = original;
        const int flips = 1 + int(generator.bounded(4));
        for (int i = 0; i < flips; ++i) {
            // Mostly the headers, where damage matters; sometimes anywhere.
            const int limit = generator.bounded(4) == 0 ? bytes.size() : 0x40;
            const int at =
                generator.bounded(4) == 0
                    ? sectionHeaderAt(original, 0) + int(generator.bounded(4 * SectionHeaderSize))
                    : int(generator.bounded(limit));
            bytes[at] = char(generator.bounded(256));
        }
        if (image.load(bytes)) {
            ++accepted;
            QVERIFY(image.errorString().isEmpty());
            for (const ElfStubImage::Section &section : image.sections()) {
                QVERIFY(section.data.isEmpty() || section.data.size() == int(section.size));
                QVERIFY(quint64(section.address) + section.size <= (quint64(1) << 32));
            }
        } else {
            ++refused;
            QVERIFY(!image.errorString().isEmpty());
            QVERIFY(image.sections().isEmpty());
        }
    }
    // Both outcomes must have been exercised for the invariants above to mean anything.
    QVERIFY(accepted > 0);
    QVERIFY(refused > 0);
}

void TestElfStubImage::writerFailsOnMissingDirectory()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath("missing/stub.elf");
    QString error;
    QVERIFY(!VirtualLoaderStub::defaultWriter().write(path, &error));
    QVERIFY(error.contains(path));
    QVERIFY(!QFile::exists(path));

    QVERIFY(VirtualLoaderStub::defaultWriter().write(dir.filePath("stub.elf"), &error));
    ElfStubImage image;
    QFile file(dir.filePath("stub.elf"));
    QVERIFY(file.open(QIODevice::ReadOnly));
    QVERIFY(image.load(&file));
}

void TestElfStubImage::readelfAcceptsWriterOutput_data()
{
    QTest::addColumn<bool>("hasText");
    QTest::addColumn<bool>("hasData");
    QTest::addColumn<quint32>("textAddress");
    QTest::newRow("both") << true << true << 0x4010E000u;
    QTest::newRow("text only") << true << false << 0x4010E000u;
    QTest::newRow("data only") << false << true << 0x4010E000u;
    QTest::newRow("unaligned text") << true << true << 0x4010E002u;
}

void TestElfStubImage::readelfAcceptsWriterOutput()
{
    QFETCH(bool, hasText);
    QFETCH(bool, hasData);
    QFETCH(quint32, textAddress);
    const QString readelf = QStandardPaths::findExecutable("readelf");
    if (readelf.isEmpty())
        QSKIP("readelf is not installed");

    StubElfWriter writer;
    if (hasText)
        writer.setText(textAddress, VirtualLoaderStub::textBytes(0x2100));
    if (hasData)
        writer.setData(0x3FFE8000, VirtualLoaderStub::dataBytes(0x200));
    writer.setEntry(0x4010E004);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath("stub.elf");
    QString error;
    QVERIFY2(writer.write(path, &error), qPrintable(error));

    QProcess process;
    process.start(readelf, {"-a", "-W", path});
    QVERIFY(process.waitForFinished(30000));
    const QString out = QString::fromLocal8Bit(process.readAllStandardOutput());
    const QString err = QString::fromLocal8Bit(process.readAllStandardError());
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(process.exitCode(), 0);
    QVERIFY2(err.trimmed().isEmpty(), qPrintable(err));
    QVERIFY2(!out.contains("Warning", Qt::CaseInsensitive), qPrintable(out));
    QVERIFY(out.contains(QRegularExpression(R"(Class:\s+ELF32)")));
    QVERIFY(out.contains(QRegularExpression(R"(Data:\s+2's complement, little endian)")));
    QVERIFY(out.contains(QRegularExpression(R"(Type:\s+EXEC)")));
    QVERIFY(out.contains(QRegularExpression(R"(Machine:\s+Tensilica Xtensa)")));
    QVERIFY(out.contains(QRegularExpression(R"(Entry point address:\s+0x4010e004)")));

    const QString text = QStringLiteral(R"(\.text\s+PROGBITS\s+%1\s+\S+\s+002100\s+00\s+AX\s)")
                             .arg(textAddress, 8, 16, QLatin1Char('0'));
    QCOMPARE(out.contains(QRegularExpression(text)), hasText);
    const QString data =
        QStringLiteral(R"(\.data\s+PROGBITS\s+3ffe8000\s+\S+\s+000200\s+00\s+WA\s)");
    QCOMPARE(out.contains(QRegularExpression(data)), hasData);

    // One loadable segment per section, each mapping exactly its section.
    const int loads =
        out.count(QRegularExpression(R"(^\s+LOAD\s)", QRegularExpression::MultilineOption));
    QCOMPARE(loads, int(hasText) + int(hasData));
    if (hasText) {
        const QString segment =
            QStringLiteral(R"(LOAD\s+\S+\s+0x%1\s+0x%1\s+0x02100\s+0x02100\s+R E)")
                .arg(textAddress, 8, 16, QLatin1Char('0'));
        QVERIFY2(out.contains(QRegularExpression(segment)), qPrintable(out));
    }
    if (hasData)
        QVERIFY(out.contains(QRegularExpression(
            R"(LOAD\s+\S+\s+0x3ffe8000\s+0x3ffe8000\s+0x00200\s+0x00200\s+RW )")));
}

void TestElfStubImage::generatedStubLayout()
{
    QFile file(testBuildDir() + "/stub/esp8266_loader_stub.elf");
    QVERIFY2(file.open(QIODevice::ReadOnly), qPrintable(file.fileName()));
    ElfStubImage image;
    QVERIFY2(image.load(&file), qPrintable(image.errorString()));
    QCOMPARE(image.machine(), MachineXtensa);

    const ElfStubImage::Section *text = image.section(".text");
    const ElfStubImage::Section *data = image.section(".data");
    QVERIFY(text);
    QVERIFY(data);
    QCOMPARE(text->address, 0x4010C000u);
    QCOMPARE(data->address, 0x3FFE8000u);
    // The upload must take more than one 0x1800-byte RAM block for .text.
    QVERIFY(text->size > 0x1800);
    QVERIFY(data->size >= 0x100 && data->size < 0x1800);
    QCOMPARE(text->data.size(), int(text->size));
    QCOMPARE(data->data.size(), int(data->size));
    QCOMPARE(image.entry(), 0x4010C004u);
    QVERIFY(image.entry() >= text->address && image.entry() < text->address + text->size);
    QVERIFY(text->data.startsWith(VirtualLoaderStub::textIdentification()));
    QVERIFY(data->data.startsWith(VirtualLoaderStub::dataIdentification()));
    QCOMPARE(text->data, VirtualLoaderStub::textBytes(text->size));
    QCOMPARE(data->data, VirtualLoaderStub::dataBytes(data->size));
    // The filler is not a constant run: distinct blocks of the upload differ.
    QVERIFY(text->data.mid(0x100, 0x100) != text->data.mid(0x1900, 0x100));
}

namespace {

QString makeStubProgram()
{
    return testBuildDir() + "/tools/stubgen/esp-make-stub";
}

} // namespace

void TestElfStubImage::makeStubOptions_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QStringList>("names");
    QTest::addColumn<quint32>("textAddress");
    QTest::addColumn<quint32>("textSize");
    QTest::addColumn<quint32>("dataAddress");
    QTest::addColumn<quint32>("dataSize");
    QTest::addColumn<quint32>("entry");

    QTest::newRow("defaults") << QStringList() << QStringList{".text", ".data", ".shstrtab"}
                              << 0x4010C000u << 0x2100u << 0x3FFE8000u << 0x200u << 0x4010C004u;
    QTest::newRow("sizes and addresses")
        << QStringList{"--text-size", "0x1801",     "--data-size", "300",
                       "--text-addr", "0x40100000", "--data-addr", "0x3FFE9000"}
        << QStringList{".text", ".data", ".shstrtab"} << 0x40100000u << 0x1801u << 0x3FFE9000u
        << 300u << 0x40100004u;
    QTest::newRow("explicit entry")
        << QStringList{"--entry", "0x3FFE8010"} << QStringList{".text", ".data", ".shstrtab"}
        << 0x4010C000u << 0x2100u << 0x3FFE8000u << 0x200u << 0x3FFE8010u;
    QTest::newRow("no data") << QStringList{"--no-data"} << QStringList{".text", ".shstrtab"}
                             << 0x4010C000u << 0x2100u << 0u << 0u << 0x4010C004u;
    QTest::newRow("no text") << QStringList{"--no-text"} << QStringList{".data", ".shstrtab"} << 0u
                             << 0u << 0x3FFE8000u << 0x200u << 0x4010C004u;
}

void TestElfStubImage::makeStubOptions()
{
    QFETCH(QStringList, arguments);
    QFETCH(QStringList, names);
    QFETCH(quint32, textAddress);
    QFETCH(quint32, textSize);
    QFETCH(quint32, dataAddress);
    QFETCH(quint32, dataSize);
    QFETCH(quint32, entry);

    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath("stub.elf");
    QProcess process;
    process.start(makeStubProgram(), QStringList{"-o", path} + arguments);
    QVERIFY2(process.waitForFinished(30000), qPrintable(process.errorString()));
    QVERIFY2(process.exitCode() == 0, process.readAllStandardError().constData());

    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    ElfStubImage image;
    QVERIFY2(image.load(&file), qPrintable(image.errorString()));
    QCOMPARE(sectionNames(image), names);
    QCOMPARE(image.entry(), entry);
    if (const ElfStubImage::Section *text = image.section(".text")) {
        QCOMPARE(text->address, textAddress);
        QCOMPARE(text->size, textSize);
        QCOMPARE(text->data, VirtualLoaderStub::textBytes(textSize));
    }
    if (const ElfStubImage::Section *data = image.section(".data")) {
        QCOMPARE(data->address, dataAddress);
        QCOMPARE(data->size, dataSize);
        QCOMPARE(data->data, VirtualLoaderStub::dataBytes(dataSize));
    }
}

void TestElfStubImage::makeStubRejectsBadArguments_data()
{
    QTest::addColumn<QStringList>("arguments");
    QTest::newRow("no output") << QStringList{"--no-data"};
    QTest::newRow("bad size") << QStringList{"-o", "%1", "--text-size", "lots"};
    QTest::newRow("bad address") << QStringList{"-o", "%1", "--data-addr", "0xZZ"};
    QTest::newRow("size too large") << QStringList{"-o", "%1", "--text-size", "0x200000"};
    QTest::newRow("wraps address space")
        << QStringList{"-o", "%1", "--text-addr", "0xFFFFFF00", "--text-size", "0x200"};
    QTest::newRow("unknown option") << QStringList{"-o", "%1", "--bss"};
    QTest::newRow("stray argument") << QStringList{"-o", "%1", "extra"};
}

void TestElfStubImage::makeStubRejectsBadArguments()
{
    QFETCH(QStringList, arguments);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath("stub.elf");
    for (QString &argument : arguments)
        argument.replace("%1", path);
    QProcess process;
    process.start(makeStubProgram(), arguments);
    QVERIFY2(process.waitForFinished(30000), qPrintable(process.errorString()));
    QCOMPARE(process.exitStatus(), QProcess::NormalExit);
    QVERIFY(process.exitCode() != 0);
    QVERIFY(!process.readAllStandardError().trimmed().isEmpty());
    QVERIFY(!QFile::exists(path));
}

QTEST_GUILESS_MAIN(TestElfStubImage)
#include "tst_elfstubimage.moc"
