#include "scattertestfiles.h"

#include "flasher/esppackage.h"
#include "flasher/esppackagewriter.h"
#include "flasher/scatterprompts.h"
#include "flasher/scattervalidator.h"
#include "flasher/scatterwriter.h"

#include <QCryptographicHash>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>
#include <QtTest>

#include <quazip.h>
#include <quazipfile.h>
#include <quazipfileinfo.h>

namespace {

const QString chipDescription = QStringLiteral("ESP8266EX / 00a1b2c3");

// Encrypted entries carry bit 0 of the general purpose flags.
constexpr quint16 encryptedFlag = 0x0001;
constexpr quint16 deflated = 8;

struct LogLine
{
    EspPackageWriter::Severity severity;
    QString text;
};

ScatterSection row(int kind, quint32 address, const QString &file)
{
    ScatterSection section;
    section.hasCells = true;
    section.kind = kind;
    section.kindSet = true;
    section.startAddress = address;
    section.file = file;
    if (kind == ScatterSection::Firmware) {
        section.flashMode = "qio";
        section.flashSize = "1MB";
        section.flashFrequency = "80m";
    }
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
    QVector<LogLine> m_log;

    QString path(const QString &name) const { return QDir(m_dir.path()).absoluteFilePath(name); }
    EspPackageWriter::LogSink sink()
    {
        return [this](EspPackageWriter::Severity severity, const QString &text) {
            m_log.append({severity, text});
        };
    }
    QStringList logTexts(EspPackageWriter::Severity severity) const
    {
        QStringList texts;
        for (const LogLine &line : m_log) {
            if (line.severity == severity)
                texts << line.text;
        }
        return texts;
    }

    // Writes a package with one image row and returns the stored entry bytes via *stored.
    bool packSingle(const QString &zipName, const ScatterSection &image, bool trim,
                    QByteArray *stored, QJsonObject *document)
    {
        EspPackageWriter writer(sink());
        if (!writer.open(path(zipName)))
            return false;
        writer.setDescription("single");
        if (!writer.addStub(path("stub.elf")) || !writer.addSection(image, m_dir.path(), trim) ||
            !writer.finish(chipDescription))
            return false;
        EspPackage package(path(zipName));
        if (!package.open())
            return false;
        const QString entry = QFileInfo(image.file).fileName();
        if (package.readEntry(entry, stored) != EspPackage::EntryStatus::Ok)
            return false;
        QByteArray scatter;
        if (package.readEntry(EspPackage::scatterEntryName, &scatter) !=
            EspPackage::EntryStatus::Ok)
            return false;
        *document = QJsonDocument::fromJson(scatter).object();
        return true;
    }

private slots:
    void initTestCase()
    {
        QVERIFY(m_dir.isValid());
        QVERIFY(!writeTestFile(m_dir.path(), "stub.elf", patternBytes(3000, 9)).isEmpty());
    }

    void init() { m_log.clear(); }

    void password_data()
    {
        QTest::addColumn<QString>("comment");
        QTest::newRow("empty") << QString();
        QTest::newRow("ascii") << QString("Release 1.0");
        QTest::newRow("non-ascii") << QString("Прошивка 2.1 — тест ✓");
    }

    void password()
    {
        QFETCH(QString, comment);
        const QByteArray key = EspPackage::password(comment);
        QCOMPARE(EspPackage::password(comment), key); // deterministic
        QVERIFY(key.size() <= 64);
        QVERIFY(!key.contains('\0'));
        // The key is not the bare digest of the description: the salt takes part.
        QVERIFY(!QCryptographicHash::hash(comment.toUtf8(), QCryptographicHash::Sha3_512)
                     .startsWith(key.left(8)));
        QVERIFY(EspPackage::password(comment + " ") != key);
    }

    void passwordUsesUtf8()
    {
        // "é" as UTF-8 differs from its Latin-1 byte; the two descriptions must not collide.
        const QString accented = QString::fromUtf8("caf\xC3\xA9");
        const QString latin1Reading = QString::fromLatin1("caf\xC3\xA9");
        QVERIFY(EspPackage::password(accented) != EspPackage::password(latin1Reading));
    }

    void passwordStopsAtFirstZeroByte()
    {
        // Roughly one description in 256 has a digest starting with zero: its password is
        // empty. Lengths below 64 show the cut at an inner zero byte.
        QString emptyKeyComment;
        int shortKeys = 0;
        for (int i = 0; i < 20000 && emptyKeyComment.isEmpty(); ++i) {
            const QString comment = QString("description %1").arg(i);
            const QByteArray key = EspPackage::password(comment);
            if (key.isEmpty())
                emptyKeyComment = comment;
            else if (key.size() < 64)
                ++shortKeys;
        }
        QVERIFY(!emptyKeyComment.isEmpty());
        QVERIFY(shortKeys > 0);
    }

    void emptyPasswordRoundTrip()
    {
        QString comment;
        for (int i = 0; comment.isEmpty() && i < 20000; ++i) {
            if (EspPackage::password(QString("zero %1").arg(i)).isEmpty())
                comment = QString("zero %1").arg(i);
        }
        QVERIFY(!comment.isEmpty());
        const QByteArray image = patternBytes(5000, 4);
        QVERIFY(!writeTestFile(m_dir.path(), "zero/app.bin", image).isEmpty());

        EspPackageWriter writer(sink());
        QVERIFY(writer.open(path("zero.zip")));
        writer.setDescription(comment);
        QVERIFY(writer.addStub(path("stub.elf")));
        QVERIFY(writer.addSection(row(ScatterSection::Application, 0x1000, "zero/app.bin"),
                                  m_dir.path(), false));
        QVERIFY(writer.finish(chipDescription));

        EspPackage package(path("zero.zip"));
        QVERIFY(package.open());
        QCOMPARE(package.comment(), comment);
        QByteArray data;
        QCOMPARE(package.readEntry("app.bin", &data), EspPackage::EntryStatus::Ok);
        QCOMPARE(data, image);

        // Still protected: an empty password is a password.
        QuaZip zip(path("zero.zip"));
        QVERIFY(zip.open(QuaZip::mdUnzip));
        for (const QuaZipFileInfo64 &info : zip.getFileInfoList64())
            QVERIFY2(info.flags & encryptedFlag, qPrintable(info.name));
    }

    void roundTrip_data()
    {
        QTest::addColumn<bool>("trim");
        QTest::newRow("trimming on") << true;
        QTest::newRow("trimming off") << false;
    }

    void roundTrip()
    {
        QFETCH(bool, trim);
        const QString description = QString::fromUtf8("Прошивка v1.2 — проверка ✓");
        const QByteArray stub = patternBytes(3000, 9);
        const QByteArray firmware = patternBytes(4096, 1) + ffBytes(1024);
        const QByteArray application = patternBytes(3000, 2) + ffBytes(1000);
        QVERIFY(!writeTestFile(m_dir.path(), "rt/fw.bin", firmware).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "rt/app.bin", application).isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "rt/skipped.bin", "not packaged").isEmpty());

