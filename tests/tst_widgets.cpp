#include "widgets/flashtypeselector.h"
#include "widgets/qautoclosemessagebox.h"

#include <QApplication>
#include <QCheckBox>
#include <QLabel>
#include <QPushButton>
#include <QtTest>

#include <functional>

namespace {

using Box = QAutoCloseMessageBox;
using Buttons = QMessageBox::StandardButtons;
using Button = QMessageBox::StandardButton;

// How long a box may stay open before the test closes it, in milliseconds: far beyond any
// countdown used here. A box it closes answers Cancel, which no row expects.
constexpr int kWatchdogMs = 20000;

// Runs the action on the auto-closing box once it has become the active modal widget.
void whenBoxShown(const std::function<void(Box *)> &action)
{
    QTimer::singleShot(10, [action] {
        auto *box = qobject_cast<Box *>(QApplication::activeModalWidget());
        if (!box)
            return whenBoxShown(action);
        QTimer::singleShot(kWatchdogMs, box, [box] { box->done(-1); });
        action(box);
    });
}

// The box's countdown timer: its only direct QTimer child.
QTimer *countdownTimer(const Box *box)
{
    const auto timers = box->findChildren<QTimer *>(QString(), Qt::FindDirectChildrenOnly);
    return timers.size() == 1 ? timers.first() : nullptr;
}

// Static calls with OK and Cancel and no countdown: each icon once, each argument order (text
// first, Qt's order with the timeout last, timeout first) at least once.
using StaticCall = Button (*)(QWidget *parent, const QString &title, const QString &text);
const Buttons kOkCancel = QMessageBox::Ok | QMessageBox::Cancel;
const StaticCall kStaticCalls[] = {
    [](QWidget *p, const QString &ti, const QString &te) {
        return Box::critical(p, te, 0, ti, kOkCancel, QMessageBox::Ok);
    },
    [](QWidget *p, const QString &ti, const QString &te) {
        return Box::information(p, ti, te, kOkCancel, QMessageBox::Ok, 0);
    },
    [](QWidget *p, const QString &ti, const QString &te) {
        return Box::question(0, p, ti, te, kOkCancel, QMessageBox::Ok);
    },
    [](QWidget *p, const QString &ti, const QString &te) {
        return Box::warning(p, te, 0, ti, kOkCancel, QMessageBox::Ok);
    }};

// Enabled and checked, of firmware and application, as the public calls report them.
QString states(const FlashTypeSelector &selector)
{
    return QStringLiteral("firmware %1%2, application %3%4")
        .arg(selector.firmwareEnabled() ? "enabled" : "disabled",
             selector.firmwareChecked() ? " checked" : "",
             selector.applicationEnabled() ? "enabled" : "disabled",
             selector.applicationChecked() ? " checked" : "");
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
    void staticCalls_data();
    void staticCalls();
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
    QFETCH(QStringList, texts);
    QFETCH(Button, answer);

    QStringList shown;
    whenBoxShown([&](Box *box) {
        QPushButton *target = box->defaultButton();
        QTimer *timer = countdownTimer(box);
        QVERIFY(target && timer && timer->isActive());
        shown << target->text();
        // Connected after the box's own tick handler: sees the text of each tick.
        connect(timer, &QTimer::timeout, box, [&shown, target] { shown << target->text(); });
    });
    QCOMPARE(Box::warning(timeout, nullptr, QStringLiteral("Warning"),
                          QStringLiteral("Closing soon"), buttons, defaultButton),
             answer);
    QCOMPARE(shown, texts);
}

void TestWidgets::staticCalls_data()
{
    QTest::addColumn<int>("call");
    QTest::addColumn<int>("icon");
    QTest::newRow("critical, text first") << 0 << int(QMessageBox::Critical);
    QTest::newRow("information, Qt order") << 1 << int(QMessageBox::Information);
    QTest::newRow("question, timeout first") << 2 << int(QMessageBox::Question);
    QTest::newRow("warning, text first") << 3 << int(QMessageBox::Warning);
}

void TestWidgets::staticCalls()
{
    QFETCH(int, call);
    QFETCH(int, icon);

    QWidget parent;
    QStringList seen;
    whenBoxShown([&](Box *box) {
        seen << QString::number(box->icon()) << box->windowTitle() << box->text()
             << box->defaultButton()->text() << QString::number(box->parentWidget() == &parent);
        box->button(QMessageBox::Cancel)->click();
    });
    QCOMPARE(kStaticCalls[call](&parent, "Box title", "Box text"), QMessageBox::Cancel);
    QCOMPARE(seen, (QStringList{QString::number(icon), "Box title", "Box text", "OK", "1"}));
}

// Both components start enabled and checked; disabling unchecks, enabling again does not check.
void TestWidgets::flashTypeSelector()
{
    FlashTypeSelector selector(nullptr);
    QCOMPARE(selector.windowTitle(), QStringLiteral("Components"));
    QCOMPARE(selector.findChild<QLabel *>("label")->text(),
             QStringLiteral("Select upgrade components:"));
    QCOMPARE(selector.findChild<QCheckBox *>("firmwareCheck")->text(), QStringLiteral("Firmware"));
    QCOMPARE(selector.findChild<QCheckBox *>("applicationCheck")->text(),
             QStringLiteral("Application"));
    QCOMPARE(states(selector),
             QStringLiteral("firmware enabled checked, application enabled checked"));
    selector.setFirmwareEnabled(false);
    QCOMPARE(states(selector), QStringLiteral("firmware disabled, application enabled checked"));
    selector.setFirmwareEnabled(true);
    QCOMPARE(states(selector), QStringLiteral("firmware enabled, application enabled checked"));
    selector.setApplicationEnabled(false);
    QCOMPARE(states(selector), QStringLiteral("firmware enabled, application disabled"));
}

QTEST_MAIN(TestWidgets)
#include "tst_widgets.moc"
