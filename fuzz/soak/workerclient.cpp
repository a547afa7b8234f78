#include "workerclient.h"

#include "worker/esptoolworker.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

WorkerClient::WorkerClient()
{
    // Like the dialog: created without a parent, moved to the thread, deleted when it ends.
    m_worker = new ESPToolWorker;
    m_worker->moveToThread(&m_thread);
    connect(&m_thread, &QThread::finished, m_worker, &QObject::deleteLater);
    connect(m_worker, &ESPToolWorker::error, this,
            [this](const QString &reason) { m_messages.append(reason); });
    connect(m_worker, &ESPToolWorker::finished, this,
            [this](bool result, int, const QVariantList &params) {
                m_outcome.finished = true;
                m_outcome.result = result;
                m_outcome.results = params;
                if (m_loop)
                    m_loop->quit();
            });
    m_thread.start();
}

WorkerClient::~WorkerClient()
{
    m_thread.quit();
    m_thread.wait();
}

WorkerClient::Outcome WorkerClient::run(int cmd, const QVariantList &params, int guardMs)
{
    m_messages.clear();
    m_outcome = Outcome();
    QEventLoop loop;
    QTimer guard;
    guard.setSingleShot(true);
    connect(&guard, &QTimer::timeout, &loop, &QEventLoop::quit);
    // The answer may be emitted before this thread gets to wait; it is queued, so it is only
    // taken inside exec() below, where it ends the wait.
    m_loop = &loop;
    QMetaObject::invokeMethod(m_worker, "execute", Qt::QueuedConnection, Q_ARG(int, cmd),
                              Q_ARG(QVariantList, params));
    guard.start(guardMs);
    loop.exec();
    m_loop = nullptr;
    Outcome outcome = m_outcome;
    outcome.messages = m_messages;
    m_messages.clear();
    return outcome;
}

QStringList WorkerClient::lateMessages()
{
    QCoreApplication::processEvents();
    const QStringList late = m_messages;
    m_messages.clear();
    return late;
}
