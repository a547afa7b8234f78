#pragma once

#include "worker/esptoolworker.h"

#include <QObject>
#include <QSignalSpy>
#include <QStringList>
#include <QThread>
#include <QVariantList>

#include <memory>

// Runs an ESPToolWorker in a thread of its own and drives it the way the flasher dialog does:
// commands go in only through queued execute() calls, and the worker's signals come back queued
// to this object (in the test thread), where one QSignalSpy per signal records them.
class WorkerHarness : public QObject
{
    Q_OBJECT

public:
    // What one command produced.
    struct Outcome
    {
        bool arrived = false; // finished() came within the time limit
        bool result = false;
        int cmd = -1;
        QVariantList results;
        QStringList errors; // error() texts emitted since the command was queued
    };

    WorkerHarness();
    ~WorkerHarness() override;

    // Queues a command and returns at once.
    void post(int cmd, const QVariantList &params = QVariantList());
    // Waits until `total` finished() signals have arrived altogether.
    bool waitForFinished(int total, int timeoutMs = defaultTimeoutMs);
    // Queues one command and waits for its finished().
    Outcome run(int cmd, const QVariantList &params = QVariantList(),
                int timeoutMs = defaultTimeoutMs);
    // Delivers everything the worker has emitted so far (a round trip through its thread).
    void drain();

    QSignalSpy &errorSpy() { return *m_errors; }
    QSignalSpy &progressSpy() { return *m_progress; }
    QSignalSpy &finishedSpy() { return *m_finished; }
    QStringList errorTexts(int from = 0) const;
    // Command codes of every finished() so far, in arrival order.
    QList<int> finishedCommands() const;

    static constexpr int defaultTimeoutMs = 30000;

signals:
    void error(const QString &reason);
    void progress(int total, int current);
    void finished(bool result, int cmd, const QVariantList &params);

private:
    QThread m_thread;
    ESPToolWorker *m_worker; // deleted by its thread's finished()
    std::unique_ptr<QSignalSpy> m_errors;
    std::unique_ptr<QSignalSpy> m_progress;
    std::unique_ptr<QSignalSpy> m_finished;
};
