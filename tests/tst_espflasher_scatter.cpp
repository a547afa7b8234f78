#include "flasher/esppackage.h"

#include "flashertestkit.h"
#include "scattertestfiles.h"

using namespace FlasherTestKit;

namespace {

const QByteArray ff(1024, '\xFF');
const QByteArray stub = noiseBytes(900, 7);
// Firmware is never trimmed, even with a tail of 0xFF.
const QByteArray boot = patternBytes(2048, 1) + ff;
// Data, an interior block of 0xFF that stays, data, then a tail block of 0xFF.
const QByteArray app = patternBytes(512, 2) + ff + patternBytes(512, 4) + ff;
// 512 bytes, then a short last piece of 88 bytes of 0xFF.
const QByteArray small = patternBytes(512, 3) + ff.left(88);
const QString description = QStringLiteral("Demo package \u03a9 1.0");

QJsonArray goodSections()
{
    return {section("firmware", "0x0", "boot.bin", md5Hex(boot), "qio"),
            section("application", "0x10000", "app.bin", md5Hex(app).toLower()),
            section("application", "0x80000", "images/small.bin", md5Hex(small))};
}

QByteArray scatterBytes(const QJsonArray &sections, const QString &chip = "ESP8266EX",
                        const QString &stub = "stub.elf")
{
    return QJsonDocument(QJsonObject{{"chip", chip}, {"stub", stub}, {"sections", sections}})
        .toJson();
}

// The bytes of a package of those entries, protected by the password of `passwordOf`.
QByteArray zipBytes(const ZipEntries &entries, const QString &passwordOf = description)
{
    QTemporaryDir dir;
    QFile file(dir.filePath("package.zip"));
    const QByteArray password = EspPackage::password(passwordOf);
    if (!writeTestZip(file.fileName(), description, entries, &password) ||
        !file.open(QIODevice::ReadOnly))
        return QByteArray();
    return file.readAll();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("missing");
}

// "text=row" per action of a tool's menu.
QStringList menuEntries(QWidget *flasher, const char *tool)
{
    QStringList entries;
    for (QAction *action : child<QToolButton>(flasher, tool)->menu()->actions())
        entries << QStringLiteral("%1=%2").arg(action->text()).arg(action->data().toInt());
    return entries;
}

// Everything a scatter table row holds: check state, type text and roles, the texts of
// columns 2 to 4; "-" for a missing cell.
QStringList rowCells(QTableWidget *table, int row)
{
    const QTableWidgetItem *active = table->item(row, 0);
    QStringList cells{active ? QString::number(active->checkState()) : "-"};
    if (const QTableWidgetItem *type = table->item(row, 1)) {
        cells << type->text();
        for (int role : {7, 2, 3, 4, 6})
            cells << type->data(Qt::UserRole + role).toString();
    }
    for (int column = 2; column < 5; ++column)
        cells << (table->item(row, column) ? table->item(row, column)->text() : "-");
    return cells;
}

} // namespace

// Scatter files and packages: loading, refusals, creating packages. No worker is connected.
class TestEspFlasherScatter : public FlasherTest
{
    Q_OBJECT

private slots:
    void init();
    void loadsLooseScatter();
    void loadOutcomes_data();
    void loadOutcomes();
    void skippedSectionInTheMiddle();
    void packageRoundTrip_data();
    void packageRoundTrip();
    void readAsksBeforeReplacing_data();
    void readAsksBeforeReplacing();
    void readRefusesOneFileForTwoRegions();

private:
    QTableWidget *table = nullptr;
};

void TestEspFlasherScatter::init()
{
    FlasherTest::init();
    QSettings().clear();
    writeTestFile(dir->path(), "stub.elf", stub);
    writeTestFile(dir->path(), "boot.bin", boot);
    writeTestFile(dir->path(), "app.bin", app);
    writeTestFile(dir->path(), "images/small.bin", small);
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    table = find<QTableWidget>("scatterTable");
    QVERIFY(deliverFinished(true, 3, chipInfo()));
    // Only ".zip" makes a package: a ".json" name is a loose scatter file.
    answerer->answerFile(writeTestFile(dir->path(), "scatter.json", scatterBytes(goodSections())));
    QVERIFY(selectScatter());
}

