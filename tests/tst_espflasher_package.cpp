#include "flasher/espflasher.h"
#include "flasher/esppackage.h"
#include "flasher/esppackagewriter.h"

#include "flashertestkit.h"
#include "modalanswerer.h"
#include "scattertestfiles.h"

#include <QDirIterator>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLineEdit>
#include <QPushButton>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

#include <quazip.h>
#include <quazipfile.h>
#include <quazipfileinfo.h>
#include <quazipnewinfo.h>

#include <memory>

using namespace FlasherTestKit;

namespace {

constexpr int md5Role = Qt::UserRole + 6;
// Encrypted zip entries carry bit 0 of the general purpose flags.
constexpr quint16 encryptedFlag = 0x0001;

const QString description = QStringLiteral("Demo package \u03a9 1.0");

QByteArray withFfTail(const QByteArray &head, int ffBytes)
{
    return head + QByteArray(ffBytes, '\xFF');
}

// How many descriptors of this process have the file open.
int openDescriptors(const QString &path)
{
    const QString target = QFileInfo(path).canonicalFilePath();
    int count = 0;
    QDirIterator it(QStringLiteral("/proc/self/fd"), QDir::System | QDir::Files);
    while (it.hasNext()) {
        const QString link = QFileInfo(it.next()).symLinkTarget();
        if (link == target)
            ++count;
    }
    return count;
}

struct Entry
{
    QString name;
    QByteArray data;
    QByteArray password;
};

// A zip written entry by entry with the archive code, each entry under its own password.
bool writeZip(const QString &path, const QString &comment, const QVector<Entry> &entries)
{
    QuaZip zip(path);
    zip.setCommentCodec("UTF-8");
    if (!zip.open(QuaZip::mdCreate))
        return false;
    zip.setComment(comment);
    for (const Entry &entry : entries) {
        QuaZipFile file(&zip);
        if (!file.open(QIODevice::WriteOnly, QuaZipNewInfo(entry.name), entry.password.constData(),
                       0, Z_DEFLATED))
            return false;
        file.write(entry.data);
        file.close();
    }
    zip.close();
    return zip.getZipError() == ZIP_OK;
}

} // namespace

class TestEspFlasherPackage : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void createAndLoadBack();
    void plainCopiesWhenNotTrimming();
    void cancelledDescriptionStillPackages();
    void uncheckedRowsStayOut();
    void refusedWhilePackageLoaded();
    void vanishedFilesAreLogged();
    void packageFailures_data();
    void packageFailures();
    void upperCaseZipIsPackage();
    void destructionClosesThePackage();

private:
    void loadLooseScatter();
    QString createPackage(const QString &name, bool trim, const QString &text = description);
    void expectNoPackageOpen();

    QTemporaryDir settingsDir;
    std::unique_ptr<ScatterDir> files;
    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ESPFlasher> flasher;
    QTableWidget *table = nullptr;
    QString stubPath;
    QByteArray stub;
    QByteArray boot;
    QByteArray app;
    QByteArray small;
};

void TestEspFlasherPackage::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QVERIFY(settingsDir.isValid());
    isolateSettings(settingsDir.path());
}

void TestEspFlasherPackage::init()
{
    files = std::make_unique<ScatterDir>();
    QVERIFY(files->isValid());
    stub = noiseBytes(900, 7);
    // Firmware is never trimmed, even with a tail of 0xFF.
    boot = withFfTail(patternBytes(2048, 1), 1024);
    // Data, an interior run of 0xFF blocks that stays, data, then two whole blocks of 0xFF.
    app = withFfTail(withFfTail(patternBytes(512, 2), 1024) + patternBytes(512, 4), 1024);
    // 512 bytes, then a short last read of 88 bytes of 0xFF.
    small = withFfTail(patternBytes(512, 3), 88);
    stubPath = files->write("stub.elf", stub);
    files->write("boot.bin", boot);
    files->write("app.bin", app);
    files->write("images/small.bin", small);

    answerer = std::make_unique<ModalAnswerer>();
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    table = child<QTableWidget>(flasher.get(), "scatterTable");
    QVERIFY(deliverFinished(flasher.get(), true, 3, chipInfo()));
}

