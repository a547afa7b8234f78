#include "flasher/espflasher.h"
#include "flasher/esppackage.h"

#include "flashertestkit.h"
#include "modalanswerer.h"
#include "scattertestfiles.h"

#include <QHeaderView>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLineEdit>
#include <QMenu>
#include <QSettings>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

#include <memory>

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
    return {firmwareSection("0x0", "boot.bin", md5Hex(boot), "qio"),
            applicationSection("0x10000", "app.bin", md5Hex(app).toLower()),
            applicationSection("0x80000", "images/small.bin", md5Hex(small))};
}

QByteArray scatterBytes(const QJsonArray &sections, const QString &chip = "ESP8266EX")
{
    return QJsonDocument(QJsonObject{{"chip", chip}, {"stub", "stub.elf"}, {"sections", sections}})
        .toJson();
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
    QStringList cells;
    const QTableWidgetItem *active = table->item(row, 0);
    cells << (active ? QString::number(active->checkState()) : QStringLiteral("-"));
    if (const QTableWidgetItem *type = table->item(row, 1)) {
        cells << type->text();
        for (int role : {7, 2, 3, 4, 6})
            cells << type->data(Qt::UserRole + role).toString();
    }
    for (int column = 2; column < 5; ++column)
        cells << (table->item(row, column) ? table->item(row, column)->text() : QString("-"));
    return cells;
}

} // namespace

// Scatter files and packages: loading, refusals and creating packages. The worker here is
// never connected.
class TestEspFlasherScatter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void loadsLooseScatter();
    void loadOutcomes_data();
    void loadOutcomes();
    void skippedSectionInTheMiddle();
    void packageRoundTrip_data();
    void packageRoundTrip();
    void packageRefused_data();
    void packageRefused();

private:
    QString path(const QString &name) const { return QDir(dir->path()).absoluteFilePath(name); }
    QLineEdit *edit(const char *name) const { return child<QLineEdit>(flasher.get(), name); }
    bool enabled(const char *name) { return child<QWidget>(flasher.get(), name)->isEnabled(); }
    // A refused file leaves no scatter loaded and no package open.
    void expectRefused(const QString &message);

    QTemporaryDir settingsDir;
    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ESPFlasher> flasher;
    QTableWidget *table = nullptr;
};

void TestEspFlasherScatter::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QVERIFY(settingsDir.isValid());
    isolateSettings(settingsDir.path());
}