void TestEspFlasherScatter::loadsLooseScatter()
{
    QCOMPARE(edit("scatterEdit")->text(), path("scatter.json"));
    QCOMPARE(edit("stubEdit")->text(), path("stub.elf"));
    QCOMPARE(QSettings().value("Scatter/Dir").toString(), dir->path());
    QCOMPARE(rowCells(table, 0),
             (QStringList{"2", "Firmware", "0", "qio", "4MB", "40m", md5Hex(boot), "0x00000000",
                          "0x00000c00", "boot.bin"}));
    QCOMPARE(rowCells(table, 1).mid(1, 5), (QStringList{"Application", "1", "", "", ""}));
    QCOMPARE(menuEntries(flasher.get(), "eraseTool"),
             (QStringList{"Erase boot.bin region=0", "Erase app.bin region=1",
                          "Erase small.bin region=2"}));
    QVERIFY(enabled("flashTool") && enabled("readTool"));
    // A loose file logs nothing when it loads.
    QCOMPARE(log(), QStringList{line(green, "Retrieved chip info")});

    // Cancelling the chooser, which starts at the loaded file, changes nothing.
    table->item(1, 0)->setCheckState(Qt::Unchecked);
    answerer->answerFile(QString());
    QVERIFY(!selectScatter());
    QCOMPARE(answerer->last().text,
             "Select scatter file|Packages, Scatter files and Images (*.zip *.txt *.bin),Packages "
             "and Scatter files (*.zip *.txt)|" +
                 dir->path());
    QCOMPARE(edit("scatterEdit")->text(), path("scatter.json"));
    QCOMPARE(rowCells(table, 1).first(), QStringLiteral("0"));
    QVERIFY(enabled("flashTool"));
}

void TestEspFlasherScatter::loadOutcomes_data()
{
    QTest::addColumn<QByteArray>("bytes"); // of scatter.txt, or of bad.zip for "package" rows
    QTest::addColumn<QString>("answers");  // "Yes", "No", "loader"
    QTest::addColumn<QString>("question"); // text|default button; {dir}: the folder
    QTest::addColumn<QString>("message");  // the refusal; empty: loaded
    QTest::addColumn<QString>("logged");   // the last log line when loaded

    const auto row = [](const char *name, const QByteArray &bytes, const QString &answers,
                        const QString &question, const QString &message, const QString &logged) {
        QTest::newRow(name) << bytes << answers << question << message << logged;
    };
    const auto refused = [&row](const char *name, const QByteArray &bytes, const QString &message) {
        row(name, bytes, "", "", message, "");
    };
    const QByteArray missingStub = scatterBytes(goodSections(), "ESP8266EX", "missing.elf");
    const QByteArray noMd5 = scatterBytes({section("application", "0x1000", "app.bin", "")});
    const QString loaderQuestion =
        "This scatter file does not specify a flash loader, but should. Or the flash loader "
        "file ({dir}/missing.elf) is missing|&No";
    const QString md5Question = "Section {dir}/app.bin is missing an md5 checksum. "
                                "Proceed?<br>Current md5: " +
                                md5Hex(app) + "|&No (10)";

    refused("not an object", "[1, 2]",
            "{dir}/scatter.txt is not a valid scatter file: no error occurred");
    row("loader missing, No", missingStub, "No", loaderQuestion,
        "The mandatory flash loader file is missing", "");
    row("loader missing, Yes and chosen", missingStub, "Yes,loader", loaderQuestion, "",
        line(green, "Retrieved chip info"));
    row("md5 missing, Yes", noMd5, "Yes", md5Question, "",
        line(amber, "Proceeding without checksum verification for %1 as per users request"));
    // No is also what the countdown presses (the question's default, shown above).
    row("md5 missing, No", noMd5, "No", md5Question, "No saved checksum for {dir}/app.bin", "");
    // The chip of chipInfo() has 4 MB of flash.
    const QByteArray eightMegabytes =
        scatterBytes({section("firmware", "0x0", "boot.bin", md5Hex(boot), "qio", "8MB")});
    const QString sizeQuestion = "Firmware boot.bin is set for a flash memory size of 8MB, but "
                                 "the chip has 4Mb. Flash it anyway?|&No";
    row("bigger flash size, Yes", eightMegabytes, "Yes", sizeQuestion, "",
        line(green, "Retrieved chip info"));
    row("bigger flash size, No", eightMegabytes, "No", sizeQuestion,
        "Firmware boot.bin is set for a flash memory size of 8MB, larger than the chip's 4Mb", "");

    const QString loader = EspPackage::stubEntryName;
    const auto package = [&](const QString &md5) {
        const QByteArray scatter =
            scatterBytes({section("application", "0x10000", "app.bin", md5)}, "ESP8266EX", loader);
        return ZipEntries{{loader, stub}, {"app.bin", app}, {"scatter.txt", scatter}};
    };
    const ZipEntries good = package(md5Hex(app));
    const QString invalid = "{dir}/bad.zip package is invalid: ";
    refused("package: not a zip", "this is no archive",
            "Package {dir}/bad.zip is invalid and cannot be opened");
    refused("package: no scatter.txt", zipBytes(good.mid(0, 2)),
            "scatter.txt not found in package {dir}/bad.zip");
    refused("package: foreign password", zipBytes(good, "another"),
            "scatter.txt from package {dir}/bad.zip cannot be read");
    refused("package: md5 mismatch", zipBytes(package(md5Hex("nothing"))),
            invalid + "The data within the package is corrupted (saved md5 " + md5Hex("nothing") +
                " does not match the computed one " + md5Hex(app) + " for file app.bin)");
    refused("package: loader missing", zipBytes(good.mid(1)),
            invalid + "The mandatory flash loader file is missing");
    // The chip's flash (4 MB, and room for the loader and the scatter file) caps what a
    // package may unpack to.
    ZipEntries large = good;
    large.insert(2, {"large.bin", QByteArray(6 * 1024 * 1024, '\0')});
    qint64 total = 0;
    for (const auto &entry : large)
        total += entry.second.size();
    refused("package: larger than the flash", zipBytes(large),
            QString("Package {dir}/bad.zip unpacks to %1 bytes, more than the flash memory can "
                    "hold (6291456 bytes)")
                .arg(total));
}

