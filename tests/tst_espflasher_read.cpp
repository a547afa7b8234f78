#include "flasher/espflasher.h"

#include "connectedflasher.h"
#include "flashertestkit.h"
#include "flashtestfiles.h"
#include "modalanswerer.h"
#include "scattertestfiles.h"

#include "tools/imagegen/espimagebuilder.h"

#include <QComboBox>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLabel>
#include <QLineEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QRadioButton>
#include <QSettings>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

#include <memory>

using namespace FlasherTestKit;

namespace {

// One region as typed into the composer; an empty size means end-address mode.
struct Region
{
    int type; // 0 firmware, 1 application
    QString start;
    QString end;
    QString size;
    QString file;
};

void fillRegion(QWidget *wizard, const Region &region)
{
    child<QComboBox>(wizard, "regionTypeCombo")->setCurrentIndex(region.type);
    child<QLineEdit>(wizard, "regionStartAddress")->setText(region.start);
    if (region.size.isEmpty()) {
        child<QRadioButton>(wizard, "regionEndAddressSel")->setChecked(true);
        child<QLineEdit>(wizard, "regionEndAddress")->setText(region.end);
    } else {
        child<QRadioButton>(wizard, "regionSizeSel")->setChecked(true);
        child<QLineEdit>(wizard, "regionSize")->setText(region.size);
    }
    child<QLineEdit>(wizard, "regionFileName")->setText(region.file);
}

// Plays the user at the composer: Begin, one region after the other, Finish.
ModalAnswerer::Action composeRegions(const QVector<Region> &regions, QStringList *warnings)
{
    return [regions, warnings](QWidget *wizard) {
        child<QPushButton>(wizard, "finishButton")->click(); // "Begin"
        for (int index = 0; index < regions.size(); ++index) {
            fillRegion(wizard, regions.at(index));
            const bool last = index == regions.size() - 1;
            child<QPushButton>(wizard, last ? "finishButton" : "nextButton")->click();
            warnings->append(child<QLabel>(wizard, "regionValuesWarning")->text());
        }
    };
}

QJsonObject readJson(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return QJsonObject();
    return QJsonDocument::fromJson(file.readAll()).object();
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("missing");
}

QString finishedReading()
{
    return line(green, "Finished reading package");
}

} // namespace

class TestEspFlasherRead : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void composeReadSaveAndFlashAnotherChip();
    void composerCancelled_data();
    void composerCancelled();
    void templateWithNameClash_data();
    void templateWithNameClash();
    void unparsableFirmwareKeepsItsOptions();
    void uncheckedTemplateAndPackageOffer();
    void scatterCannotBeWritten();
    void failedReadStopsTheChain();
    void readingClosesAnOpenPackage();

private:
    void connect(std::unique_ptr<ConnectedFlasher> &target);
    void loadTemplate(const QString &scatter);
    void click(const char *button);
    ESPFlasher *dialog() const { return bench->dialog(); }
    QTableWidget *table() const { return child<QTableWidget>(dialog(), "scatterTable"); }
    QString path(const QString &name) const { return QDir(dir->path()).absoluteFilePath(name); }

    QTemporaryDir settingsDir;
    std::unique_ptr<QTemporaryDir> dir;
    FlashTestFiles files;
    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ConnectedFlasher> bench;
};

void TestEspFlasherRead::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QVERIFY(settingsDir.isValid());
    isolateSettings(settingsDir.path());
}

void TestEspFlasherRead::init()
{
    dir = std::make_unique<QTemporaryDir>();
    QVERIFY(dir->isValid());
    files = FlashTestFiles();
    QString why;
    QVERIFY2(files.create(QDir(dir->path()), &why), qPrintable(why));
    answerer = std::make_unique<ModalAnswerer>();
    answerer->ignore("QProgressDialog");
    connect(bench);
}

void TestEspFlasherRead::cleanup()
{
    if (answerer) {
        QCOMPARE(answerer->unexpected(), QStringList());
        QCOMPARE(answerer->remaining(), 0);
    }
    bench.reset();
    answerer.reset();
    dir.reset();
}

void TestEspFlasherRead::connect(std::unique_ptr<ConnectedFlasher> &target)
{
    target = std::make_unique<ConnectedFlasher>();
    QString why;
    QVERIFY2(target->connect(&why), qPrintable(why));
}

