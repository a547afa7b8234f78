#pragma once

#include <esputility/esputility_global.h>

#include <QMessageBox>
#include <QString>
#include <QTimer>

// A message box that counts down on its default button and presses it when the count runs
// out, so that an unattended upgrade never waits for a human at a message box.
class ESPUTILITY_EXPORT QAutoCloseMessageBox : public QMessageBox
{
    Q_OBJECT
    Q_PROPERTY(int timeout READ timeout WRITE setTimeout NOTIFY timeoutChanged)

public:
    explicit QAutoCloseMessageBox(QWidget *parent = nullptr);
    QAutoCloseMessageBox(QMessageBox::Icon icon, const QString &title, const QString &text,
                         QMessageBox::StandardButtons buttons = NoButton, QWidget *parent = nullptr,
                         Qt::WindowFlags flags = Qt::Dialog | Qt::MSWindowsFixedSizeDialogHint);

    // Seconds of countdown; 0 or less means an ordinary message box.
    int timeout() const { return m_timeout; }
    void setTimeout(int value);

    // Text first: an empty title takes the parent's window title.
    static StandardButton critical(QWidget *parent, const QString &text, int timeout,
                                   const QString &title = QString(), StandardButtons buttons = Ok,
                                   StandardButton defaultButton = NoButton);
    static StandardButton information(QWidget *parent, const QString &text, int timeout,
                                      const QString &title = QString(),
                                      StandardButtons buttons = Ok,
                                      StandardButton defaultButton = NoButton);
    static StandardButton question(QWidget *parent, const QString &text, int timeout,
                                   const QString &title = QString(),
                                   StandardButtons buttons = StandardButtons(Yes | No),
                                   StandardButton defaultButton = NoButton);
    static StandardButton warning(QWidget *parent, const QString &text, int timeout,
                                  const QString &title = QString(), StandardButtons buttons = Ok,
                                  StandardButton defaultButton = NoButton);

    // The argument order of QMessageBox, with the timeout appended.
    static StandardButton critical(QWidget *parent, const QString &title, const QString &text,
                                   StandardButtons buttons, StandardButton defaultButton,
                                   int timeout);
    static StandardButton information(QWidget *parent, const QString &title, const QString &text,
                                      StandardButtons buttons, StandardButton defaultButton,
                                      int timeout);
    static StandardButton question(QWidget *parent, const QString &title, const QString &text,
                                   StandardButtons buttons, StandardButton defaultButton,
                                   int timeout);
    static StandardButton warning(QWidget *parent, const QString &title, const QString &text,
                                  StandardButtons buttons, StandardButton defaultButton,
                                  int timeout);

    // The timeout in front of the argument order of QMessageBox.
    static StandardButton critical(int timeout, QWidget *parent, const QString &title,
                                   const QString &text, StandardButtons buttons = Ok,
                                   StandardButton defaultButton = NoButton);
    static StandardButton information(int timeout, QWidget *parent, const QString &title,
                                      const QString &text, StandardButtons buttons = Ok,
                                      StandardButton defaultButton = NoButton);
    static StandardButton question(int timeout, QWidget *parent, const QString &title,
                                   const QString &text,
                                   StandardButtons buttons = StandardButtons(Yes | No),
                                   StandardButton defaultButton = NoButton);
    static StandardButton warning(int timeout, QWidget *parent, const QString &title,
                                  const QString &text, StandardButtons buttons = Ok,
                                  StandardButton defaultButton = NoButton);

    // Builds a box on the stack, picks its default button, counts down and runs it modally.
    static StandardButton showNewMessageBox(QWidget *parent, QMessageBox::Icon icon,
                                            const QString &title, const QString &text,
                                            StandardButtons buttons, StandardButton defaultButton,
                                            int timeout);

signals:
    void timeoutChanged(int value);

public slots:
    int exec() override;
    void show();

private slots:
    void d_timeout();
    void d_finished(int result);

private:
    void connectCountdown();
    void timeoutHelper();
    void showCountdown();
    static QString titleOrParentTitle(QWidget *parent, const QString &title);

    static constexpr int kTickIntervalMs = 1000; // one countdown step, in milliseconds

    QTimer m_timer{this};
    int m_timeout = 0;
    int m_remaining = 0;
    QString m_defaultText;
};
