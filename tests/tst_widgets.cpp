#include "widgets/flashtypeselector.h"
#include "widgets/qautoclosemessagebox.h"

#include <QtTest>
#include <QtWidgets>

#include <functional>

namespace {

using Box = QAutoCloseMessageBox;
using Buttons = QMessageBox::StandardButtons;
using Button = QMessageBox::StandardButton;

// Runs the action on the auto-closing box once it is the active modal widget. A box still open
// after 20 s, far beyond any countdown here, is closed with a result that no row expects.
void whenBoxShown(const std::function<void(Box *)> &action)
{
    QTimer::singleShot(10, [action] {
        auto *box = qobject_cast<Box *>(QApplication::activeModalWidget());
        if (!box)
            return whenBoxShown(action);
        QTimer::singleShot(20000, box, [box] { box->done(-1); });
        action(box);
    });
}

} // namespace

Q_DECLARE_METATYPE(QMessageBox::StandardButton)

// The auto-closing message box and the flash type selector.
class TestWidgets : public QObject
{
    Q_OBJECT

private slots:
    void countdownPressesDefault_data();
    void countdownPressesDefault();
    void flashTypeSelector();
};

void TestWidgets::countdownPressesDefault_data()
{
    QTest::addColumn<Buttons>("buttons");
    QTest::addColumn<Button>("defaultButton");
    QTest::addColumn<int>("timeout");
    QTest::addColumn<QStringList>("texts"); // when shown, then at each tick
    QTest::addColumn<Button>("answer");

    // The last tick leaves the text as it is and presses the button.
    QTest::newRow("OK counts down")
        << Buttons(QMessageBox::Ok) << QMessageBox::NoButton << 3
        << QStringList{"OK (3)", "OK (2)", "OK (1)", "OK (1)"} << QMessageBox::Ok;
    QTest::newRow("explicit default")
        << Buttons(QMessageBox::Ok | QMessageBox::Abort) << QMessageBox::Abort << 1
        << QStringList{"Abort (1)", "Abort (1)"} << QMessageBox::Abort;
    QTest::newRow("first accepting button")
        << Buttons(QMessageBox::Yes | QMessageBox::No | QMessageBox::Retry | QMessageBox::Ignore)
        << QMessageBox::NoButton << 1 << QStringList{"Retry (1)", "Retry (1)"}
        << QMessageBox::Retry;
}

void TestWidgets::countdownPressesDefault()
{
    QFETCH(Buttons, buttons);
    QFETCH(Button, defaultButton);
    QFETCH(int, timeout);

    QStringList shown;
    whenBoxShown([&](Box *box) {
        QPushButton *target = box->defaultButton();
        // The countdown timer is the box's only direct QTimer child.
        const auto timers = box->findChildren<QTimer *>(QString(), Qt::FindDirectChildrenOnly);
        QVERIFY(target && timers.size() == 1 && timers.first()->isActive());
        shown << target->text();
        // Connected after the box's own tick handler: sees the text of each tick.
        connect(timers.first(), &QTimer::timeout, box,
                [&shown, target] { shown << target->text(); });
    });
    QTEST(Box::warning(timeout, nullptr, "Warning", "Closing soon", buttons, defaultButton),
          "answer");
    QTEST(shown, "texts");
}

// Both components start enabled and checked; disabling unchecks, enabling again does not check.
void TestWidgets::flashTypeSelector()
{
    FlashTypeSelector selector(nullptr);
    const auto states = [&selector] {
        return QStringLiteral("%1%2 %3%4")
            .arg(selector.firmwareEnabled() ? "enabled" : "disabled",
                 selector.firmwareChecked() ? " checked" : "",
                 selector.applicationEnabled() ? "enabled" : "disabled",
                 selector.applicationChecked() ? " checked" : "");
    };
    QCOMPARE(states(), QStringLiteral("enabled checked enabled checked"));
    selector.setFirmwareEnabled(false);
    QCOMPARE(states(), QStringLiteral("disabled enabled checked"));
    selector.setFirmwareEnabled(true);
    QCOMPARE(states(), QStringLiteral("enabled enabled checked"));
    selector.setApplicationEnabled(false);
    QCOMPARE(states(), QStringLiteral("enabled disabled"));
}

QTEST_MAIN(TestWidgets)
#include "tst_widgets.moc"
