#include "wizard/espscatterwizard.h"

#include "prefixtranslator.h"

#include <QApplication>
#include <QComboBox>
#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QRadioButton>
#include <QSignalSpy>
#include <QStackedWidget>
#include <QTimer>
#include <QtTest>

#include <memory>

namespace {

const QString kFormats = QStringLiteral(
    "Accepted format:<ul><li>decimal (12345)</li><li>octal (01234)</li><li>hexadecimal "
    "(0x123EF)</li><li>decimal with <b>kb</b> / <b>mb</b> suffix</li></ul>");
const QString kIntro = QStringLiteral(
    "This wizard will help you compose a <b>scatter file</b>, describing the flash memory map. "
    "This file is needed both for flashing the ESP flash chip (so that the tool knows where to "
    "place the files) and for reading.<br>Click &quot;Begin&quot; to start defining the flash "
    "regions to be read and their types.<br>Click &quot;Next&quot; to define a new region, click "
    "&quot;Back&quot; to discard the current and edit the previously defined region, click "
    "&quot;Finish&quot; to exit the wizard and start reading the flash.");
const QString kBeginTip = QStringLiteral("Start creating section confirurations");
const QString kFinishTip =
    QStringLiteral("Add the current configuration to the list and close the wizard");
const QString kSizeNotPositive = QStringLiteral("Size parameter must be positive");

// Longest a modal run may last before the test closes it, in milliseconds; only a fault
// in the product lets it fire.
constexpr int kWatchdogMs = 20000;

QString red(const QString &message)
{
    return QStringLiteral("<font color=\"red\">") + message + QStringLiteral("</font>");
}

QJsonObject region(const QString &type, const QString &address, const QString &size,
                   const QString &file)
{
    return QJsonObject{{"type", type}, {"address", address}, {"size", size}, {"file", file}};
}

QJsonObject scatterOf(const QJsonArray &sections)
{
    return QJsonObject{{"sections", sections}};
}

} // namespace

class TestEspScatterWizard : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void introPage();
    void form();
    void begin();
    void beginThenFinish();
    void validation_data();
    void validation();
    void nextStartsAtEndOfRegion();
    void failedNextKeepsRegion();
    void backRestoresPreviousRegion();
    void backOnFirstRegionForgetsAll();
    void resetForgetsAll();
    void modeRadiosSwitchFields();
    void modalRun_data();
    void modalRun();
    void translatedUnderItsContext();

private:
    void fillRegion(int typeIndex, const QString &start, bool sizeMode, const QString &endOrSize,
                    const QString &file);
    void expectIntroPage();

    std::unique_ptr<EspScatterWizard> wizard;
    QStackedWidget *stack = nullptr;
    QComboBox *type = nullptr;
    QLineEdit *start = nullptr;
    QRadioButton *endSel = nullptr;
    QLineEdit *end = nullptr;
    QRadioButton *sizeSel = nullptr;
    QLineEdit *size = nullptr;
    QLineEdit *file = nullptr;
    QLabel *warning = nullptr;
    QPushButton *resetButton = nullptr;
    QPushButton *backButton = nullptr;
    QPushButton *nextButton = nullptr;
    QPushButton *finishButton = nullptr;
};

void TestEspScatterWizard::init()
{
    wizard = std::make_unique<EspScatterWizard>(nullptr);
    const auto find = [this](auto *&widget, const char *name) {
        using Widget = std::remove_pointer_t<std::remove_reference_t<decltype(widget)>>;
        widget = wizard->findChild<Widget *>(QLatin1String(name));
        return widget != nullptr;
    };
    QVERIFY(find(stack, "stackedWidget"));
    QVERIFY(find(type, "regionTypeCombo"));
    QVERIFY(find(start, "regionStartAddress"));
    QVERIFY(find(endSel, "regionEndAddressSel"));
    QVERIFY(find(end, "regionEndAddress"));
    QVERIFY(find(sizeSel, "regionSizeSel"));
    QVERIFY(find(size, "regionSize"));
    QVERIFY(find(file, "regionFileName"));
    QVERIFY(find(warning, "regionValuesWarning"));
    QVERIFY(find(resetButton, "resetButton"));
    QVERIFY(find(backButton, "backButton"));
    QVERIFY(find(nextButton, "nextButton"));
    QVERIFY(find(finishButton, "finishButton"));
}

void TestEspScatterWizard::cleanup()
{
    wizard.reset();
}

