#include "flasher/espflasher.h"

#include "flashertestkit.h"
#include "modalanswerer.h"
#include "scattertestfiles.h"

#include <QAction>
#include <QApplication>
#include <QCheckBox>
#include <QHeaderView>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLineEdit>
#include <QMenu>
#include <QPushButton>
#include <QSettings>
#include <QTableWidget>
#include <QTemporaryDir>
#include <QToolButton>
#include <QtTest>

#include <memory>

using namespace FlasherTestKit;

namespace {

constexpr int kindRole = Qt::UserRole + 7;
constexpr int modeRole = Qt::UserRole + 2;
constexpr int sizeRole = Qt::UserRole + 3;
constexpr int frequencyRole = Qt::UserRole + 4;
constexpr int md5Role = Qt::UserRole + 6;

const QString selectTitle = QStringLiteral("Select scatter file");
const QString parseTitle = QStringLiteral("Parse scatter file");

QStringList menuEntries(QToolButton *tool)
{
    QStringList entries;
    if (!tool->menu())
        return entries;
    for (QAction *action : tool->menu()->actions())
        entries << QStringLiteral("%1=%2").arg(action->text()).arg(action->data().toInt());
    return entries;
}

QList<Qt::CheckState> activeStates(QTableWidget *table)
{
    QList<Qt::CheckState> states;
    for (int row = 0; row < table->rowCount(); ++row) {
        const QTableWidgetItem *item = table->item(row, 0);
        states << (item ? item->checkState() : Qt::PartiallyChecked);
    }
    return states;
}

} // namespace

class TestEspFlasherScatter : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void init();
    void cleanup();

    void loadsLooseScatter();
    void startsInRememberedDirectory();
    void cancelChangesNothing();
    void failures_data();
    void failures();
    void notAScatterObject_data();
    void notAScatterObject();
    void jsonNameIsLoose();
    void missingLoader_data();
    void missingLoader();
    void currentLoaderIsKept();
    void missingChecksum_data();
    void missingChecksum();
    void missingChecksumTimesOut();
    void skippedSectionInTheMiddle();
    void skippedLastSection();
    void endAddresses_data();
    void endAddresses();
    void headerClickAppliesHeaderState();
    void flashSizeText();
    void templateAdoptsConnectedChip();
    void upgradeModeChoosesComponents_data();
    void upgradeModeChoosesComponents();
    void upgradeCancelled_data();
    void upgradeCancelled();

private:
    void makeFlasher(ESPFlasher::RUN_MODE mode, quint32 flashBytes = 0x400000);
    QJsonObject goodDocument() const;
    QString dirPath(const QString &text) const;
    void expectCleared();

    QTemporaryDir settingsDir;
    std::unique_ptr<ScatterDir> files;
    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ESPFlasher> flasher;
    QTableWidget *table = nullptr;
    QLineEdit *scatterEdit = nullptr;
    QLineEdit *stubEdit = nullptr;
    QPushButton *flashTool = nullptr;
    QToolButton *readTool = nullptr;
    QString stubPath;
    QByteArray boot;
    QByteArray app;
};

void TestEspFlasherScatter::initTestCase()
{
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
    QVERIFY(settingsDir.isValid());
    isolateSettings(settingsDir.path());
}

void TestEspFlasherScatter::init()
{
    QSettings().clear();
    files = std::make_unique<ScatterDir>();
    QVERIFY(files->isValid());
    boot = patternBytes(3000, 1);
    app = patternBytes(5000, 2);
    stubPath = files->write(QStringLiteral("stub.elf"), patternBytes(700, 3));
    QVERIFY(!files->write(QStringLiteral("boot.bin"), boot).isEmpty());
    QVERIFY(!files->write(QStringLiteral("app.bin"), app).isEmpty());
    answerer = std::make_unique<ModalAnswerer>();
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
}

void TestEspFlasherScatter::makeFlasher(ESPFlasher::RUN_MODE mode, quint32 flashBytes)
{
    flasher = std::make_unique<ESPFlasher>(mode, nullptr);
    table = child<QTableWidget>(flasher.get(), "scatterTable");
    scatterEdit = child<QLineEdit>(flasher.get(), "scatterEdit");
    stubEdit = child<QLineEdit>(flasher.get(), "stubEdit");
    flashTool = child<QPushButton>(flasher.get(), "flashTool");
    readTool = child<QToolButton>(flasher.get(), "readTool");
    // In the upgrade mode an identification goes on to choosing a scatter file.
    if (mode == ESPFlasher::RUN_MODE_STANDALONE)
        QVERIFY(
            deliverFinished(flasher.get(), true, 3, chipInfo("ESP8266EX", "00a1b2c3", flashBytes)));
}

