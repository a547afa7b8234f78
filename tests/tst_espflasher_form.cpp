#include "flasher/espflasher.h"
#include "serial/qcomport.h"

#include "flashertestkit.h"
#include "prefixtranslator.h"
#include "ptypair.h"

#include <QComboBox>
#include <QGroupBox>
#include <QHeaderView>
#include <QIcon>
#include <QLabel>
#include <QLineEdit>
#include <QMetaMethod>
#include <QProgressBar>
#include <QPushButton>
#include <QTableWidget>
#include <QTextBrowser>
#include <QToolButton>
#include <QtTest>

#include <memory>

using namespace FlasherTestKit;

namespace {

const char *const eraseTip =
    "Erase the ESP flash memory (the selected file region, the specified region or the entire "
    "flash)\nTo erase the entire flash, input 0x911 when asked to select the address/size.";
const char *const readTip = "Construct a scatter file and download content from the ESP flash "
                            "memory according to the scatter file";

// The visible text of the widgets that carry one.
QString shownText(QWidget *widget)
{
    if (auto *group = qobject_cast<QGroupBox *>(widget))
        return group->title();
    if (auto *label = qobject_cast<QLabel *>(widget))
        return label->text();
    if (auto *button = qobject_cast<QAbstractButton *>(widget))
        return button->text();
    return QString();
}

QImage iconImage(const QIcon &icon)
{
    return icon.pixmap(QSize(24, 24)).toImage();
}

// Restores the extra-ports variable when a test ends.
class ExtraPortsGuard
{
public:
    ExtraPortsGuard() : m_saved(qgetenv(QComPort::extraPortsVariable)) {}
    ~ExtraPortsGuard() { qputenv(QComPort::extraPortsVariable, m_saved); }

private:
    QByteArray m_saved;
};

} // namespace

class TestEspFlasherForm : public QObject
{
    Q_OBJECT

private slots:
    void windowFrame();
    void widgets_data();
    void widgets();
    void labelsOfFields_data();
    void labelsOfFields();
    void initialState();
    void iconsLoadFromTheResource_data();
    void iconsLoadFromTheResource();
    void slotsInDeclaredOrder();
    void portListFollowsEnumeration();
    void noPortsDisablesConnect();
    void textsUseTheDialogContext();
};

void TestEspFlasherForm::windowFrame()
{
    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    QCOMPARE(flasher.windowTitle(), QStringLiteral("Brimcote ESP Utility"));
    QVERIFY(!flasher.windowIcon().isNull());
    const QIcon expected(QStringLiteral(":/esptool/images/application-x-firmware.ico"));
    QCOMPARE(iconImage(flasher.windowIcon()), iconImage(expected));
}

void TestEspFlasherForm::widgets_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("className");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QString>("toolTip");

    const auto row = [](const char *name, const char *className, const char *text,
                        const char *tip = "") {
        QTest::newRow(name) << QString::fromLatin1(name) << QString::fromLatin1(className)
                            << QString::fromUtf8(text) << QString::fromUtf8(tip);
    };
    row("connectionGroup", "QGroupBox", "Connection");
    row("label_4", "QLabel", "Serial Port:");
    row("comPortCombo", "QComboBox", "");
    row("comPortScanTool", "QToolButton", "...", "Refresh the list of available serial ports");
    row("label_5", "QLabel", "Baud Rate:");
    row("baudRateCombo", "QComboBox", "");
    row("comPortConnect", "QPushButton", "Connect");
    row("infoGroup", "QGroupBox", "ESP Info");
    row("chipIDField", "QLineEdit", "");
    row("macField", "QLineEdit", "");
    row("flashIDField", "QLineEdit", "");
    row("loaderGroup", "QGroupBox", "Loader");
    row("scatterEdit", "QLineEdit", "");
    row("scatterSelTool", "QToolButton", "...", "Select Scatter File");
    row("stubEdit", "QLineEdit", "");
    row("stubSelTool", "QToolButton", "...", "Select Loader Stub File");
    row("scatterTable", "QTableWidget", "");
    row("operationWidget", "QWidget", "");
    row("zipTool", "QToolButton", "...", "Create a package from the current scatter file");
    row("eraseTool", "QToolButton", "...", eraseTip);
    row("verifyTool", "QToolButton", "...", "Compute MD5 of the flash contents");
    row("readTool", "QToolButton", "...", readTip);
    row("progressBar", "QProgressBar", "");
    row("flashTool", "QPushButton", "Flash",
        "Start writing the selected files to the ESP flash memory");
    row("groupBox", "QGroupBox", "Utility Log");
    row("logBrowser", "QTextBrowser", "");
}