// Enters one region as a user would: type, start, mode, the mode's field, file name.
void TestEspScatterWizard::fillRegion(int typeIndex, const QString &startText, bool sizeMode,
                                      const QString &endOrSize, const QString &fileName)
{
    type->setCurrentIndex(typeIndex);
    start->setText(startText);
    if (sizeMode) {
        sizeSel->click();
        size->setText(endOrSize);
    } else {
        endSel->click();
        end->setText(endOrSize);
    }
    file->setText(fileName);
}

void TestEspScatterWizard::expectIntroPage()
{
    QCOMPARE(stack->currentIndex(), 0);
    QCOMPARE(finishButton->text(), QStringLiteral("Begin"));
    QCOMPARE(finishButton->toolTip(), kBeginTip);
    QVERIFY(finishButton->isEnabled());
    QVERIFY(!resetButton->isEnabled());
    QVERIFY(!backButton->isEnabled());
    QVERIFY(!nextButton->isEnabled());
    QCOMPARE(start->text(), QStringLiteral("0x00000000"));
    QVERIFY(wizard->scatter().isEmpty());
}

void TestEspScatterWizard::introPage()
{
    expectIntroPage();
    QVERIFY(endSel->isChecked());
    QVERIFY(end->isEnabled());
    QVERIFY(!size->isEnabled());
}

void TestEspScatterWizard::form()
{
    QCOMPARE(wizard->windowTitle(), QStringLiteral("Scatter File Composer"));
    QCOMPARE(stack->count(), 2);
    QCOMPARE(stack->widget(0)->objectName(), QStringLiteral("page"));
    QCOMPARE(stack->widget(1)->objectName(), QStringLiteral("page_2"));

    const auto label = [this](const char *name) {
        const QLabel *found = wizard->findChild<QLabel *>(QLatin1String(name));
        return found ? found->text() : QStringLiteral("<missing>");
    };
    const auto *intro = wizard->findChild<QLabel *>(QStringLiteral("label_2"));
    QVERIFY(intro);
    QVERIFY(stack->widget(0)->isAncestorOf(intro));
    QCOMPARE(intro->text(), kIntro);
    QCOMPARE(label("label_3"), QStringLiteral("Type:"));
    QCOMPARE(label("label"), QStringLiteral("Start Address:"));
    QCOMPARE(label("label_4"), QStringLiteral("File Name:"));
    QCOMPARE(type->count(), 2);
    QCOMPARE(type->itemText(0), QStringLiteral("Firmware"));
    QCOMPARE(type->itemText(1), QStringLiteral("Application"));
    QCOMPARE(endSel->text(), QStringLiteral("End Address"));
    QCOMPARE(sizeSel->text(), QStringLiteral("Size"));

    QCOMPARE(start->toolTip(), kFormats);
    QCOMPARE(end->toolTip(),
             QStringLiteral("The flash region will start at the '<i>Start Address</i>' and end at "
                            "(<i>not including</i>) the '<i>End Adderss</i>'<br>\n") +
                 kFormats);
    QCOMPARE(size->toolTip(),
             QStringLiteral("The flash region will start at the '<i>Start Address</i>' and occupy "
                            "'<i>Size</i>' bytes (i.e. 'End Address' = 'Start Address + "
                            "Size')<br>\n") +
                 kFormats);
    QCOMPARE(file->toolTip(), QStringLiteral("By default, the files will be placed in the same "
                                             "directory with the scatter file."));
    bool noteFound = false;
    for (const QLabel *candidate : stack->widget(1)->findChildren<QLabel *>())
        noteFound = noteFound || candidate->text() == QStringLiteral("<b>.img</b> extension will "
                                                                     "be automatically appended "
                                                                     "if not present");
    QVERIFY(noteFound);

    QCOMPARE(resetButton->text(), QStringLiteral("Reset"));
    QCOMPARE(resetButton->toolTip(),
             QStringLiteral("Forget the current configuration and start from scratch"));
    QCOMPARE(backButton->text(), QStringLiteral("<Back"));
    QCOMPARE(backButton->toolTip(),
             QStringLiteral("Discard the current section and return to the previous one"));
    QCOMPARE(nextButton->text(), QStringLiteral("Next>"));
    QCOMPARE(nextButton->toolTip(),
             QStringLiteral("Add the current configuration to the list and proceed to the next "
                            "one"));
}

