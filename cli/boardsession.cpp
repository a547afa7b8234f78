#include "cli/boardsession.h"

#include "cli/cliconsole.h"
#include "cli/scatterinput.h"
#include "worker/esptoolworker.h"

#include <QIODevice>

#include <algorithm>

BoardSession::BoardSession(const QString &port, CliConsole &console, QObject *parent)
    : QObject(parent), m_port(port), m_console(console)
{
    // Owned by the thread: deleted when it finishes, in the thread it lives in.
    m_worker = new ESPToolWorker;
    m_worker->moveToThread(&m_thread);
    connect(&m_thread, &QThread::finished, m_worker, &QObject::deleteLater);
    connect(m_worker, &ESPToolWorker::error, this, &BoardSession::workerError);
    connect(m_worker, &ESPToolWorker::progress, this, &BoardSession::workerProgress);
    connect(m_worker, &ESPToolWorker::notice, this, &BoardSession::workerNotice);
    connect(m_worker, &ESPToolWorker::finished, this, &BoardSession::workerFinished);
    m_thread.start();
}

BoardSession::~BoardSession()
{
    m_thread.quit();
    m_thread.wait();
}

void BoardSession::setLoaderFile(const QString &path)
{
    m_loaderFile = path;
    m_loaderInput = nullptr;
}

void BoardSession::setLoaderInput(ScatterInput *input)
{
    m_loaderInput = input;
    m_loaderFile.clear();
}

void BoardSession::addOperation(std::unique_ptr<BoardOperation> operation)
{
    m_operations.push_back(std::move(operation));
}

bool BoardSession::needsLoader() const
{
    const bool haveLoader = m_loaderInput || !m_loaderFile.isEmpty();
    return haveLoader &&
           std::any_of(m_operations.cbegin(), m_operations.cend(),
                       [](const auto &operation) { return operation->needsLoader(); });
}

void BoardSession::log(FlashPlan::Tone tone, const QString &text)
{
    if (tone == FlashPlan::Tone::Error)
        m_lastErrorLine = text;
    m_console.boardLine(m_port, tone, text);
}

void BoardSession::note(const QString &text)
{
    m_notes << text;
}

void BoardSession::start()
{
    m_state = State::Connecting;
    FlashPlan::Command connect;
    connect.command = ESPToolWorker::Connect;
    QVariantMap options;
    options.insert(QLatin1String(ESPToolWorker::ResetOption), m_lineOptions.resetBefore);
    options.insert(QLatin1String(ESPToolWorker::BaudOption), m_lineOptions.baud);
    options.insert(QLatin1String(ESPToolWorker::SkipUnchangedOption), m_lineOptions.skipUnchanged);
    connect.params << m_port << options;
    queue(connect);
}

void BoardSession::queue(const FlashPlan::Command &command)
{
    if (!command.announcement.isEmpty())
        log(FlashPlan::Tone::Success, command.announcement);
    m_runningCommand = command.command;
    m_firstWorkerError.clear();
    // Queued: the worker lives in its own thread and runs one command after another.
    QMetaObject::invokeMethod(m_worker, "execute", Qt::QueuedConnection,
                              Q_ARG(int, command.command), Q_ARG(QVariantList, command.params));
}

void BoardSession::workerError(const QString &reason)
{
    if (m_firstWorkerError.isEmpty())
        m_firstWorkerError = reason;
    m_console.boardLine(m_port, FlashPlan::Tone::Error, FlashPlan::workerErrorMessage(reason));
}

void BoardSession::workerProgress(int total, int current)
{
    m_console.progress(m_port, ESPToolWorker::operationName(m_runningCommand), total, current);
}

void BoardSession::workerNotice(const QString &text)
{
    m_console.boardLine(m_port, FlashPlan::Tone::Notice, text);
}

