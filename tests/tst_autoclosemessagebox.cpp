#include "widgets/qautoclosemessagebox.h"

#include <QApplication>
#include <QPointer>
#include <QPushButton>
#include <QSignalSpy>
#include <QTimer>
#include <QtTest>

#include <functional>

namespace {

using Box = QAutoCloseMessageBox;
using Action = std::function<void(Box *)>;

// How long a box may stay open before the test gives up on it, in milliseconds: far beyond any
// countdown used here, so it only fires when the box failed to close itself.
constexpr int kWatchdogMs = 20000;
// How often and how long to look for the modal box after the call, in milliseconds.
constexpr int kPollMs = 10;
constexpr int kPollAttempts = 500;
// The result the watchdog closes a box with; the static calls turn it into Cancel.
constexpr int kWatchdogResult = -1;

enum Order { TextFirst, QtOrder, TimeoutFirst };

// Runs the action on the auto-closing box once it has become the active modal widget.
void whenBoxShown(const Action &action, int attempt = 0)
{
    QTimer::singleShot(attempt == 0 ? 0 : kPollMs, [action, attempt] {
        auto *box = qobject_cast<Box *>(QApplication::activeModalWidget());
        if (!box) {
            if (attempt < kPollAttempts)
                whenBoxShown(action, attempt + 1);
            return;
        }
        // Bound to the box: dropped when the box goes away on its own.
        QTimer::singleShot(kWatchdogMs, box, [box] { box->done(kWatchdogResult); });
        action(box);
    });
}

// The box's countdown timer: its only direct QTimer child.
QTimer *countdownTimer(const Box *box)
{
    const auto timers = box->findChildren<QTimer *>(QString(), Qt::FindDirectChildrenOnly);
    return timers.size() == 1 ? timers.first() : nullptr;
}

QString buttonText(const Box *box, QMessageBox::StandardButton which)
{
    const QAbstractButton *button = box->button(which);
    return button ? button->text() : QStringLiteral("<no such button>");
}

// Calls the static of the given icon in the given argument order.
QMessageBox::StandardButton callStatic(Order order, QMessageBox::Icon icon, QWidget *parent,
                                       const QString &title, const QString &text,
                                       QMessageBox::StandardButtons buttons,
                                       QMessageBox::StandardButton defaultButton, int timeout)
{
    switch (icon) {
    case QMessageBox::Critical:
        switch (order) {
        case TextFirst:
            return Box::critical(parent, text, timeout, title, buttons, defaultButton);
        case QtOrder:
            return Box::critical(parent, title, text, buttons, defaultButton, timeout);
        case TimeoutFirst:
            return Box::critical(timeout, parent, title, text, buttons, defaultButton);
        }
        break;
    case QMessageBox::Information:
        switch (order) {
        case TextFirst:
            return Box::information(parent, text, timeout, title, buttons, defaultButton);
        case QtOrder:
            return Box::information(parent, title, text, buttons, defaultButton, timeout);
        case TimeoutFirst:
            return Box::information(timeout, parent, title, text, buttons, defaultButton);
        }
        break;
    case QMessageBox::Question:
        switch (order) {
        case TextFirst:
            return Box::question(parent, text, timeout, title, buttons, defaultButton);
        case QtOrder:
            return Box::question(parent, title, text, buttons, defaultButton, timeout);
        case TimeoutFirst:
            return Box::question(timeout, parent, title, text, buttons, defaultButton);
        }
        break;
    case QMessageBox::Warning:
        switch (order) {
        case TextFirst:
            return Box::warning(parent, text, timeout, title, buttons, defaultButton);
        case QtOrder:
            return Box::warning(parent, title, text, buttons, defaultButton, timeout);
        case TimeoutFirst:
            return Box::warning(timeout, parent, title, text, buttons, defaultButton);
        }
        break;
    case QMessageBox::NoIcon:
        break;
    }
    return QMessageBox::NoButton;
}

} // namespace

Q_DECLARE_METATYPE(Order)
Q_DECLARE_METATYPE(QMessageBox::StandardButton)

class TestAutoCloseMessageBox : public QObject
{
    Q_OBJECT

private slots:
    void fullCountdown();
    void countdownPressesDefault_data();
    void countdownPressesDefault();
    void staticForms_data();
    void staticForms();
    void zeroTimeoutHasNoCountdown();
    void noDefaultButtonNoCountdown_data();
    void noDefaultButtonNoCountdown();
    void userClickStopsCountdown();
    void textFirstTitle_data();
    void textFirstTitle();
    void abortedRunIsCancel();
    void timeoutProperty();
    void showCountsDown();
};

