#pragma once

#include <QMessageBox>
#include <QObject>
#include <QString>
#include <QStringList>
#include <QTimer>
#include <QVector>

#include <functional>

class QWidget;

// Plays the user at the modal dialogs that the code under test opens: each step waits for the
// next modal widget, checks its class and acts on it (types a file name, presses a button...).
// Every modal is recorded; one that arrives with no step left, or of the wrong class, is
// recorded as unexpected and rejected so that a test never hangs on it.
//
// File dialogs must be Qt's own (set Qt::AA_DontUseNativeDialogs in the test).
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
    };

    explicit ModalAnswerer(QObject *parent = nullptr);

    // A step for a modal that inherits className.
    void expect(const char *className, Action action);
    // QFileDialog: chooses `path` and accepts; an empty path cancels.
    void answerFile(const QString &path);
    // QMessageBox: clicks that standard button.
    void answerBox(QMessageBox::StandardButton button);
    // QMessageBox: only recorded, left to close itself.
    void leaveBox();
    // QInputDialog: sets the text (or picks the item of that text) and accepts.
    void answerInput(const QString &text);
    void cancelInput();
    // Modals of this class are left alone and not recorded: windows that only show progress
    // and close by themselves, whether a poll catches them open or not.
    void ignore(const char *className);

    int remaining() const { return m_steps.size(); }
    const QVector<Seen> &seen() const { return m_seen; }
    QStringList unexpected() const { return m_unexpected; }
    // The last modal seen, or an empty record.
    Seen last() const { return m_seen.isEmpty() ? Seen() : m_seen.last(); }

private:
    struct Step
    {
        QByteArray className;
        Action action;
    };

    void poll();
    static Seen describe(QWidget *modal);

    QTimer m_timer;
    QVector<Step> m_steps;
    QVector<QByteArray> m_ignored;
    QVector<Seen> m_seen;
    QStringList m_unexpected;
};