// An identified chip and a loose scatter file of a firmware and two applications, loaded.
void TestEspFlasherScatter::init()
{
    QSettings().clear();
    dir = std::make_unique<QTemporaryDir>();
    writeTestFile(dir->path(), "stub.elf", stub);
    writeTestFile(dir->path(), "boot.bin", boot);
    writeTestFile(dir->path(), "app.bin", app);
    writeTestFile(dir->path(), "images/small.bin", small);
    answerer = std::make_unique<ModalAnswerer>();
    flasher = std::make_unique<ESPFlasher>(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    table = child<QTableWidget>(flasher.get(), "scatterTable");
    QVERIFY(deliverFinished(flasher.get(), true, 3, chipInfo()));
    // Only ".zip" makes a package: a ".json" name is a loose scatter file.
    answerer->answerFile(writeTestFile(dir->path(), "scatter.json", scatterBytes(goodSections())));
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(table->rowCount(), 3);
}

void TestEspFlasherScatter::cleanup()
{
    QCOMPARE(answerer->unexpected(), QStringList());
    QCOMPARE(answerer->remaining(), 0);
    flasher.reset();
    answerer.reset();
}

void TestEspFlasherScatter::expectRefused(const QString &message)
{
    QCOMPARE(answerer->last().title, QStringLiteral("Select scatter file"));
    QCOMPARE(answerer->last().text, QString(message).replace("{dir}", dir->path()));
    QCOMPARE(table->rowCount(), 0);
    QVERIFY(edit("scatterEdit")->text().isEmpty());
    QVERIFY(!enabled("flashTool") && !enabled("readTool"));
    // Refusals show a box and write nothing into the log.
    QCOMPARE(logLines(flasher.get()), QStringList{line(green, "Retrieved chip info")});
    // With no package open, packing asks for a target instead of refusing.
    answerer->answerFile(QString());
    child<QToolButton>(flasher.get(), "zipTool")->click();
    QCOMPARE(answerer->last().title, QStringLiteral("Save Package As"));
}

void TestEspFlasherScatter::loadsLooseScatter()
{
    QCOMPARE(answerer->last().title + "|" + answerer->last().items.join(','),
             "Select scatter file|Packages and Scatter files (*.zip *.txt)");
    QCOMPARE(edit("scatterEdit")->text(), path("scatter.json"));
    QCOMPARE(edit("stubEdit")->text(), path("stub.elf"));
    QCOMPARE(QSettings().value("Scatter/Dir").toString(), dir->path());
    QCOMPARE(rowCells(table, 0),
             (QStringList{"2", "Firmware", "0", "qio", "4MB", "40m", md5Hex(boot), "0x00000000",
                          "0x00000c00", "boot.bin"}));
    QCOMPARE(rowCells(table, 1),
             (QStringList{"2", "Application", "1", "", "", "", md5Hex(app).toLower(), "0x00010000",
                          "0x00010c00", "app.bin"}));
    QCOMPARE(menuEntries(flasher.get(), "eraseTool"),
             (QStringList{"Erase boot.bin region=0", "Erase app.bin region=1",
                          "Erase small.bin region=2"}));
    QVERIFY(enabled("flashTool") && enabled("readTool"));
    // A loose file logs nothing when it loads.
    QCOMPARE(logLines(flasher.get()), QStringList{line(green, "Retrieved chip info")});

    // Cancelling the chooser, which starts at the loaded file, changes nothing.
    table->item(1, 0)->setCheckState(Qt::Unchecked);
    answerer->answerFile(QString());
    QVERIFY(!selectScatter(flasher.get()));
    QCOMPARE(answerer->last().directory, dir->path());
    QCOMPARE(edit("scatterEdit")->text(), path("scatter.json"));
    QCOMPARE(rowCells(table, 1).first(), QStringLiteral("0"));
    QVERIFY(enabled("flashTool"));

    // A click on the "Active" header gives every row the header's mark; other columns do not.
    const auto marks = [this] {
        return rowCells(table, 0).first() + rowCells(table, 1).first() + rowCells(table, 2).first();
    };
    table->horizontalHeader()->sectionClicked(0);
    QCOMPARE(marks(), QStringLiteral("222"));
    table->horizontalHeaderItem(0)->setCheckState(Qt::Unchecked);
    table->horizontalHeader()->sectionClicked(4);
    QCOMPARE(marks(), QStringLiteral("222"));
    table->horizontalHeader()->sectionClicked(0);
    QCOMPARE(marks(), QStringLiteral("000"));

    // A loader field that names no file: the run stops before it starts.
    edit("stubEdit")->clear();
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(QMetaObject::invokeMethod(flasher.get(), "on_flashTool_clicked"));
    QCOMPARE(answerer->last().title + "|" + answerer->last().text,
             "Flash Loader|Flash loader file " + dir->path() + " does not exist!");
    QCOMPARE(logLines(flasher.get()).size(), 1);
}

void TestEspFlasherScatter::loadOutcomes_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::addColumn<QStringList>("answers"); // "Yes", "No", "wait" (unanswered), "loader"
    QTest::addColumn<QString>("question");    // text|default button; {dir}: the folder
    QTest::addColumn<QString>("message");     // the refusal; empty: loaded
    QTest::addColumn<QString>("logged");      // the last log line when loaded

    const auto row = [](const char *name, const QByteArray &bytes, const QStringList &answers,
                        const QString &question, const QString &message, const QString &logged) {
        QTest::newRow(name) << bytes << answers << question << message << logged;
    };
    QJsonObject noOptions = firmwareSection("0x0", "boot.bin", md5Hex(boot));
    noOptions.remove("options");
    const QString wrong = md5Hex("something else");
    QByteArray missingStub = scatterBytes(goodSections());
    missingStub.replace("stub.elf", "missing.elf");
    const QByteArray noMd5 = scatterBytes({applicationSection("0x1000", "app.bin", "")});
    const QString loaderQuestion =
        "This scatter file does not specify a flash loader, but should. Or the flash loader "
        "file ({dir}/missing.elf) is missing|&No";
    const QString md5Question = "Section {dir}/app.bin is missing an md5 checksum. "
                                "Proceed?<br>Current md5: " +
                                md5Hex(app) + "|&No (10)";
    const QString noChecksum = "No saved checksum for {dir}/app.bin";

    row("another chip", scatterBytes(goodSections(), "ESP8285"), {}, "",
        "This scatter file belongs to a different chip (ESP8285 vs ESP8266EX / 00a1b2c3)", "");
    row("missing file", scatterBytes({applicationSection("0x1000", "gone.bin", md5Hex(app))}), {},
        "", "File gone.bin (application) does not exist", "");
    row("bad address", scatterBytes({firmwareSection("0xZZ", "boot.bin", md5Hex(boot))}), {}, "",
        "Section firmware address 0xZZ is invalid", "");
    row("no firmware options", scatterBytes({noOptions}), {}, "",
        "Mandatory firmware options are missing", "");
    row("md5 mismatch",
        scatterBytes({applicationSection("0x1000", "app.bin", md5Hex(app)),
                      firmwareSection("0x0", "boot.bin", wrong)}),
        {}, "",
        "The data within the package is corrupted (saved md5 " + wrong +
            " does not match the computed one " + md5Hex(boot) + " for file {dir}/boot.bin)",
        "");
    row("not an object", "[1, 2]", {}, "",
        "{dir}/scatter.txt is not a valid scatter file: no error occurred", "");
    row("loader missing, No", missingStub, {"No"}, loaderQuestion,
        "The mandatory flash loader file is missing", "");
    row("loader missing, Yes and chosen", missingStub, {"Yes", "loader"}, loaderQuestion, "",
        line(green, "Retrieved chip info"));
    row("md5 missing, No", noMd5, {"No"}, md5Question, noChecksum, "");
    row("md5 missing, Yes", noMd5, {"Yes"}, md5Question, "",
        line(amber, "Proceeding without checksum verification for %1 as per users request"));
    // Nobody answers: No is pressed after ten seconds.
    row("md5 missing, unanswered", noMd5, {"wait"}, md5Question, noChecksum, "");
}