void TestEspFlasherPackage::cleanup()
{
    if (answerer) {
        QCOMPARE(answerer->unexpected(), QStringList());
        QCOMPARE(answerer->remaining(), 0);
    }
    flasher.reset();
    answerer.reset();
    files.reset();
}

void TestEspFlasherPackage::loadLooseScatter()
{
    const QJsonObject document{
        {"chip", "ESP8266EX"},
        {"stub", "stub.elf"},
        {"sections",
         QJsonArray{firmwareSection("0x0", "boot.bin", md5Hex(boot), "qio", "1MB", "80m"),
                    applicationSection("0x10000", "app.bin", md5Hex(app)),
                    applicationSection("0x80000", "images/small.bin", md5Hex(small))}}};
    answerer->answerFile(files->writeScatter("scatter.txt", document));
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(table->rowCount(), 3);
}

QString TestEspFlasherPackage::createPackage(const QString &name, bool trim, const QString &text)
{
    answerer->answerFile(files->path(name));
    if (text.isNull())
        answerer->cancelInput();
    else
        answerer->answerInput(text);
    answerer->answerBox(trim ? QMessageBox::Yes : QMessageBox::No);
    child<QToolButton>(flasher.get(), "zipTool")->click();
    return EspPackageWriter::withZipSuffix(files->path(name));
}

void TestEspFlasherPackage::expectNoPackageOpen()
{
    // With a package open the tool only logs; without, it asks for a target.
    const int lines = logLines(flasher.get()).size();
    answerer->answerFile(QString());
    child<QToolButton>(flasher.get(), "zipTool")->click();
    QCOMPARE(answerer->last().title, QStringLiteral("Save Package As"));
    QCOMPARE(logLines(flasher.get()).size(), lines);
}