// A scatter file or package over the loaded one: loaded after questions, or refused with a box.
void TestEspFlasherScatter::loadOutcomes()
{
    QFETCH(QByteArray, bytes);
    const bool zip = QString(QTest::currentDataTag()).startsWith("package");
    QFETCH(QString, answers);
    QFETCH(QString, question);
    QFETCH(QString, message);
    QFETCH(QString, logged);

    edit("stubEdit")->clear();
    answerer->answerFile(writeTestFile(dir->path(), zip ? "bad.zip" : "scatter.txt", bytes));
    for (const QString &answer : answers.split(',', Qt::SkipEmptyParts)) {
        if (answer == "loader")
            answerer->answerFile(path("stub.elf"));
        else
            answerer->answerBox(answer == "Yes" ? QMessageBox::Yes : QMessageBox::No);
    }
    if (!message.isEmpty())
        answerer->answerBox(QMessageBox::Ok);
    QCOMPARE(selectScatter(), message.isEmpty());
    if (!question.isEmpty()) {
        const ModalAnswerer::Seen asked = answerer->seen.at(2);
        QCOMPARE(asked.text + "|" + asked.defaultButton,
                 "Parse scatter file|" + question.replace("{dir}", dir->path()));
    }
    if (message.isEmpty()) {
        QCOMPARE(table->rowCount(), QJsonDocument::fromJson(bytes)["sections"].toArray().size());
        QCOMPARE(edit("stubEdit")->text(), path("stub.elf"));
        QCOMPARE(log().last(), logged);
        return;
    }
    QCOMPARE(answerer->last().text, "Select scatter file|" + message.replace("{dir}", dir->path()));
    QCOMPARE(table->rowCount(), 0);
    QVERIFY(edit("scatterEdit")->text().isEmpty());
    QVERIFY(!enabled("flashTool") && !enabled("readTool"));
    // Refusals show a box and write nothing into the log.
    QCOMPARE(log(), QStringList{line(green, "Retrieved chip info")});
    // With no package open, packing asks for a target instead of refusing.
    answerer->answerFile(QString());
    find<QToolButton>("zipTool")->click();
    QVERIFY(answerer->last().text.startsWith("Save Package As|"));
}