        QVector<ScatterSection> rows{row(ScatterSection::Firmware, 0x0, "fw.bin"),
                                     row(ScatterSection::Application, 0x10000, "app.bin"),
                                     row(ScatterSection::Application, 0x80000, "skipped.bin"),
                                     ScatterSection()}; // a row without cells
        rows[2].active = false;

        const QString zipPath = path(QString("rt-%1.zip").arg(trim));
        EspPackageWriter writer(sink());
        QVERIFY(writer.open(zipPath));
        writer.setDescription(description);
        QVERIFY(writer.addStub(path("stub.elf")));
        QVERIFY(writer.addSections(rows, QDir(path("rt")), trim));
        QVERIFY(writer.finish(chipDescription));
        QCOMPARE(logTexts(EspPackageWriter::Severity::Error), QStringList());
        QCOMPARE(m_log.last().text, QString("Created zip package in %1").arg(zipPath));

        const QByteArray storedApplication = trim ? application.left(3072) : application;

        // Archive layout, read with the archive code directly.
        QuaZip zip(zipPath);
        zip.setCommentCodec("UTF-8");
        QVERIFY(zip.open(QuaZip::mdUnzip));
        QCOMPARE(zip.getComment(), description);
        QCOMPARE(zip.getFileNameList(), (QStringList{EspPackage::stubEntryName, "fw.bin", "app.bin",
                                                     EspPackage::scatterEntryName}));
        for (const QuaZipFileInfo64 &info : zip.getFileInfoList64()) {
            QCOMPARE(info.method, deflated);
            QVERIFY2(info.flags & encryptedFlag, qPrintable(info.name));
        }
        zip.close();

