#include "scattertestfiles.h"

#include "flasher/esppackage.h"
#include "flasher/esppackagewriter.h"
#include "flasher/scatterloader.h"
#include "flasher/scattervalidator.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <quazip.h>
#include <quazipfileinfo.h>

namespace {

const QString chipDescription = QStringLiteral("ESP8266EX / 00a1b2c3");
const QStringList stubAndApp{EspPackage::stubEntryName, "app.bin"};
const auto ff = [](int size) { return QByteArray(size, '\xFF'); };

ScatterSection row(int kind, quint32 address, const QString &file)
{
    ScatterSection section;
    section.hasCells = true;
    section.kind = kind;
    section.startAddress = address;
    section.file = file;
    section.flashMode = "qio";
    section.flashSize = "1MB";
    section.flashFrequency = "80m";
    return section;
}

// Loads a document of one application section at 0x1000 from the package (without md5 when
// none is given): the error, or else the section's end.
QString loadApplication(EspPackage &package, const QString &file, const QString &md5 = QString())
{
    QJsonObject section{{"type", "application"}, {"address", "0x1000"}, {"file", file}};
    if (!md5.isEmpty())
        section["md5"] = md5;
    ScatterValidator validator(chipDescription, QString());
    QString error;
    return validator.parseScatterPack({{"chip", "ESP8266EX"},
                                       {"stub", EspPackage::stubEntryName},
                                       {"sections", QJsonArray{section}}},
                                      package, &error)
               ? "ends at " + validator.rows().at(0).endAddressText()
               : error;
}

} // namespace