void TestEspFlasherScatter::skippedSectionInTheMiddle()
{
    QJsonArray sections = goodSections();
    QJsonObject capital = sections.at(0).toObject();
    capital.insert("type", "Firmware");
    sections.insert(1, capital);
    answerer->answerFile(writeTestFile(dir->path(), "skip.txt", scatterBytes(sections)));
    QVERIFY(selectScatter());

    // The table shrinks by a row, but later sections keep their index: the skipped one's row
    // stays without cells and the last section drops out.
    QCOMPARE(log().last(), line(amber, "Skip unknown scatter section Firmware"));
    QCOMPARE(table->rowCount(), 3);
    QCOMPARE(rowCells(table, 1), (QStringList{"-", "-", "-", "-"}));
    QCOMPARE(rowCells(table, 2).last(), QStringLiteral("app.bin"));
    QCOMPARE(menuEntries(flasher.get(), "verifyTool"),
             (QStringList{"Verify boot.bin region=0", "Verify app.bin region=2"}));
    // Nothing that walks the rows trips on it.
    answerer->expect("FlashTypeSelector",
                     [](QWidget *modal) { static_cast<QDialog *>(modal)->accept(); });
    QVERIFY(flasher->autoSelectByType());
    QCOMPARE(flasher->getScatterFlashSize(), QStringLiteral("4MB"));
    // A click on the "Active" header gives every row with cells its mark; other columns do not.
    const auto marks = [this] {
        return rowCells(table, 0)[0] + rowCells(table, 1)[0] + rowCells(table, 2)[0];
    };
    table->horizontalHeaderItem(0)->setCheckState(Qt::Unchecked);
    table->horizontalHeader()->sectionClicked(4);
    QCOMPARE(marks(), QStringLiteral("2-2"));
    table->horizontalHeader()->sectionClicked(0);
    QCOMPARE(marks(), QStringLiteral("0-0"));
}

void TestEspFlasherScatter::packageRoundTrip_data()
{
    QTest::addColumn<QString>("text"); // the description typed; null: the prompt is cancelled
    QTest::addColumn<bool>("trim");

    QTest::newRow("trimmed") << description << true;
    // An empty description still packages: the password then comes from the salt alone.
    QTest::newRow("no description, not trimmed") << QString() << false;
}

// A package made of the loose scatter file loads back through the dialog.
void TestEspFlasherScatter::packageRoundTrip()
{
    QFETCH(QString, text);
    QFETCH(bool, trim);
    const QString trimmed = " (removed trailing FF's)";

    answerer->answerFile(path("release"));
    answerer->answerInput(text);
    answerer->answerBox(trim ? QMessageBox::Yes : QMessageBox::No);
    find<QToolButton>("zipTool")->click();
    QCOMPARE(answerer->texts(1),
             (QStringList{"Save Package As|ZIP packages (*.zip)|" + dir->path(),
                          "Create Package|Package Description:",
                          "Create Package|Remove FF's from the end of application images to save "
                          "space?"}));
    const QString zip = path("release.zip");
    QStringList expected{line(green, "Retrieved chip info")};
    if (trim) {
        expected << line(green, "Saved 1024 bytes from " + path("app.bin") + trimmed)
                 << line(green, "Saved 512 bytes from " + path("images/small.bin") + trimmed);
    }
    QCOMPARE(log(), expected << line(green, "Created zip package in " + zip));

    // Loaded back under a suffix of another case; without a size a region is as long as its entry.
    const QString upper = path("FIRMWARE.ZIP");
    QVERIFY(QFile::rename(zip, upper));
    answerer->answerFile(upper);
    QVERIFY(selectScatter());
    QCOMPARE(log().last(), line(green, "Loaded package " + upper + ": " + text));
    QCOMPARE(rowCells(table, 1).mid(6),
             (QStringList{md5Hex(trim ? app.left(2048) : app), "0x00010000",
                          trim ? "0x00010800" : "0x00010c00", "app.bin"}));
    QVERIFY(enabled("flashTool"));
    // Reading and packing work on loose files: not while a package is open.
    QVERIFY(!enabled("readTool"));
    find<QToolButton>("zipTool")->click();
    QCOMPARE(log().last(), line(amber, "The operation is not supported"));

    // The loader is an entry of the package, even when its name is an absolute path.
    for (const QString &name : {QString("elsewhere.elf"), path("stub.elf")}) {
        edit("stubEdit")->setText(name);
        answerer->answerBox(QMessageBox::Ok);
        QVERIFY(invoke("on_flashTool_clicked"));
        QCOMPARE(answerer->last().text,
                 "Flash Loader|The stub file " + name + " is not in the package");
    }
    QCOMPARE(log().last(), line(amber, "The operation is not supported"));
}