        EspPackage package(zipPath);
        QVERIFY(package.open());
        QCOMPARE(package.comment(), description);
        QCOMPARE(package.uncompressedSize("app.bin"), qint64(storedApplication.size()));
        QByteArray data;
        QCOMPARE(package.readEntry(EspPackage::stubEntryName, &data), EspPackage::EntryStatus::Ok);
        QCOMPARE(data, stub);
        QCOMPARE(package.readEntry("fw.bin", &data), EspPackage::EntryStatus::Ok);
        QCOMPARE(data, firmware);
        QCOMPARE(package.readEntry("app.bin", &data), EspPackage::EntryStatus::Ok);
        QCOMPARE(data, storedApplication);

        QCOMPARE(package.readEntry(EspPackage::scatterEntryName, &data),
                 EspPackage::EntryStatus::Ok);
        const QJsonObject document = QJsonDocument::fromJson(data).object();
        QCOMPARE(document.value("chip").toString(), QString("ESP8266EX"));
        QCOMPARE(document.value("stub").toString(), QString(EspPackage::stubEntryName));
        const QJsonArray sections = document.value("sections").toArray();
        QCOMPARE(sections.size(), 2);
        const QJsonObject fw = sections.at(0).toObject();
        QCOMPARE(fw.value("type").toString(), QString("firmware"));
        QCOMPARE(fw.value("address").toString(), QString("0x00000000"));
        QCOMPARE(fw.value("file").toString(), QString("fw.bin"));
        QCOMPARE(fw.value("md5").toString(), md5Hex(firmware));
        QCOMPARE(fw.value("options").toObject().value("flash").toObject(),
                 (QJsonObject{{"size", "1MB"}, {"mode", "qio"}, {"frequency", "80m"}}));
        QVERIFY(!fw.contains("size"));
        const QJsonObject app = sections.at(1).toObject();
        QCOMPARE(app.value("type").toString(), QString("application"));
        QCOMPARE(app.value("address").toString(), QString("0x00010000"));
        QCOMPARE(app.value("md5").toString(), md5Hex(storedApplication));
        QCOMPARE(app.value("file").toString(), QString("app.bin"));
        QVERIFY(!app.contains("options"));
        QVERIFY(!app.contains("size"));
        QCOMPARE(writer.document(chipDescription), document);