void TestEspFlasherRead::loadTemplate(const QString &scatter)
{
    answerer->answerFile(scatter);
    QVERIFY(selectScatter(dialog()));
}

void TestEspFlasherRead::click(const char *button)
{
    auto *target = child<QAbstractButton>(dialog(), button);
    QVERIFY2(target && target->isEnabled(), button);
    target->click();
}

// Three regions composed in the wizard are read into files, the scatter file is saved, and a
// second chip flashed from it ends up with the same bytes in those regions.
void TestEspFlasherRead::composeReadSaveAndFlashAnotherChip()
{
    EspImageBuilder builder;
    builder.setFlashMode(0);      // qio
    builder.setFlashSize(4);      // 4 MB
    builder.setFlashFrequency(1); // 26 MHz
    builder.addRandomSegment(0x40100000, 0x1800, 21);
    builder.addRandomSegment(0x3FFE8000, 0x200, 22);
    const QByteArray image = builder.build();
    const QByteArray application = noiseBytes(0x2000, 23);
    const QByteArray tail = noiseBytes(0x1000, 24);
    VirtualEsp8266 &chip = bench->chip();
    chip.setFlash(0x0, image);
    chip.setFlash(0x10000, application);
    chip.setFlash(0x3F0000, tail);

    QSettings().setValue("Scatter/Dir", settingsDir.path());
    QStringList warnings;
    answerer->answerFile(path("readback"));
    answerer->expect("EspScatterWizard",
                     composeRegions({{0, "0x0", QString(), QString::number(image.size()), "boot"},
                                     {1, "0x10000", "0x12000", QString(), "app.img"},
                                     {1, "4032kb", QString(), "4kb", "tail.IMG"}},
                                    &warnings));
    answerer->answerFile(files.stub); // no loader yet: the dialog asks for one
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerBox(QMessageBox::No);

    const int before = logLineCount(dialog());
    click("readTool");
    const QString scatter = path("readback.txt");
    QVERIFY(waitForLogLine(dialog(), line(green, "Scatter file saved to " + scatter), before));
    QCOMPARE(warnings, (QStringList{QString(), QString(), QString()}));

    const QVector<ModalAnswerer::Seen> seen = answerer->seen();
    QCOMPARE(seen.size(), 5);
    QCOMPARE(seen.at(0).title, QStringLiteral("Save As"));
    QCOMPARE(seen.at(0).directory, settingsDir.path());
    QCOMPARE(seen.at(0).items, QStringList{"Scatter files (*.txt)"});
    QCOMPARE(seen.at(1).title, QStringLiteral("Scatter File Composer"));
    QCOMPARE(seen.at(2).title, QStringLiteral("Select Flash Loader"));
    QCOMPARE(seen.at(3).title, QStringLiteral("Save Scatter"));
    QCOMPARE(seen.at(3).text, QStringLiteral("Save the scatter file?"));
    QCOMPARE(seen.at(4).text, QStringLiteral("Create a distribution package?"));
    QCOMPARE(QSettings().value("Scatter/Dir").toString(), dir->path());
    QCOMPARE(child<QLineEdit>(dialog(), "scatterEdit")->text(), scatter);

    const QString end = QStringLiteral("%1").arg(image.size(), 8, 16, QLatin1Char('0'));
    QCOMPARE(logWithoutDots(dialog(), before),
             (QStringList{line(green, "Start loading stub from " + files.stub),
                          line(green, "Flash stub loaded"),
                          line(green, "Start reading " + path("boot.img") +
                                          " from region [0x00000000:0x" + end + "]"),
                          line(green, "Flash memory section has been successfully read"),
                          line(green, "Extracted flash parameters: 4Mb / qio / 26MHz"),
                          line(green, "Start reading " + path("app.img") +
                                          " from region [0x00010000:0x00012000]"),
                          line(green, "Flash memory section has been successfully read"),
                          line(green, "Start reading " + path("tail.IMG") +
                                          " from region [0x003f0000:0x003f1000]"),
                          line(green, "Flash memory section has been successfully read"),
                          finishedReading(), line(green, "Scatter file saved to " + scatter)}));
    QCOMPARE(child<QProgressBar>(dialog(), "progressBar")->value(), 100);
    QVERIFY(child<QPushButton>(dialog(), "flashTool")->isEnabled());
    QVERIFY(child<QToolButton>(dialog(), "readTool")->isEnabled());

    QCOMPARE(readFile(path("boot.img")), image);
    QCOMPARE(readFile(path("app.img")), application);
    QCOMPARE(readFile(path("tail.IMG")), tail);
    const QJsonObject document = readJson(scatter);
    QCOMPARE(document.value("chip").toString(), QStringLiteral("ESP8266EX"));
    QCOMPARE(document.value("stub").toString(), QStringLiteral("loader.elf"));
    const QJsonArray sections = document.value("sections").toArray();
    QCOMPARE(sections.size(), 3);
    QCOMPARE(
        sections.at(0).toObject(),
        (QJsonObject{{"type", "firmware"},
                     {"address", "0x00000000"},
                     {"md5", md5Hex(image)},
                     {"file", "boot.img"},
                     {"options", QJsonObject{{"flash", QJsonObject{{"size", "4Mb"},
                                                                   {"mode", "qio"},
                                                                   {"frequency", "26MHz"}}}}}}));
    QCOMPARE(sections.at(1).toObject(), (QJsonObject{{"type", "application"},
                                                     {"address", "0x00010000"},
                                                     {"md5", md5Hex(application)},
                                                     {"file", "app.img"}}));
    QCOMPARE(sections.at(2).toObject().value("address").toString(), QStringLiteral("0x003f0000"));

    // A second board, flashed from what was read.
    bench.reset();
    std::unique_ptr<ConnectedFlasher> second;
    connect(second);
    bench = std::move(second);
    QVERIFY(bench->chip().flash(0, 0x10) != image.left(0x10));
    loadTemplate(scatter);
    QCOMPARE(table()->rowCount(), 3);
    const int run = logLineCount(dialog());
    click("flashTool");
    QVERIFY2(waitForLogLine(dialog(), line(green, "Finished flashing package"), run),
             qPrintable(logWithoutDots(dialog(), run).join('\n')));
    QCOMPARE(bench->chip().flash(0x0, image.size()), image);
    QCOMPARE(bench->chip().flash(0x10000, application.size()), application);
    QCOMPARE(bench->chip().flash(0x3F0000, tail.size()), tail);
    QCOMPARE(bench->chip().flash(0x3F1000, 0x100), QByteArray(0x100, '\xFF'));
}

