#include "workerharness.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

WorkerHarness::WorkerHarness() : m_worker(new ESPToolWorker)
{
    m_worker->moveToThread(&m_thread);
    connect(&m_thread, &QThread::finished, m_worker, &QObject::deleteLater);
    // Signal-to-signal connections across threads: queued, as the dialog receives them.
    connect(m_worker, &ESPToolWorker::error, this, &WorkerHarness::error);
    connect(m_worker, &ESPToolWorker::progress, this, &WorkerHarness::progress);
    connect(m_worker, &ESPToolWorker::finished, this, &WorkerHarness::finished);
    m_errors = std::make_unique<QSignalSpy>(this, &WorkerHarness::error);
    m_progress = std::make_unique<QSignalSpy>(this, &WorkerHarness::progress);
    m_finished = std::make_unique<QSignalSpy>(this, &WorkerHarness::finished);
    m_thread.start();
}

WorkerHarness::~WorkerHarness()
{
    m_thread.quit();
    m_thread.wait();
}

void WorkerHarness::post(int cmd, const QVariantList &params)
{
    QMetaObject::invokeMethod(m_worker, "execute", Qt::QueuedConnection, Q_ARG(int, cmd),
                              Q_ARG(QVariantList, params));
}

bool WorkerHarness::waitForFinished(int total, int timeoutMs)
{
    QDeadlineTimer deadline(timeoutMs);
    while (m_finished->count() < total) {
        const qint64 left = deadline.remainingTime();
        if (left <= 0 || !m_finished->wait(int(left)))
            return m_finished->count() >= total;
    }
    return true;
}

WorkerHarness::Outcome WorkerHarness::run(int cmd, const QVariantList &params, int timeoutMs)
{
    const int errorsBefore = m_errors->count();
    const int finishedBefore = m_finished->count();
    post(cmd, params);
    Outcome outcome;
    outcome.arrived = waitForFinished(finishedBefore + 1, timeoutMs);
    if (!outcome.arrived)
        return outcome;
    const QList<QVariant> &call = m_finished->at(finishedBefore);
    outcome.result = call.at(0).toBool();
    outcome.cmd = call.at(1).toInt();
    outcome.results = call.at(2).toList();
    outcome.errors = errorTexts(errorsBefore);
    return outcome;
}

void WorkerHarness::drain()
{
    // Whatever the worker emitted before this call is queued to us by the time it returns.
    QMetaObject::invokeMethod(
        m_worker, [] {}, Qt::BlockingQueuedConnection);
    QCoreApplication::processEvents();
}

QStringList WorkerHarness::errorTexts(int from) const
{
    QStringList texts;
    for (int i = from; i < m_errors->count(); ++i)
        texts << m_errors->at(i).at(0).toString();
    return texts;
}

QList<int> WorkerHarness::finishedCommands() const
{
    QList<int> commands;
    for (const QList<QVariant> &call : *m_finished)
        commands << call.at(1).toInt();
    return commands;
}