        // The package validates as it is written.
        ScatterValidator validator(chipDescription, QString());
        QString error;
        QVERIFY2(validator.parseScatterPack(document, package, &error), qPrintable(error));
        QCOMPARE(validator.rows().size(), 2);
        QCOMPARE(validator.rows().at(1).endAddress, quint32(0x10000 + storedApplication.size()));
    }

    void trimming_data()
    {
        QTest::addColumn<QByteArray>("image");
        QTest::addColumn<int>("kind");
        QTest::addColumn<bool>("trim");
        QTest::addColumn<int>("storedSize");
        QTest::addColumn<int>("savedCount"); // 0: no log line

        const int app = ScatterSection::Application;
        const int fw = ScatterSection::Firmware;
        QTest::newRow("two trailing blocks")
            << patternBytes(1024, 1) + ffBytes(1024) << app << true << 1024 << 1024;
        QTest::newRow("short all-FF last piece counts as a block")
            << patternBytes(512, 1) + ffBytes(88) << app << true << 512 << 512;
        QTest::newRow("interior FF blocks kept")
            << patternBytes(512, 1) + ffBytes(1024) + patternBytes(512, 2) << app << true << 2048
            << 0;
        QTest::newRow("interior kept, tail of 1.2 blocks counted as two")
            << patternBytes(512, 1) + ffBytes(1024) + patternBytes(512, 2) + ffBytes(612) << app
            << true << 2048 << 1024;
        QTest::newRow("one data byte keeps the block")
            << patternBytes(512, 1) + ffBytes(511) + QByteArray(1, '\0') << app << true << 1024
            << 0;
        QTest::newRow("FF tail not on a block boundary stays")
            << patternBytes(700, 1) + ffBytes(300) << app << true << 1000 << 0;
        QTest::newRow("all FF") << ffBytes(1536) << app << true << 0 << 1536;
        QTest::newRow("empty image") << QByteArray() << app << true << 0 << 0;
        QTest::newRow("no FF at all") << patternBytes(1500, 3) << app << true << 1500 << 0;
        QTest::newRow("firmware never trimmed")
            << patternBytes(1024, 1) + ffBytes(1024) << fw << true << 2048 << 0;
        QTest::newRow("trimming declined")
            << patternBytes(1024, 1) + ffBytes(1024) << app << false << 2048 << 0;
    }

    void trimming()
    {
        QFETCH(QByteArray, image);
        QFETCH(int, kind);
        QFETCH(bool, trim);
        QFETCH(int, storedSize);
        QFETCH(int, savedCount);

        const QString name = QString("trim-%1.bin").arg(QTest::currentDataTag()).replace(' ', '_');
        const QString imagePath = writeTestFile(m_dir.path(), name, image);
        QVERIFY(!imagePath.isEmpty());
        QByteArray stored;
        QJsonObject document;
        QVERIFY(packSingle(name + ".zip", row(kind, 0x2000, name), trim, &stored, &document));
        QCOMPARE(stored, image.left(storedSize));
        QCOMPARE(document.value("sections").toArray().at(0).toObject().value("md5").toString(),
                 md5Hex(stored));

        QStringList expected;
        if (savedCount) {
            expected << QString("Saved %1 bytes from %2 (removed trailing FF's)")
                            .arg(savedCount)
                            .arg(imagePath);
        }
        QStringList saved = logTexts(EspPackageWriter::Severity::Success);
        saved.removeLast(); // "Created zip package in ..."
        QCOMPARE(saved, expected);
    }

    void emptyDescriptionStillPackages()
    {
        QVERIFY(!writeTestFile(m_dir.path(), "nodesc/app.bin", patternBytes(100, 5)).isEmpty());
        EspPackageWriter writer(sink());
        QVERIFY(writer.open(path("nodesc.zip")));
        // No description given: a cancelled prompt.
        QVERIFY(writer.addStub(path("stub.elf")));
        QVERIFY(writer.addSection(row(ScatterSection::Application, 0, "nodesc/app.bin"),
                                  m_dir.path(), true));
        QVERIFY(writer.finish(chipDescription));
        EspPackage package(path("nodesc.zip"));
        QVERIFY(package.open());
        QCOMPARE(package.comment(), QString());
        QByteArray data;
        QCOMPARE(package.readEntry("app.bin", &data), EspPackage::EntryStatus::Ok);
        QCOMPARE(data, patternBytes(100, 5));
    }

    void sameFileNameTwice()
    {
        QVERIFY(!writeTestFile(m_dir.path(), "one/data.bin", "first").isEmpty());
        QVERIFY(!writeTestFile(m_dir.path(), "two/data.bin", "second").isEmpty());
        EspPackageWriter writer(sink());
        QVERIFY(writer.open(path("twice.zip")));
        QVERIFY(writer.addSection(row(ScatterSection::Application, 0, "one/data.bin"), m_dir.path(),
                                  false));
        QVERIFY(writer.addSection(row(ScatterSection::Application, 0x1000, "two/data.bin"),
                                  m_dir.path(), false));
        QVERIFY(writer.finish(chipDescription));
        EspPackage package(path("twice.zip"));
        QVERIFY(package.open());
        QCOMPARE(package.entryNames(),
                 (QStringList{"data.bin", "data.bin", EspPackage::scatterEntryName}));
    }

    void writerFailures_data()
    {
        QTest::addColumn<QString>("step");
        QTest::addColumn<QString>("expectedPrefix");
        QTest::newRow("target not writable")
            << "open"
            << "File " + QDir(QDir::tempPath()).absoluteFilePath("no/such/dir/p.zip") +
                   " is not writable: ";
        QTest::newRow("stub missing") << "stub"
                                      << "Stub file could not be copied: ";
        QTest::newRow("image missing") << "image"
                                       << "File " + path("missing.bin") + " could not be copied: ";
    }

    void writerFailures()
    {
        QFETCH(QString, step);
        QFETCH(QString, expectedPrefix);
        const QString zipPath = step == "open"
                                    ? QDir(QDir::tempPath()).absoluteFilePath("no/such/dir/p.zip")
                                    : path("fail-" + step + ".zip");
        EspPackageWriter writer(sink());
        bool ok = writer.open(zipPath);
        if (ok)
            ok = writer.addStub(step == "stub" ? path("missing-stub.elf") : path("stub.elf"));
        if (ok)
            ok = writer.addSection(row(ScatterSection::Application, 0, "missing.bin"), m_dir.path(),
                                   true);
        QVERIFY(!ok);
        const QStringList errors = logTexts(EspPackageWriter::Severity::Error);
        QCOMPARE(errors.size(), 1);
        // The reason (the file's error text) follows the prefix.
        QVERIFY2(errors.first().startsWith(expectedPrefix), qPrintable(errors.first()));
        QVERIFY(errors.first().size() > expectedPrefix.size());
        QCOMPARE(writer.lastError(), errors.first());
    }

    void writerNeedsOpen()
    {
        EspPackageWriter writer(sink());
        QVERIFY(!writer.addStub(path("stub.elf")));
        QVERIFY(
            !writer.addSection(row(ScatterSection::Application, 0, "x.bin"), m_dir.path(), false));
        QVERIFY(!writer.finish(chipDescription));
        QCOMPARE(logTexts(EspPackageWriter::Severity::Error).size(), 3);
    }

    void zipSuffix_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("expected");
        QTest::newRow("plain") << "release"
                               << "release.zip";
        QTest::newRow("has suffix") << "release.zip"
                                    << "release.zip";
        QTest::newRow("other extension") << "release.bin"
                                         << "release.bin.zip";
        QTest::newRow("upper-case suffix is not ours") << "RELEASE.ZIP"
                                                       << "RELEASE.ZIP.zip";
    }

    void zipSuffix()
    {
        QFETCH(QString, name);
        QFETCH(QString, expected);
        QCOMPARE(EspPackageWriter::withZipSuffix(name), expected);
    }

    void foreignArchives_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::newRow("other password") << "other";
        QTest::newRow("other password, stored entries") << "other-stored";
        QTest::newRow("no password") << "none";
        QTest::newRow("no password, stored entries") << "none-stored";
    }

    void foreignArchives()
    {
        QFETCH(QString, kind);
        const QString comment = "Same description";
        const QByteArray other = "some other password";
        const QByteArray image = patternBytes(20000, 6);
        // Many entries, so that a wrong key passing the one-byte header check is covered too.
        ZipEntries entries;
        for (int i = 0; i < 40; ++i)
            entries.append({QString("image%1.bin").arg(i), image});
        const QString zipPath = path("foreign-" + kind + ".zip");
        QVERIFY(writeTestZip(zipPath, comment, entries, kind.startsWith("other") ? &other : nullptr,
                             kind.endsWith("stored")));

        EspPackage package(zipPath);
        QVERIFY(package.open());
        for (const auto &entry : entries) {
            QByteArray data = "stale";
            const EspPackage::EntryStatus status = package.readEntry(entry.first, &data);
            QVERIFY2(status != EspPackage::EntryStatus::Ok, qPrintable(entry.first));
            QVERIFY(status != EspPackage::EntryStatus::NotFound);
            if (kind.startsWith("none"))
                QCOMPARE(status, EspPackage::EntryStatus::Corrupt);
            QVERIFY(data.isEmpty());
            QVERIFY(package.zipError() != 0);
        }
    }

    void damagedData()
    {
        // Incompressible, so the damaged range below lies inside the entry's data.
        const QByteArray image = noiseBytes(50000, 7);
        QVERIFY(!writeTestFile(m_dir.path(), "damaged/app.bin", image).isEmpty());
        EspPackageWriter writer(sink());
        QVERIFY(writer.open(path("damaged.zip")));
        QVERIFY(writer.addSection(row(ScatterSection::Application, 0, "damaged/app.bin"),
                                  m_dir.path(), false));
        QVERIFY(writer.finish(chipDescription));

        QFile file(path("damaged.zip"));
        QVERIFY(file.open(QIODevice::ReadWrite));
        QByteArray bytes = file.readAll();
        // Inside the first entry's data: after its local header (30 bytes + name) and 12-byte
        // encryption header.
        for (int i = 200; i < 260; ++i)
            bytes[i] = static_cast<char>(bytes[i] ^ 0x5A);
        QVERIFY(file.seek(0));
        QCOMPARE(file.write(bytes), qint64(bytes.size()));
        file.close();

        EspPackage package(path("damaged.zip"));
        QVERIFY(package.open());
        QByteArray data;
        const EspPackage::EntryStatus status = package.readEntry("app.bin", &data);
        QVERIFY(status == EspPackage::EntryStatus::Corrupt ||
                status == EspPackage::EntryStatus::CannotOpen);
        QVERIFY(data.isEmpty());
    }

    void readerFailures()
    {
        EspPackage missing(path("does-not-exist.zip"));
        QVERIFY(!missing.open());
        QVERIFY(!missing.isOpen());
        QVERIFY(missing.entryNames().isEmpty());
        QCOMPARE(missing.uncompressedSize("x"), qint64(-1));
        QByteArray data = "stale";
        QCOMPARE(missing.readEntry("x", &data), EspPackage::EntryStatus::CannotOpen);
        QVERIFY(data.isEmpty());

        QVERIFY(!writeTestFile(m_dir.path(), "garbage.zip", patternBytes(4000, 8)).isEmpty());
        EspPackage garbage(path("garbage.zip"));
        QVERIFY(!garbage.open());

        QVERIFY(
            !writeTestFile(m_dir.path(), "truncated-src/app.bin", patternBytes(9000, 3)).isEmpty());
        EspPackageWriter writer(sink());
        QVERIFY(writer.open(path("truncated.zip")));
        QVERIFY(writer.addSection(row(ScatterSection::Application, 0, "truncated-src/app.bin"),
                                  m_dir.path(), false));
        QVERIFY(writer.finish(chipDescription));
        QFile file(path("truncated.zip"));
        QVERIFY(file.resize(file.size() / 2));
        EspPackage truncated(path("truncated.zip"));
        QVERIFY(!truncated.open());

        QVERIFY(!writeTestFile(m_dir.path(), "good-src/app.bin", patternBytes(900, 3)).isEmpty());
        EspPackageWriter goodWriter(sink());
        QVERIFY(goodWriter.open(path("good.zip")));
        QVERIFY(goodWriter.addSection(row(ScatterSection::Application, 0, "good-src/app.bin"),
                                      m_dir.path(), false));
        QVERIFY(goodWriter.finish(chipDescription));
        EspPackage good(path("good.zip"));
        QVERIFY(good.open());
        QCOMPARE(good.readEntry("nope.bin", &data), EspPackage::EntryStatus::NotFound);
        QCOMPARE(good.readEntry("APP.BIN", &data), EspPackage::EntryStatus::NotFound);
        QCOMPARE(good.uncompressedSize("nope.bin"), qint64(-1));
        QVERIFY(!good.contains("nope.bin"));
        QCOMPARE(good.readEntry("app.bin", &data), EspPackage::EntryStatus::Ok);
        good.close();
        QVERIFY(!good.isOpen());
        QCOMPARE(good.readEntry("app.bin", &data), EspPackage::EntryStatus::CannotOpen);
        QVERIFY(data.isEmpty());
    }
};

QTEST_GUILESS_MAIN(TestEspPackage)
#include "tst_esppackage.moc"