void TestAutoCloseMessageBox::fullCountdown()
{
    QStringList texts;
    QStringList textAtClose;
    whenBoxShown([&](Box *box) {
        QAbstractButton *ok = box->button(QMessageBox::Ok);
        QTimer *timer = countdownTimer(box);
        QVERIFY(ok);
        QVERIFY(timer);
        QCOMPARE(box->defaultButton(), ok);
        QVERIFY(timer->isActive());
        texts << ok->text();
        // Connected after the box's own tick handler, so it sees the text of each tick.
        connect(timer, &QTimer::timeout, box, [&texts, ok] { texts << ok->text(); });
        connect(box, &QDialog::finished, box, [&textAtClose, ok] { textAtClose << ok->text(); });
    });

    const auto answer =
        Box::information(nullptr, QStringLiteral("Upgrade finished"), 5, QStringLiteral("Done"),
                         QMessageBox::Ok, QMessageBox::NoButton);

    QCOMPARE(answer, QMessageBox::Ok);
    // The last tick leaves the text as it is and presses the button.
    const QStringList expected{"OK (5)", "OK (4)", "OK (3)", "OK (2)", "OK (1)", "OK (1)"};
    QCOMPARE(texts, expected);
    QCOMPARE(textAtClose, QStringList{"OK (1)"});
}

void TestAutoCloseMessageBox::countdownPressesDefault_data()
{
    QTest::addColumn<QMessageBox::StandardButtons>("buttons");
    QTest::addColumn<QMessageBox::StandardButton>("defaultButton");
    QTest::addColumn<QMessageBox::StandardButton>("expected");

    // Cancel is never the expected answer: a box closed by the watchdog reads as Cancel.
    QTest::newRow("explicit default")
        << QMessageBox::StandardButtons(QMessageBox::Ok | QMessageBox::Abort) << QMessageBox::Abort
        << QMessageBox::Abort;
    QTest::newRow("first accepting button")
        << QMessageBox::StandardButtons(QMessageBox::Yes | QMessageBox::No | QMessageBox::Retry |
                                        QMessageBox::Ignore)
        << QMessageBox::NoButton << QMessageBox::Retry;
}

void TestAutoCloseMessageBox::countdownPressesDefault()
{
    QFETCH(QMessageBox::StandardButtons, buttons);
    QFETCH(QMessageBox::StandardButton, defaultButton);
    QFETCH(QMessageBox::StandardButton, expected);

    QString shownText;
    QString defaultText;
    whenBoxShown([&](Box *box) {
        QVERIFY(box->defaultButton());
        shownText = box->defaultButton()->text();
        defaultText = box->button(expected) ? box->button(expected)->text() : QString();
    });

    const auto answer = Box::warning(1, nullptr, QStringLiteral("Warning"),
                                     QStringLiteral("Closing soon"), buttons, defaultButton);

    QCOMPARE(answer, expected);
    QVERIFY(shownText.endsWith(QStringLiteral(" (1)")));
    QCOMPARE(shownText, defaultText);
}

void TestAutoCloseMessageBox::staticForms_data()
{
    QTest::addColumn<Order>("order");
    QTest::addColumn<QMessageBox::Icon>("icon");

    const QList<QPair<QMessageBox::Icon, const char *>> icons{
        {QMessageBox::Critical, "critical"},
        {QMessageBox::Information, "information"},
        {QMessageBox::Question, "question"},
        {QMessageBox::Warning, "warning"}};
    for (const auto &icon : icons) {
        QTest::addRow("%s text first", icon.second) << TextFirst << icon.first;
        QTest::addRow("%s qt order", icon.second) << QtOrder << icon.first;
        QTest::addRow("%s timeout first", icon.second) << TimeoutFirst << icon.first;
    }
}

void TestAutoCloseMessageBox::staticForms()
{
    QFETCH(Order, order);
    QFETCH(QMessageBox::Icon, icon);

    QWidget parent;
    parent.setWindowTitle(QStringLiteral("Parent title"));
    QMessageBox::Icon shownIcon = QMessageBox::NoIcon;
    QString shownTitle;
    QString shownText;
    QString okText;
    bool parentedToCaller = false;
    whenBoxShown([&](Box *box) {
        shownIcon = box->icon();
        shownTitle = box->windowTitle();
        shownText = box->text();
        okText = buttonText(box, QMessageBox::Ok);
        parentedToCaller = box->parentWidget() == &parent;
        QVERIFY(box->button(QMessageBox::Cancel));
        box->button(QMessageBox::Cancel)->click();
    });

    const auto answer =
        callStatic(order, icon, &parent, QStringLiteral("Box title"), QStringLiteral("Box text"),
                   QMessageBox::Ok | QMessageBox::Cancel, QMessageBox::Ok, 0);

    QCOMPARE(answer, QMessageBox::Cancel);
    QCOMPARE(shownIcon, icon);
    QCOMPARE(shownTitle, QStringLiteral("Box title"));
    QCOMPARE(shownText, QStringLiteral("Box text"));
    QCOMPARE(okText, QStringLiteral("OK"));
    QVERIFY(parentedToCaller);
}