void TestEspFlasherPackage::createAndLoadBack()
{
    loadLooseScatter();
    const QString zipPath = createPackage("release", true);
    QCOMPARE(zipPath, files->path("release.zip"));

    const QVector<ModalAnswerer::Seen> seen = answerer->seen();
    QCOMPARE(seen.size(), 4);
    QCOMPARE(seen.at(1).title, QStringLiteral("Save Package As"));
    QCOMPARE(seen.at(1).items, QStringList{"ZIP packages (*.zip)"});
    QCOMPARE(seen.at(1).directory, files->dir().absolutePath());
    QCOMPARE(seen.at(2).title, QStringLiteral("Create Package"));
    QCOMPARE(seen.at(2).text, QStringLiteral("Package Description:"));
    QCOMPARE(seen.at(3).title, QStringLiteral("Create Package"));
    QCOMPARE(seen.at(3).text,
             QStringLiteral("Remove FF's from the end of application images to save space?"));

    QCOMPARE(logStrings(flasher.get()).mid(1),
             (QStringList{line(green, QStringLiteral("Saved 1024 bytes from %1 (removed trailing "
                                                     "FF's)")
                                          .arg(files->path("app.bin"))),
                          line(green, QStringLiteral("Saved 512 bytes from %1 (removed trailing "
                                                     "FF's)")
                                          .arg(files->path("images/small.bin"))),
                          line(green, "Created zip package in " + zipPath)}));

    // What the archive holds, read with the package's own password.
    EspPackage package(zipPath);
    QVERIFY(package.open());
    QCOMPARE(package.comment(), description);
    QCOMPARE(package.entryNames(), (QStringList{"esp8266_loader_stub.elf", "boot.bin", "app.bin",
                                                "small.bin", "scatter.txt"}));
    const auto entry = [&package](const QString &name) {
        QByteArray data;
        const EspPackage::EntryStatus status = package.readEntry(name, &data);
        return status == EspPackage::EntryStatus::Ok ? data : QByteArray("unreadable");
    };
    QCOMPARE(entry("esp8266_loader_stub.elf"), stub);
    QCOMPARE(entry("boot.bin"), boot);
    QCOMPARE(entry("app.bin"), app.left(2048));
    QCOMPARE(entry("small.bin"), small.left(512));

    const QJsonObject scatter = QJsonDocument::fromJson(entry("scatter.txt")).object();
    QCOMPARE(scatter.value("chip").toString(), QStringLiteral("ESP8266EX"));
    QCOMPARE(scatter.value("stub").toString(), QStringLiteral("esp8266_loader_stub.elf"));
    const QJsonArray sections = scatter.value("sections").toArray();
    QCOMPARE(sections.size(), 3);
    const QJsonObject firmware = sections.at(0).toObject();
    QCOMPARE(firmware.value("type").toString(), QStringLiteral("firmware"));
    QCOMPARE(firmware.value("address").toString(), QStringLiteral("0x00000000"));
    QCOMPARE(firmware.value("md5").toString(), md5Hex(boot));
    QCOMPARE(firmware.value("options").toObject().value("flash").toObject(),
             (QJsonObject{{"mode", "qio"}, {"size", "1MB"}, {"frequency", "80m"}}));
    QCOMPARE(sections.at(1).toObject().value("md5").toString(), md5Hex(app.left(2048)));
    QCOMPARE(sections.at(2).toObject().value("file").toString(), QStringLiteral("small.bin"));
    QCOMPARE(sections.at(2).toObject().value("address").toString(), QStringLiteral("0x00080000"));
    QVERIFY(!sections.at(2).toObject().contains("size"));
    QVERIFY(!sections.at(2).toObject().contains("options"));

    // Every entry is protected.
    QuaZip raw(zipPath);
    QVERIFY(raw.open(QuaZip::mdUnzip));
    for (bool more = raw.goToFirstFile(); more; more = raw.goToNextFile()) {
        QuaZipFileInfo64 info;
        QVERIFY(raw.getCurrentFileInfo(&info));
        QVERIFY2(info.flags & encryptedFlag, qPrintable(info.name));
    }
    raw.close();

    // Loaded back through the dialog.
    answerer->answerFile(zipPath);
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(logStrings(flasher.get()).last(),
             line(green, QStringLiteral("Loaded package %1: %2").arg(zipPath, description)));
    QCOMPARE(child<QLineEdit>(flasher.get(), "scatterEdit")->text(), zipPath);
    QCOMPARE(child<QLineEdit>(flasher.get(), "stubEdit")->text(),
             QStringLiteral("esp8266_loader_stub.elf"));
    QCOMPARE(table->rowCount(), 3);
    QCOMPARE(table->item(1, 4)->text(), QStringLiteral("app.bin"));
    QCOMPARE(table->item(1, 1)->data(md5Role).toString(), md5Hex(app.left(2048)));
    // Without a size key the region is as long as the stored entry.
    QCOMPARE(table->item(1, 3)->text(), QStringLiteral("0x00010800"));
    QCOMPARE(table->item(2, 3)->text(), QStringLiteral("0x00080200"));
    QVERIFY(child<QPushButton>(flasher.get(), "flashTool")->isEnabled());
    // Reading writes loose files: not offered while a package is open.
    QVERIFY(!child<QToolButton>(flasher.get(), "readTool")->isEnabled());
}

void TestEspFlasherPackage::plainCopiesWhenNotTrimming()
{
    loadLooseScatter();
    const QString zipPath = createPackage("plain.zip", false);
    QCOMPARE(zipPath, files->path("plain.zip"));
    QCOMPARE(logStrings(flasher.get()).mid(1),
             QStringList{line(green, "Created zip package in " + zipPath)});
    EspPackage package(zipPath);
    QVERIFY(package.open());
    QByteArray data;
    QCOMPARE(package.readEntry("app.bin", &data), EspPackage::EntryStatus::Ok);
    QCOMPARE(data, app);
    QCOMPARE(package.readEntry("small.bin", &data), EspPackage::EntryStatus::Ok);
    QCOMPARE(data, small);
}