// A loose scatter file over the loaded one: refused with a box, or loaded after questions.
void TestEspFlasherScatter::loadOutcomes()
{
    QFETCH(QByteArray, bytes);
    QFETCH(QStringList, answers);
    QFETCH(QString, question);
    QFETCH(QString, message);
    QFETCH(QString, logged);

    edit("stubEdit")->clear();
    answerer->answerFile(writeTestFile(dir->path(), "scatter.txt", bytes));
    for (const QString &answer : answers) {
        if (answer == QLatin1String("wait"))
            answerer->leaveBox();
        else if (answer == QLatin1String("loader"))
            answerer->answerFile(path("stub.elf"));
        else
            answerer->answerBox(answer == QLatin1String("Yes") ? QMessageBox::Yes
                                                               : QMessageBox::No);
    }
    if (!message.isEmpty())
        answerer->answerBox(QMessageBox::Ok);
    QCOMPARE(selectScatter(flasher.get()), message.isEmpty());
    if (!question.isEmpty()) {
        const ModalAnswerer::Seen asked = answerer->seen().at(2);
        QCOMPARE(asked.title, QStringLiteral("Parse scatter file"));
        QCOMPARE(asked.text + "|" + asked.defaultButton, question.replace("{dir}", dir->path()));
    }
    if (!message.isEmpty()) {
        expectRefused(message);
        return;
    }
    QCOMPARE(table->rowCount(), QJsonDocument::fromJson(bytes)["sections"].toArray().size());
    QCOMPARE(edit("stubEdit")->text(), path("stub.elf"));
    QCOMPARE(logLines(flasher.get()).last(), logged);
}

