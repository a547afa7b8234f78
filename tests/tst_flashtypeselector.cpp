#include "widgets/flashtypeselector.h"

#include "prefixtranslator.h"

#include <QCheckBox>
#include <QCoreApplication>
#include <QDialogButtonBox>
#include <QLabel>
#include <QPushButton>
#include <QTimer>
#include <QVBoxLayout>
#include <QtTest>

Q_DECLARE_METATYPE(QDialogButtonBox::StandardButton)

class TestFlashTypeSelector : public QObject
{
    Q_OBJECT

private slots:
    void freshSelector();
    void form();
    void enabling_data();
    void enabling();
    void checking();
    void userToggles();
    void disabledCheckIgnoresUser();
    void closing_data();
    void closing();
    void translatedUnderItsContext();
};

namespace {

// One component of the selector seen through its public calls and its check box.
struct Component
{
    bool (FlashTypeSelector::*enabled)() const;
    void (FlashTypeSelector::*setEnabled)(bool);
    bool (FlashTypeSelector::*checked)() const;
    void (FlashTypeSelector::*setChecked)(bool);
    const char *checkName;
    const char *otherCheckName;
};

const Component kFirmware{&FlashTypeSelector::firmwareEnabled,
                          &FlashTypeSelector::setFirmwareEnabled,
                          &FlashTypeSelector::firmwareChecked,
                          &FlashTypeSelector::setFirmwareChecked,
                          "firmwareCheck",
                          "applicationCheck"};
const Component kApplication{&FlashTypeSelector::applicationEnabled,
                             &FlashTypeSelector::setApplicationEnabled,
                             &FlashTypeSelector::applicationChecked,
                             &FlashTypeSelector::setApplicationChecked,
                             "applicationCheck",
                             "firmwareCheck"};

// A click on the box of a check box, where a user aims; its centre can lie beyond the text.
void clickCheckBox(QCheckBox *check)
{
    QTest::mouseClick(check, Qt::LeftButton, Qt::NoModifier, QPoint(5, check->height() / 2));
}

} // namespace

void TestFlashTypeSelector::freshSelector()
{
    FlashTypeSelector selector(nullptr);
    QVERIFY(selector.firmwareEnabled());
    QVERIFY(selector.applicationEnabled());
    QVERIFY(selector.firmwareChecked());
    QVERIFY(selector.applicationChecked());
}

void TestFlashTypeSelector::form()
{
    FlashTypeSelector selector(nullptr);
    QCOMPARE(selector.windowTitle(), QStringLiteral("Components"));

    auto *layout = selector.findChild<QVBoxLayout *>(QStringLiteral("verticalLayout"));
    auto *label = selector.findChild<QLabel *>(QStringLiteral("label"));
    auto *firmware = selector.findChild<QCheckBox *>(QStringLiteral("firmwareCheck"));
    auto *application = selector.findChild<QCheckBox *>(QStringLiteral("applicationCheck"));
    auto *buttons = selector.findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"));
    QVERIFY(layout);
    QVERIFY(label);
    QVERIFY(firmware);
    QVERIFY(application);
    QVERIFY(buttons);
    QCOMPARE(selector.layout(), layout);

    QCOMPARE(layout->count(), 4);
    QCOMPARE(layout->itemAt(0)->widget(), label);
    QCOMPARE(layout->itemAt(1)->widget(), firmware);
    QCOMPARE(layout->itemAt(2)->widget(), application);
    QCOMPARE(layout->itemAt(3)->widget(), buttons);

    QCOMPARE(label->text(), QStringLiteral("Select upgrade components:"));
    QCOMPARE(firmware->text(), QStringLiteral("Firmware"));
    QCOMPARE(application->text(), QStringLiteral("Application"));
    QCOMPARE(buttons->standardButtons(), QDialogButtonBox::Ok | QDialogButtonBox::Cancel);
    QCOMPARE(buttons->orientation(), Qt::Horizontal);
}

void TestFlashTypeSelector::enabling_data()
{
    QTest::addColumn<bool>("application");
    QTest::addColumn<bool>("checkedBefore");
    QTest::addColumn<bool>("enable");
    QTest::addColumn<bool>("checkedAfter");

    for (const bool application : {false, true}) {
        const char *name = application ? "application" : "firmware";
        QTest::addRow("%s: disabling unchecks", name) << application << true << false << false;
        QTest::addRow("%s: disabling unchecked", name) << application << false << false << false;
        QTest::addRow("%s: enabling keeps checked", name) << application << true << true << true;
        QTest::addRow("%s: enabling keeps unchecked", name)
            << application << false << true << false;
    }
}