void TestEspScatterWizard::begin()
{
    start->setText(QStringLiteral("0x5000"));
    file->setText(QStringLiteral("left over"));
    sizeSel->click();

    finishButton->click();

    QCOMPARE(stack->currentIndex(), 1);
    QCOMPARE(finishButton->text(), QStringLiteral("Finish"));
    QCOMPARE(finishButton->toolTip(), kFinishTip);
    QVERIFY(nextButton->isEnabled());
    QVERIFY(resetButton->isEnabled());
    QVERIFY(!backButton->isEnabled());
    QCOMPARE(type->currentIndex(), 0);
    QCOMPARE(start->text(), QStringLiteral("0x00000000"));
    QCOMPARE(size->text(), QStringLiteral("0"));
    QCOMPARE(end->text(), QStringLiteral("0x00000000"));
    QCOMPARE(file->text(), QString());
    QVERIFY(endSel->isChecked());
    QVERIFY(!size->isEnabled());
    QCOMPARE(warning->text(), QString());
}

void TestEspScatterWizard::beginThenFinish()
{
    QSignalSpy accepted(wizard.get(), &QDialog::accepted);
    finishButton->click();
    finishButton->click();

    // The pre-filled region has neither a file name nor a size; the name is checked first.
    QCOMPARE(warning->text(), red(QStringLiteral("File name cannot be empty")));
    file->setText(QStringLiteral("boot"));
    finishButton->click();

    QCOMPARE(warning->text(), red(kSizeNotPositive));
    QCOMPARE(size->text(), QStringLiteral("0"));
    QCOMPARE(file->text(), QStringLiteral("boot"));
    QCOMPARE(accepted.count(), 0);
    QCOMPARE(stack->currentIndex(), 1);
    QVERIFY(wizard->scatter().isEmpty());
}

void TestEspScatterWizard::validation_data()
{
    QTest::addColumn<QString>("startText");
    QTest::addColumn<bool>("sizeMode");
    QTest::addColumn<QString>("endText");
    QTest::addColumn<QString>("sizeText");
    QTest::addColumn<QString>("fileName");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("sizeAfter");
    QTest::addColumn<QString>("endAfter");
    QTest::addColumn<QString>("fileAfter");

    const QString none;
    // Rows that fail: the message, and fields that are left as typed (or as rewritten so far).
    QTest::newRow("start not a number") << "0xZZ" << false << "0x2000"
                                        << "junk"
                                        << "boot"
                                        << "Start address 0xZZ is invalid"
                                        << "junk"
                                        << "0x2000"
                                        << "boot";
    QTest::newRow("empty start") << "" << false << "0x2000"
                                 << "junk"
                                 << "boot"
                                 << "Start address  is invalid"
                                 << "junk"
                                 << "0x2000"
                                 << "boot";
    QTest::newRow("start checked before file") << "zz" << false << "0x2000"
                                               << "junk"
                                               << ""
                                               << "Start address zz is invalid"
                                               << "junk"
                                               << "0x2000"
                                               << "";
    QTest::newRow("empty file") << "0x1000" << false << "0x2000"
                                << "junk"
                                << ""
                                << "File name cannot be empty"
                                << "junk"
                                << "0x2000"
                                << "";
    QTest::newRow("file checked before end") << "0x1000" << false << "zz"
                                             << "junk"
                                             << ""
                                             << "File name cannot be empty"
                                             << "junk"
                                             << "zz"
                                             << "";
    QTest::newRow("bad end quotes the start") << "0x1000" << false << "0x2000zz"
                                              << "junk"
                                              << "boot"
                                              << "End address 0x1000 is invalid"
                                              << "junk"
                                              << "0x2000zz"
                                              << "boot";
    QTest::newRow("end below start") << "0x2000" << false << "0x1000"
                                     << "junk"
                                     << "boot"
                                     << "End address is smaller than Start address"
                                     << "junk"
                                     << "0x1000"
                                     << "boot";
    QTest::newRow("end equal to start") << "0x1000" << false << "4096"
                                        << "junk"
                                        << "boot" << kSizeNotPositive << "0"
                                        << "4096"
                                        << "boot";
    QTest::newRow("bad size quotes the start") << "0x1000" << true << "junk"
                                               << "4k"
                                               << "boot"
                                               << "Size 0x1000 is invalid"
                                               << "4k"
                                               << "junk"
                                               << "boot";
    QTest::newRow("empty size") << "0x1000" << true << "junk"
                                << ""
                                << "boot"
                                << "Size 0x1000 is invalid"
                                << ""
                                << "junk"
                                << "boot";
    QTest::newRow("zero size") << "0x1000" << true << "junk"
                               << "0"
                               << "boot" << kSizeNotPositive << "0"
                               << "junk"
                               << "boot";

    // Rows that pass: the size and end fields as rewritten, the file name as completed.
    QTest::newRow("end mode") << "0x1000" << false << "0x2000"
                              << "junk"
                              << "boot" << none << "4096"
                              << "8192"
                              << "boot.img";
    QTest::newRow("end mode, other notations") << "4kb" << false << "020000"
                                               << ""
                                               << "fw.IMG" << none << "4096"
                                               << "8192"
                                               << "fw.IMG";
    QTest::newRow("size mode") << "0x1000" << true << "junk"
                               << "4kb"
                               << "x.Img" << none << "4kb"
                               << "8192"
                               << "x.Img";
    QTest::newRow("binary start") << "0b1000000000000" << true << ""
                                  << "0x10"
                                  << "b" << none << "0x10"
                                  << "4112"
                                  << "b.img";
    QTest::newRow("suffix only at the end") << "0" << true << ""
                                            << "1mb"
                                            << "a.img.bak" << none << "1mb"
                                            << "1048576"
                                            << "a.img.bak.img";
    QTest::newRow("name is only the suffix") << "0" << true << ""
                                             << "1"
                                             << ".img" << none << "1"
                                             << "1"
                                             << ".img";
    QTest::newRow("name without dot") << "0" << true << ""
                                      << "1"
                                      << "img" << none << "1"
                                      << "1"
                                      << "img.img";
}