void TestAutoCloseMessageBox::zeroTimeoutHasNoCountdown()
{
    bool timerFound = false;
    bool timerActive = true;
    QString okText;
    bool okIsDefault = false;
    whenBoxShown([&](Box *box) {
        const QTimer *timer = countdownTimer(box);
        timerFound = timer != nullptr;
        timerActive = timer && timer->isActive();
        okText = buttonText(box, QMessageBox::Ok);
        okIsDefault = box->defaultButton() && box->defaultButton() == box->button(QMessageBox::Ok);
        QVERIFY(box->button(QMessageBox::Ok));
        box->button(QMessageBox::Ok)->click();
    });

    const auto answer = Box::critical(nullptr, QStringLiteral("Failed"), 0, QStringLiteral("Error"),
                                      QMessageBox::Ok | QMessageBox::Cancel, QMessageBox::NoButton);

    QCOMPARE(answer, QMessageBox::Ok);
    QVERIFY(timerFound);
    QVERIFY(!timerActive);
    QVERIFY(okIsDefault);
    QCOMPARE(okText, QStringLiteral("OK"));
}

void TestAutoCloseMessageBox::noDefaultButtonNoCountdown_data()
{
    QTest::addColumn<QMessageBox::StandardButtons>("buttons");
    QTest::addColumn<QMessageBox::StandardButton>("defaultButton");

    QTest::newRow("no accepting button")
        << QMessageBox::StandardButtons(QMessageBox::Yes | QMessageBox::No)
        << QMessageBox::NoButton;
    QTest::newRow("default not among the buttons")
        << QMessageBox::StandardButtons(QMessageBox::Ok) << QMessageBox::Cancel;
}

void TestAutoCloseMessageBox::noDefaultButtonNoCountdown()
{
    QFETCH(QMessageBox::StandardButtons, buttons);
    QFETCH(QMessageBox::StandardButton, defaultButton);

    // Longer than the one-second timeout: a wrongly started countdown would close the box.
    constexpr int kOpenLongerThanTimeoutMs = 1500;
    bool hasDefault = true;
    bool timerFound = false;
    bool timerActive = true;
    bool stillOpen = false;
    QStringList texts;
    QMessageBox::StandardButton clicked = QMessageBox::NoButton;
    whenBoxShown([&](Box *box) {
        hasDefault = box->defaultButton() != nullptr;
        const QTimer *timer = countdownTimer(box);
        timerFound = timer != nullptr;
        timerActive = timer && timer->isActive();
        QPointer<Box> guard(box);
        QTest::qWait(kOpenLongerThanTimeoutMs);
        stillOpen = guard && guard->isVisible();
        if (!stillOpen)
            return;
        for (QAbstractButton *button : box->buttons())
            texts << button->text();
        QAbstractButton *last = box->buttons().last();
        clicked = box->standardButton(last);
        last->click();
    });

    const auto answer = Box::question(nullptr, QStringLiteral("Keep going?"), 1,
                                      QStringLiteral("Question"), buttons, defaultButton);

    QVERIFY(!hasDefault);
    QVERIFY(timerFound);
    QVERIFY(!timerActive);
    QVERIFY(stillOpen);
    for (const QString &text : qAsConst(texts))
        QVERIFY2(!text.contains(QLatin1Char('(')), qPrintable(text));
    QVERIFY(clicked != QMessageBox::NoButton);
    QCOMPARE(answer, clicked);
}

void TestAutoCloseMessageBox::userClickStopsCountdown()
{
    bool timerWasActive = false;
    QList<bool> timerActiveAtFinish;
    whenBoxShown([&](Box *box) {
        QTimer *timer = countdownTimer(box);
        QVERIFY(timer);
        timerWasActive = timer->isActive();
        // The box's own finished handler runs first and stops the timer.
        connect(box, &QDialog::finished, box,
                [&timerActiveAtFinish, timer] { timerActiveAtFinish << timer->isActive(); });
        QVERIFY(box->button(QMessageBox::No));
        box->button(QMessageBox::No)->click();
    });

    const auto answer =
        Box::question(nullptr, QStringLiteral("Question"), QStringLiteral("Overwrite?"),
                      QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes, 2);

    QCOMPARE(answer, QMessageBox::No);
    QVERIFY(timerWasActive);
    QCOMPARE(timerActiveAtFinish, QList<bool>{false});
}