void TestEspFlasherScatter::skippedSectionInTheMiddle()
{
    QJsonArray sections = goodSections();
    QJsonObject capital = sections.at(0).toObject();
    capital.insert("type", "Firmware");
    sections.insert(1, capital);
    answerer->answerFile(writeTestFile(dir->path(), "skip.txt", scatterBytes(sections)));
    QVERIFY(selectScatter(flasher.get()));

    // The table shrinks by a row, but later sections keep their index: the skipped one's row
    // stays without cells and the last section drops out.
    QCOMPARE(logLines(flasher.get()).last(), line(amber, "Skip unknown scatter section Firmware"));
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
    QVERIFY(
        QMetaObject::invokeMethod(flasher.get(), "scatterTableHeaderClickHandler", Q_ARG(int, 0)));
    QCOMPARE(rowCells(table, 1).first(), QStringLiteral("-"));
}

void TestEspFlasherScatter::packageRoundTrip_data()
{
    QTest::addColumn<QString>("text"); // the description typed; null: the prompt is cancelled
    QTest::addColumn<bool>("trim");
    QTest::addColumn<QStringList>("saved"); // "Saved..." log lines, {dir}: the folder

    const QStringList trimmed{
        "Saved 1024 bytes from {dir}/app.bin (removed trailing FF's)",
        "Saved 512 bytes from {dir}/images/small.bin (removed trailing FF's)"};
    QTest::newRow("trimmed") << description << true << trimmed;
    QTest::newRow("not trimmed") << description << false << QStringList();
    // An empty description still packages: the password then comes from the salt alone.
    QTest::newRow("no description") << QString() << true << trimmed;
}

// A package made of the loose scatter file holds every file, protected by the password of its
// description, and loads back through the dialog.
void TestEspFlasherScatter::packageRoundTrip()
{
    QFETCH(QString, text);
    QFETCH(bool, trim);
    QFETCH(QStringList, saved);

    answerer->answerFile(path("release"));
    if (text.isNull())
        answerer->cancelInput();
    else
        answerer->answerInput(text);
    answerer->answerBox(trim ? QMessageBox::Yes : QMessageBox::No);
    child<QToolButton>(flasher.get(), "zipTool")->click();
    const QVector<ModalAnswerer::Seen> seen = answerer->seen();
    QCOMPARE(seen.at(1).title + "|" + seen.at(1).items.join(',') + "|" + seen.at(1).directory,
             "Save Package As|ZIP packages (*.zip)|" + dir->path());
    QCOMPARE(seen.at(2).title + "|" + seen.at(2).text,
             QStringLiteral("Create Package|Package Description:"));
    QCOMPARE(seen.at(3).text,
             QStringLiteral("Remove FF's from the end of application images to save space?"));
    const QString zipPath = path("release.zip");
    QStringList expected{line(green, "Retrieved chip info")};
    for (QString entry : saved)
        expected << line(green, entry.replace("{dir}", dir->path()));
    QCOMPARE(logLines(flasher.get()), expected << line(green, "Created zip package in " + zipPath));

    EspPackage package(zipPath);
    QVERIFY(package.open());
    const QString comment = text.isNull() ? QString() : description;
    QCOMPARE(package.comment(), comment);
    QCOMPARE(package.entryNames(), (QStringList{"esp8266_loader_stub.elf", "boot.bin", "app.bin",
                                                "small.bin", "scatter.txt"}));
    QByteArray stored[5];
    for (int i = 0; i < 5; ++i)
        QCOMPARE(package.readEntry(package.entryNames().at(i), &stored[i]),
                 EspPackage::EntryStatus::Ok);
    package.close();
    QCOMPARE(stored[0], stub);
    QCOMPARE(stored[1], boot);
    QCOMPARE(stored[2], trim ? app.left(2048) : app);
    QCOMPARE(stored[3], trim ? small.left(512) : small);
    const QJsonArray sections = QJsonDocument::fromJson(stored[4])["sections"].toArray();
    QCOMPARE(sections.at(0)["md5"].toString(), md5Hex(boot));
    QCOMPARE(sections.at(1)["md5"].toString(), md5Hex(stored[2]));
    QCOMPARE(sections.at(2)["file"].toString(), QStringLiteral("small.bin"));

    // Loaded back, under a name whose suffix differs in case.
    const QString upper = path("FIRMWARE.ZIP");
    QVERIFY(QFile::rename(zipPath, upper));
    answerer->answerFile(upper);
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(logLines(flasher.get()).last(),
             line(green, QStringLiteral("Loaded package %1: %2").arg(upper, comment)));
    QCOMPARE(edit("stubEdit")->text(), QStringLiteral("esp8266_loader_stub.elf"));
    QCOMPARE(table->rowCount(), 3);
    QCOMPARE(rowCells(table, 1).at(6), md5Hex(stored[2]));
    // Without a size key a region is as long as the stored entry.
    QCOMPARE(rowCells(table, 1).at(8), trim ? QStringLiteral("0x00010800") : "0x00010c00");
    QVERIFY(enabled("flashTool"));
    // Reading and packing work on loose files: not while a package is open.
    QVERIFY(!enabled("readTool"));
    child<QToolButton>(flasher.get(), "zipTool")->click();
    QCOMPARE(logLines(flasher.get()).last(), line(amber, "The operation is not supported"));

    // The loader is an entry of the package, or a file when its path is absolute.
    edit("stubEdit")->setText("elsewhere.elf");
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(QMetaObject::invokeMethod(flasher.get(), "on_flashTool_clicked"));
    QCOMPARE(answerer->last().title + "|" + answerer->last().text,
             QStringLiteral("Flash Loader|The stub file elsewhere.elf is not in the package"));
    edit("stubEdit")->setText(path("stub.elf"));
    QVERIFY(QMetaObject::invokeMethod(flasher.get(), "on_flashTool_clicked"));
    QCOMPARE(logLines(flasher.get()).last(),
             line(green, "Start loading stub from " + path("stub.elf")));
}