void TestEspScatterWizard::validation()
{
    QFETCH(QString, startText);
    QFETCH(bool, sizeMode);
    QFETCH(QString, endText);
    QFETCH(QString, sizeText);
    QFETCH(QString, fileName);
    QFETCH(QString, error);
    QFETCH(QString, sizeAfter);
    QFETCH(QString, endAfter);
    QFETCH(QString, fileAfter);

    QSignalSpy accepted(wizard.get(), &QDialog::accepted);
    finishButton->click();
    type->setCurrentIndex(1);
    start->setText(startText);
    end->setText(endText);
    size->setText(sizeText);
    (sizeMode ? sizeSel : endSel)->click();
    file->setText(fileName);

    finishButton->click();

    QCOMPARE(size->text(), sizeAfter);
    QCOMPARE(end->text(), endAfter);
    QCOMPARE(file->text(), fileAfter);
    QCOMPARE(start->text(), startText);
    if (!error.isEmpty()) {
        QCOMPARE(warning->text(), red(error));
        QCOMPARE(accepted.count(), 0);
        QCOMPARE(stack->currentIndex(), 1);
        QVERIFY(wizard->scatter().isEmpty());
        return;
    }
    QCOMPARE(accepted.count(), 1);
    QCOMPARE(wizard->result(), int(QDialog::Accepted));
    const QJsonArray expected{region("application", startText, sizeAfter, fileAfter)};
    QCOMPARE(wizard->scatter(), scatterOf(expected));
}

void TestEspScatterWizard::nextStartsAtEndOfRegion()
{
    finishButton->click();
    fillRegion(0, QStringLiteral("0x1000"), false, QStringLiteral("0x2000"),
               QStringLiteral("boot"));

    nextButton->click();

    QCOMPARE(warning->text(), QString());
    QCOMPARE(type->currentIndex(), 0);
    QCOMPARE(start->text(), QStringLiteral("0x00002000"));
    QCOMPARE(end->text(), QStringLiteral("0x00002000"));
    QCOMPARE(size->text(), QString());
    QCOMPARE(file->text(), QString());
    QVERIFY(endSel->isChecked());
    QVERIFY(backButton->isEnabled());
    QCOMPARE(stack->currentIndex(), 1);

    fillRegion(1, start->text(), true, QStringLiteral("0x1000"), QStringLiteral("app.IMG"));
    nextButton->click();
    QCOMPARE(start->text(), QStringLiteral("0x00003000"));
    QVERIFY(endSel->isChecked());
    QVERIFY(!size->isEnabled());

    fillRegion(0, start->text(), false, QStringLiteral("16kb"), QStringLiteral("data"));
    QSignalSpy accepted(wizard.get(), &QDialog::accepted);
    finishButton->click();

    QCOMPARE(accepted.count(), 1);
    const QJsonObject scatter = wizard->scatter();
    QCOMPARE(scatter.keys(), QStringList{"sections"});
    const QJsonArray sections = scatter.value("sections").toArray();
    QCOMPARE(sections.size(), 3);
    for (const QJsonValue &section : sections) {
        QVERIFY(section.isObject());
        for (const QJsonValue &value : section.toObject())
            QVERIFY(value.isString());
    }
    const QJsonArray expected{region("firmware", "0x1000", "4096", "boot.img"),
                              region("application", "0x00002000", "0x1000", "app.IMG"),
                              region("firmware", "0x00003000", "4096", "data.img")};
    QCOMPARE(sections, expected);

    // Reset forgets a finished result as well.
    resetButton->click();
    QVERIFY(wizard->scatter().isEmpty());
}

