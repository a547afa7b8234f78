#include "scattertestfiles.h"

#include "flasher/esppackage.h"
#include "flasher/esppackagewriter.h"
#include "flasher/scattervalidator.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <quazip.h>
#include <quazipfileinfo.h>

namespace {

const QString chipDescription = QStringLiteral("ESP8266EX / 00a1b2c3");

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

QByteArray ffBytes(int size)
{
    return QByteArray(size, '\xFF');
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
    // Packs the loader and the rows' files; no description unless one is given.
    bool pack(const QString &zipName, const QVector<ScatterSection> &rows, bool trim,
              const QString *description = nullptr)
    {
        EspPackageWriter packer = writer();
        if (!packer.open(path(zipName)))
            return false;
        if (description)
            packer.setDescription(*description);
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
        const auto row = [](const char *name, const QString &description, const char *hex,
                            int size) {
            QTest::newRow(name) << description << QByteArray::fromHex(hex) << size;
        };
        row("ascii", "Release 1.0", "88508c522e8c49ce", 64);
        row("empty", "", "41208059db6b1ae3", 64);
        row("UTF-8", "Прошивка 2.1", "663c0ac131678d43", 64);
        row("cut at a zero byte", "description 3", "fe80bea850b353a0", 8);
        row("zero first byte: empty", "description 138", "", 0);
    }

    void password()
    {
        QFETCH(QString, description);
        QFETCH(QByteArray, keyStart);
        QFETCH(int, keySize);
        const QByteArray key = EspPackage::password(description);
        QCOMPARE(key.left(8), keyStart);
        QCOMPARE(key.size(), keySize);
    }

    void roundTrip_data()
    {
        QTest::addColumn<QString>("description");
        QTest::addColumn<bool>("trim");
        QTest::newRow("trimmed") << "Прошивка v1.2 — проверка ✓" << true;
        QTest::newRow("whole") << "Release" << false;
        QTest::newRow("empty password, still encrypted") << "description 138" << false;
    }

    void roundTrip()
    {
        QFETCH(QString, description);
        QFETCH(bool, trim);
        const QByteArray firmware = patternBytes(4096, 1) + ffBytes(1024);
        const QByteArray application = patternBytes(3000, 2) + ffBytes(1000);
        const QByteArray stored = trim ? application.left(3072) : application;
        QVERIFY(!writeTestFile(m_dir.path(), "rt/fw.bin", firmware).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "rt/app.bin", application).isEmpty());
        QVector<ScatterSection> rows{row(ScatterSection::Firmware, 0x0, "rt/fw.bin"),
                                     row(ScatterSection::Application, 0x10000, "rt/app.bin"),
                                     row(ScatterSection::Application, 0x80000, "rt/none.bin"),
                                     ScatterSection()}; // inactive, and a row without cells
        rows[2].active = false;
        const QString zipName = QString("rt-%1.zip").arg(trim);
        QVERIFY(pack(zipName, rows, trim, &description));
        QCOMPARE(m_log.last(), "S:Created zip package in " + path(zipName));

        QuaZip zip(path(zipName)); // the layout, read with the archive code directly
        QVERIFY(zip.open(QuaZip::mdUnzip));
        QCOMPARE(zip.getFileNameList(), (QStringList{EspPackage::stubEntryName, "fw.bin", "app.bin",
                                                     EspPackage::scatterEntryName}));
        for (const QuaZipFileInfo64 &info : zip.getFileInfoList64()) {
            QCOMPARE(info.method, quint16(8));                    // deflated
            QVERIFY2(info.flags & 0x0001, qPrintable(info.name)); // encrypted
        }
        zip.close();

        EspPackage package(path(zipName));
        QVERIFY(package.open());
        QCOMPARE(package.comment(), description);
        QByteArray data;
        QCOMPARE(package.readEntry(EspPackage::stubEntryName, &data), EspPackage::EntryStatus::Ok);
        QCOMPARE(data, patternBytes(3000, 9));
        QCOMPARE(package.readEntry("fw.bin", &data), EspPackage::EntryStatus::Ok);
        QCOMPARE(data, firmware);
        QCOMPARE(package.readEntry("app.bin", &data), EspPackage::EntryStatus::Ok);
        QCOMPARE(data, stored);
        QCOMPARE(package.readEntry(EspPackage::scatterEntryName, &data),
                 EspPackage::EntryStatus::Ok);
        const QJsonObject document = QJsonDocument::fromJson(data).object();
        QCOMPARE(document.value("stub").toString(), QString(EspPackage::stubEntryName));
        ScatterValidator validator(chipDescription, QString()); // and it loads again
        QString error;
        QVERIFY2(validator.parseScatterPack(document, package, &error), qPrintable(error));
        QCOMPARE(validator.rows().at(0).flashMode + validator.rows().at(0).flashSize +
                     validator.rows().at(0).flashFrequency,
                 QString("qio1MB80m"));
        QCOMPARE(validator.rows().at(1).endAddress, quint32(0x10000 + stored.size()));
        QCOMPARE(validator.rows().at(1).md5, md5Hex(stored)); // checked against the entry
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
        row("two trailing blocks", data + data + ffBytes(1024), 1024, 1024);
        row("short last piece counts as a block", data + ffBytes(88), 512, 512);
        row("interior blocks kept, a tail of 1.2 blocks counts as two",
            data + ffBytes(1024) + data + ffBytes(612), 2048, 1024);
        row("one data byte keeps the block", data + ffBytes(511) + QByteArray(1, '\0'), 1024, 0);
        row("tail off the block boundary stays", patternBytes(700, 1) + ffBytes(300), 1000, 0);
        row("all FF", ffBytes(1536), 0, 1536);
        row("firmware never trimmed", data + ffBytes(1024), 1536, 0, ScatterSection::Firmware);
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
        if (savedCount) {
            expected.prepend(QString("S:Saved %1 bytes from %2 (removed trailing FF's)")
                                 .arg(savedCount)
                                 .arg(path(name)));
        }
        QCOMPARE(m_log, expected);
    }