void TestEspFlasherScatter::cleanup()
{
    if (answerer) {
        QCOMPARE(answerer->unexpected(), QStringList());
        QCOMPARE(answerer->remaining(), 0);
    }
    flasher.reset();
    answerer.reset();
    files.reset();
}

QJsonObject TestEspFlasherScatter::goodDocument() const
{
    return QJsonObject{
        {"chip", "ESP8266EX"},
        {"stub", "stub.elf"},
        {"sections", QJsonArray{firmwareSection("0x0", "boot.bin", md5Hex(boot)),
                                applicationSection("0x1000", "app.bin", md5Hex(app).toLower())}}};
}

QString TestEspFlasherScatter::dirPath(const QString &text) const
{
    QString result = text;
    return result.replace(QLatin1String("{dir}"), files->dir().absolutePath());
}

void TestEspFlasherScatter::expectCleared()
{
    QCOMPARE(table->rowCount(), 0);
    QVERIFY(scatterEdit->text().isEmpty());
    QVERIFY(!flashTool->isEnabled());
    QVERIFY(!readTool->isEnabled());
}

void TestEspFlasherScatter::loadsLooseScatter()
{
    const QString path = files->writeScatter("scatter.txt", goodDocument());
    answerer->answerFile(path);
    QVERIFY(selectScatter(flasher.get()));

    QCOMPARE(answerer->seen().size(), 1);
    QCOMPARE(answerer->last().title, selectTitle);
    QCOMPARE(answerer->last().items, QStringList{"Packages and Scatter files (*.zip *.txt)"});

    QCOMPARE(scatterEdit->text(), path);
    QCOMPARE(stubEdit->text(), stubPath);
    QCOMPARE(QSettings().value("Scatter/Dir").toString(), files->dir().absolutePath());
    QCOMPARE(table->rowCount(), 2);

    const QTableWidgetItem *active = table->item(0, 0);
    QVERIFY(active->flags() & Qt::ItemIsUserCheckable);
    QCOMPARE(active->checkState(), Qt::Checked);
    QVERIFY(active->text().isEmpty());
    const QTableWidgetItem *firmware = table->item(0, 1);
    QCOMPARE(firmware->text(), QStringLiteral("Firmware"));
    QCOMPARE(firmware->data(kindRole).toInt(), 0);
    QVERIFY(firmware->data(kindRole).isValid());
    QCOMPARE(firmware->data(modeRole).toString(), QStringLiteral("dio"));
    QCOMPARE(firmware->data(sizeRole).toString(), QStringLiteral("4MB"));
    QCOMPARE(firmware->data(frequencyRole).toString(), QStringLiteral("40m"));
    QCOMPARE(firmware->data(md5Role).toString(), md5Hex(boot));
    QCOMPARE(table->item(0, 2)->text(), QStringLiteral("0x00000000"));
    QCOMPARE(table->item(0, 3)->text(), QStringLiteral("0x00000bb8"));
    QCOMPARE(table->item(0, 4)->text(), QStringLiteral("boot.bin"));

    const QTableWidgetItem *application = table->item(1, 1);
    QCOMPARE(table->item(1, 0)->checkState(), Qt::Checked);
    QCOMPARE(application->text(), QStringLiteral("Application"));
    QCOMPARE(application->data(kindRole).toInt(), 1);
    QVERIFY(!application->data(sizeRole).isValid());
    QCOMPARE(application->data(md5Role).toString(), md5Hex(app).toLower());
    QCOMPARE(table->item(1, 2)->text(), QStringLiteral("0x00001000"));
    QCOMPARE(table->item(1, 3)->text(), QStringLiteral("0x00002388"));
    QCOMPARE(table->item(1, 4)->text(), QStringLiteral("app.bin"));

    QVERIFY(flashTool->isEnabled());
    QVERIFY(readTool->isEnabled());
    QCOMPARE(menuEntries(child<QToolButton>(flasher.get(), "eraseTool")),
             (QStringList{"Erase boot.bin region=0", "Erase app.bin region=1"}));
    QCOMPARE(menuEntries(child<QToolButton>(flasher.get(), "verifyTool")),
             (QStringList{"Verify boot.bin region=0", "Verify app.bin region=1"}));
    // A loose file logs nothing when it loads.
    QCOMPARE(logStrings(flasher.get()), QStringList{line(green, "Retrieved chip info")});
}