void TestEspScatterWizard::failedNextKeepsRegion()
{
    finishButton->click();
    fillRegion(0, QStringLiteral("0x1000"), false, QStringLiteral("0x2000"), QString());

    nextButton->click();

    QCOMPARE(warning->text(), red(QStringLiteral("File name cannot be empty")));
    QCOMPARE(start->text(), QStringLiteral("0x1000"));
    QVERIFY(!backButton->isEnabled());

    file->setText(QStringLiteral("boot"));
    nextButton->click();
    QCOMPARE(warning->text(), QString());
    QCOMPARE(start->text(), QStringLiteral("0x00002000"));

    // Only the region that passed was kept: going back shows it, and back once more leaves.
    backButton->click();
    QCOMPARE(start->text(), QStringLiteral("0x1000"));
    QCOMPARE(size->text(), QStringLiteral("4096"));
    QCOMPARE(end->text(), QStringLiteral("0x00002000"));
    QCOMPARE(file->text(), QStringLiteral("boot.img"));
    backButton->click();
    expectIntroPage();
    if (QTest::currentTestFailed())
        return;
}

void TestEspScatterWizard::backRestoresPreviousRegion()
{
    finishButton->click();
    fillRegion(1, QStringLiteral("0x0"), true, QStringLiteral("64kb"), QStringLiteral("a"));
    nextButton->click();
    fillRegion(0, QStringLiteral("0x20000"), false, QStringLiteral("0x30000"), QString());
    nextButton->click();
    QVERIFY(!warning->text().isEmpty());

    backButton->click();

    QCOMPARE(type->currentIndex(), 1);
    QCOMPARE(start->text(), QStringLiteral("0x0"));
    QCOMPARE(size->text(), QStringLiteral("64kb"));
    QCOMPARE(end->text(), QStringLiteral("0x00010000"));
    QCOMPARE(file->text(), QStringLiteral("a.img"));
    QVERIFY(endSel->isChecked());
    QVERIFY(end->isEnabled());
    QVERIFY(!size->isEnabled());
    QCOMPARE(warning->text(), QString());
    QCOMPARE(stack->currentIndex(), 1);

    // Back in end mode, the size is taken from the end again; the discarded region is gone.
    finishButton->click();
    QCOMPARE(wizard->scatter(),
             scatterOf(QJsonArray{region("application", "0x0", "65536", "a.img")}));
}

void TestEspScatterWizard::backOnFirstRegionForgetsAll()
{
    finishButton->click();
    QVERIFY(!backButton->isEnabled());
    fillRegion(0, QStringLiteral("0x1000"), false, QStringLiteral("0x2000"),
               QStringLiteral("boot"));
    nextButton->click();
    backButton->click();
    QCOMPARE(stack->currentIndex(), 1);

    backButton->click();

    expectIntroPage();
    if (QTest::currentTestFailed())
        return;
    finishButton->click();
    fillRegion(0, QStringLiteral("0x8000"), true, QStringLiteral("0x100"), QStringLiteral("n"));
    finishButton->click();
    QCOMPARE(wizard->scatter(),
             scatterOf(QJsonArray{region("firmware", "0x8000", "0x100", "n.img")}));
}

void TestEspScatterWizard::resetForgetsAll()
{
    finishButton->click();
    fillRegion(0, QStringLiteral("0x1000"), false, QStringLiteral("0x2000"),
               QStringLiteral("boot"));
    nextButton->click();
    QVERIFY(backButton->isEnabled());

    resetButton->click();

    expectIntroPage();
    if (QTest::currentTestFailed())
        return;
    finishButton->click();
    fillRegion(1, QStringLiteral("0"), true, QStringLiteral("1kb"), QStringLiteral("only"));
    finishButton->click();
    QCOMPARE(wizard->scatter(),
             scatterOf(QJsonArray{region("application", "0", "1kb", "only.img")}));
}

