#pragma once

#include "flasher/espflasher.h"
#include "serial/qcomport.h"

#include <QtTest>
#include <QtWidgets>

#include <functional>
#include <memory>

// Plays the user at modal dialogs: each step acts on the next modal of its class. Any other is
// recorded as unexpected and closed, so that no test hangs. Progress windows and an exec()'d
// flasher dialog are left alone.
class ModalAnswerer : public QObject
{
public:
    struct Seen
    {
        QString className;
        // Title, text or label, items or name filters, start folder; the empty ones left out.
        QString text;
        QString defaultButton; // as shown
        int icon = 0;
    };

    ModalAnswerer()
    {
        connect(&timer, &QTimer::timeout, this, &ModalAnswerer::poll);
        timer.start(10);
    }
    void expect(const char *className, std::function<void(QWidget *)> action)
    {
        steps.append({className, std::move(action)});
    }
    void answerFile(const QString &path); // an empty path cancels
    void answerBox(QMessageBox::StandardButton button);
    void leaveBox() { expect("QMessageBox", nullptr); } // left to close itself
    void answerInput(const QString &text);              // a null text cancels
    Seen last() const { return seen.value(seen.size() - 1); }
    QStringList texts(int from = 0) const // of the modals seen from `from` on
    {
        QStringList texts;
        for (const Seen &modal : seen.mid(from))
            texts << modal.text;
        return texts;
    }

    QVector<Seen> seen;
    QVector<QPair<QByteArray, std::function<void(QWidget *)>>> steps; // still to come
    QStringList unexpected;

private:
    void poll();

    QTimer timer;
};

namespace FlasherTestKit {

constexpr const char *green = "#00b138";
constexpr const char *amber = "#ad6f04";
constexpr const char *red = "#d4280a";
// Longest wait for one worker step, in milliseconds; only a fault lets it run out.
constexpr int workerStepTimeoutMs = 20000;

template <class T>
T *child(QWidget *parent, const char *name)
{
    return parent->findChild<T *>(QLatin1String(name));
}

inline QString line(const char *colour, const QString &text)
{
    return QLatin1String(colour) + '|' + text;
}
// A "get info" result: ESP8266EX, chip id 00a1b2c3, a MAC, a flash id text, 4 MB of flash.
inline QVariantList chipInfo()
{
    return {"ESP8266EX", "00a1b2c3", "18FE34A1B2C3", "Test flash (0xef:0x4016) 4Mb", 0x400000u};
}
// A scatter section; an empty md5 leaves the key out, an empty mode the flash options.
QJsonObject section(const QString &type, const QString &address, const QString &file,
                    const QString &md5, const QString &mode = QString(),
                    const QString &size = "4MB", const QString &frequency = "40m");
// Enters one region into the scatter composer as a user would, then clicks `button`.
void fillRegion(QWidget *wizard, int type, const QString &start, bool sizeMode,
                const QString &endOrSize, const QString &file, const char *button);

} // namespace FlasherTestKit

// Settings of their own, a fresh folder and answerer per test, the extra ports restored after it.
class FlasherTest : public QObject
{
    Q_OBJECT

protected slots: // not tests: QTest runs private slots only
    void initTestCase();
    void init();
    void cleanup();

protected:
    QString path(const QString &name) const { return QDir(dir->path()).absoluteFilePath(name); }
    template <class T = QWidget>
    T *find(const char *name) const
    {
        return FlasherTestKit::child<T>(flasher.get(), name);
    }
    bool enabled(const char *name) const { return find(name)->isEnabled(); }
    QLineEdit *edit(const char *name) const { return find<QLineEdit>(name); }
    // The log paragraphs from `from` on as "colour|text", the progress dots at their ends removed.
    QStringList log(int from = 0) const;
    // Processes events until the log holds `line` at index `from` or later.
    bool waitForLog(const QString &line, int from = 0) const
    {
        return QTest::qWaitFor([&] { return log(from).contains(line); },
                               FlasherTestKit::workerStepTimeoutMs);
    }
    // Calls a slot of the dialog directly, as a click or the worker's queued signal does.
    bool invoke(const char *slot) const { return QMetaObject::invokeMethod(flasher.get(), slot); }
    bool selectScatter() const; // the scatter chooser's result
    bool deliverFinished(bool result, int command, const QVariantList &results = {}) const;

    const QByteArray savedPorts = qgetenv(QComPort::extraPortsVariable);
    QTemporaryDir settingsDir;
    std::unique_ptr<QTemporaryDir> dir;
    std::unique_ptr<ModalAnswerer> answerer;
    std::unique_ptr<ESPFlasher> flasher;
};