void TestEspFlasherScatter::readAsksBeforeReplacing_data()
{
    QTest::addColumn<bool>(
        "fromTemplate");                // the loaded scatter file as the template, or the wizard
    QTest::addColumn<QString>("typed"); // in the Save As dialog
    QTest::addColumn<QString>("there"); // the file that is there already
    QTest::addColumn<QString>("asked"); // the question about it; the user says No or cancels

    const QString replace = "Read Flash Memory|File %1 already exists. Replace it?";
    // The name is typed without its suffix: the file that is replaced is the one with ".txt".
    QTest::newRow("template: scatter file") << true << "copy"
                                            << "copy.txt" << replace;
    QTest::newRow("template: region in a sub-folder")
        << true << "out/copy.txt"
        << "out/images/small.bin"
        << "Read Flash Memory|File with the same name already exists. Please choose another name:";
    QTest::newRow("wizard: scatter file") << false << "copy"
                                          << "copy.txt" << replace;
    QTest::newRow("wizard: region file") << false << "copy"
                                         << "boot.img" << replace;
}

// Before a read replaces a file, the dialog asks, in every read flow; keeping the file
// abandons the read before anything is sent, and the loaded scatter stays loaded.
void TestEspFlasherScatter::readAsksBeforeReplacing()
{
    QFETCH(bool, fromTemplate);
    QFETCH(QString, typed);
    QFETCH(QString, there);
    QFETCH(QString, asked);
    const QString kept = writeTestFile(dir->path(), there, "keep me");
    answerer->answerBox(fromTemplate ? QMessageBox::Yes : QMessageBox::No);
    answerer->answerFile(path(typed));
    if (!fromTemplate && there == "boot.img") {
        answerer->expect("EspScatterWizard", [](QWidget *wizard) {
            child<QPushButton>(wizard, "finishButton")->click(); // "Begin"
            fillRegion(wizard, 0, "0x0", true, "4kb", "boot", "finishButton");
        });
    }
    asked.startsWith("Read Flash Memory|File %1") ? answerer->answerBox(QMessageBox::No)
                                                  : answerer->answerInput(QString());
    const QStringList before = log();
    QVERIFY(invoke("on_readTool_clicked"));
    QCOMPARE(answerer->last().text, asked.arg(kept));
    QCOMPARE(readFile(kept), QByteArray("keep me"));
    QCOMPARE(log(), before);
    QCOMPARE(edit("scatterEdit")->text(), path("scatter.json"));
    QCOMPARE(rowCells(table, 0).last(), QStringLiteral("boot.bin"));
}

// Two regions composed with one file name: the second read would replace the first region's
// file, so the read is refused before anything is sent.
void TestEspFlasherScatter::readRefusesOneFileForTwoRegions()
{
    answerer->answerBox(QMessageBox::No); // not the loaded scatter as the template
    answerer->answerFile(path("copy"));
    answerer->expect("EspScatterWizard", [](QWidget *wizard) {
        child<QPushButton>(wizard, "finishButton")->click(); // "Begin"
        fillRegion(wizard, 0, "0x0", true, "4kb", "boot", "nextButton");
        fillRegion(wizard, 1, "0x10000", true, "4kb", "boot", "finishButton");
    });
    QVERIFY(invoke("on_readTool_clicked"));
    QCOMPARE(log().last(), line(red, "Sections no. 1 and 2 would be read into the same file " +
                                         QDir::cleanPath(path("boot.img"))));
    QVERIFY(!QFile::exists(path("boot.img")));
    QVERIFY(!QFile::exists(path("copy.txt")));
}

QTEST_MAIN(TestEspFlasherScatter)
#include "tst_espflasher_scatter.moc"