void TestEspScatterWizard::modeRadiosSwitchFields()
{
    wizard->show();
    finishButton->click();
    QVERIFY(end->isEnabled());
    QVERIFY(!size->isEnabled());

    sizeSel->click();
    QVERIFY(!endSel->isChecked());
    QVERIFY(size->isEnabled());
    QVERIFY(!end->isEnabled());
    // A disabled field takes no typing.
    QTest::keyClicks(end, QStringLiteral("12"));
    QCOMPARE(end->text(), QStringLiteral("0x00000000"));
    QTest::keyClicks(size, QStringLiteral("12"));
    QCOMPARE(size->text(), QStringLiteral("012"));

    endSel->click();
    QVERIFY(!sizeSel->isChecked());
    QVERIFY(end->isEnabled());
    QVERIFY(!size->isEnabled());
}

void TestEspScatterWizard::modalRun_data()
{
    QTest::addColumn<bool>("finish");
    QTest::addColumn<int>("result");
    QTest::addColumn<int>("sections");

    QTest::newRow("finish accepts") << true << int(QDialog::Accepted) << 1;
    QTest::newRow("escape rejects") << false << int(QDialog::Rejected) << 0;
}

void TestEspScatterWizard::modalRun()
{
    QFETCH(bool, finish);
    QFETCH(int, result);
    QFETCH(int, sections);

    bool ranModal = false;
    QTimer::singleShot(0, wizard.get(), [&] {
        ranModal = QApplication::activeModalWidget() == wizard.get();
        finishButton->click();
        fillRegion(0, QStringLiteral("0x0"), true, QStringLiteral("4kb"), QStringLiteral("f"));
        if (finish)
            finishButton->click();
        else
            QTest::keyClick(wizard.get(), Qt::Key_Escape);
    });
    // Gives the run an end even if neither path closes it; -1 matches neither row.
    QTimer::singleShot(kWatchdogMs, wizard.get(), [this] { wizard->done(-1); });

    QCOMPARE(wizard->exec(), result);
    QVERIFY(ranModal);
    QCOMPARE(wizard->scatter().value("sections").toArray().size(), sections);
    QCOMPARE(wizard->scatter().isEmpty(), sections == 0);
}

void TestEspScatterWizard::translatedUnderItsContext()
{
    PrefixTranslator translator(QStringLiteral("EspScatterWizard"), QStringLiteral("tr:"));
    QVERIFY(QCoreApplication::installTranslator(&translator));
    init();

    QCOMPARE(wizard->windowTitle(), QStringLiteral("tr:Scatter File Composer"));
    QCOMPARE(finishButton->text(), QStringLiteral("tr:Begin"));
    QCOMPARE(finishButton->toolTip(), QStringLiteral("tr:") + kBeginTip);
    QCOMPARE(start->text(), QStringLiteral("0x00000000"));
    finishButton->click();
    QCOMPARE(finishButton->text(), QStringLiteral("tr:Finish"));
    QCOMPARE(finishButton->toolTip(), QStringLiteral("tr:") + kFinishTip);

    // Each message is translated first and filled in afterwards.
    const struct
    {
        const char *start;
        bool sizeMode;
        const char *endOrSize;
        const char *file;
        const char *message;
    } cases[] = {
        {"zz", false, "0x10", "f", "tr:Start address zz is invalid"},
        {"0x0", false, "0x10", "", "tr:File name cannot be empty"},
        {"0x8", false, "q", "f", "tr:End address 0x8 is invalid"},
        {"0x8", false, "0x4", "f", "tr:End address is smaller than Start address"},
        {"0x8", true, "q", "f", "tr:Size 0x8 is invalid"},
        {"0x8", true, "0", "f", "tr:Size parameter must be positive"},
    };
    for (const auto &entry : cases) {
        fillRegion(0, QLatin1String(entry.start), entry.sizeMode, QLatin1String(entry.endOrSize),
                   QLatin1String(entry.file));
        finishButton->click();
        QCOMPARE(warning->text(), red(QLatin1String(entry.message)));
    }
    QCoreApplication::removeTranslator(&translator);
}

QTEST_MAIN(TestEspScatterWizard)
#include "tst_espscatterwizard.moc"