void TestEspFlasherScatter::startsInRememberedDirectory()
{
    const QString path = files->writeScatter("scatter.txt", goodDocument());
    answerer->answerFile(path);
    QVERIFY(selectScatter(flasher.get()));

    // A new dialog starts where the last file was chosen; so does the loader chooser.
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE);
    answerer->answerFile(QString());
    QVERIFY(!selectScatter(flasher.get()));
    QCOMPARE(answerer->last().directory, files->dir().absolutePath());

    answerer->answerFile(stubPath);
    child<QToolButton>(flasher.get(), "stubSelTool")->click();
    QCOMPARE(answerer->last().title, QStringLiteral("Select Flash Loader"));
    QCOMPARE(answerer->last().items, QStringList{"Elf files (*.elf)"});
    QCOMPARE(answerer->last().directory, files->dir().absolutePath());
    QCOMPARE(stubEdit->text(), stubPath);

    // Cancelling the loader chooser keeps the loader.
    answerer->answerFile(QString());
    child<QToolButton>(flasher.get(), "stubSelTool")->click();
    QCOMPARE(stubEdit->text(), stubPath);
}

void TestEspFlasherScatter::cancelChangesNothing()
{
    const QString path = files->writeScatter("scatter.txt", goodDocument());
    answerer->answerFile(path);
    QVERIFY(selectScatter(flasher.get()));
    table->item(1, 0)->setCheckState(Qt::Unchecked);

    answerer->answerFile(QString());
    QVERIFY(!selectScatter(flasher.get()));
    // The chooser started at the loaded file.
    QCOMPARE(answerer->last().directory, files->dir().absolutePath());
    QCOMPARE(scatterEdit->text(), path);
    QCOMPARE(stubEdit->text(), stubPath);
    QCOMPARE(table->rowCount(), 2);
    QCOMPARE(activeStates(table), (QList<Qt::CheckState>{Qt::Checked, Qt::Unchecked}));
    QVERIFY(flashTool->isEnabled());
    QVERIFY(readTool->isEnabled());
}

void TestEspFlasherScatter::failures_data()
{
    QTest::addColumn<QJsonObject>("document");
    QTest::addColumn<QString>("message");

    // The bytes init() writes.
    const QString boot = md5Hex(patternBytes(3000, 1));
    const QString app = md5Hex(patternBytes(5000, 2));
    const auto document = [](const QString &chip, const QJsonArray &sections) {
        QJsonObject object{{"stub", "stub.elf"}, {"sections", sections}};
        if (!chip.isNull())
            object.insert("chip", chip);
        return object;
    };
    const QJsonArray good{firmwareSection("0x0", "boot.bin", boot),
                          applicationSection("0x1000", "app.bin", app)};

    QTest::newRow("another chip")
        << document("ESP8285", good)
        << "This scatter file belongs to a different chip (ESP8285 vs ESP8266EX / 00a1b2c3)";
    QTest::newRow("no chip") << document(QString(), good)
                             << "This scatter file belongs to a different chip ( vs ESP8266EX / "
                                "00a1b2c3)";
    QTest::newRow("no sections") << document("ESP8266EX", QJsonArray())
                                 << "This scatter file is invalid (no section definitions present)";
    QTest::newRow("missing file") << document(
                                         "ESP8266EX",
                                         QJsonArray{firmwareSection("0x0", "boot.bin", boot),
                                                    applicationSection("0x1000", "gone.bin", app)})
                                  << "File gone.bin (application) does not exist";
    QTest::newRow("bad address") << document("ESP8266EX",
                                             QJsonArray{firmwareSection("0xZZ", "boot.bin", boot)})
                                 << "Section firmware address 0xZZ is invalid";
    QJsonObject numeric = applicationSection("", "app.bin", app);
    numeric.insert("address", 4096);
    QTest::newRow("address as a number")
        << document("ESP8266EX", QJsonArray{numeric}) << "Section application address  is invalid";
    QJsonObject noOptions = firmwareSection("0x0", "boot.bin", boot);
    noOptions.remove("options");
    QTest::newRow("no firmware options")
        << document("ESP8266EX", QJsonArray{noOptions}) << "Mandatory firmware options are missing";
    QTest::newRow("empty flash mode")
        << document("ESP8266EX", QJsonArray{firmwareSection("0x0", "boot.bin", boot, "")})
        << "Mandatory firmware options are missing";
    QJsonObject textOptions = firmwareSection("0x0", "boot.bin", boot);
    textOptions.insert("options", "dio");
    QTest::newRow("options not an object") << document("ESP8266EX", QJsonArray{textOptions})
                                           << "Mandatory firmware options are missing";
    const QString wrong = md5Hex(QByteArray("something else"));
    QTest::newRow("md5 mismatch")
        << document("ESP8266EX", QJsonArray{applicationSection("0x1000", "app.bin", app),
                                            firmwareSection("0x0", "boot.bin", wrong)})
        << QStringLiteral("The data within the package is corrupted (saved md5 %1 does not match "
                          "the computed one %2 for file {dir}/boot.bin)")
               .arg(wrong, boot);
}