void TestEspFlasherPackage::cancelledDescriptionStillPackages()
{
    loadLooseScatter();
    const QString zipPath = createPackage("nameless", true, QString());
    EspPackage package(zipPath);
    QVERIFY(package.open());
    QCOMPARE(package.comment(), QString());
    package.close();

    // Its password comes from the salt alone, and the dialog opens it all the same.
    answerer->answerFile(zipPath);
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(logStrings(flasher.get()).last(),
             line(green, QStringLiteral("Loaded package %1: ").arg(zipPath)));
    QCOMPARE(table->rowCount(), 3);
}

void TestEspFlasherPackage::uncheckedRowsStayOut()
{
    loadLooseScatter();
    table->item(0, 0)->setCheckState(Qt::Unchecked);
    const QString zipPath = createPackage("apps", false);
    EspPackage package(zipPath);
    QVERIFY(package.open());
    QCOMPARE(package.entryNames(),
             (QStringList{"esp8266_loader_stub.elf", "app.bin", "small.bin", "scatter.txt"}));
}

void TestEspFlasherPackage::refusedWhilePackageLoaded()
{
    loadLooseScatter();
    const QString zipPath = createPackage("release", true);
    answerer->answerFile(zipPath);
    QVERIFY(selectScatter(flasher.get()));

    const int modals = answerer->seen().size();
    child<QToolButton>(flasher.get(), "zipTool")->click();
    QCOMPARE(answerer->seen().size(), modals);
    QCOMPARE(logStrings(flasher.get()).last(), line(amber, "The operation is not supported"));
}

void TestEspFlasherPackage::vanishedFilesAreLogged()
{
    loadLooseScatter();
    QVERIFY(QFile::remove(files->path("app.bin")));
    createPackage("broken", true);
    const QStringList lines = logStrings(flasher.get());
    QVERIFY2(lines.last().startsWith(line(
                 red, QStringLiteral("File %1 could not be copied: ").arg(files->path("app.bin")))),
             qPrintable(lines.join('\n')));
    QVERIFY(!lines.join('\n').contains("Created zip package"));

    QVERIFY(QFile::remove(stubPath));
    // Without a loader nothing is asked after the description.
    answerer->answerFile(files->path("nostub"));
    answerer->answerInput(description);
    child<QToolButton>(flasher.get(), "zipTool")->click();
    QVERIFY2(
        logStrings(flasher.get()).last().startsWith(line(red, "Stub file could not be copied: ")),
        qPrintable(logStrings(flasher.get()).last()));
}

void TestEspFlasherPackage::packageFailures_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("message"); // {zip} stands for the package path
    QTest::addColumn<bool>("regex");

    QTest::newRow("not a zip") << "text"
                               << "Package {zip} is invalid and cannot be opened" << false;
    QTest::newRow("no scatter.txt") << "no scatter"
                                    << "scatter.txt not found in package {zip}" << false;
    QTest::newRow("foreign password") << "foreign"
                                      << "scatter.txt from package {zip} cannot be read" << false;
    QTest::newRow("image under another password")
        << "mixed"
        << "^{zip} package is invalid: File app\\.bin within the package cannot "
           "be read \\(-?\\d+\\)$"
        << true;
    QTest::newRow("md5 mismatch")
        << "md5"
        << QStringLiteral("{zip} package is invalid: The data within the package is "
                          "corrupted (saved md5 %1 does not match the computed one %2 "
                          "for file app.bin)")
               .arg(md5Hex("nothing"), md5Hex(patternBytes(1536, 2)))
        << false;
    QTest::newRow("entry missing") << "missing"
                                   << "{zip} package is invalid: File gone.bin (application) does "
                                      "not exist"
                                   << false;
    QTest::newRow("loader missing") << "no stub"
                                    << "{zip} package is invalid: The mandatory flash loader file "
                                       "is missing"
                                    << false;
    QTest::newRow("another chip")
        << "chip"
        << "{zip} package is invalid: This scatter file belongs to a different chip (ESP8285 vs "
           "ESP8266EX / 00a1b2c3)"
        << false;
}

