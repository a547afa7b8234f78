#pragma once

#include <QMessageBox>
#include <QObject>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include <functional>

// Plays the user at the modal dialogs the code under test opens: each step waits for the next
// modal widget, checks its class and acts on it. Every modal is recorded; one that arrives with
// no step left, or of the wrong class, is recorded as unexpected and rejected, so that no test
// hangs on it. Progress windows, which close by themselves, and a flasher dialog run with exec()
// are left alone. File dialogs must be Qt's own (set Qt::AA_DontUseNativeDialogs).
class ModalAnswerer : public QObject
{
    Q_OBJECT

public:
    using Action = std::function<void(QWidget *modal)>;

    struct Seen
    {
        QString className;
        QString title;
        QString text;          // message box text, input dialog label
        QStringList items;     // input dialog items, file dialog name filters
        QString directory;     // file dialog start directory
        QString defaultButton; // message box default button text, as shown
        int icon = 0;          // message box icon
    };

    ModalAnswerer();

    void expect(const char *className, Action action);
    // QFileDialog: chooses `path` and accepts; an empty path cancels.
    void answerFile(const QString &path);
    // QMessageBox: clicks that standard button.
    void answerBox(QMessageBox::StandardButton button);
    // QMessageBox: recorded only, left to close itself.
    void leaveBox();
    // QInputDialog: sets the text (or picks the item of that text) and accepts.
    void answerInput(const QString &text);
    void cancelInput();

    int remaining() const { return m_steps.size(); }
    const QVector<Seen> &seen() const { return m_seen; }
    QStringList unexpected() const { return m_unexpected; }
    Seen last() const { return m_seen.isEmpty() ? Seen() : m_seen.last(); }

private:
    void poll();

    QTimer m_timer;
    QVector<QPair<QByteArray, Action>> m_steps;
    QVector<Seen> m_seen;
    QStringList m_unexpected;
};
