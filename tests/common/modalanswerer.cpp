#include "modalanswerer.h"

#include <QAbstractButton>
#include <QApplication>
#include <QFileDialog>
#include <QInputDialog>
#include <QLineEdit>
#include <QPushButton>

namespace {

// How often the active modal widget is looked at, in milliseconds.
constexpr int pollIntervalMs = 10;
const char *const answeredProperty = "modalAnswerer_answered";

ModalAnswerer::Seen describe(QWidget *modal)
{
    ModalAnswerer::Seen seen;
    seen.className = QString::fromLatin1(modal->metaObject()->className());
    seen.title = modal->windowTitle();
    if (auto *box = qobject_cast<QMessageBox *>(modal)) {
        seen.text = box->text();
        seen.icon = box->icon();
        if (QPushButton *button = box->defaultButton())
            seen.defaultButton = button->text();
    } else if (auto *input = qobject_cast<QInputDialog *>(modal)) {
        seen.text = input->labelText();
        seen.items = input->comboBoxItems();
    } else if (auto *files = qobject_cast<QFileDialog *>(modal)) {
        seen.items = files->nameFilters();
        seen.directory = files->directory().absolutePath();
    }
    return seen;
}

} // namespace

ModalAnswerer::ModalAnswerer()
{
    m_timer.setInterval(pollIntervalMs);
    connect(&m_timer, &QTimer::timeout, this, &ModalAnswerer::poll);
    m_timer.start();
}

void ModalAnswerer::expect(const char *className, Action action)
{
    m_steps.append({QByteArray(className), std::move(action)});
}

void ModalAnswerer::answerFile(const QString &path)
{
    expect("QFileDialog", [path](QWidget *modal) {
        auto *dialog = static_cast<QFileDialog *>(modal);
        if (path.isEmpty()) {
            dialog->reject();
            return;
        }
        dialog->selectFile(path);
        // selectFile() leaves the name field alone while it has the focus: type it in.
        if (auto *name = dialog->findChild<QLineEdit *>(QStringLiteral("fileNameEdit")))
            name->setText(path);
        static_cast<QDialog *>(dialog)->accept();
    });
}

void ModalAnswerer::answerBox(QMessageBox::StandardButton button)
{
    expect("QMessageBox", [button](QWidget *modal) {
        auto *box = static_cast<QMessageBox *>(modal);
        if (QAbstractButton *target = box->button(button))
            target->click();
        else
            box->reject();
    });
}

void ModalAnswerer::leaveBox()
{
    expect("QMessageBox", [](QWidget *) {});
}

void ModalAnswerer::answerInput(const QString &text)
{
    expect("QInputDialog", [text](QWidget *modal) {
        auto *dialog = static_cast<QInputDialog *>(modal);
        dialog->setTextValue(text);
        dialog->accept();
    });
}

void ModalAnswerer::cancelInput()
{
    expect("QInputDialog", [](QWidget *modal) { static_cast<QInputDialog *>(modal)->reject(); });
}

void ModalAnswerer::poll()
{
    QWidget *modal = QApplication::activeModalWidget();
    if (!modal || !modal->isVisible() || modal->property(answeredProperty).toBool())
        return;
    if (modal->inherits("QProgressDialog") || modal->inherits("ESPFlasher"))
        return;
    modal->setProperty(answeredProperty, true);
    const Seen seen = describe(modal);
    m_seen.append(seen);
    if (m_steps.isEmpty() || !modal->inherits(m_steps.first().first.constData())) {
        m_unexpected.append(seen.className + QLatin1Char(' ') + seen.title + QLatin1Char(' ') +
                            seen.text);
        // Queued: the modal's own event loop must be running to end.
        QMetaObject::invokeMethod(modal, "close", Qt::QueuedConnection);
        return;
    }
    m_steps.takeFirst().second(modal);
}
