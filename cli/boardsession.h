#pragma once

#include "cli/boardcontext.h"
#include "cli/boardoperation.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QThread>
#include <QVariant>
#include <QVariantList>

#include <memory>
#include <vector>

class CliConsole;
class ESPToolWorker;
class QIODevice;
class ScatterInput;

// One board: its own worker in its own thread, driven like the dialog drives it, one queued
// command at a time, each started by the previous one's finished(). The chain is
// connect -> load stub (when an operation needs it) -> get info -> the operations -> disconnect;
// the loader runs before identification so that nothing races the ROM loader's last answer.
class BoardSession : public QObject, public BoardContext
{
    Q_OBJECT

public:
    // How the board is reached and left.
    struct LineOptions
    {
        bool resetBefore = true;
        bool resetAfter = true;
        unsigned int baud = 0; // once the loader runs; 0 stays at the connection rate
        bool skipUnchanged = true;
    };

    BoardSession(const QString &port, CliConsole &console, QObject *parent = nullptr);
    void setLineOptions(const LineOptions &options) { m_lineOptions = options; }
    ~BoardSession() override;

    // The flash loader: a file, or the loader inside a scatter input (a package entry).
    void setLoaderFile(const QString &path);
    void setLoaderInput(ScatterInput *input);
    void addOperation(std::unique_ptr<BoardOperation> operation);

    void start();
    bool isDone() const { return m_state == State::Done; }
    bool succeeded() const { return m_state == State::Done && m_failure.isEmpty(); }
    // Why the board failed (the first error); empty on success.
    QString failure() const { return m_failure; }
    QString summary() const { return m_notes.join(QStringLiteral("; ")); }

    QString port() const override { return m_port; }
    QString chipDescription() const override { return m_chipDescription; }
    QString mac() const override { return m_mac; }
    QString flashId() const override { return m_flashId; }
    unsigned int detectedFlashSize() const override { return m_detectedFlashSize; }
    void log(FlashPlan::Tone tone, const QString &text) override;
    void note(const QString &text) override;

signals:
    void done();

private slots:
    void workerError(const QString &reason);
    void workerProgress(int total, int current);
    void workerNotice(const QString &text);
    void workerFinished(bool result, int command, const QVariantList &results);

private:
    enum class State { Idle, Connecting, LoadingStub, Identifying, Operating, Disconnecting, Done };

    bool needsLoader() const;
    void queue(const FlashPlan::Command &command);
    void loadStub();
    void identified(const QVariantList &results);
    void runNext();
    void fail(const QString &reason);
    void disconnectBoard();

    QString m_port;
    CliConsole &m_console;
    LineOptions m_lineOptions;
    QThread m_thread;
    ESPToolWorker *m_worker = nullptr; // lives in m_thread, deleted when it finishes
    State m_state = State::Idle;

    QString m_loaderFile;
    ScatterInput *m_loaderInput = nullptr;
    std::unique_ptr<QIODevice> m_loaderEntry;

    std::vector<std::unique_ptr<BoardOperation>> m_operations;
    size_t m_current = 0;
    bool m_operationStarted = false;
    int m_runningCommand = -1;

    QString m_chipDescription;
    QString m_mac;
    QString m_flashId;
    unsigned int m_detectedFlashSize = 0;
    QString m_firstWorkerError;
    QString m_lastErrorLine;
    QString m_failure;
    QStringList m_notes;
};