void TestEspFlasherScatter::failures()
{
    QFETCH(QJsonObject, document);
    QFETCH(QString, message);

    // A good scatter first: a failed load must leave nothing of it behind.
    answerer->answerFile(files->writeScatter("good.txt", goodDocument()));
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(table->rowCount(), 2);

    answerer->answerFile(files->writeScatter("bad.txt", document));
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(!selectScatter(flasher.get()));

    QCOMPARE(answerer->last().className, QStringLiteral("QMessageBox"));
    QCOMPARE(answerer->last().title, selectTitle);
    QCOMPARE(answerer->last().text, dirPath(message));
    expectCleared();
    // Failures show a box and write nothing into the log.
    QCOMPARE(logStrings(flasher.get()), QStringList{line(green, "Retrieved chip info")});
}

void TestEspFlasherScatter::notAScatterObject_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("array") << QByteArray("[1, 2]");
    QTest::newRow("broken") << QByteArray("{\"chip\": ");
    QTest::newRow("empty") << QByteArray();
}

void TestEspFlasherScatter::notAScatterObject()
{
    QFETCH(QByteArray, bytes);

    QJsonParseError parseError;
    QJsonDocument::fromJson(bytes, &parseError);
    const QString path = files->write("list.txt", bytes);
    answerer->answerFile(path);
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(!selectScatter(flasher.get()));
    QCOMPARE(
        answerer->last().text,
        QStringLiteral("%1 is not a valid scatter file: %2").arg(path, parseError.errorString()));
    expectCleared();
}

// Only ".zip" makes a package: a ".json" name is read as a loose scatter file.
void TestEspFlasherScatter::jsonNameIsLoose()
{
    const QString path = files->writeScatter("scatter.json", goodDocument());
    answerer->answerFile(path);
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(scatterEdit->text(), path);
    QCOMPARE(table->rowCount(), 2);
}

void TestEspFlasherScatter::missingLoader_data()
{
    QTest::addColumn<QString>("stub");
    QTest::addColumn<int>("answer");
    QTest::addColumn<bool>("choose");
    QTest::addColumn<bool>("loaded");

    QTest::newRow("no stub key, answered No")
        << QString() << int(QMessageBox::No) << false << false;
    QTest::newRow("missing stub, answered No")
        << "missing.elf" << int(QMessageBox::No) << false << false;
    QTest::newRow("answered Yes, loader chosen")
        << "missing.elf" << int(QMessageBox::Yes) << true << true;
    QTest::newRow("answered Yes, chooser cancelled")
        << "missing.elf" << int(QMessageBox::Yes) << false << false;
}