void BoardSession::workerFinished(bool result, int command, const QVariantList &results)
{
    m_console.endProgress(m_port);
    if (m_state == State::Disconnecting) {
        // After a failure the worker reports every command as failed; the port is closed anyway.
        if (result)
            log(FlashPlan::Tone::Success, FlashPlan::finishedMessage(command, m_port));
        m_state = State::Done;
        emit done();
        return;
    }
    if (!result) {
        log(FlashPlan::Tone::Error, FlashPlan::failedOperationMessage(command));
        const QString reason = m_firstWorkerError.isEmpty()
                                   ? FlashPlan::failedOperationMessage(command)
                                   : QStringLiteral("%1: %2").arg(
                                         ESPToolWorker::operationName(command), m_firstWorkerError);
        fail(reason);
        return;
    }
    const QString message = FlashPlan::finishedMessage(command, m_port);
    if (!message.isEmpty())
        log(FlashPlan::Tone::Success, message);

    switch (m_state) {
    case State::Connecting:
        if (needsLoader()) {
            loadStub();
            return;
        }
        m_state = State::Identifying;
        queue(FlashPlan::Command{ESPToolWorker::GetInfo, {}, QString()});
        return;
    case State::LoadingStub:
        m_loaderEntry.reset();
        m_state = State::Identifying;
        queue(FlashPlan::Command{ESPToolWorker::GetInfo, {}, QString()});
        return;
    case State::Identifying:
        identified(results);
        return;
    case State::Operating:
        if (!m_operations.at(m_current)->handle(*this, command, results)) {
            fail(m_lastErrorLine.isEmpty() ? m_firstWorkerError : m_lastErrorLine);
            return;
        }
        runNext();
        return;
    case State::Idle:
    case State::Disconnecting:
    case State::Done:
        return;
    }
}

void BoardSession::loadStub()
{
    QVariant stub = m_loaderFile;
    if (m_loaderInput) {
        QString error;
        if (!m_loaderInput->loaderParameter(&stub, &m_loaderEntry, &error)) {
            log(FlashPlan::Tone::Error, error);
            fail(error);
            return;
        }
    }
    m_state = State::LoadingStub;
    queue(FlashPlan::loadStubCommand(stub));
}

void BoardSession::identified(const QVariantList &results)
{
    m_chipDescription = FlashPlan::chipDescription(results);
    if (m_chipDescription.isEmpty()) {
        log(FlashPlan::Tone::Notice, FlashPlan::unidentifiedChipMessage());
        fail(FlashPlan::unidentifiedChipMessage());
        return;
    }
    m_mac = results.at(2).toString();
    m_flashId = results.at(3).toString();
    m_detectedFlashSize = results.at(4).toUInt();
    m_state = State::Operating;
    m_current = 0;
    m_operationStarted = false;
    runNext();
}

void BoardSession::runNext()
{
    while (m_current < m_operations.size()) {
        BoardOperation &operation = *m_operations.at(m_current);
        if (!m_operationStarted) {
            m_operationStarted = true;
            if (!operation.begin(*this)) {
                fail(m_lastErrorLine);
                return;
            }
        }
        FlashPlan::Command command;
        switch (operation.next(*this, &command)) {
        case BoardOperation::Step::Command:
            queue(command);
            return;
        case BoardOperation::Step::Done:
            ++m_current;
            m_operationStarted = false;
            continue;
        case BoardOperation::Step::Failed:
            fail(m_lastErrorLine);
            return;
        }
    }
    disconnectBoard();
}

void BoardSession::fail(const QString &reason)
{
    if (m_failure.isEmpty())
        m_failure = reason.isEmpty() ? QStringLiteral("failed") : reason;
    disconnectBoard();
}

void BoardSession::disconnectBoard()
{
    // A board whose job failed stays in its loader, ready for another try.
    const bool hardReset = m_lineOptions.resetAfter && m_failure.isEmpty();
    QVariantMap options;
    options.insert(QLatin1String(ESPToolWorker::HardResetOption), hardReset);
    m_state = State::Disconnecting;
    queue(FlashPlan::Command{ESPToolWorker::Disconnect, {options}, QString()});
}
