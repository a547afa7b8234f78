#include "widgets/qautoclosemessagebox.h"

#include <QDialogButtonBox>
#include <QPushButton>

QAutoCloseMessageBox::QAutoCloseMessageBox(QWidget *parent) : QMessageBox(parent)
{
    connectCountdown();
}

QAutoCloseMessageBox::QAutoCloseMessageBox(QMessageBox::Icon icon, const QString &title,
                                           const QString &text,
                                           QMessageBox::StandardButtons buttons, QWidget *parent,
                                           Qt::WindowFlags flags)
    : QMessageBox(icon, title, text, buttons, parent, flags)
{
    connectCountdown();
}

void QAutoCloseMessageBox::connectCountdown()
{
    m_timer.setInterval(kTickIntervalMs);
    m_timer.setSingleShot(false);
    connect(&m_timer, &QTimer::timeout, this, &QAutoCloseMessageBox::d_timeout);
    connect(this, &QDialog::finished, this, &QAutoCloseMessageBox::d_finished);
}

void QAutoCloseMessageBox::setTimeout(int value)
{
    if (value == m_timeout)
        return;
    m_timeout = value;
    m_remaining = value;
    emit timeoutChanged(value);
}

int QAutoCloseMessageBox::exec()
{
    timeoutHelper();
    return QMessageBox::exec();
}

void QAutoCloseMessageBox::show()
{
    timeoutHelper();
    QMessageBox::show();
}

void QAutoCloseMessageBox::timeoutHelper()
{
    if (!defaultButton())
        return;
    // The countdown suffix is always appended to the text the button had when the run began.
    m_defaultText = defaultButton()->text();
    if (m_timeout > 0) {
        m_remaining = m_timeout;
        showCountdown();
        m_timer.start();
    }
}

void QAutoCloseMessageBox::showCountdown()
{
    defaultButton()->setText(m_defaultText + QStringLiteral(" (%1)").arg(m_remaining));
}

void QAutoCloseMessageBox::d_timeout()
{
    if (m_timeout <= 0)
        return;
    const int previous = m_remaining;
    m_remaining = previous - 1;
    if (previous > 1) {
        if (defaultButton())
            showCountdown();
        return;
    }
    if (!defaultButton()) {
        m_timer.stop();
        return;
    }
    // A short animated click goes through the ordinary button path, so the box closes with
    // the default button as its answer.
    defaultButton()->animateClick(1);
}

void QAutoCloseMessageBox::d_finished(int result)
{
    Q_UNUSED(result)
    m_timer.stop();
}

QString QAutoCloseMessageBox::titleOrParentTitle(QWidget *parent, const QString &title)
{
    if (title.isEmpty() && parent)
        return parent->windowTitle();
    return title;
}

QMessageBox::StandardButton QAutoCloseMessageBox::showNewMessageBox(
    QWidget *parent, QMessageBox::Icon icon, const QString &title, const QString &text,
    StandardButtons buttons, StandardButton defaultButton, int timeout)
{
    QAutoCloseMessageBox box(icon, title, text, NoButton, parent,
                             Qt::Dialog | Qt::MSWindowsFixedSizeDialogHint);
    const QDialogButtonBox *buttonBox = box.findChild<QDialogButtonBox *>();
    for (uint bit = FirstButton; bit <= LastButton; bit <<= 1) {
        if (!(buttons & bit))
            continue;
        QPushButton *button = box.addButton(static_cast<StandardButton>(bit));
        if (box.defaultButton())
            continue;
        // Without an explicit choice the first accepting button is the one the countdown
        // presses.
        const bool isDefault =
            defaultButton == NoButton
                ? (buttonBox && buttonBox->buttonRole(button) == QDialogButtonBox::AcceptRole)
                : bit == uint(defaultButton);
        if (isDefault)
            box.setDefaultButton(button);
    }
    box.setTimeout(timeout);
    if (box.exec() == -1)
        return Cancel;
    return box.standardButton(box.clickedButton());
}

// Text first ----------------------------------------------------------------------------------