void TestEspFlasherScatter::missingLoader()
{
    QFETCH(QString, stub);
    QFETCH(int, answer);
    QFETCH(bool, choose);
    QFETCH(bool, loaded);

    QJsonObject document = goodDocument();
    document.remove("stub");
    if (!stub.isNull())
        document.insert("stub", stub);
    const QString path = files->writeScatter("scatter.txt", document);

    answerer->answerFile(path);
    answerer->answerBox(QMessageBox::StandardButton(answer));
    if (answer == QMessageBox::Yes)
        answerer->answerFile(choose ? stubPath : QString());
    if (!loaded)
        answerer->answerBox(QMessageBox::Ok);
    QCOMPARE(selectScatter(flasher.get()), loaded);

    const ModalAnswerer::Seen question = answerer->seen().at(1);
    QCOMPARE(question.title, parseTitle);
    QCOMPARE(question.defaultButton, QStringLiteral("&No"));
    QCOMPARE(question.text,
             QStringLiteral("This scatter file does not specify a flash loader, but should. Or "
                            "the flash loader file (%1) is missing")
                 .arg(files->dir().absoluteFilePath(stub)));
    if (answer == QMessageBox::Yes)
        QCOMPARE(answerer->seen().at(2).title, QStringLiteral("Select Flash Loader"));

    if (loaded) {
        QCOMPARE(stubEdit->text(), stubPath);
        QCOMPARE(table->rowCount(), 2);
        QCOMPARE(scatterEdit->text(), path);
    } else {
        QCOMPARE(answerer->last().text,
                 QStringLiteral("The mandatory flash loader file is missing"));
        QVERIFY(stubEdit->text().isEmpty());
        expectCleared();
    }
}

// A loader already chosen is used for a scatter file that names none, without a question.
void TestEspFlasherScatter::currentLoaderIsKept()
{
    answerer->answerFile(stubPath);
    child<QToolButton>(flasher.get(), "stubSelTool")->click();
    QCOMPARE(stubEdit->text(), stubPath);

    QJsonObject document = goodDocument();
    document.remove("stub");
    answerer->answerFile(files->writeScatter("scatter.txt", document));
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(stubEdit->text(), stubPath);
    QCOMPARE(answerer->seen().size(), 2);
}

void TestEspFlasherScatter::missingChecksum_data()
{
    QTest::addColumn<int>("answer");
    QTest::newRow("Yes") << int(QMessageBox::Yes);
    QTest::newRow("No") << int(QMessageBox::No);
}

void TestEspFlasherScatter::missingChecksum()
{
    QFETCH(int, answer);

    QJsonObject document = goodDocument();
    document.insert("sections", QJsonArray{firmwareSection("0x0", "boot.bin", md5Hex(boot)),
                                           applicationSection("0x1000", "app.bin", QString())});
    answerer->answerFile(files->writeScatter("scatter.txt", document));
    answerer->answerBox(QMessageBox::StandardButton(answer));
    const bool yes = answer == QMessageBox::Yes;
    if (!yes)
        answerer->answerBox(QMessageBox::Ok);
    QCOMPARE(selectScatter(flasher.get()), yes);

    const ModalAnswerer::Seen question = answerer->seen().at(1);
    QCOMPARE(question.className, QStringLiteral("QAutoCloseMessageBox"));
    QCOMPARE(question.title, parseTitle);
    QCOMPARE(question.text, QStringLiteral("Section %1 is missing an md5 checksum. Proceed?<br>"
                                           "Current md5: %2")
                                .arg(files->path("app.bin"), md5Hex(app)));
    // No is pressed by itself after ten seconds.
    QCOMPARE(question.defaultButton, QStringLiteral("&No (10)"));

    if (yes) {
        QCOMPARE(table->rowCount(), 2);
        QVERIFY(table->item(1, 1)->data(md5Role).toString().isEmpty());
        QCOMPARE(logStrings(flasher.get()).last(),
                 line(amber, "Proceeding without checksum verification for %1 as per users "
                             "request"));
    } else {
        QCOMPARE(answerer->last().text,
                 QStringLiteral("No saved checksum for %1").arg(files->path("app.bin")));
        expectCleared();
    }
}

void TestEspFlasherScatter::missingChecksumTimesOut()
{
    QJsonObject document = goodDocument();
    document.insert("sections", QJsonArray{applicationSection("0x1000", "app.bin", QString())});
    answerer->answerFile(files->writeScatter("scatter.txt", document));
    answerer->leaveBox();
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(!selectScatter(flasher.get()));
    QCOMPARE(answerer->seen().size(), 3);
    QCOMPARE(answerer->last().text,
             QStringLiteral("No saved checksum for %1").arg(files->path("app.bin")));
    expectCleared();
}