class TestEspPackage : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_dir;
    QStringList m_log; // "S:", "N:" or "E:" and the text

    QString path(const QString &name) const { return m_dir.filePath(name); }
    EspPackageWriter writer()
    {
        m_log.clear();
        return EspPackageWriter([this](EspPackageWriter::Severity severity, const QString &text) {
            m_log << QString("SNE").at(int(severity)) + QString(":") + text;
        });
    }
    bool pack(const QString &zipName, const QVector<ScatterSection> &rows, bool trim,
              const QString &description = QString())
    {
        EspPackageWriter packer = writer();
        if (!packer.open(path(zipName)))
            return false;
        packer.setDescription(description);
        return packer.addStub(path("stub.elf")) && packer.addSections(rows, m_dir.path(), trim) &&
               packer.finish(chipDescription);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(!writeTestFile(m_dir.path(), "stub.elf", patternBytes(3000, 9)).isEmpty());
    }

    // SHA3-512 of the UTF-8 description and the salt, cut at the first zero byte: packages in
    // the field depend on every bit of it.
    void password_data()
    {
        QTest::addColumn<QString>("description");
        QTest::addColumn<QByteArray>("keyStart");
        QTest::addColumn<int>("keySize");
        QTest::newRow("ascii") << "Release 1.0" << QByteArray::fromHex("88508c522e8c49ce") << 64;
        QTest::newRow("empty") << "" << QByteArray::fromHex("41208059db6b1ae3") << 64;
        QTest::newRow("UTF-8") << "Прошивка 2.1" << QByteArray::fromHex("663c0ac131678d43") << 64;
        QTest::newRow("cut at a zero byte")
            << "description 3" << QByteArray::fromHex("fe80bea850b353a0") << 8;
        QTest::newRow("zero first byte: empty") << "description 138" << QByteArray() << 0;
    }

    void password()
    {
        QFETCH(QString, description);
        const QByteArray key = EspPackage::password(description);
        QTEST(key.left(8), "keyStart");
        QTEST(key.size(), "keySize");
    }

    void roundTrip_data()
    {
        QTest::addColumn<QString>("description");
        QTest::addColumn<bool>("trim");
        QTest::newRow("trimmed") << "Прошивка v1.2 — проверка ✓" << true;
        QTest::newRow("empty password, still encrypted") << "description 138" << false;
    }

    void roundTrip()
    {
        QFETCH(QString, description);
        QFETCH(bool, trim);
        const QByteArray firmware = patternBytes(4096, 1) + ff(1024);
        const QByteArray application = patternBytes(3000, 2) + ff(1000);
        const QByteArray stored = trim ? application.left(3072) : application;
        QVERIFY(!writeTestFile(m_dir.path(), "rt/fw.bin", firmware).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "rt/app.bin", application).isEmpty());
        QVector<ScatterSection> rows{row(ScatterSection::Firmware, 0x0, "rt/fw.bin"),
                                     row(ScatterSection::Application, 0x10000, "rt/app.bin"),
                                     row(ScatterSection::Application, 0x80000, "rt/none.bin"),
                                     ScatterSection()}; // inactive, and a row without cells
        rows[2].active = false;
        const QString zipName = QString("rt-%1.zip").arg(trim);
        QVERIFY(pack(zipName, rows, trim, description));

        QuaZip zip(path(zipName)); // read with the archive code directly
        QVERIFY(zip.open(QuaZip::mdUnzip));
        for (const QuaZipFileInfo64 &info : zip.getFileInfoList64()) // deflated, encrypted
            QVERIFY2(info.method == 8 && (info.flags & 0x0001), qPrintable(info.name));
        zip.close();
        EspPackage package(path(zipName));
        QVERIFY(package.open());
        QCOMPARE(package.comment(), description);
        const QStringList names{stubAndApp[0], "fw.bin", "app.bin", EspPackage::scatterEntryName};
        QCOMPARE(package.entryNames(), names);
        QByteArray data[4];
        for (int i = 0; i < 4; ++i)
            QCOMPARE(package.readEntry(names[i], &data[i]), EspPackage::EntryStatus::Ok);
        QCOMPARE(data[0], patternBytes(3000, 9));
        QCOMPARE(data[1], firmware);
        QCOMPARE(data[2], stored);
        const QJsonObject document = QJsonDocument::fromJson(data[3]).object();
        ScatterValidator validator(chipDescription, QString()); // and it loads again
        QString error;
        QVERIFY2(validator.parseScatterPack(document, package, &error), qPrintable(error));
        const ScatterSection &first = validator.rows().at(0), &second = validator.rows().at(1);
        QCOMPARE(first.flashMode + first.flashSize + first.flashFrequency, QString("qio1MB80m"));
        QCOMPARE(second.endAddress, quint32(0x10000 + stored.size()));
        QCOMPARE(second.md5, md5Hex(stored)); // checked against the entry
        // Entries stand in for files.
        QCOMPARE(loadApplication(package, "absent.bin", "00"),
                 QString("File absent.bin (application) does not exist"));
        QCOMPARE(loadApplication(package, "app.bin"), QString("No saved checksum for app.bin"));
    }

    // Trimming drops trailing 512-byte blocks of 0xFF from application images only.
    void trimming_data()
    {
        QTest::addColumn<QByteArray>("image");
        QTest::addColumn<int>("kind");
        QTest::addColumn<int>("storedSize");
        QTest::addColumn<int>("savedCount"); // 0: no log line
        const auto row = [](const char *name, const QByteArray &image, int storedSize,
                            int savedCount, int kind = ScatterSection::Application) {
            QTest::newRow(name) << image << kind << storedSize << savedCount;
        };
        const QByteArray data = patternBytes(512, 1);
        row("two trailing blocks", data + data + ff(1024), 1024, 1024);
        row("short last piece counts as a block", data + ff(88), 512, 512);
        row("interior blocks kept, a tail of 1.2 blocks counts as two",
            data + ff(1024) + data + ff(612), 2048, 1024);
        row("one data byte keeps the block", data + ff(511) + QByteArray(1, '\0'), 1024, 0);
        row("tail off the block boundary stays", patternBytes(700, 1) + ff(300), 1000, 0);
        row("all FF", ff(1536), 0, 1536);
        row("firmware never trimmed", data + ff(1024), 1536, 0, ScatterSection::Firmware);
    }

    void trimming()
    {
        QFETCH(QByteArray, image);
        QFETCH(int, kind);
        QFETCH(int, storedSize);
        QFETCH(int, savedCount);
        const QString name = QString("trim%1.bin").arg(QTest::currentDataTag()).remove(' ');
        QVERIFY(!writeTestFile(m_dir.path(), name, image).isEmpty());
        QVERIFY(pack(name + ".zip", {row(kind, 0x2000, name)}, true));
        EspPackage package(path(name + ".zip"));
        QVERIFY(package.open());
        QByteArray stored;
        QCOMPARE(package.readEntry(name, &stored), EspPackage::EntryStatus::Ok);
        QCOMPARE(stored, image.left(storedSize));
        QStringList expected{"S:Created zip package in " + path(name + ".zip")};
        if (savedCount)
            expected.prepend(QString("S:Saved %1 bytes from %2 (removed trailing FF's)")
                                 .arg(QString::number(savedCount), path(name)));
        QCOMPARE(m_log, expected);
    }

    // Refused or failed packing logs one error and changes nothing on disk: the sources and a
    // previous package stay as they were, and no temporary file is left.
    void failedPackingChangesNothing_data()
    {
        QTest::addColumn<QString>("target"); // empty: not opened
        QTest::addColumn<QString>("loader");
        QTest::addColumn<QStringList>("sections");
        QTest::addColumn<QString>("error"); // {dir}: the folder
        const auto row = [](const char *name, const char *target, const char *loader,
                            const QStringList &sections, const QString &error) {
            QTest::newRow(name) << target << loader << sections << error;
        };
        row("target is a section file", "a/app.bin", "stub.elf", {"a/app.bin"},
            "Package {dir}/a/app.bin would replace its source file {dir}/a/app.bin");
        row("target is the loader", "stub.elf", "stub.elf", {},
            "Package {dir}/stub.elf would replace its source file {dir}/stub.elf");
        row("one file name in two folders", "p.zip", "stub.elf", {"a/app.bin", "b/app.bin"},
            "Section files {dir}/a/app.bin and {dir}/b/app.bin would both be stored as app.bin");
        row("section named like the scatter entry", "p.zip", "stub.elf", {"a/scatter.txt"},
            "Section file {dir}/a/scatter.txt cannot be packed: the package keeps its own "
            "scatter.txt under that name");
        row("section named like the loader entry", "p.zip", "stub.elf",
            {"a/esp8266_loader_stub.elf"},
            "Section file {dir}/a/esp8266_loader_stub.elf cannot be packed: the package keeps "
            "its own esp8266_loader_stub.elf under that name");
        row("missing section file", "p.zip", "stub.elf", {"a/app.bin", "none.bin"},
            "File {dir}/none.bin could not be copied: No such file or directory");
        row("missing loader", "p.zip", "none.elf", {},
            "Stub file could not be copied: No such file or directory");
        row("target folder missing", "no/dir/p.zip", "stub.elf", {},
            "File {dir}/no/dir/p.zip is not writable: No such file or directory");
        row("not opened", "", "stub.elf", {}, "No package is open for writing");
    }

    void failedPackingChangesNothing()
    {
        QFETCH(QString, target);
        QFETCH(QString, loader);
        QFETCH(QStringList, sections);
        QFETCH(QString, error);
        QTemporaryDir folder;
        const QDir dir(folder.path());
        for (const char *file :
             {"stub.elf", "a/app.bin", "b/app.bin", "a/scatter.txt", "a/esp8266_loader_stub.elf"})
            QVERIFY(!writeTestFile(dir, file, patternBytes(2000, int(strlen(file)))).isEmpty());
        QVERIFY(!writeTestFile(dir, "p.zip", "a previous package").isEmpty());
        const auto contents = [&dir] {
            QStringList files;
            for (QDirIterator it(dir.path(), QDir::Files, QDirIterator::Subdirectories);
                 it.hasNext();) {
                const QString path = it.next();
                QFile file(path);
                files << dir.relativeFilePath(path) + "=" +
                             (file.open(QIODevice::ReadOnly) ? md5Hex(file.readAll()) : "?");
            }
            files.sort();
            return files;
        };
        const QStringList before = contents();

        EspPackageWriter packer = writer();
        QVector<ScatterSection> rows;
        for (const QString &file : sections)
            rows << row(ScatterSection::Application, 0x1000 * rows.size(), file);
        const bool opened = target.isEmpty() || packer.open(dir.filePath(target));
        QVERIFY(!(opened && packer.addStub(dir.filePath(loader)) &&
                  packer.addSections(rows, dir, false) && packer.finish(chipDescription)));
        QCOMPARE(m_log, QStringList("E:" + error.replace("{dir}", dir.path())));
        QCOMPARE(contents(), before);
    }

    // What a package unpacks to is capped by the flash memory, the chip's when it is known:
    // a package over it is refused from its central directory, before anything is unpacked.
    void sizeCap_data()
    {
        QTest::addColumn<QVector<int>>("entries"); // sizes of the images in the package
        QTest::addColumn<uint>("flashSize");       // 0: not known
        QTest::addColumn<uint>("limit");           // 0: loaded
        const int mib = 1024 * 1024;
        const uint room = EspPackage::ownEntriesAllowance;
        QTest::newRow("two 9 MiB images, no chip")
            << QVector<int>{9 * mib, 9 * mib} << 0u << 16u * mib + room;
        QTest::newRow("7 MiB on a 4 MiB chip")
            << QVector<int>{4 * mib, 3 * mib} << 4u * mib << 4u * mib + room;
        QTest::newRow("3 MiB on a 4 MiB chip") << QVector<int>{3 * mib} << 4u * mib << 0u;
        // A full backup: images that fill the flash, beside the loader and the scatter file.
        QTest::newRow("4 MiB on a 4 MiB chip") << QVector<int>{4 * mib} << 4u * mib << 0u;
        QTest::newRow("9 MiB, no chip") << QVector<int>{9 * mib} << 0u << 0u;
    }

    void sizeCap()
    {
        QFETCH(QVector<int>, entries);
        QFETCH(uint, flashSize);
        QFETCH(uint, limit);
        const QByteArray password = EspPackage::password("cap");
        const QByteArray scatter =
            QJsonDocument(QJsonObject{{"chip", "ESP8266EX"}, {"sections", QJsonArray()}}).toJson();
        ZipEntries zip{{EspPackage::stubEntryName, patternBytes(100, 1)}, {"scatter.txt", scatter}};
        qint64 total = 100 + scatter.size();
        for (int size : entries) {
            zip.append({QString("image%1.bin").arg(zip.size()), QByteArray(size, '\0')});
            total += size;
        }
        const QString zipPath = path(QString("cap-%1.zip").arg(QTest::currentDataTag()));
        QVERIFY(writeTestZip(zipPath, "cap", zip, &password));
        ScatterLoader loader;
        QCOMPARE(loader.load(zipPath, flashSize), limit == 0);
        if (limit == 0)
            return;
        QCOMPARE(loader.error(), QString("Package %1 unpacks to %2 bytes, more than the flash "
                                         "memory can hold (%3 bytes)")
                                     .arg(zipPath)
                                     .arg(total)
                                     .arg(limit));
        QVERIFY(!loader.package());
    }

    // Archives of another password or of none, deflated or stored: no entry reads. Many
    // entries, so that a wrong key passing the one-byte header check is covered too.
    void foreignArchives()
    {
        const QByteArray other = "some other password";
        ZipEntries entries;
        for (int i = 0; i < 40; ++i)
            entries.append({QString("image%1.bin").arg(i), patternBytes(20000, 6)});
        for (const QString kind : {"other", "other-stored", "none", "none-stored"}) {
            const QString zipPath = path("foreign-" + kind + ".zip");
            QVERIFY(writeTestZip(zipPath, "Same description", entries,
                                 kind.startsWith("other") ? &other : nullptr,
                                 kind.endsWith("stored")));
            EspPackage package(zipPath);
            QVERIFY(package.open());
            for (const auto &entry : entries) {
                QByteArray data = "stale";
                const EspPackage::EntryStatus status = package.readEntry(entry.first, &data);
                QVERIFY2(
                    status == EspPackage::EntryStatus::Corrupt ||
                        (status == EspPackage::EntryStatus::CannotOpen && kind.startsWith("other")),
                    qPrintable(zipPath + ": " + entry.first));
                QVERIFY(data.isEmpty() && package.zipError() != 0);
            }
        }
    }

    // Archives found by fuzzing (see fuzz/corpus/): a 16-bit field past the last signature given
    // is overwritten. "sizes": a record's comment runs past the archive; the other sizes must
    // stay readable. "misplaced": no entry is where the directory says; the names must stay.
    void damagedDirectory_data()
    {
        QTest::addColumn<QByteArray>("signature");
        QTest::addColumn<int>("offset");
        QTest::addColumn<int>("value");
        QTest::addColumn<qint64>("brokenSize");
        QTest::addColumn<QString>("loaded"); // %1: the package's zip error
        QTest::newRow("sizes") << QByteArray("PK\x01\x02") << 32 << 0xFFFF << qint64(-1)
                               << "ends at 0x00001234";
        QTest::newRow("misplaced") << QByteArray("PK\x05\x06") << 16 << 0 << qint64(40)
                                   << "File app.bin within the package cannot be read (%1)";
    }

    void damagedDirectory()
    {
        QFETCH(QByteArray, signature);
        QFETCH(int, offset);
        QFETCH(int, value);
        const QByteArray application = patternBytes(0x234, 3);
        const QStringList names = stubAndApp + QStringList("broken.bin");
        const QString zipPath = path(QTest::currentDataTag() + QString(".zip"));
        const QByteArray password = EspPackage::password("damaged");
        QVERIFY(writeTestZip(zipPath, "damaged",
                             {{names[0], patternBytes(64, 4)},
                              {names[1], application},
                              {names[2], patternBytes(40, 5)}},
                             &password));
        QFile file(zipPath);
        QVERIFY(file.open(QIODevice::ReadWrite));
        QByteArray bytes = file.readAll();
        const int at = bytes.lastIndexOf(signature) + offset;
        QVERIFY(at >= offset && at + 2 <= bytes.size());
        qToLittleEndian<quint16>(value, bytes.data() + at);
        QVERIFY(file.seek(0) && file.write(bytes) == bytes.size() && file.flush());

        EspPackage package(zipPath);
        QVERIFY(package.open());
        QCOMPARE(package.entryNames(), names);
        QCOMPARE(package.uncompressedSize("app.bin"), qint64(application.size()));
        QTEST(package.uncompressedSize("broken.bin"), "brokenSize");
        QByteArray data;
        QVERIFY(package.readEntry("broken.bin", &data) != EspPackage::EntryStatus::Ok);
        QVERIFY(data.isEmpty());
        QFETCH(QString, loaded);
        const QString result = loadApplication(package, "app.bin", md5Hex(application));
        QCOMPARE(result, loaded.contains("%1") ? loaded.arg(package.zipError()) : loaded);
        QCOMPARE(package.entryNames(), names);
        package.close();
        QVERIFY(package.entryNames().isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestEspPackage)
#include "tst_esppackage.moc"
