#include "esptoolworker.h"

#include "image/espimageparser.h"
#include "protocol/esptool.h"
#include "widgets/texthelpers.h"
#include "worker/digestingwriter.h"

#include <QFileInfo>
#include <QSaveFile>

namespace {

bool isDescriptor(const QVariant &value)
{
    return value.userType() == qMetaTypeId<IODeviceDescriptor>();
}

bool isUInt(const QVariant &value)
{
    return value.canConvert<uint>();
}

} // namespace

QString gFileDescrString(const QVariant &file)
{
    if (isDescriptor(file))
        return file.value<IODeviceDescriptor>().description;
    return file.toString();
}

ESPToolWorker::ESPToolWorker(QObject *parent) : QObject(parent), tool(new ESPTool(this))
{
    qRegisterMetaType<IODeviceDescriptor>("IODeviceDescriptor");
    connect(tool, &ESPTool::commandError, this, &ESPToolWorker::tool_cmd_error);
    connect(tool, &ESPTool::operationError, this, &ESPToolWorker::tool_op_error);
    connect(tool, &ESPTool::operationProgress, this, &ESPToolWorker::progress);
    connect(tool, &ESPTool::notice, this, &ESPToolWorker::notice);
    connect(tool, &ESPTool::connectionLost, this, &ESPToolWorker::tool_connection_lost);
}

QString ESPToolWorker::operationName(int cmd)
{
    switch (unsigned(cmd)) {
    case Connect:
        return tr("connect");
    case Disconnect:
        return tr("disconnect");
    case LoadStub:
        return tr("load stub");
    case GetInfo:
        return tr("get info");
    case WriteFirmware:
        return tr("write firmware");
    case WriteData:
        return tr("write data");
    case ReadData:
        return tr("read data");
    case EraseFlash:
        return tr("erase flash");
    case FlashMd5:
        return tr("flash md5");
    default:
        return tr("unknown");
    }
}

void ESPToolWorker::execute(int cmd, const QVariantList &params)
{
    pending.append({cmd, params});
    if (busy)
        return;
    busy = true;
    while (!pending.isEmpty()) {
        const PendingCommand next = pending.takeFirst();
        run(next.cmd, next.params);
    }
    busy = false;
}

void ESPToolWorker::run(int cmd, const QVariantList &params)
{
    switch (unsigned(cmd)) {
    case Connect:
        doConnect(params);
        return;
    case Disconnect:
        doDisconnect(params);
        return;
    case LoadStub:
        doLoadStub(params);
        return;
    case GetInfo:
        doGetInfo();
        return;
    case WriteFirmware:
        doWriteFirmware(params);
        return;
    case WriteData:
        doWriteData(params);
        return;
    case ReadData:
        doReadData(params);
        return;
    case EraseFlash:
        doEraseFlash(params);
        return;
    case FlashMd5:
        doFlashMd5(params);
        return;
    default:
        emit error(QStringLiteral("Unknown command code %1").arg(cmd));
        emit finished(false, cmd, {});
        return;
    }
}

void ESPToolWorker::report(const QString &text)
{
    ++toolReports;
    if (connecting) {
        if (connectError.isEmpty())
            connectError = text;
        return;
    }
    if (failed)
        return;
    failed = true;
    emit error(text);
}

void ESPToolWorker::tool_cmd_error(int code)
{
    report(QStringLiteral("Command failed: %1").arg(code));
}

void ESPToolWorker::tool_op_error(int code, const QString &descr)
{
    report(QStringLiteral("esptool failed: %1 (%2)").arg(descr).arg(code));
}

void ESPToolWorker::tool_connection_lost(const QString &reason)
{
    if (!busy)
        emit connectionLost(reason);
}

