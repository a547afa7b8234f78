#pragma once

#include <QObject>
#include <QStringList>
#include <QThread>
#include <QVariantList>

class ESPToolWorker;
class QEventLoop;

// Drives an ESPToolWorker the way the flasher dialog does: the worker lives in a thread of its
// own, commands go out as queued execute() calls, and its error() and finished() signals come
// back queued. run() waits for the one finished() of a command (bounded by a guard time) and
// hands back the error messages that arrived since the previous command.
class WorkerClient : public QObject
{
    Q_OBJECT

public:
    struct Outcome
    {
        bool finished = false; // false: no finished() within the guard time
        bool result = false;
        QVariantList results;
        QStringList messages; // error() texts that arrived while the command ran
    };

    WorkerClient();
    ~WorkerClient() override;

    Outcome run(int cmd, const QVariantList &params, int guardMs);
    // Messages that arrived after the last run() (there should be none).
    QStringList lateMessages();

private:
    QThread m_thread;
    ESPToolWorker *m_worker = nullptr; // deleted in its thread when the thread finishes
    QStringList m_messages;
    QEventLoop *m_loop = nullptr; // the wait of the running command
    Outcome m_outcome;
};