void TestEspFlasherScatter::skippedSectionInTheMiddle()
{
    QJsonObject document = goodDocument();
    QJsonObject capital = firmwareSection("0x40000", "boot.bin", md5Hex(boot));
    capital.insert("type", "Firmware");
    document.insert("sections",
                    QJsonArray{firmwareSection("0x0", "boot.bin", md5Hex(boot)), capital,
                               applicationSection("0x1000", "app.bin", md5Hex(app))});
    answerer->answerFile(files->writeScatter("scatter.txt", document));
    QVERIFY(selectScatter(flasher.get()));

    QCOMPARE(logStrings(flasher.get()).last(),
             line(amber, "Skip unknown scatter section Firmware"));
    QCOMPARE(table->rowCount(), 2);
    QCOMPARE(table->item(0, 4)->text(), QStringLiteral("boot.bin"));
    for (int column = 0; column < table->columnCount(); ++column)
        QVERIFY(table->item(1, column) == nullptr);

    // The row without cells gets no menu entries, and nothing that walks rows trips on it.
    QCOMPARE(menuEntries(child<QToolButton>(flasher.get(), "eraseTool")),
             QStringList{"Erase boot.bin region=0"});
    QCOMPARE(menuEntries(child<QToolButton>(flasher.get(), "verifyTool")),
             QStringList{"Verify boot.bin region=0"});
    QVERIFY(flashTool->isEnabled());
    flasher->parseFinish();
    QVERIFY(flasher->autoSelectByType());
    QCOMPARE(flasher->getScatterFlashSize(), QStringLiteral("4MB"));
    QMetaObject::invokeMethod(flasher.get(), "scatterTableHeaderClickHandler", Qt::DirectConnection,
                              Q_ARG(int, 0));
    // The action waits for the loader first (which the unconnected worker cannot load).
    answerer->ignore("QProgressDialog");
    for (QAction *action : child<QToolButton>(flasher.get(), "eraseTool")->menu()->actions())
        action->trigger();
    QCOMPARE(activeStates(table), (QList<Qt::CheckState>{Qt::Checked, Qt::PartiallyChecked}));
}

void TestEspFlasherScatter::skippedLastSection()
{
    QJsonObject document = goodDocument();
    QJsonObject unknown = applicationSection("0x80000", "app.bin", md5Hex(app));
    unknown.insert("type", "bootloader");
    document.insert("sections",
                    QJsonArray{firmwareSection("0x0", "boot.bin", md5Hex(boot)),
                               applicationSection("0x1000", "app.bin", md5Hex(app)), unknown});
    answerer->answerFile(files->writeScatter("scatter.txt", document));
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(table->rowCount(), 2);
    QCOMPARE(table->item(0, 4)->text(), QStringLiteral("boot.bin"));
    QCOMPARE(table->item(1, 4)->text(), QStringLiteral("app.bin"));
    QCOMPARE(logStrings(flasher.get()).last(),
             line(amber, "Skip unknown scatter section bootloader"));
}

void TestEspFlasherScatter::endAddresses_data()
{
    QTest::addColumn<QString>("address");
    QTest::addColumn<QString>("size");
    QTest::addColumn<QString>("start");
    QTest::addColumn<QString>("end");

    // app.bin holds 5000 bytes (0x1388).
    QTest::newRow("hex, size given") << "0x1000"
                                     << "0x100"
                                     << "0x00001000"
                                     << "0x00001100";
    QTest::newRow("decimal, file size") << "4096" << QString() << "0x00001000"
                                        << "0x00002388";
    QTest::newRow("hex, file size") << "0x1000" << QString() << "0x00001000"
                                    << "0x00002388";
    QTest::newRow("kb suffix, size in kb") << "64kb"
                                           << "4kb"
                                           << "0x00010000"
                                           << "0x00011000";
    QTest::newRow("octal") << "010000"
                           << "0"
                           << "0x00001000"
                           << "0x00001000";
}

void TestEspFlasherScatter::endAddresses()
{
    QFETCH(QString, address);
    QFETCH(QString, size);
    QFETCH(QString, start);
    QFETCH(QString, end);

    QJsonObject section = applicationSection(address, "app.bin", md5Hex(app));
    if (!size.isNull())
        section.insert("size", size);
    QJsonObject document = goodDocument();
    document.insert("sections", QJsonArray{section});
    answerer->answerFile(files->writeScatter("scatter.txt", document));
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(table->item(0, 2)->text(), start);
    QCOMPARE(table->item(0, 3)->text(), end);
}