void ESPToolWorker::doConnect(const QVariantList &params)
{
    const bool withOptions = params.size() == 2 && params.at(1).canConvert<QVariantMap>();
    if (params.size() != 1 && !withOptions) {
        emit error(QStringLiteral("Invalid command: provide a port name for the 'connect' cmd"));
        emit finished(false, Connect, {});
        return;
    }
    const QVariantMap options = withOptions ? params.at(1).toMap() : QVariantMap();
    ESPTool::ConnectOptions connectOptions;
    connectOptions.resetBefore = options.value(QLatin1String(ResetOption), true).toBool();
    loaderBaud = options.value(QLatin1String(BaudOption), 0u).toUInt();
    tool->setSkipUnchanged(options.value(QLatin1String(SkipUnchangedOption), true).toBool());

    connecting = true;
    connectError.clear();
    const bool connected = tool->esp_connect(params.at(0).toString(), connectOptions);
    connecting = false;
    if (connected) {
        failed = false;
        // A loader that was found running takes the faster line now; "load stub" skips it.
        if (tool->isStubRunning())
            switchBaudrate();
        emit finished(!failed, Connect, {});
        return;
    }
    QString reason = connectError;
    switch (tool->connectFailure()) {
    case ESPTool::ConnectFailure::OpenFailed:
        reason = tool->openFailureText();
        break;
    case ESPTool::ConnectFailure::SyncUnanswered:
        reason += QStringLiteral(
            " - the board does not answer: check that its reset circuit (DTR/RTS) is there, or "
            "put it into boot mode by hand (GPIO0 low while it resets)");
        break;
    case ESPTool::ConnectFailure::None:
        break;
    }
    if (!reason.isEmpty()) {
        // Shown even over an earlier failure: it is news about this connection, and like any
        // tool error it stands for the later commands on it.
        failed = true;
        emit error(reason);
    }
    // Nothing may keep the port after a failed connect: another program, or the next try with
    // other settings, must be able to open it.
    tool->esp_disconnect();
    emit finished(false, Connect, {});
}

void ESPToolWorker::doDisconnect(const QVariantList &params)
{
    const QVariantMap options = params.value(0).toMap();
    if (options.value(QLatin1String(HardResetOption), false).toBool() && tool->isConnected())
        tool->hard_reset();
    tool->esp_disconnect();
    emit finished(!failed, Disconnect, {});
}

void ESPToolWorker::switchBaudrate()
{
    if (loaderBaud != 0)
        tool->switch_baudrate(loaderBaud);
}

void ESPToolWorker::doLoadStub(const QVariantList &params)
{
    if (params.size() != 1) {
        emit error(QStringLiteral("Invalid command: provide a stub file for the 'load_stub' cmd"));
        emit finished(false, LoadStub, {});
        return;
    }
    // A loader found running at connect is used as it is: it cannot be loaded again.
    if (tool->isStubRunning() && !tool->hasStubImage()) {
        emit finished(!failed, LoadStub, {});
        return;
    }
    const QVariant &stub = params.at(0);
    const bool loaded = isDescriptor(stub)
                            ? tool->write_loader_stub(stub.value<IODeviceDescriptor>().device)
                            : tool->write_loader_stub(stub.toString());
    if (loaded && !failed)
        switchBaudrate();
    emit finished(loaded && !failed, LoadStub, {});
}

void ESPToolWorker::doGetInfo()
{
    // Once the chip stops answering, every further register read would wait out its time-out
    // (over a minute for the whole identification): it ends at the first failure instead,
    // still with its five results.
    const quint64 reportsBefore = toolReports;
    const auto answering = [&] { return toolReports == reportsBefore; };
    const QString description = tool->get_chip_description();
    QString chipId;
    QString mac;
    QString flashText;
    unsigned int flashSize = 0;
    if (answering())
        chipId = hex8(tool->get_chip_id());
    if (answering())
        mac = QString::fromLatin1(tool->get_chip_mac().toHex().toUpper());
    if (answering()) {
        const ESPTool::SPIFLASH_IDENTIFIER flash = tool->get_flash_id();
        flashText = flash.toString();
        flashSize = flash.flashSizeGuess();
    }
    emit finished(!failed, GetInfo, {description, chipId, mac, flashText, flashSize});
}

bool ESPToolWorker::writeFile(const QVariant &file, bool firmware, unsigned int address,
                              unsigned char size, unsigned char mode, unsigned char freq)
{
    if (isDescriptor(file)) {
        const IODeviceDescriptor descriptor = file.value<IODeviceDescriptor>();
        return tool->write_flash_file(descriptor.device, descriptor.description, firmware, address,
                                      size, mode, freq);
    }
    return tool->write_flash_file(file.toString(), firmware, address, size, mode, freq);
}

void ESPToolWorker::doWriteFirmware(const QVariantList &params)
{
    if (params.size() != 5 || !isUInt(params.at(1))) {
        emit error(QStringLiteral(
            "Invalid command: provide a file, an integer address, and flash memory size/mode/frequency for the 'write_fw' cmd"));
        emit finished(false, WriteFirmware, {});
        return;
    }
    const QString sizeText = params.at(2).toString();
    const QString modeText = params.at(3).toString();
    const QString freqText = params.at(4).toString();
    const unsigned char size = ESPImageParser::fs_fromString(sizeText);
    const unsigned char mode = ESPImageParser::fm_fromString(modeText);
    const unsigned char freq = ESPImageParser::ff_fromString(freqText);
    if (size == 0xFF || mode == 0xFF || freq == 0xFF) {
        // A warning only: the unrecognised codes keep the image's own values.
        emit error(
            QStringLiteral(
                "Invalid parameters: flash memory size (%1), mode (%2), or frequency (%3) is invalid")
                .arg(sizeText, modeText, freqText));
    }
    writeFile(params.at(0), true, params.at(1).toUInt(), size, mode, freq);
    emit finished(!failed, WriteFirmware, {});
}