    // Each failing step logs one error, its reason after the text.
    void writerFailures_data()
    {
        QTest::addColumn<QString>("target"); // empty: never opened
        QTest::addColumn<QString>("stub");
        QTest::addColumn<QString>("expectedPrefix");
        const QString noDir = path("no/dir/p.zip");
        QTest::newRow("target not writable") << noDir << "stub.elf"
                                             << "File " + noDir + " is not writable: ";
        QTest::newRow("stub missing") << path("f.zip") << "none.elf"
                                      << "Stub file could not be copied: ";
        QTest::newRow("image missing") << path("f.zip") << "stub.elf"
                                       << "File " + path("none.bin") + " could not be copied: ";
        QTest::newRow("not open") << QString() << "stub.elf"
                                  << "No package is open for writing";
    }

    void writerFailures()
    {
        QFETCH(QString, target);
        QFETCH(QString, stub);
        QFETCH(QString, expectedPrefix);
        EspPackageWriter packer = writer();
        QVERIFY(!((target.isEmpty() || packer.open(target)) && packer.addStub(path(stub)) &&
                  packer.addSection(row(ScatterSection::Application, 0, "none.bin"), m_dir.path(),
                                    true)));
        QCOMPARE(m_log.size(), 1);
        QVERIFY2(m_log.first().startsWith("E:" + expectedPrefix), qPrintable(m_log.first()));
        QCOMPARE(packer.lastError(), m_log.first().mid(2));
    }

    // Archives of another password or of none, deflated or stored: no entry reads. Many
    // entries, so that a wrong key passing the one-byte header check is covered too.
    void foreignArchives_data()
    {
        QTest::addColumn<QString>("kind");
        for (const char *kind : {"other", "other-stored", "none", "none-stored"})
            QTest::newRow(kind) << kind;
    }

    void foreignArchives()
    {
        QFETCH(QString, kind);
        const QByteArray other = "some other password";
        ZipEntries entries;
        for (int i = 0; i < 40; ++i)
            entries.append({QString("image%1.bin").arg(i), patternBytes(20000, 6)});
        const QString zipPath = path("foreign-" + kind + ".zip");
        QVERIFY(writeTestZip(zipPath, "Same description", entries,
                             kind.startsWith("other") ? &other : nullptr, kind.endsWith("stored")));
        EspPackage package(zipPath);
        QVERIFY(package.open());
        for (const auto &entry : entries) {
            QByteArray data = "stale";
            const EspPackage::EntryStatus status = package.readEntry(entry.first, &data);
            QVERIFY2(
                status == EspPackage::EntryStatus::Corrupt ||
                    (status == EspPackage::EntryStatus::CannotOpen && kind.startsWith("other")),
                qPrintable(entry.first));
            QVERIFY(data.isEmpty() && package.zipError() != 0);
        }
    }
};

QTEST_GUILESS_MAIN(TestEspPackage)
#include "tst_esppackage.moc"