void TestEspFlasherRead::composerCancelled_data()
{
    QTest::addColumn<bool>("chooseTarget");
    QTest::newRow("no target") << false;
    QTest::newRow("composer closed") << true;
}

void TestEspFlasherRead::composerCancelled()
{
    QFETCH(bool, chooseTarget);
    if (chooseTarget) {
        answerer->answerFile(path("never"));
        answerer->expect("EspScatterWizard",
                         [](QWidget *wizard) { static_cast<QDialog *>(wizard)->reject(); });
    } else {
        answerer->answerFile(QString());
    }
    const int before = logLineCount(dialog());
    click("readTool");
    QCOMPARE(logLineCount(dialog()), before);
    QVERIFY(child<QLineEdit>(dialog(), "scatterEdit")->text().isEmpty());
    QCOMPARE(table()->rowCount(), 0);
    QVERIFY(!QFile::exists(path("never.txt")));
    QVERIFY(child<QToolButton>(dialog(), "readTool")->isEnabled());
}

void TestEspFlasherRead::templateWithNameClash_data()
{
    QTest::addColumn<bool>("rename");
    QTest::newRow("renamed") << true;
    QTest::newRow("rename cancelled") << false;
}

// A loaded scatter file serves as the template; a file of the same name in the target folder
// is not overwritten.
void TestEspFlasherRead::templateWithNameClash()
{
    QFETCH(bool, rename);
    loadTemplate(files.scatter);
    QVERIFY(QDir(dir->path()).mkdir("out"));
    const QString kept = writeTestFile(QDir(path("out")), "boot.bin", "keep me");
    bench->chip().setFlash(0, files.patchedFirmware);
    bench->chip().setFlash(0x10000, files.application);

    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(path("out/copy.TXT"));
    if (rename) {
        answerer->answerInput("boot-read.bin");
        answerer->answerBox(QMessageBox::Yes);
        answerer->answerBox(QMessageBox::No);
    } else {
        answerer->cancelInput();
    }
    const int before = logLineCount(dialog());
    click("readTool");
    QCOMPARE(answerer->seen().at(1).title, QStringLiteral("Scatter File"));
    QCOMPARE(answerer->seen().at(1).text,
             QStringLiteral("A scatter file is already loaded. Use it as a template?"));
    QCOMPARE(answerer->seen().at(2).directory, dir->path());
    QCOMPARE(answerer->seen().at(3).title, QStringLiteral("Read Flash Memory"));
    QCOMPARE(answerer->seen().at(3).text,
             QStringLiteral("File with the same name already exists. Please choose another "
                            "name:"));
    if (!rename) {
        // The whole read is abandoned.
        QCOMPARE(logLineCount(dialog()), before);
        QCOMPARE(child<QLineEdit>(dialog(), "scatterEdit")->text(), files.scatter);
        QCOMPARE(table()->item(0, 4)->text(), QStringLiteral("boot.bin"));
        return;
    }
    const QString scatter = path("out/copy.TXT");
    QVERIFY(waitForLogLine(dialog(), line(green, "Scatter file saved to " + scatter), before));
    QCOMPARE(table()->item(0, 4)->text(), QStringLiteral("boot-read.bin"));
    QCOMPARE(readFile(kept), QByteArray("keep me"));
    QCOMPARE(readFile(path("out/boot-read.bin")), files.patchedFirmware);
    QCOMPARE(readFile(path("out/app.bin")), files.application);
    // The header read back gives the options of the saved scatter.
    QVERIFY(logWithoutDots(dialog(), before)
                .contains(line(green, "Extracted flash parameters: 4Mb / dio / 40MHz")));
    const QJsonObject document = readJson(scatter);
    QCOMPARE(document.value("stub").toString(), QStringLiteral("../loader.elf"));
    const QJsonArray sections = document.value("sections").toArray();
    QCOMPARE(sections.size(), 2);
    QCOMPARE(sections.at(0).toObject().value("file").toString(), QStringLiteral("boot-read.bin"));
    QCOMPARE(sections.at(0).toObject().value("md5").toString(), md5Hex(files.patchedFirmware));
    QCOMPARE(sections.at(1).toObject().value("file").toString(), QStringLiteral("app.bin"));
}