void ESPToolWorker::doWriteData(const QVariantList &params)
{
    if (params.size() != 3 || !isUInt(params.at(1))) {
        emit error(QStringLiteral(
            "Invalid command: provide a file, an integer address, and flash memory size for the 'write_data' cmd"));
        emit finished(false, WriteData, {});
        return;
    }
    const unsigned char size = ESPImageParser::fs_fromString(params.at(2).toString());
    writeFile(params.at(0), false, params.at(1).toUInt(), size, 0xFF, 0xFF);
    emit finished(!failed, WriteData, {});
}

void ESPToolWorker::doReadData(const QVariantList &params)
{
    if (params.size() != 3 || !params.at(0).canConvert<QString>() || !isUInt(params.at(1)) ||
        !isUInt(params.at(2))) {
        emit error(QStringLiteral(
            "Invalid command: provide a file, an integer address and size for the 'read_data' cmd"));
        emit finished(false, ReadData, {});
        return;
    }
    const QString path = params.at(0).toString();
    // The flash goes into a temporary file beside the target, which replaces the target only
    // once the chip's digest confirmed it: a failed read leaves a previous file as it was.
    QSaveFile file(path);
    file.setDirectWriteFallback(false);
    const QFileInfo existing(path);
    // A device or pipe would be replaced by a plain file.
    const bool special = existing.exists() && !existing.isFile();
    // Unbuffered: a write that fails says so at once, with the system's reason.
    if (special || !file.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
        emit error(
            QStringLiteral("Invalid parameters: cannot write to %1 (%2)")
                .arg(path, special ? QStringLiteral("not a regular file") : file.errorString()));
        emit finished(false, ReadData, {});
        return;
    }
    DigestingWriter received(&file);
    received.open(QIODevice::WriteOnly);
    QByteArray chipDigest;
    tool->read_flash(params.at(1).toUInt(), params.at(2).toUInt(), &received, &chipDigest);

    QString problem;
    if (!received.writeError().isEmpty())
        problem = QStringLiteral("Error reading data: cannot save %1 (%2)")
                      .arg(path, received.writeError());
    else if (chipDigest.isEmpty() || chipDigest != received.md5())
        problem = QStringLiteral("Error reading data: MD5 digest did not match the received data");
    if (!problem.isEmpty() || failed) {
        file.cancelWriting();
        if (!problem.isEmpty())
            emit error(problem);
        emit finished(false, ReadData, {});
        return;
    }
    if (!file.commit()) {
        emit error(QStringLiteral("Error reading data: cannot save %1 (%2)")
                       .arg(path, file.errorString()));
        emit finished(false, ReadData, {});
        return;
    }
    emit finished(true, ReadData, {chipDigest});
}

void ESPToolWorker::doEraseFlash(const QVariantList &params)
{
    bool whole = false;
    if (params.size() == 1) {
        bool ok = false;
        whole = params.at(0).toUInt(&ok) == wholeChipErase && ok;
    }
    if (whole) {
        tool->erase_flash();
    } else if (params.size() == 2 && isUInt(params.at(0)) && isUInt(params.at(1))) {
        tool->erase_flash_region(params.at(0).toUInt(), params.at(1).toUInt());
    } else {
        emit error(
            QStringLiteral("Invalid command: provide an address and size, or make a 911 call."));
        emit finished(false, EraseFlash, {});
        return;
    }
    emit finished(!failed, EraseFlash, {});
}

void ESPToolWorker::doFlashMd5(const QVariantList &params)
{
    if (params.size() < 2 || !isUInt(params.at(0)) || !isUInt(params.at(1))) {
        emit error(QStringLiteral("Invalid command: provide an address and size"));
        emit finished(false, FlashMd5, {});
        return;
    }
    const QByteArray digest = tool->get_flash_md5(params.at(0).toUInt(), params.at(1).toUInt());
    QVariantList results;
    if (!digest.isEmpty()) {
        results << hexlify(digest, true);
        // The optional third item tags which region the answer belongs to.
        if (params.size() > 2)
            results << params.at(2);
    }
    emit finished(!failed, FlashMd5, results);
}
