#include "modalanswerer.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDialog>
#include <QFileDialog>
#include <QInputDialog>
#include <QLineEdit>
#include <QPushButton>

namespace {

// How often the active modal widget is looked at, in milliseconds.
constexpr int pollIntervalMs = 10;
const char *const answeredProperty = "modalAnswerer_answered";

void rejectLater(QWidget *modal)
{
    if (auto *dialog = qobject_cast<QDialog *>(modal))
        QMetaObject::invokeMethod(dialog, "reject", Qt::QueuedConnection);
    else
        QMetaObject::invokeMethod(modal, "close", Qt::QueuedConnection);
}

} // namespace

ModalAnswerer::ModalAnswerer(QObject *parent) : QObject(parent)
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
        // QFileDialog hides accept(); the dialog's own override still runs.
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

void ModalAnswerer::ignore(const char *className)
{
    m_ignored.append(QByteArray(className));
}

ModalAnswerer::Seen ModalAnswerer::describe(QWidget *modal)
{
    Seen seen;
    seen.className = QString::fromLatin1(modal->metaObject()->className());
    seen.title = modal->windowTitle();
    if (auto *box = qobject_cast<QMessageBox *>(modal)) {
        seen.text = box->text();
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

void ModalAnswerer::poll()
{
    QWidget *modal = QApplication::activeModalWidget();
    if (!modal || !modal->isVisible() || modal->property(answeredProperty).toBool())
        return;
    for (const QByteArray &ignored : qAsConst(m_ignored)) {
        if (modal->inherits(ignored.constData()))
            return;
    }
    modal->setProperty(answeredProperty, true);
    const Seen seen = describe(modal);
    m_seen.append(seen);

    if (m_steps.isEmpty() || !modal->inherits(m_steps.first().className.constData())) {
        const QString wanted = m_steps.isEmpty() ? QStringLiteral("nothing")
                                                 : QString::fromLatin1(m_steps.first().className);
        m_unexpected.append(QStringLiteral("%1 (wanted %2): %3 %4")
                                .arg(seen.className, wanted, seen.title, seen.text));
        rejectLater(modal);
        return;
    }
    const Step step = m_steps.takeFirst();
    step.action(modal);
}