// A firmware region that holds no image is reported and the read goes on; the saved scatter
// keeps the options the row had.
void TestEspFlasherRead::unparsableFirmwareKeepsItsOptions()
{
    loadTemplate(files.scatter);
    bench->chip().setFlash(0x10000, files.application);
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(path("blank"));
    answerer->answerInput("blank-boot.bin"); // boot.bin is right there
    answerer->answerInput("blank-app.bin");
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerBox(QMessageBox::No);
    const int before = logLineCount(dialog());
    click("readTool");
    QVERIFY(waitForLogLine(dialog(), finishedReading(), before));
    const QStringList lines = logWithoutDots(dialog(), before);
    QVERIFY2(lines.contains(
                 line(red, "Firmware read is invalid - cannot parse " + path("blank-boot.bin"))),
             qPrintable(lines.join('\n')));
    QCOMPARE(readFile(path("blank-app.bin")), files.application);
    const QJsonArray sections = readJson(path("blank.txt")).value("sections").toArray();
    QCOMPARE(sections.at(0).toObject().value("options").toObject().value("flash").toObject(),
             (QJsonObject{{"size", "4MB"}, {"mode", "dio"}, {"frequency", "40m"}}));
}

// Unchecked rows are passed over; the scatter is still saved, and the package offer leads to
// the package dialog.
void TestEspFlasherRead::uncheckedTemplateAndPackageOffer()
{
    loadTemplate(files.scatter);
    table()->item(0, 0)->setCheckState(Qt::Unchecked);
    table()->item(1, 0)->setCheckState(Qt::Unchecked);
    QVERIFY(QDir(dir->path()).mkdir("empty"));
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(path("empty/out"));
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(QString()); // the package target
    const int before = logLineCount(dialog());
    click("readTool");
    const QString scatter = path("empty/out.txt");
    QVERIFY(waitForLogLine(dialog(), line(green, "Scatter file saved to " + scatter), before));
    QCOMPARE(logWithoutDots(dialog(), before),
             (QStringList{line(green, "Start loading stub from " + files.stub),
                          line(green, "Flash stub loaded"), line(amber, "Skipping section 1"),
                          line(amber, "Skipping section 2"), finishedReading(),
                          line(green, "Scatter file saved to " + scatter)}));
    QCOMPARE(readJson(scatter).value("sections").toArray(), QJsonArray());
    QCOMPARE(answerer->last().title, QStringLiteral("Save Package As"));
    QCOMPARE(bench->chip().counters().commands.value(VirtualEsp8266::ReadFlash), 0);
}