void TestEspFlasherForm::widgets()
{
    QFETCH(QString, name);
    QFETCH(QString, className);
    QFETCH(QString, text);
    QFETCH(QString, toolTip);

    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    auto *widget = flasher.findChild<QWidget *>(name);
    QVERIFY2(widget, qPrintable(name));
    QVERIFY2(widget->inherits(className.toLatin1().constData()), widget->metaObject()->className());
    QCOMPARE(shownText(widget), text);
    QCOMPARE(widget->toolTip(), toolTip);
}

// The fields' labels are found through their buddies, whatever they are called.
void TestEspFlasherForm::labelsOfFields_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<QString>("label");
    QTest::newRow("chip") << "chipIDField"
                          << "Chip ID:";
    QTest::newRow("mac") << "macField"
                         << "MAC:";
    QTest::newRow("flash") << "flashIDField"
                           << "Flash ID:";
    QTest::newRow("scatter") << "scatterEdit"
                             << "Scatter File:";
    QTest::newRow("stub") << "stubEdit"
                          << "Flash Loader:";
    QTest::newRow("port") << "comPortCombo"
                          << "Serial Port:";
    QTest::newRow("baud") << "baudRateCombo"
                          << "Baud Rate:";
}

void TestEspFlasherForm::labelsOfFields()
{
    QFETCH(QString, field);
    QFETCH(QString, label);

    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    auto *target = flasher.findChild<QWidget *>(field);
    QVERIFY(target);
    QStringList texts;
    for (QLabel *candidate : flasher.findChildren<QLabel *>()) {
        if (candidate->buddy() == target)
            texts << candidate->text();
    }
    QCOMPARE(texts, QStringList{label});
}

void TestEspFlasherForm::initialState()
{
    ESPFlasher flasher(ESPFlasher::RUN_MODE_UPGRADE, nullptr);

    auto *baud = child<QComboBox>(&flasher, "baudRateCombo");
    QStringList items;
    for (int i = 0; i < baud->count(); ++i)
        items << baud->itemText(i);
    QCOMPARE(items, (QStringList{"9600", "19200", "38400", "57600", "74800", "115200"}));
    QCOMPARE(baud->currentText(), QStringLiteral("115200"));

    auto *progress = child<QProgressBar>(&flasher, "progressBar");
    QCOMPARE(progress->minimum(), 0);
    QCOMPARE(progress->maximum(), 100);
    QCOMPARE(progress->value(), 0);

    QVERIFY(!child<QGroupBox>(&flasher, "infoGroup")->isEnabled());
    QVERIFY(!child<QGroupBox>(&flasher, "loaderGroup")->isEnabled());
    QVERIFY(child<QGroupBox>(&flasher, "connectionGroup")->isEnabled());
    QVERIFY(!child<QPushButton>(&flasher, "flashTool")->isEnabled());

    auto *table = child<QTableWidget>(&flasher, "scatterTable");
    QCOMPARE(table->columnCount(), 5);
    QCOMPARE(table->rowCount(), 0);
    QStringList headers;
    for (int column = 0; column < table->columnCount(); ++column)
        headers << table->horizontalHeaderItem(column)->text();
    QCOMPARE(headers, (QStringList{"Active", "Type", "Start Address", "End Address", "Source"}));
    QVERIFY(table->horizontalHeader()->stretchLastSection());

    QVERIFY(child<QTextBrowser>(&flasher, "logBrowser")->toPlainText().isEmpty());
    QVERIFY(child<QToolButton>(&flasher, "eraseTool")->menu() == nullptr);
}

void TestEspFlasherForm::iconsLoadFromTheResource_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("icon");
    QTest::newRow("scan") << "comPortScanTool"
                          << "view-refresh";
    QTest::newRow("scatter") << "scatterSelTool"
                             << "document-open";
    QTest::newRow("zip") << "zipTool"
                         << "package-x-generic";
    QTest::newRow("erase") << "eraseTool"
                           << "user-trash";
    QTest::newRow("verify") << "verifyTool"
                            << "security-medium";
    QTest::newRow("read") << "readTool"
                          << "emblem-downloads";
}

void TestEspFlasherForm::iconsLoadFromTheResource()
{
    QFETCH(QString, name);
    QFETCH(QString, icon);

    const QString path = QStringLiteral(":/esptool/images/%1.ico").arg(icon);
    QVERIFY2(QFile::exists(path), qPrintable(path));
    const QImage expected = iconImage(QIcon(path));
    QVERIFY2(!expected.isNull(), "the .ico image plugin cannot read the resource");

    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    auto *button = child<QToolButton>(&flasher, name.toLatin1().constData());
    QVERIFY(button);
    QCOMPARE(iconImage(button->icon()), expected);
}

