#pragma once

#include <esputility/esputility_core_global.h>

#include <QList>
#include <QObject>
#include <QString>
#include <QVariant>
#include <QVariantList>

class ESPTool;
class QIODevice;

// An already open device (a package entry copied into memory, a buffer) handed to the worker
// instead of a file path. The device is not owned: the caller keeps it alive until the command's
// finished() arrives and does not touch it meanwhile.
struct ESPUTILITY_CORE_EXPORT IODeviceDescriptor
{
    QIODevice *device = nullptr;
    QString description; // the name used in messages
};
Q_DECLARE_METATYPE(IODeviceDescriptor)

// Display name of a "file" parameter: a descriptor's description, or the path itself.
ESPUTILITY_CORE_EXPORT QString gFileDescrString(const QVariant &file);

// Runs one boot-loader operation at a time in the thread it lives in. Every execute() is
// answered by exactly one finished(). The first tool error after a successful connect becomes
// one error() text; later commands fail without a new text until the next successful connect.
class ESPUTILITY_CORE_EXPORT ESPToolWorker : public QObject
{
    Q_OBJECT

public:
    enum Command {
        Connect = 0,
        Disconnect = 1,
        LoadStub = 2,
        GetInfo = 3,
        WriteFirmware = 4,
        WriteData = 5,
        ReadData = 6,
        EraseFlash = 7,
        FlashMd5 = 8,
    };
    // The single parameter of "erase flash" that asks for the whole chip.
    static constexpr unsigned int wholeChipErase = 0x911;

    // Keys of the optional QVariantMap that "connect" takes after the port name.
    static constexpr const char *ResetOption = "reset"; // bool, default true: DTR/RTS reset
    // uint, default 0 (none): the line rate once the flash loader runs
    static constexpr const char *BaudOption = "baud";
    // bool, default true: writes leave unchanged 64 KiB blocks alone
    static constexpr const char *SkipUnchangedOption = "skipUnchanged";
    // Key of the optional QVariantMap that "disconnect" takes: bool, default false, reset the
    // board first so that its firmware runs.
    static constexpr const char *HardResetOption = "hardReset";

    explicit ESPToolWorker(QObject *parent = nullptr);

    static QString operationName(int cmd);

signals:
    void error(const QString &reason);
    void progress(int total, int current);
    void finished(bool result, int cmd, const QVariantList &params);
    // News for the log that is no failure (a reset skipped, a baud fallback, unchanged blocks).
    void notice(const QString &text);
    // The port went away while no command ran (a command it breaks reports that itself).
    void connectionLost(const QString &reason);

public slots:
    void execute(int cmd, const QVariantList &params);

private slots:
    void tool_cmd_error(int code);
    void tool_op_error(int code, const QString &descr);
    void tool_connection_lost(const QString &reason);

private:
    struct PendingCommand
    {
        int cmd;
        QVariantList params;
    };

    void run(int cmd, const QVariantList &params);
    void report(const QString &text);
    void doConnect(const QVariantList &params);
    void doDisconnect(const QVariantList &params);
    void switchBaudrate();
    void doLoadStub(const QVariantList &params);
    void doGetInfo();
    void doWriteFirmware(const QVariantList &params);
    void doWriteData(const QVariantList &params);
    void doReadData(const QVariantList &params);
    void doEraseFlash(const QVariantList &params);
    void doFlashMd5(const QVariantList &params);
    bool writeFile(const QVariant &file, bool firmware, unsigned int address, unsigned char size,
                   unsigned char mode, unsigned char freq);

    ESPTool *tool;
    bool failed = false;
    // Protocol waits run nested event loops, which deliver further queued commands; those wait
    // here so that commands still run one after another, in order.
    QList<PendingCommand> pending;
    bool busy = false;
    // Errors raised while connecting: synchronisation retries are normal, so they are shown only
    // when the connect fails.
    bool connecting = false;
    // Every tool error, shown or not: long operations stop at the first new one.
    quint64 toolReports = 0;
    QString connectError;
    // The rate asked for with "connect", applied once the loader runs (0: stay).
    unsigned int loaderBaud = 0;
};
