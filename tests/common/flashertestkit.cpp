#include "flashertestkit.h"

void ModalAnswerer::answerFile(const QString &path)
{
    expect("QFileDialog", [path](QWidget *modal) {
        auto *dialog = static_cast<QFileDialog *>(modal);
        if (path.isEmpty())
            return dialog->reject();
        dialog->selectFile(path);
        // selectFile() leaves the name field alone while it has the focus: type it in.
        dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit"))->setText(path);
        static_cast<QDialog *>(dialog)->accept();
    });
}

void ModalAnswerer::answerBox(QMessageBox::StandardButton button)
{
    expect("QMessageBox", [button](QWidget *modal) {
        auto *box = static_cast<QMessageBox *>(modal);
        box->button(button) ? box->button(button)->click() : box->reject();
    });
}

void ModalAnswerer::answerInput(const QString &text)
{
    expect("QInputDialog", [text](QWidget *modal) {
        auto *dialog = static_cast<QInputDialog *>(modal);
        if (text.isNull())
            return dialog->reject();
        dialog->setTextValue(text);
        dialog->accept();
    });
}

void ModalAnswerer::poll()
{
    QWidget *modal = QApplication::activeModalWidget();
    if (!modal || !modal->isVisible() || modal->property("answered").toBool() ||
        modal->inherits("QProgressDialog") || modal->inherits("ESPFlasher"))
        return;
    modal->setProperty("answered", true);
    Seen seen;
    seen.className = modal->metaObject()->className();
    QStringList parts{modal->windowTitle()};
    if (auto *box = qobject_cast<QMessageBox *>(modal)) {
        parts << box->text();
        seen.icon = box->icon();
        if (box->defaultButton())
            seen.defaultButton = box->defaultButton()->text();
    } else if (auto *input = qobject_cast<QInputDialog *>(modal)) {
        parts << input->labelText() << input->comboBoxItems().join(',');
    } else if (auto *files = qobject_cast<QFileDialog *>(modal)) {
        parts << files->nameFilters().join(',') << files->directory().absolutePath();
    }
    parts.removeAll(QString());
    seen.text = parts.join('|');
    this->seen.append(seen);
    if (steps.isEmpty() || !modal->inherits(steps.first().first)) {
        unexpected << seen.className + ' ' + seen.text;
        // Queued: the modal's own event loop must be running to end.
        QMetaObject::invokeMethod(modal, "close", Qt::QueuedConnection);
        return;
    }
    if (const auto action = steps.takeFirst().second)
        action(modal);
}

namespace FlasherTestKit {

QJsonObject section(const QString &type, const QString &address, const QString &file,
                    const QString &md5, const QString &mode, const QString &size,
                    const QString &frequency)
{
    QJsonObject section{{"type", type}, {"address", address}, {"file", file}};
    if (!md5.isEmpty())
        section.insert("md5", md5);
    const QJsonObject flash{{"mode", mode}, {"size", size}, {"frequency", frequency}};
    if (!mode.isEmpty())
        section.insert("options", QJsonObject{{"flash", flash}});
    return section;
}

void fillRegion(QWidget *wizard, int type, const QString &start, bool sizeMode,
                const QString &endOrSize, const QString &file, const char *button)
{
    child<QComboBox>(wizard, "regionTypeCombo")->setCurrentIndex(type);
    child<QLineEdit>(wizard, "regionStartAddress")->setText(start);
    child<QRadioButton>(wizard, sizeMode ? "regionSizeSel" : "regionEndAddressSel")->click();
    child<QLineEdit>(wizard, sizeMode ? "regionSize" : "regionEndAddress")->setText(endOrSize);
    child<QLineEdit>(wizard, "regionFileName")->setText(file);
    child<QPushButton>(wizard, button)->click();
}

} // namespace FlasherTestKit

void FlasherTest::initTestCase()
{
    QVERIFY(settingsDir.isValid());
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settingsDir.path());
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, settingsDir.path());
    QCoreApplication::setOrganizationName(QStringLiteral("esp-utility-tests"));
    QCoreApplication::setAttribute(Qt::AA_DontUseNativeDialogs);
}

void FlasherTest::init()
{
    QSettings().clear(); // each test starts with the settings of a fresh installation
    dir = std::make_unique<QTemporaryDir>();
    answerer = std::make_unique<ModalAnswerer>();
}

void FlasherTest::cleanup()
{
    QVERIFY2(answerer->unexpected.isEmpty(), qPrintable(answerer->unexpected.join('\n')));
    QCOMPARE(answerer->steps.size(), 0); // every planned answer given
    flasher.reset();                     // the worker lets go of its port before a chip stops
    qputenv(QComPort::extraPortsVariable, savedPorts);
}

QStringList FlasherTest::log(int from) const
{
    QStringList lines;
    const QTextDocument *document = find<QTextBrowser>("logBrowser")->document();
    for (QTextBlock block = document->begin(); !document->isEmpty() && block.isValid();
         block = block.next()) {
        QString text = block.text();
        while (text.size() > 1 && text.endsWith('.')) // a line of dots only stays
            text.chop(1);
        const QTextBlock::iterator it = block.begin();
        lines << (it.atEnd() ? QString() : it.fragment().charFormat().foreground().color().name()) +
                     '|' + text;
    }
    return lines.mid(from);
}

bool FlasherTest::selectScatter() const
{
    bool result = false;
    QMetaObject::invokeMethod(flasher.get(), "on_scatterSelTool_clicked", Qt::DirectConnection,
                              Q_RETURN_ARG(bool, result));
    return result;
}

bool FlasherTest::deliverFinished(bool result, int command, const QVariantList &results) const
{
    return QMetaObject::invokeMethod(flasher.get(), "worker_finished", Qt::DirectConnection,
                                     Q_ARG(bool, result), Q_ARG(int, command),
                                     Q_ARG(QVariantList, results));
}
