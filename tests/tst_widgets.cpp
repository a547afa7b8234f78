#include "widgets/flashtypeselector.h"
#include "widgets/qautoclosemessagebox.h"

#include "flashertestkit.h"

using Box = QAutoCloseMessageBox;
using Buttons = QMessageBox::StandardButtons;
using Button = QMessageBox::StandardButton;
Q_DECLARE_METATYPE(QMessageBox::StandardButton)

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

    ModalAnswerer answerer;
    QStringList shown;
    answerer.expect("QAutoCloseMessageBox", [&shown](QWidget *modal) {
        auto *box = static_cast<Box *>(modal);
        // Far beyond any countdown here: closed with a result that no row expects.
        QTimer::singleShot(20000, box, [box] { box->done(-1); });
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
    QCOMPARE(answerer.unexpected, QStringList());
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