// Part of the dialog's interface: hosts and scripts find the slots by position and name.
void TestEspFlasherForm::slotsInDeclaredOrder()
{
    const QMetaObject &meta = ESPFlasher::staticMetaObject;
    QStringList signatures;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        signatures << QString::fromLatin1(meta.method(i).methodSignature());
    const QStringList expected{
        "on_comPortScanTool_clicked()",
        "on_comPortConnect_clicked()",
        "on_scatterSelTool_clicked()",
        "on_stubSelTool_clicked()",
        "on_flashTool_clicked()",
        "on_readTool_clicked()",
        "on_eraseTool_clicked()",
        "on_verifyTool_clicked()",
        "on_zipTool_clicked()",
        "worker_error(QString)",
        "worker_progress(int,int)",
        "worker_finished(bool,int,QVariantList)",
        "scatterTableHeaderClickHandler(int)",
        "eraseActionHandler()",
        "md5ActionHandler()",
    };
    QCOMPARE(signatures, expected);
    QCOMPARE(meta.method(meta.indexOfMethod("on_scatterSelTool_clicked()")).returnType(),
             int(QMetaType::Bool));
}

void TestEspFlasherForm::portListFollowsEnumeration()
{
    ExtraPortsGuard guard;
    PtyPair first;
    PtyPair second;
    QVERIFY(first.isValid() && second.isValid());
    qputenv(QComPort::extraPortsVariable,
            (first.slavePath() + QLatin1Char(':') + second.slavePath()).toLocal8Bit());

    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    auto *combo = child<QComboBox>(&flasher, "comPortCombo");
    auto *connectButton = child<QPushButton>(&flasher, "comPortConnect");
    const auto comboItems = [combo] {
        QStringList items;
        for (int i = 0; i < combo->count(); ++i)
            items << combo->itemText(i);
        return items;
    };

    // Filled at construction, the extra ports after the enumerated ones.
    QStringList expected = QComPort::availableComPorts();
    QCOMPARE(comboItems(), expected);
    QCOMPARE(expected.mid(expected.size() - 2),
             (QStringList{first.slavePath(), second.slavePath()}));
    QVERIFY(connectButton->isEnabled());

    // A port that went away disappears on the next scan.
    qputenv(QComPort::extraPortsVariable, first.slavePath().toLocal8Bit());
    child<QToolButton>(&flasher, "comPortScanTool")->click();
    expected = QComPort::availableComPorts();
    QCOMPARE(comboItems(), expected);
    QVERIFY(!comboItems().contains(second.slavePath()));
    QVERIFY(comboItems().contains(first.slavePath()));
    QCOMPARE(connectButton->isEnabled(), !expected.isEmpty());
}

void TestEspFlasherForm::noPortsDisablesConnect()
{
    ExtraPortsGuard guard;
    qunsetenv(QComPort::extraPortsVariable);
    if (!QComPort::availableComPorts().isEmpty())
        QSKIP("this machine enumerates serial ports of its own; the empty list cannot be made");

    ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
    QCOMPARE(child<QComboBox>(&flasher, "comPortCombo")->count(), 0);
    QVERIFY(!child<QPushButton>(&flasher, "comPortConnect")->isEnabled());
}

void TestEspFlasherForm::textsUseTheDialogContext()
{
    PrefixTranslator translator(QStringLiteral("ESPFlasher"), QStringLiteral("tr:"));
    QVERIFY(QCoreApplication::installTranslator(&translator));
    {
        ESPFlasher flasher(ESPFlasher::RUN_MODE_STANDALONE, nullptr);
        QCOMPARE(flasher.windowTitle(), QStringLiteral("tr:Brimcote ESP Utility"));
        QCOMPARE(child<QPushButton>(&flasher, "comPortConnect")->text(),
                 QStringLiteral("tr:Connect"));
        QCOMPARE(child<QGroupBox>(&flasher, "groupBox")->title(), QStringLiteral("tr:Utility Log"));
        QCOMPARE(child<QToolButton>(&flasher, "eraseTool")->toolTip(),
                 QStringLiteral("tr:") + QLatin1String(eraseTip));
        QCOMPARE(child<QTableWidget>(&flasher, "scatterTable")->horizontalHeaderItem(2)->text(),
                 QStringLiteral("tr:Start Address"));

        // Messages too: translated first, filled in afterwards.
        QMetaObject::invokeMethod(&flasher, "worker_error", Qt::DirectConnection,
                                  Q_ARG(QString, QStringLiteral("boom")));
        QVERIFY(deliverFinished(&flasher, true, 42));
        QCOMPARE(logStrings(&flasher),
                 (QStringList{line(amber, "tr:Flasher error: boom"),
                              line(amber, "tr:Unknown command 42 finished")}));
    }
    QCoreApplication::removeTranslator(&translator);
}

QTEST_MAIN(TestEspFlasherForm)
#include "tst_espflasher_form.moc"