void TestAutoCloseMessageBox::textFirstTitle_data()
{
    QTest::addColumn<bool>("withParent");
    QTest::addColumn<Order>("order");
    QTest::addColumn<QString>("title");
    QTest::addColumn<QString>("expected");

    QTest::newRow("empty title takes parent's") << true << TextFirst << QString() << "Host";
    QTest::newRow("given title wins") << true << TextFirst << "Given"
                                      << "Given";
    QTest::newRow("no parent, no title") << false << TextFirst << QString() << QString();
    QTest::newRow("qt order keeps empty title") << true << QtOrder << QString() << QString();
    QTest::newRow("timeout first keeps empty title")
        << true << TimeoutFirst << QString() << QString();
}

void TestAutoCloseMessageBox::textFirstTitle()
{
    QFETCH(bool, withParent);
    QFETCH(Order, order);
    QFETCH(QString, title);
    QFETCH(QString, expected);

    QWidget parent;
    parent.setWindowTitle(QStringLiteral("Host"));
    QString shownTitle = QStringLiteral("<not shown>");
    whenBoxShown([&](Box *box) {
        shownTitle = box->windowTitle();
        QVERIFY(box->button(QMessageBox::Ok));
        box->button(QMessageBox::Ok)->click();
    });

    const auto answer =
        callStatic(order, QMessageBox::Information, withParent ? &parent : nullptr, title,
                   QStringLiteral("Text"), QMessageBox::Ok, QMessageBox::NoButton, 0);

    QCOMPARE(answer, QMessageBox::Ok);
    QCOMPARE(shownTitle, expected);
}

void TestAutoCloseMessageBox::abortedRunIsCancel()
{
    bool shown = false;
    whenBoxShown([&](Box *box) {
        shown = true;
        box->done(-1);
    });

    // No Cancel button on the box: Cancel can only come from the aborted run.
    const auto answer = Box::information(nullptr, QStringLiteral("Text"), 0, QStringLiteral("T"),
                                         QMessageBox::Ok, QMessageBox::NoButton);

    QVERIFY(shown);
    QCOMPARE(answer, QMessageBox::Cancel);
}

void TestAutoCloseMessageBox::timeoutProperty()
{
    Box box(nullptr);
    QCOMPARE(box.timeout(), 0);
    const QMetaProperty property =
        box.metaObject()->property(box.metaObject()->indexOfProperty("timeout"));
    QVERIFY(property.isValid());
    QVERIFY(property.hasNotifySignal());
    QCOMPARE(property.notifySignal().name(), QByteArray("timeoutChanged"));

    QSignalSpy changed(&box, &Box::timeoutChanged);
    box.setTimeout(3);
    QCOMPARE(changed.count(), 1);
    QCOMPARE(changed.last().at(0).toInt(), 3);
    box.setTimeout(3);
    QVERIFY(box.setProperty("timeout", 3));
    QCOMPARE(changed.count(), 1);
    QVERIFY(box.setProperty("timeout", 0));
    QCOMPARE(changed.count(), 2);
    QCOMPARE(changed.last().at(0).toInt(), 0);
    QCOMPARE(box.property("timeout").toInt(), 0);
    QCOMPARE(box.timeout(), 0);
}

void TestAutoCloseMessageBox::showCountsDown()
{
    Box box(QMessageBox::Information, QStringLiteral("Title"), QStringLiteral("Text"),
            QMessageBox::Ok | QMessageBox::Cancel);
    box.setDefaultButton(QMessageBox::Cancel);
    box.setTimeout(1);
    QSignalSpy finished(&box, &QDialog::finished);

    box.show();

    QCOMPARE(box.defaultButton()->text(), QStringLiteral("Cancel (1)"));
    QVERIFY(countdownTimer(&box));
    QVERIFY(countdownTimer(&box)->isActive());
    QVERIFY(finished.wait(kWatchdogMs));
    QCOMPARE(finished.count(), 1);
    QCOMPARE(box.clickedButton(), box.button(QMessageBox::Cancel));
    QCOMPARE(finished.first().at(0).toInt(), int(QMessageBox::Cancel));
    QVERIFY(!countdownTimer(&box)->isActive());
    QVERIFY(!box.isVisible());
}

QTEST_MAIN(TestAutoCloseMessageBox)
#include "tst_autoclosemessagebox.moc"