void TestEspFlasherScatter::headerClickAppliesHeaderState()
{
    answerer->answerFile(files->writeScatter("scatter.txt", goodDocument()));
    QVERIFY(selectScatter(flasher.get()));
    flasher->show();
    QVERIFY(QTest::qWaitForWindowExposed(flasher.get()));

    QHeaderView *header = table->horizontalHeader();
    const auto clickHeader = [header](int section) {
        const QPoint centre(header->sectionViewportPosition(section) +
                                header->sectionSize(section) / 2,
                            header->height() / 2);
        QTest::mouseClick(header->viewport(), Qt::LeftButton, Qt::NoModifier, centre);
    };
    const QList<Qt::CheckState> all{Qt::Checked, Qt::Checked};
    const QList<Qt::CheckState> none{Qt::Unchecked, Qt::Unchecked};

    for (int row = 0; row < table->rowCount(); ++row)
        table->item(row, 0)->setCheckState(Qt::Unchecked);
    // The header starts checked: a click checks every row, and the header stays as it is.
    clickHeader(0);
    QCOMPARE(activeStates(table), all);
    QCOMPARE(table->horizontalHeaderItem(0)->checkState(), Qt::Checked);

    table->horizontalHeaderItem(0)->setCheckState(Qt::Unchecked);
    clickHeader(0);
    QCOMPARE(activeStates(table), none);

    // Other columns leave the marks alone.
    table->horizontalHeaderItem(0)->setCheckState(Qt::Checked);
    clickHeader(1);
    clickHeader(4);
    QCOMPARE(activeStates(table), none);
}

void TestEspFlasherScatter::flashSizeText()
{
    answerer->answerFile(files->writeScatter("scatter.txt", goodDocument()));
    QVERIFY(selectScatter(flasher.get()));
    const int lines = logStrings(flasher.get()).size();
    QCOMPARE(flasher->getScatterFlashSize(), QStringLiteral("4MB"));
    QCOMPARE(logStrings(flasher.get()).size(), lines);

    // No firmware row: the size guessed from the chip's flash ID.
    QJsonObject document = goodDocument();
    document.insert("sections", QJsonArray{applicationSection("0x1000", "app.bin", md5Hex(app))});
    const QString applicationOnly = files->writeScatter("application.txt", document);
    answerer->answerFile(applicationOnly);
    QVERIFY(selectScatter(flasher.get()));
    QCOMPARE(flasher->getScatterFlashSize(), QStringLiteral("4Mb"));
    QCOMPARE(logStrings(flasher.get()).last(),
             line(amber, "There is no firmware files in the current scatter - using guessed "
                         "flash memory size 4Mb"));

    // Neither: nothing to go by.
    makeFlasher(ESPFlasher::RUN_MODE_STANDALONE, 0);
    answerer->answerFile(applicationOnly);
    QVERIFY(selectScatter(flasher.get()));
    QVERIFY(flasher->getScatterFlashSize().isEmpty());
    QCOMPARE(logStrings(flasher.get()).last(),
             line(amber, "There is no firmware files in the current scatter - cannot detect "
                         "flash memory size!"));
}

// A template for reading flash: a foreign chip is adopted, files are not looked at.
void TestEspFlasherScatter::templateAdoptsConnectedChip()
{
    QJsonObject document{
        {"chip", "ESP8285"},
        {"sections", QJsonArray{firmwareSection("0x0", "nowhere.bin", QString()),
                                applicationSection("0x1000", "later.bin", QString())}}};
    answerer->answerFile(stubPath);
    QString error;
    QVERIFY(flasher->parseScatterObject(document, false, QFileInfo(files->path("t.txt")), &error));
    QCOMPARE(error, QString());
    QCOMPARE(document.value("chip").toString(), chipField());
    QCOMPARE(stubEdit->text(), stubPath);
    QCOMPARE(table->rowCount(), 2);
    QCOMPARE(table->item(0, 4)->text(), QStringLiteral("nowhere.bin"));
    // Firmware options are neither checked nor kept; the kind is left unset (reads firmware).
    QVERIFY(!table->item(0, 1)->data(kindRole).isValid());
    QVERIFY(!table->item(0, 1)->data(modeRole).isValid());
    QCOMPARE(table->item(1, 1)->data(kindRole).toInt(), 1);
}

void TestEspFlasherScatter::upgradeModeChoosesComponents_data()
{
    QTest::addColumn<bool>("bothKinds");
    QTest::addColumn<bool>("firmware");
    QTest::addColumn<bool>("application");
    QTest::addColumn<QList<Qt::CheckState>>("states");

    QTest::newRow("firmware only")
        << true << true << false << QList<Qt::CheckState>{Qt::Checked, Qt::Unchecked};
    QTest::newRow("application only")
        << true << false << true << QList<Qt::CheckState>{Qt::Unchecked, Qt::Checked};
    QTest::newRow("both") << true << true << true
                          << QList<Qt::CheckState>{Qt::Checked, Qt::Checked};
    QTest::newRow("one kind, no question")
        << false << false << false << QList<Qt::CheckState>{Qt::Checked};
}