QMessageBox::StandardButton QAutoCloseMessageBox::critical(QWidget *parent, const QString &text,
                                                           int timeout, const QString &title,
                                                           StandardButtons buttons,
                                                           StandardButton defaultButton)
{
    return showNewMessageBox(parent, Critical, titleOrParentTitle(parent, title), text, buttons,
                             defaultButton, timeout);
}

QMessageBox::StandardButton QAutoCloseMessageBox::information(QWidget *parent, const QString &text,
                                                              int timeout, const QString &title,
                                                              StandardButtons buttons,
                                                              StandardButton defaultButton)
{
    return showNewMessageBox(parent, Information, titleOrParentTitle(parent, title), text, buttons,
                             defaultButton, timeout);
}

QMessageBox::StandardButton QAutoCloseMessageBox::question(QWidget *parent, const QString &text,
                                                           int timeout, const QString &title,
                                                           StandardButtons buttons,
                                                           StandardButton defaultButton)
{
    return showNewMessageBox(parent, Question, titleOrParentTitle(parent, title), text, buttons,
                             defaultButton, timeout);
}

QMessageBox::StandardButton QAutoCloseMessageBox::warning(QWidget *parent, const QString &text,
                                                          int timeout, const QString &title,
                                                          StandardButtons buttons,
                                                          StandardButton defaultButton)
{
    return showNewMessageBox(parent, Warning, titleOrParentTitle(parent, title), text, buttons,
                             defaultButton, timeout);
}

// Qt order, timeout last ----------------------------------------------------------------------

QMessageBox::StandardButton
QAutoCloseMessageBox::critical(QWidget *parent, const QString &title, const QString &text,
                               StandardButtons buttons, StandardButton defaultButton, int timeout)
{
    return showNewMessageBox(parent, Critical, title, text, buttons, defaultButton, timeout);
}

QMessageBox::StandardButton QAutoCloseMessageBox::information(QWidget *parent, const QString &title,
                                                              const QString &text,
                                                              StandardButtons buttons,
                                                              StandardButton defaultButton,
                                                              int timeout)
{
    return showNewMessageBox(parent, Information, title, text, buttons, defaultButton, timeout);
}

QMessageBox::StandardButton
QAutoCloseMessageBox::question(QWidget *parent, const QString &title, const QString &text,
                               StandardButtons buttons, StandardButton defaultButton, int timeout)
{
    return showNewMessageBox(parent, Question, title, text, buttons, defaultButton, timeout);
}

QMessageBox::StandardButton QAutoCloseMessageBox::warning(QWidget *parent, const QString &title,
                                                          const QString &text,
                                                          StandardButtons buttons,
                                                          StandardButton defaultButton, int timeout)
{
    return showNewMessageBox(parent, Warning, title, text, buttons, defaultButton, timeout);
}

// Timeout first -------------------------------------------------------------------------------

QMessageBox::StandardButton QAutoCloseMessageBox::critical(int timeout, QWidget *parent,
                                                           const QString &title,
                                                           const QString &text,
                                                           StandardButtons buttons,
                                                           StandardButton defaultButton)
{
    return showNewMessageBox(parent, Critical, title, text, buttons, defaultButton, timeout);
}

QMessageBox::StandardButton QAutoCloseMessageBox::information(int timeout, QWidget *parent,
                                                              const QString &title,
                                                              const QString &text,
                                                              StandardButtons buttons,
                                                              StandardButton defaultButton)
{
    return showNewMessageBox(parent, Information, title, text, buttons, defaultButton, timeout);
}

QMessageBox::StandardButton QAutoCloseMessageBox::question(int timeout, QWidget *parent,
                                                           const QString &title,
                                                           const QString &text,
                                                           StandardButtons buttons,
                                                           StandardButton defaultButton)
{
    return showNewMessageBox(parent, Question, title, text, buttons, defaultButton, timeout);
}

QMessageBox::StandardButton QAutoCloseMessageBox::warning(int timeout, QWidget *parent,
                                                          const QString &title, const QString &text,
                                                          StandardButtons buttons,
                                                          StandardButton defaultButton)
{
    return showNewMessageBox(parent, Warning, title, text, buttons, defaultButton, timeout);
}
