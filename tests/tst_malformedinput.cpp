// Package archives that once misled the reader: each keeps the shape of the file the fuzz targets
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

// Offset of the file-comment length in a central directory record.
constexpr int centralCommentLengthAt = 32;
// Offset of the central directory's position in the end record.
constexpr int endRecordDirectoryOffsetAt = 16;

// Writes a package of the given entries, then the 16-bit value at `offset` past the last
// occurrence of `signature` (the archives here are far too small for higher bits).
bool writeDamagedPackage(const QString &path, const ZipEntries &entries,
                         const QByteArray &signature, int offset, quint16 value)
{
    const QByteArray password = EspPackage::password("damaged");
    if (!writeTestZip(path, "damaged", entries, &password))
        return false;
    QFile file(path);
    if (!file.open(QIODevice::ReadWrite))
        return false;
    QByteArray bytes = file.readAll();
    const int at = bytes.lastIndexOf(signature) + offset;
    if (at < offset || at + 2 > bytes.size())
        return false;
    qToLittleEndian<quint16>(value, bytes.data() + at);
    return file.seek(0) && file.write(bytes) == bytes.size();
}

QJsonObject scatterOf(const QString &file, const QByteArray &bytes)
{
    const QJsonObject section{
        {"type", "application"}, {"address", "0x1000"}, {"file", file}, {"md5", md5Hex(bytes)}};
    return {{"chip", "ESP8266EX"},
            {"stub", EspPackage::stubEntryName},
            {"sections", QJsonArray{section}}};
}

} // namespace

class TestMalformedInput : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;

private slots:
    // The last central directory record claims a file comment far longer than the archive: its
    // name can still be listed, its details no longer read. The other entries' sizes must stay
    // readable (a section without `size` ended where it began).
    void entrySizeDespiteAnUnreadableRecord()
    {
        const QString path = m_dir.filePath("sizes.zip");
        const QByteArray application = patternBytes(0x234, 3);
        QVERIFY(writeDamagedPackage(path,
                                    {{EspPackage::stubEntryName, patternBytes(64, 4)},
                                     {"app.bin", application},
                                     {"broken.bin", patternBytes(40, 5)}},
                                    "PK\x01\x02", centralCommentLengthAt, 0xFFFF));
        EspPackage package(path);
        QVERIFY(package.open());
        QCOMPARE(package.entryNames(),
                 QStringList({EspPackage::stubEntryName, "app.bin", "broken.bin"}));
        QCOMPARE(package.uncompressedSize("app.bin"), qint64(application.size()));
        QCOMPARE(package.uncompressedSize("broken.bin"), qint64(-1));
        QByteArray bytes;
        QVERIFY(package.readEntry("broken.bin", &bytes) != EspPackage::EntryStatus::Ok);
        QVERIFY(bytes.isEmpty());

        ScatterValidator validator("ESP8266EX / 00a1b2c3", QString());
        QString error;
        QVERIFY2(validator.parseScatterPack(scatterOf("app.bin", application), package, &error),
                 qPrintable(error));
        QCOMPARE(validator.rows().at(0).endAddress, 0x1000u + quint32(application.size()));
    }

    // The end record puts the central directory at offset 0 while it follows the entries: the
    // archive code then finds no entry where the directory says. The names listed when the
    // package opened must stay the answer, however often asked and whatever was read between.
    void entryListIsStable()
    {
        const QString path = m_dir.filePath("misplaced.zip");
        const QByteArray application = patternBytes(64, 6);
        QVERIFY(writeDamagedPackage(
            path, {{EspPackage::stubEntryName, patternBytes(64, 6)}, {"app.bin", application}},
            "PK\x05\x06", endRecordDirectoryOffsetAt, 0));
        EspPackage package(path);
        QVERIFY(package.open());
        const QStringList names{EspPackage::stubEntryName, "app.bin"};
        QCOMPARE(package.entryNames(), names);
        QByteArray bytes;
        QVERIFY(package.readEntry("app.bin", &bytes) != EspPackage::EntryStatus::Ok);
        QCOMPARE(package.entryNames(), names);

        ScatterValidator validator("ESP8266EX / 00a1b2c3", QString());
        QString error;
        QVERIFY(!validator.parseScatterPack(scatterOf("app.bin", application), package, &error));
        QCOMPARE(
            error,
            QString("File app.bin within the package cannot be read (%1)").arg(package.zipError()));
        QCOMPARE(package.entryNames(), names);
        package.close();
        QVERIFY(package.entryNames().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestMalformedInput)
#include "tst_malformedinput.moc"