void TestEspFlasherScatter::upgradeModeChoosesComponents()
{
    QFETCH(bool, bothKinds);
    QFETCH(bool, firmware);
    QFETCH(bool, application);
    QFETCH(QList<Qt::CheckState>, states);

    makeFlasher(ESPFlasher::RUN_MODE_UPGRADE);
    QJsonObject document = goodDocument();
    if (!bothKinds)
        document.insert("sections",
                        QJsonArray{applicationSection("0x1000", "app.bin", md5Hex(app))});
    answerer->answerFile(files->writeScatter("scatter.txt", document));
    if (bothKinds) {
        answerer->expect("FlashTypeSelector", [firmware, application](QWidget *modal) {
            auto *dialog = static_cast<QDialog *>(modal);
            dialog->findChild<QCheckBox *>("firmwareCheck")->setChecked(firmware);
            dialog->findChild<QCheckBox *>("applicationCheck")->setChecked(application);
            dialog->accept();
        });
    }
    QSignalSpy finished(flasher.get(), &QDialog::finished);
    QVERIFY(deliverFinished(flasher.get(), true, 3, chipInfo()));

    QCOMPARE(answerer->seen().size(), bothKinds ? 2 : 1);
    QCOMPARE(activeStates(table), states);
    // The chosen rows go on to flashing, which starts with the loader. The worker here was
    // never connected, so the run fails and the tool closes with reject.
    QCOMPARE(logStrings(flasher.get()).last(), line(green, "Start loading stub from " + stubPath));
    answerer->answerBox(QMessageBox::Ok);
    QVERIFY(finished.wait());
    QCOMPARE(finished.first().first().toInt(), int(QDialog::Rejected));
    QCOMPARE(answerer->last().text,
             QStringLiteral("UBoot operation failure.\nThe tool will be closed"));
}

void TestEspFlasherScatter::upgradeCancelled_data()
{
    QTest::addColumn<QString>("how");
    QTest::newRow("no file chosen") << "cancel file";
    QTest::newRow("invalid scatter") << "invalid";
    QTest::newRow("components dialog rejected") << "reject";
    QTest::newRow("no component chosen") << "none";
}

void TestEspFlasherScatter::upgradeCancelled()
{
    QFETCH(QString, how);

    makeFlasher(ESPFlasher::RUN_MODE_UPGRADE);
    QJsonObject document = goodDocument();
    if (how == QLatin1String("invalid"))
        document.insert("chip", "ESP8285");
    answerer->answerFile(how == QLatin1String("cancel file")
                             ? QString()
                             : files->writeScatter("scatter.txt", document));
    if (how == QLatin1String("invalid"))
        answerer->answerBox(QMessageBox::Ok);
    if (how == QLatin1String("reject") || how == QLatin1String("none")) {
        const bool accept = how == QLatin1String("none");
        answerer->expect("FlashTypeSelector", [accept](QWidget *modal) {
            auto *dialog = static_cast<QDialog *>(modal);
            dialog->findChild<QCheckBox *>("firmwareCheck")->setChecked(false);
            dialog->findChild<QCheckBox *>("applicationCheck")->setChecked(false);
            if (accept)
                dialog->accept();
            else
                dialog->reject();
        });
    }
    answerer->answerBox(QMessageBox::Ok);

    QSignalSpy finished(flasher.get(), &QDialog::finished);
    QVERIFY(deliverFinished(flasher.get(), true, 3, chipInfo()));
    const ModalAnswerer::Seen box = answerer->last();
    QCOMPARE(box.className, QStringLiteral("QAutoCloseMessageBox"));
    QCOMPARE(box.text, QStringLiteral("Upgrade cancelled.\nThe tool will be closed"));
    QCOMPARE(box.title, QStringLiteral("Brimcote ESP Utility"));
    QCOMPARE(box.defaultButton, QStringLiteral("OK (10)"));
    QVERIFY(finished.wait());
    QCOMPARE(finished.first().first().toInt(), int(QDialog::Rejected));
}

QTEST_MAIN(TestEspFlasherScatter)
#include "tst_espflasher_scatter.moc"
