// Inputs that once misled a parser: each case keeps the shape of the file the fuzz targets
// found (their reproducers are in fuzz/corpus/), reduced to what matters.

#include "scattertestfiles.h"

#include "flasher/esppackage.h"
#include "flasher/scattervalidator.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

namespace {

const QString chipDescription = QStringLiteral("ESP8266EX / 00a1b2c3");

// Offset of the file-comment length in a central directory record.
constexpr int centralCommentLengthAt = 32;

// Makes the last central directory record claim a file comment far longer than the rest of the
// archive: its name can still be listed, its details can no longer be read.
bool breakLastCentralRecord(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite))
        return false;
    QByteArray bytes = file.readAll();
    const int record = bytes.lastIndexOf(QByteArrayLiteral("PK\x01\x02"));
    if (record < 0 || record + centralCommentLengthAt + 2 > bytes.size())
        return false;
    qToLittleEndian<quint16>(0xFFFF, bytes.data() + record + centralCommentLengthAt);
    file.seek(0);
    return file.write(bytes) == bytes.size();
}

// Offset of the central directory's position in the end record.
constexpr int endRecordDirectoryOffsetAt = 16;

// Puts the central directory at offset 0 in the end record, while it really follows the
// entries: the archive code then takes everything before it for a prefix (as in a
// self-extracting archive) and finds no entry where the directory says.
bool misplaceCentralDirectory(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite))
        return false;
    QByteArray bytes = file.readAll();
    const int end = bytes.lastIndexOf(QByteArrayLiteral("PK\x05\x06"));
    if (end < 0 || end + endRecordDirectoryOffsetAt + 4 > bytes.size())
        return false;
    qToLittleEndian<quint32>(0, bytes.data() + end + endRecordDirectoryOffsetAt);
    file.seek(0);
    return file.write(bytes) == bytes.size();
}

} // namespace

class TestMalformedInput : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

private slots:
    void packageEntrySizeDespiteAnUnreadableRecord();
    void packageRegionEndDespiteAnUnreadableRecord();
    void packageEntryListIsStable();
};

void TestMalformedInput::packageEntrySizeDespiteAnUnreadableRecord()
{
    const QString path = m_dir.filePath(QStringLiteral("sizes.zip"));
    const QByteArray password = EspPackage::password(QStringLiteral("sizes"));
    const QByteArray application = patternBytes(300, 1);
    QVERIFY(writeTestZip(path, QStringLiteral("sizes"),
                         {{QStringLiteral("app.bin"), application},
                          {QStringLiteral("broken.bin"), patternBytes(40, 2)}},
                         &password));
    QVERIFY(breakLastCentralRecord(path));

    EspPackage package(path);
    QVERIFY(package.open());
    QCOMPARE(package.entryNames(), QStringList({"app.bin", "broken.bin"}));
    QCOMPARE(package.uncompressedSize(QStringLiteral("app.bin")), qint64(application.size()));
    QCOMPARE(package.uncompressedSize(QStringLiteral("broken.bin")), qint64(-1));
    QCOMPARE(package.uncompressedSize(QStringLiteral("absent.bin")), qint64(-1));
    QByteArray bytes;
    QCOMPARE(package.readEntry(QStringLiteral("app.bin"), &bytes), EspPackage::EntryStatus::Ok);
    QCOMPARE(bytes, application);
    QVERIFY(package.readEntry(QStringLiteral("broken.bin"), &bytes) != EspPackage::EntryStatus::Ok);
    QVERIFY(bytes.isEmpty());
}

void TestMalformedInput::packageRegionEndDespiteAnUnreadableRecord()
{
    // A section without `size` ends at its start plus the entry's size, even when another entry
    // of the package is damaged.
    const QString path = m_dir.filePath(QStringLiteral("region.zip"));
    const QByteArray password = EspPackage::password(QStringLiteral("region"));
    const QByteArray application = patternBytes(0x234, 3);
    const QString loader = QString::fromLatin1(EspPackage::stubEntryName);
    QVERIFY(writeTestZip(path, QStringLiteral("region"),
                         {{loader, patternBytes(64, 4)},
                          {QStringLiteral("app.bin"), application},
                          {QStringLiteral("broken.bin"), patternBytes(40, 5)}},
                         &password));
    QVERIFY(breakLastCentralRecord(path));

    EspPackage package(path);
    QVERIFY(package.open());
    const QJsonObject document{{"chip", "ESP8266EX"},
                               {"stub", loader},
                               {"sections", QJsonArray{QJsonObject{{"type", "application"},
                                                                   {"address", "0x1000"},
                                                                   {"file", "app.bin"},
                                                                   {"md5", md5Hex(application)}}}}};
    ScatterValidator validator(chipDescription, QString());
    QString error;
    QVERIFY2(validator.parseScatterPack(document, package, &error), qPrintable(error));
    QCOMPARE(validator.rows().size(), 1);
    QCOMPARE(validator.rows().at(0).startAddress, 0x1000u);
    QCOMPARE(validator.rows().at(0).endAddress, 0x1000u + quint32(application.size()));
}

void TestMalformedInput::packageEntryListIsStable()
{
    // The same question about the same open package gets the same answer, however often it is
    // asked and whatever was read in between.
    const QString path = m_dir.filePath(QStringLiteral("misplaced.zip"));
    const QByteArray password = EspPackage::password(QStringLiteral("misplaced"));
    const QString loader = QString::fromLatin1(EspPackage::stubEntryName);
    QVERIFY(writeTestZip(
        path, QStringLiteral("misplaced"),
        {{loader, patternBytes(64, 6)}, {QStringLiteral("scatter.txt"), QByteArray("{}")}},
        &password));
    QVERIFY(misplaceCentralDirectory(path));

    EspPackage package(path);
    QVERIFY(package.open());
    const QStringList names{loader, QStringLiteral("scatter.txt")};
    for (int round = 0; round < 3; ++round) {
        QCOMPARE(package.entryNames(), names);
        QVERIFY(package.contains(loader));
        QVERIFY(package.contains(QStringLiteral("scatter.txt")));
    }
    QByteArray bytes;
    QVERIFY(package.readEntry(QStringLiteral("scatter.txt"), &bytes) !=
            EspPackage::EntryStatus::Ok);
    QCOMPARE(package.entryNames(), names);
    QVERIFY(package.contains(loader));
    package.close();
    QVERIFY(package.entryNames().isEmpty());
}

QTEST_GUILESS_MAIN(TestMalformedInput)
#include "tst_malformedinput.moc"