void TestFlashTypeSelector::enabling()
{
    QFETCH(bool, application);
    QFETCH(bool, checkedBefore);
    QFETCH(bool, enable);
    QFETCH(bool, checkedAfter);
    const Component &component = application ? kApplication : kFirmware;

    FlashTypeSelector selector(nullptr);
    (selector.*component.setChecked)(checkedBefore);
    (selector.*component.setEnabled)(enable);

    QCOMPARE((selector.*component.enabled)(), enable);
    QCOMPARE((selector.*component.checked)(), checkedAfter);
    auto *check = selector.findChild<QCheckBox *>(QLatin1String(component.checkName));
    QVERIFY(check);
    QCOMPARE(check->isEnabled(), enable);
    QCOMPARE(check->isChecked(), checkedAfter);

    // The other component is left alone.
    auto *other = selector.findChild<QCheckBox *>(QLatin1String(component.otherCheckName));
    QVERIFY(other);
    QVERIFY(other->isEnabled());
    QVERIFY(other->isChecked());
}

void TestFlashTypeSelector::checking()
{
    FlashTypeSelector selector(nullptr);
    selector.setFirmwareChecked(false);
    QVERIFY(!selector.firmwareChecked());
    QVERIFY(selector.applicationChecked());
    selector.setApplicationChecked(false);
    QVERIFY(!selector.applicationChecked());
    selector.setFirmwareChecked(true);
    QVERIFY(selector.firmwareChecked());
    QVERIFY(!selector.applicationChecked());

    // Re-enabling after a disable does not bring the check back.
    selector.setFirmwareEnabled(false);
    selector.setFirmwareEnabled(true);
    QVERIFY(selector.firmwareEnabled());
    QVERIFY(!selector.firmwareChecked());
}

void TestFlashTypeSelector::userToggles()
{
    FlashTypeSelector selector(nullptr);
    selector.show();
    auto *application = selector.findChild<QCheckBox *>(QStringLiteral("applicationCheck"));
    QVERIFY(application);
    clickCheckBox(application);
    QVERIFY(!selector.applicationChecked());
    QVERIFY(selector.firmwareChecked());
    clickCheckBox(application);
    QVERIFY(selector.applicationChecked());
}

void TestFlashTypeSelector::disabledCheckIgnoresUser()
{
    FlashTypeSelector selector(nullptr);
    selector.show();
    auto *firmware = selector.findChild<QCheckBox *>(QStringLiteral("firmwareCheck"));
    QVERIFY(firmware);
    // The same click unchecks while the box is enabled.
    clickCheckBox(firmware);
    QVERIFY(!selector.firmwareChecked());
    clickCheckBox(firmware);
    QVERIFY(selector.firmwareChecked());

    selector.setFirmwareEnabled(false);
    clickCheckBox(firmware);
    QVERIFY(!selector.firmwareChecked());
}

void TestFlashTypeSelector::closing_data()
{
    QTest::addColumn<QDialogButtonBox::StandardButton>("button");
    QTest::addColumn<int>("result");

    QTest::newRow("ok accepts") << QDialogButtonBox::Ok << int(QDialog::Accepted);
    QTest::newRow("cancel rejects") << QDialogButtonBox::Cancel << int(QDialog::Rejected);
}

void TestFlashTypeSelector::closing()
{
    QFETCH(QDialogButtonBox::StandardButton, button);
    QFETCH(int, result);

    FlashTypeSelector selector(nullptr);
    selector.setApplicationEnabled(false);
    auto *buttons = selector.findChild<QDialogButtonBox *>(QStringLiteral("buttonBox"));
    QVERIFY(buttons);
    QPushButton *pushButton = buttons->button(button);
    QVERIFY(pushButton);
    bool wasVisible = false;
    QTimer::singleShot(0, &selector, [&] {
        wasVisible = selector.isVisible();
        QTest::mouseClick(pushButton, Qt::LeftButton);
    });
    // Keeps a broken button from hanging the run; yields a result neither row expects.
    QTimer::singleShot(20000, &selector, [&selector] { selector.done(-1); });

    QCOMPARE(selector.exec(), result);
    QVERIFY(wasVisible);
    // The states a caller reads after the dialog closed.
    QVERIFY(selector.firmwareChecked());
    QVERIFY(!selector.applicationChecked());
}

void TestFlashTypeSelector::translatedUnderItsContext()
{
    PrefixTranslator translator(QStringLiteral("FlashTypeSelector"), QStringLiteral("tr:"));
    QVERIFY(QCoreApplication::installTranslator(&translator));
    FlashTypeSelector selector(nullptr);
    QCoreApplication::removeTranslator(&translator);

    QCOMPARE(selector.windowTitle(), QStringLiteral("tr:Components"));
    auto *label = selector.findChild<QLabel *>(QStringLiteral("label"));
    auto *firmware = selector.findChild<QCheckBox *>(QStringLiteral("firmwareCheck"));
    QVERIFY(label);
    QVERIFY(firmware);
    QCOMPARE(label->text(), QStringLiteral("tr:Select upgrade components:"));
    QCOMPARE(firmware->text(), QStringLiteral("tr:Firmware"));
}

QTEST_MAIN(TestFlashTypeSelector)
#include "tst_flashtypeselector.moc"