void TestEspFlasherPackage::packageFailures()
{
    QFETCH(QString, kind);
    QFETCH(QString, message);
    QFETCH(bool, regex);

    const QByteArray image = patternBytes(1536, 2);
    QJsonObject scatter{{"chip", kind == "chip" ? "ESP8285" : "ESP8266EX"},
                        {"stub", "esp8266_loader_stub.elf"},
                        {"sections", QJsonArray{applicationSection(
                                         "0x10000", kind == "missing" ? "gone.bin" : "app.bin",
                                         kind == "md5" ? md5Hex("nothing") : md5Hex(image))}}};
    const QByteArray password = EspPackage::password(description);
    const QByteArray foreign = EspPackage::password(QStringLiteral("another description"));
    QVector<Entry> entries{
        {"esp8266_loader_stub.elf", stub, password},
        {"app.bin", image, kind == "mixed" ? foreign : password},
        {"scatter.txt", QJsonDocument(scatter).toJson(), kind == "foreign" ? foreign : password}};
    if (kind == "no scatter")
        entries.removeLast();
    if (kind == "no stub")
        entries.removeFirst();

    const QString zipPath = files->path("bad.zip");
    if (kind == "text")
        QVERIFY(!files->write("bad.zip", "this is no archive").isEmpty());
    else
        QVERIFY(writeZip(zipPath, description, entries));

    // A loaded loose scatter first: the failed package must leave nothing of it.
    loadLooseScatter();
    answerer->answerFile(zipPath);
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(!selectScatter(flasher.get()));

    const QString shown = answerer->last().text;
    QCOMPARE(answerer->last().title, QStringLiteral("Select scatter file"));
    if (regex) {
        const QRegularExpression pattern(
            QString(message).replace("{zip}", QRegularExpression::escape(zipPath)));
        QVERIFY2(pattern.match(shown).hasMatch(), qPrintable(shown));
    } else {
        QCOMPARE(shown, QString(message).replace("{zip}", zipPath));
    }
    QCOMPARE(table->rowCount(), 0);
    QVERIFY(child<QLineEdit>(flasher.get(), "scatterEdit")->text().isEmpty());
    QVERIFY(!child<QPushButton>(flasher.get(), "flashTool")->isEnabled());
    QVERIFY(!child<QToolButton>(flasher.get(), "readTool")->isEnabled());
    if (kind != "text" && kind != "no scatter" && kind != "foreign")
        QVERIFY(child<QLineEdit>(flasher.get(), "stubEdit")->text().isEmpty());
    expectNoPackageOpen();
}

void TestEspFlasherPackage::upperCaseZipIsPackage()
{
    loadLooseScatter();
    const QString zipPath = createPackage("release", true);
    const QString upper = files->path("FIRMWARE.ZIP");
    QVERIFY(QFile::rename(zipPath, upper));
    answerer->answerFile(upper);
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(logStrings(flasher.get()).last(),
             line(green, QStringLiteral("Loaded package %1: %2").arg(upper, description)));
}

void TestEspFlasherPackage::destructionClosesThePackage()
{
    loadLooseScatter();
    const QString zipPath = createPackage("release", true);
    QCOMPARE(openDescriptors(zipPath), 0);
    answerer->answerFile(zipPath);
    QVERIFY(selectScatter(flasher.get()));
    QVERIFY(openDescriptors(zipPath) > 0);

    flasher.reset();
    QCOMPARE(openDescriptors(zipPath), 0);
}

QTEST_MAIN(TestEspFlasherPackage)
#include "tst_espflasher_package.moc"