void TestEspFlasherRead::scatterCannotBeWritten()
{
    loadTemplate(files.scatter);
    table()->item(0, 0)->setCheckState(Qt::Unchecked);
    table()->item(1, 0)->setCheckState(Qt::Unchecked);
    // The name the user types is free; with ".txt" appended it is a folder.
    QVERIFY(QDir(dir->path()).mkpath("target/blocked.txt"));
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(path("target/blocked"));
    answerer->answerBox(QMessageBox::Yes);
    const int before = logLineCount(dialog());
    click("readTool");
    QVERIFY(waitForLogLine(dialog(), finishedReading(), before));
    const QStringList lines = logWithoutDots(dialog(), before);
    QCOMPARE(lines.last().section(": ", 0, 0),
             line(amber, "Cannot write to " + path("target/blocked.txt")));
    QCOMPARE(lines.size(), 6);
    // No package is offered.
    QCOMPARE(answerer->last().text, QStringLiteral("Save the scatter file?"));
}

// A region the chip cannot read stops the chain: nothing is saved, nothing asked.
void TestEspFlasherRead::failedReadStopsTheChain()
{
    QJsonObject document = files.document();
    QJsonArray sections = document.value("sections").toArray();
    QJsonObject beyond = sections.at(1).toObject();
    beyond.insert("address", "0x3FF000");
    beyond.insert("size", "0x2000");
    sections[1] = beyond;
    document.insert("sections", sections);
    loadTemplate(writeTestFile(QDir(dir->path()), "beyond.txt", QJsonDocument(document).toJson()));
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(path("beyond-read"));
    answerer->answerInput("beyond-boot.bin");
    answerer->answerInput("beyond-app.bin");
    const int before = logLineCount(dialog());
    click("readTool");
    const QString failed = line(red, "UBoot operation read data (6) finished with error");
    QVERIFY(waitForLogLine(dialog(), failed, before));
    const QStringList lines = logWithoutDots(dialog(), before);
    QCOMPARE(lines.last(), failed);
    QVERIFY(!lines.contains(finishedReading()));
    QVERIFY(!QFile::exists(path("beyond-read.txt")));
    QVERIFY(!child<QPushButton>(dialog(), "flashTool")->isEnabled());
    QVERIFY(!child<QToolButton>(dialog(), "readTool")->isEnabled());
}

// Reading works on loose files: a package used as the template is closed first, and the rows
// name the files read.
void TestEspFlasherRead::readingClosesAnOpenPackage()
{
    loadTemplate(files.package);
    QVERIFY(!child<QToolButton>(dialog(), "readTool")->isEnabled());
    bench->chip().setFlash(0, files.patchedFirmware);
    bench->chip().setFlash(0x10000, files.application);
    // The loader comes out of the package while it is still open.
    answerer->answerInput("0x0:0x10");
    click("verifyTool");
    QVERIFY(waitForLogLine(dialog(), line(green, "Flash stub loaded")));

    QVERIFY(QDir(dir->path()).mkdir("loose"));
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerFile(path("loose/read"));
    answerer->answerBox(QMessageBox::Yes);
    answerer->answerBox(QMessageBox::No);
    const int before = logLineCount(dialog());
    QVERIFY(QMetaObject::invokeMethod(dialog(), "on_readTool_clicked", Qt::DirectConnection));
    QVERIFY(waitForLogLine(dialog(), line(green, "Scatter file saved to " + path("loose/read.txt")),
                           before));
    QCOMPARE(readFile(path("loose/boot.bin")), files.patchedFirmware);
    QCOMPARE(readFile(path("loose/app.bin")), files.application);
    // No package is open any more: reading is offered, and packing asks for a target.
    QVERIFY(child<QToolButton>(dialog(), "readTool")->isEnabled());
    answerer->answerFile(QString());
    click("zipTool");
    QCOMPARE(answerer->last().title, QStringLiteral("Save Package As"));
    const QJsonArray sections = readJson(path("loose/read.txt")).value("sections").toArray();
    QCOMPARE(sections.size(), 2);
    QCOMPARE(sections.at(1).toObject().value("file").toString(), QStringLiteral("app.bin"));
}

QTEST_MAIN(TestEspFlasherRead)
#include "tst_espflasher_read.moc"