void TestEspFlasherScatter::packageRefused_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QString>("message"); // {dir}: the folder of bad.zip

    const QString invalid = "{dir}/bad.zip package is invalid: ";
    QTest::newRow("not a zip") << "text"
                               << "Package {dir}/bad.zip is invalid and cannot be opened";
    QTest::newRow("no scatter.txt") << "no scatter"
                                    << "scatter.txt not found in package {dir}/bad.zip";
    QTest::newRow("foreign password") << "foreign"
                                      << "scatter.txt from package {dir}/bad.zip cannot be read";
    QTest::newRow("md5 mismatch") << "md5"
                                  << invalid +
                                         "The data within the package is corrupted (saved md5 " +
                                         md5Hex("nothing") + " does not match the computed one " +
                                         md5Hex(app) + " for file app.bin)";
    QTest::newRow("loader missing")
        << "no stub" << invalid + "The mandatory flash loader file is missing";
}

void TestEspFlasherScatter::packageRefused()
{
    QFETCH(QString, kind);
    QFETCH(QString, message);

    const QJsonObject scatter{
        {"chip", "ESP8266EX"},
        {"stub", "esp8266_loader_stub.elf"},
        {"sections", QJsonArray{applicationSection(
                         "0x10000", "app.bin", kind == "md5" ? md5Hex("nothing") : md5Hex(app))}}};
    ZipEntries entries{{"esp8266_loader_stub.elf", stub},
                       {"app.bin", app},
                       {"scatter.txt", QJsonDocument(scatter).toJson()}};
    if (kind == "no scatter")
        entries.removeLast();
    if (kind == "no stub")
        entries.removeFirst();
    const QByteArray password =
        EspPackage::password(kind == "foreign" ? QStringLiteral("another") : description);
    if (kind == "text")
        QVERIFY(!writeTestFile(dir->path(), "bad.zip", "this is no archive").isEmpty());
    else
        QVERIFY(writeTestZip(path("bad.zip"), description, entries, &password));

    answerer->answerFile(path("bad.zip"));
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(!selectScatter(flasher.get()));
    expectRefused(message);
}

QTEST_MAIN(TestEspFlasherScatter)
#include "tst_espflasher_scatter.moc"
