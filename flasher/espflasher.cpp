#include "flasher/espflasher.h"

#include "flasher/esppackage.h"
#include "flasher/esppackagewriter.h"
#include "flasher/flashregion.h"
#include "flasher/scatterloader.h"
#include "flasher/scattervalidator.h"
#include "flasher/scatterwriter.h"
#include "image/espimageparser.h"
#include "protocol/esptool.h"
#include "serial/qcomport.h"
#include "widgets/flashtypeselector.h"
#include "widgets/qautoclosemessagebox.h"
#include "widgets/textbrowserscroll.h"
#include "widgets/texthelpers.h"
#include "wizard/espscatterwizard.h"
#include "worker/esptoolworker.h"

#include "ui_espflasher.h"

#include <QAbstractItemView>
#include <QAction>
#include <QCoreApplication>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QHash>
#include <QInputDialog>
#include <QMenu>
#include <QMessageBox>
#include <QProgressDialog>
#include <QSet>
#include <QSettings>
#include <QTemporaryFile>
#include <QTextCursor>
#include <QTimer>

#include <cmath>
#include <limits>

namespace {

// Scatter table columns.
enum Column { ActiveColumn = 0, TypeColumn = 1, StartColumn = 2, EndColumn = 3, SourceColumn = 4 };

// Data roles on the "Type" item of a row.
constexpr int flashModeRole = Qt::UserRole + 2;
constexpr int flashSizeRole = Qt::UserRole + 3;
constexpr int flashFrequencyRole = Qt::UserRole + 4;
constexpr int md5Role = Qt::UserRole + 6;
constexpr int kindRole = Qt::UserRole + 7;

// Last directory of scatter files, packages and loaders.
const char *const scatterDirKey = "Scatter/Dir";
// The connection group's settings: the line rate once the flash loader runs, the reset into the
// boot loader before connecting (and into the new firmware after an upgrade), and writes that
// leave unchanged 64 KiB blocks alone.
const char *const baudKey = "COM/Baud";
const char *const resetBeforeConnectKey = "COM/ResetBeforeConnect";
const char *const skipUnchangedKey = "Flash/SkipUnchanged";
// The baud combo's choice when none was saved: the rate every connection starts at.
const char *const defaultBaudText = "115200";

// Port list item data: the device path is the item's own data; this role holds the name the
// port enumeration gives (ttyUSB0), which hosts use in guess() and autoconnect().
constexpr int portNameRole = Qt::UserRole + 1;

// The loader erases whole 4 KiB sectors, so an image placed inside one would take the bytes
// before it along.
constexpr quint32 flashSectorBytes = 0x1000;

// Seconds a missing-checksum question waits before it counts as No.
constexpr int checksumQuestionTimeoutSeconds = 10;
// Seconds the end-of-operation box of the upgrade mode stays open after success / failure.
constexpr int successBoxTimeoutSeconds = 5;
constexpr int failureBoxTimeoutSeconds = 10;
// Milliseconds between that box closing and the tool closing.
constexpr int closeDelayMs = 200;

const char *colourTag(int colour)
{
    static const char *const tags[] = {
        "<font color=\"#00b138\">", // success, progress
        "<font color=\"#ad6f04\">", // notices, skips, worker errors
        "<font color=\"#d4280a\">", // errors
    };
    return tags[colour];
}

// Scatter files are saved as ".txt" unless the name already says so, in any letter case.
QString withTxtSuffix(const QString &path)
{
    if (path.endsWith(QLatin1String(".txt"), Qt::CaseInsensitive))
        return path;
    return path + QLatin1String(".txt");
}

QTableWidgetItem *textItem(const QString &text)
{
    auto *item = new QTableWidgetItem(text);
    item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable);
    return item;
}

// The first text that the firmware write turns back into `code`; empty when none does.
QString textForCode(unsigned char code, const QStringList &candidates,
                    unsigned char (*fromString)(const QString &))
{
    for (const QString &text : candidates) {
        if (fromString(text) == code)
            return text;
    }
    return QString();
}

// Takes texts for the image's own flash options into the row, such that writing it as firmware
// leaves its header as it is. False when an option has no such text (80 MHz, for one).
bool takeOwnFlashOptions(const ESPImageParser &image, ScatterSection *row)
{
    row->flashMode =
        textForCode(image.flash_mode_int(), {image.getFlashMode()}, &ESPImageParser::fm_fromString);
    row->flashSize = textForCode(image.flash_size_int(),
                                 {image.getFlashSize(), QStringLiteral("8MB"),
                                  QStringLiteral("16MB"), QStringLiteral("32m-c2")},
                                 &ESPImageParser::fs_fromString);
    row->flashFrequency = textForCode(image.flash_frequency_int(), {image.getFlashFrequency()},
                                      &ESPImageParser::ff_fromString);
    return !row->flashMode.isEmpty() && !row->flashSize.isEmpty() && !row->flashFrequency.isEmpty();
}

} // namespace

ESPFlasher::ESPFlasher(RUN_MODE mode, QWidget *parent)
    : QDialog(parent), ui(std::make_unique<Ui_ESPFlasher>()), runMode(mode)
{
    ui->setupUi(this);
    restoreSettings();
    ui->progressBar->setRange(0, 100);
    ui->progressBar->setValue(0);
    ui->infoGroup->setEnabled(false);
    ui->loaderGroup->setEnabled(false);
    // A click on the "Active" header gives every row the header's state: checked.
    if (QTableWidgetItem *activeHeader = ui->scatterTable->horizontalHeaderItem(ActiveColumn))
        activeHeader->setCheckState(Qt::Checked);
    connect(ui->scatterTable->horizontalHeader(), &QHeaderView::sectionClicked, this,
            &ESPFlasher::scatterTableHeaderClickHandler);
    ui->scatterTable->resizeColumnsToContents();

    // Owned by its thread: deleted through finished() -> deleteLater() as the thread ends.
    worker = new ESPToolWorker;
    worker->moveToThread(&workerThread);
    connect(&workerThread, &QThread::finished, worker, &QObject::deleteLater);
    connect(worker, &ESPToolWorker::error, this, &ESPFlasher::worker_error);
    connect(worker, &ESPToolWorker::progress, this, &ESPFlasher::worker_progress);
    connect(worker, &ESPToolWorker::finished, this, &ESPFlasher::worker_finished);
    connect(worker, &ESPToolWorker::notice, this, &ESPFlasher::worker_notice);
    connect(worker, &ESPToolWorker::connectionLost, this, &ESPFlasher::worker_connectionLost);
    workerThread.start(QThread::InheritPriority);

    // The port list shows the details of the chosen port in its own tool tip too.
    connect(ui->comPortCombo, QOverload<int>::of(&QComboBox::currentIndexChanged), this, [this] {
        ui->comPortCombo->setToolTip(ui->comPortCombo->currentData(Qt::ToolTipRole).toString());
    });
    QMetaObject::invokeMethod(this, "on_comPortScanTool_clicked", Qt::DirectConnection);
    connectSettingsPersistence();
}

ESPFlasher::~ESPFlasher()
{
    // The worker may still read a package entry: stop it before the package goes away.
    workerThread.quit();
    workerThread.wait();
    close_pack();
    ui.reset();
}

void ESPFlasher::restoreSettings()
{
    const QSettings settings;
    const int baud = ui->baudRateCombo->findText(settings.value(QLatin1String(baudKey)).toString());
    ui->baudRateCombo->setCurrentIndex(
        baud >= 0 ? baud : ui->baudRateCombo->findText(QLatin1String(defaultBaudText)));
    ui->resetBeforeConnectCheck->setChecked(
        settings.value(QLatin1String(resetBeforeConnectKey), true).toBool());
    ui->skipUnchangedCheck->setChecked(
        settings.value(QLatin1String(skipUnchangedKey), true).toBool());
}

void ESPFlasher::connectSettingsPersistence()
{
    connect(ui->baudRateCombo, &QComboBox::currentTextChanged, this, [](const QString &text) {
        QSettings().setValue(QLatin1String(baudKey), text.toUInt());
    });
    connect(ui->resetBeforeConnectCheck, &QCheckBox::toggled, this,
            [](bool on) { QSettings().setValue(QLatin1String(resetBeforeConnectKey), on); });
    connect(ui->skipUnchangedCheck, &QCheckBox::toggled, this,
            [](bool on) { QSettings().setValue(QLatin1String(skipUnchangedKey), on); });
}

void ESPFlasher::log(LogColour colour, const QString &text)
{
    ui->logBrowser->append(QLatin1String(colourTag(int(colour))) + text + QLatin1String("</font>"));
    textBrowserScroll(ui->logBrowser);
}

void ESPFlasher::log(const FlashPlan::Line &line)
{
    switch (line.tone) {
    case FlashPlan::Tone::Success:
        log(LogColour::Success, line.text);
        break;
    case FlashPlan::Tone::Notice:
        log(LogColour::Notice, line.text);
        break;
    case FlashPlan::Tone::Error:
        log(LogColour::Error, line.text);
        break;
    }
}

void ESPFlasher::queueCommand(int command, const QVariantList &params)
{
    QMetaObject::invokeMethod(worker, "execute", Qt::AutoConnection, Q_ARG(int, command),
                              Q_ARG(QVariantList, params));
}

void ESPFlasher::queueCommand(const FlashPlan::Command &command)
{
    if (!command.announcement.isEmpty())
        log(LogColour::Success, command.announcement);
    queueCommand(command.command, command.params);
}

// ---------------------------------------------------------------------------------------------
// Ports and connection

QStringList ESPFlasher::portsForSerial(const QString &serial) const
{
    QStringList names;
    // Ports without a serial number must not match a host that has none to give.
    if (serial.isEmpty())
        return names;
    for (const QComPort::PortEntry &entry : QComPort::availablePortEntries()) {
        if (entry.serialNumber == serial)
            names.append(entry.name);
    }
    return names;
}

QString ESPFlasher::portItemText(const QComPort::PortEntry &port)
{
    const QString path = port.path.isEmpty() ? port.name : port.path;
    if (port.description.isEmpty())
        return path;
    return QStringLiteral("%1 (%2)").arg(path, port.description);
}

QString ESPFlasher::portDetails(const QComPort::PortEntry &port)
{
    QStringList lines{port.path.isEmpty() ? port.name : port.path};
    if (!port.description.isEmpty())
        lines << tr("Description: %1").arg(port.description);
    if (!port.manufacturer.isEmpty())
        lines << tr("Manufacturer: %1").arg(port.manufacturer);
    if (!port.vendorProduct().isEmpty())
        lines << tr("VID:PID: %1").arg(port.vendorProduct());
    if (!port.serialNumber.isEmpty())
        lines << tr("Serial number: %1").arg(port.serialNumber);
    return lines.join(QLatin1Char('\n'));
}

void ESPFlasher::on_comPortScanTool_clicked()
{
    QComboBox *combo = ui->comPortCombo;
    combo->clear();
    for (const QComPort::PortEntry &entry : QComPort::availablePortEntries()) {
        combo->addItem(portItemText(entry), entry.path.isEmpty() ? entry.name : entry.path);
        combo->setItemData(combo->count() - 1, entry.name, portNameRole);
        combo->setItemData(combo->count() - 1, portDetails(entry), Qt::ToolTipRole);
    }
    // The closed combo keeps its width; the open list shows the descriptions in full.
    combo->view()->setMinimumWidth(combo->view()->sizeHintForColumn(0));
    ui->comPortConnect->setEnabled(combo->count() > 0);
}

int ESPFlasher::portIndex(const QString &port) const
{
    const QComboBox *combo = ui->comPortCombo;
    for (int index = 0; index < combo->count(); ++index) {
        if (combo->itemData(index, portNameRole).toString() == port ||
            combo->itemData(index).toString() == port)
            return index;
    }
    return -1;
}

void ESPFlasher::on_comPortConnect_clicked()
{
    const QString port = ui->comPortCombo->currentData().toString();
    ui->comPortCombo->setEnabled(false);
    startConnect(port);
}

void ESPFlasher::startConnect(const QString &port)
{
    connectedPort = port;
    log(LogColour::Notice, tr("Connecting to %1").arg(port));
    queueCommand(ESPToolWorker::Connect, QVariantList{port, connectOptions()});
}

QVariantMap ESPFlasher::connectOptions() const
{
    return {
        {QLatin1String(ESPToolWorker::ResetOption), ui->resetBeforeConnectCheck->isChecked()},
        {QLatin1String(ESPToolWorker::BaudOption), ui->baudRateCombo->currentText().toUInt()},
        {QLatin1String(ESPToolWorker::SkipUnchangedOption), ui->skipUnchangedCheck->isChecked()}};
}

void ESPFlasher::setConnectionSettingsEnabled(bool enabled)
{
    ui->comPortScanTool->setEnabled(enabled);
    ui->baudRateCombo->setEnabled(enabled);
    ui->resetBeforeConnectCheck->setEnabled(enabled);
    ui->skipUnchangedCheck->setEnabled(enabled);
}

void ESPFlasher::guess(const QString &serial)
{
    const QStringList ports = portsForSerial(serial);
    if (ports.isEmpty())
        return;
    if (portIndex(ports.first()) < 0)
        on_comPortScanTool_clicked(); // the list was taken before the port appeared
    ui->comPortCombo->setCurrentIndex(portIndex(ports.first()));
}

bool ESPFlasher::autoconnect(const QString &serial)
{
    const QStringList ports = portsForSerial(serial);
    if (ports.isEmpty())
        return false;
    QString port = ports.first();
    if (ports.size() > 1) {
        if (runMode != RUN_MODE_UPGRADE)
            return false;
        bool accepted = false;
        port = QInputDialog::getItem(this, tr("Select port"), tr("%1 port:").arg(serial), ports, 0,
                                     false, &accepted);
        if (!accepted || port.isEmpty())
            return false;
    }
    if (portIndex(port) < 0)
        on_comPortScanTool_clicked();
    const int index = portIndex(port);
    ui->comPortCombo->setCurrentIndex(index);
    // Unlike a manual connect, the port list stays enabled.
    startConnect(index >= 0 ? ui->comPortCombo->itemData(index).toString() : port);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Worker results

void ESPFlasher::worker_error(const QString &reason)
{
    log(LogColour::Notice, FlashPlan::workerErrorMessage(reason));
}

void ESPFlasher::worker_notice(const QString &text)
{
    log(LogColour::Notice, text);
}

void ESPFlasher::worker_progress(int total, int current)
{
    QTextCursor cursor(ui->logBrowser->document());
    cursor.movePosition(QTextCursor::End);
    cursor.insertText(QStringLiteral("."));
    textBrowserScroll(ui->logBrowser);

    const double percent = current * 100.0 / total;
    // A zero total gives no usable figure; the bar keeps its value then, as it does for any
    // value outside its range.
    if (!std::isfinite(percent) || percent < std::numeric_limits<int>::min() ||
        percent > std::numeric_limits<int>::max())
        return;
    ui->progressBar->setValue(qRound(percent));
    if (stubWaitDialog)
        stubWaitDialog->setValue(qRound(percent));
}

void ESPFlasher::worker_finished(bool result, int command, const QVariantList &results)
{
    if (!result) {
        commandFailed(command);
        return;
    }
    if (stubWaitDialog)
        stubWaitDialog->setValue(100);

    switch (command) {
    case ESPToolWorker::Connect:
        connected();
        break;
    case ESPToolWorker::Disconnect:
        disconnected();
        break;
    case ESPToolWorker::LoadStub:
        stubLoadFinished();
        break;
    case ESPToolWorker::GetInfo:
        chipIdentified(results);
        break;
    case ESPToolWorker::WriteFirmware:
    case ESPToolWorker::WriteData:
        sectionWritten(command);
        break;
    case ESPToolWorker::ReadData:
        sectionRead();
        break;
    case ESPToolWorker::EraseFlash:
        log(LogColour::Success, FlashPlan::finishedMessage(command));
        if (pendingErase)
            log(LogColour::Success, pendingErase->erasedMessage());
        if (!ui->scatterEdit->text().isEmpty())
            ui->flashTool->setEnabled(true);
        break;
    case ESPToolWorker::FlashMd5:
        if (FlashPlan::finalCheckIndex(results) >= 0)
            finalCheckFinished(FlashPlan::finalCheckIndex(results), results);
        else
            log(FlashPlan::md5Report(results));
        break;
    default:
        log(LogColour::Notice, tr("Unknown command %1 finished").arg(command));
        break;
    }
}

void ESPFlasher::commandFailed(int command)
{
    if (stubWaitDialog)
        stubWaitDialog->cancel();
    log(LogColour::Error, FlashPlan::failedOperationMessage(command));
    // The worker fails every further command until the next connect.
    returnToDisconnected();
    scheduleAutoClose(false, tr("UBoot operation failure."));
}

void ESPFlasher::worker_connectionLost(const QString &reason)
{
    // The port's own words ("Inappropriate ioctl for device" for a vanished terminal) tell a
    // user nothing.
    Q_UNUSED(reason)
    if (!connectedToChip)
        return;
    log(LogColour::Error, tr("The connection to %1 was lost").arg(connectedPort));
    returnToDisconnected();
    scheduleAutoClose(false, tr("Connection closed."));
}

void ESPFlasher::returnToDisconnected()
{
    connectedToChip = false;
    closingAfterUpgrade = false;
    stubLoaded = false;
    close_zip_file();
    // A read that did not finish saved no scatter file: the table would name region files
    // that are missing or incomplete, and a flash run would write them to the next board.
    if (operation == OperationReading) {
        clearScatterTable();
        ui->scatterEdit->clear();
    }
    // Nothing in work goes on: a late result of it must not restart a walk.
    operation = OperationNone;
    sectionIndex = -2;
    finalChecked = -1;
    ui->comPortCombo->setEnabled(true);
    setConnectionSettingsEnabled(true);
    ui->comPortConnect->setText(tr("Connect"));
    ui->comPortConnect->setEnabled(ui->comPortCombo->count() > 0);
    // Disabled until a chip is identified again; the scatter stays loaded for that.
    ui->infoGroup->setEnabled(false);
    ui->loaderGroup->setEnabled(false);
    ui->stubSelTool->setEnabled(true);
    ui->flashTool->setEnabled(!ui->scatterEdit->text().isEmpty());
    ui->readTool->setEnabled(!zip);
}

void ESPFlasher::connected()
{
    // A fresh connection talks to the ROM loader.
    connectedToChip = true;
    stubLoaded = false;
    ui->stubSelTool->setEnabled(true);
    log(LogColour::Success, FlashPlan::finishedMessage(ESPToolWorker::Connect, connectedPort));
    ui->comPortConnect->setText(tr("Disconnect"));
    // The dialog disconnects by itself only after a failed identification and, to reset the
    // board into its new firmware, after an upgrade.
    ui->comPortConnect->setEnabled(false);
    // The settings apply to this connection: changing them now would change nothing.
    setConnectionSettingsEnabled(false);
    queueCommand(ESPToolWorker::GetInfo);
}

void ESPFlasher::disconnected()
{
    log(LogColour::Success, FlashPlan::finishedMessage(ESPToolWorker::Disconnect, connectedPort));
    ui->chipIDField->clear();
    ui->flashIDField->clear();
    ui->macField->clear();
    ui->comPortCombo->setEnabled(true);
    setConnectionSettingsEnabled(true);
    ui->comPortConnect->setText(tr("Connect"));
    ui->comPortConnect->setEnabled(true);
    stubLoaded = false;
    connectedToChip = false;
    if (closingAfterUpgrade) {
        closingAfterUpgrade = false;
        scheduleAutoClose(true, tr("Upgrade completed."));
        return;
    }
    scheduleAutoClose(false, tr("Connection closed."));
}

void ESPFlasher::chipIdentified(const QVariantList &results)
{
    // description, chip id, MAC, flash id text, flash size guess in bytes
    const QString description = FlashPlan::chipDescription(results);
    if (description.isEmpty()) {
        log(LogColour::Notice, FlashPlan::unidentifiedChipMessage());
        queueCommand(ESPToolWorker::Disconnect);
        return;
    }
    log(LogColour::Success, FlashPlan::finishedMessage(ESPToolWorker::GetInfo));
    ui->chipIDField->setText(description);
    ui->macField->setText(results.at(2).toString());
    ui->flashIDField->setText(results.at(3).toString());
    detectedFlashSize = results.at(4).toUInt();
    ui->infoGroup->setEnabled(true);
    ui->loaderGroup->setEnabled(true);

    if (runMode != RUN_MODE_UPGRADE)
        return;
    if (!on_scatterSelTool_clicked() || !autoSelectByType()) {
        scheduleAutoClose(false, tr("Upgrade cancelled."));
        return;
    }
    on_flashTool_clicked();
}

void ESPFlasher::scheduleAutoClose(bool success, const QString &message)
{
    if (runMode != RUN_MODE_UPGRADE)
        return;
    const QString text = message + tr("\nThe tool will be closed");
    if (success) {
        QAutoCloseMessageBox::information(this, text, successBoxTimeoutSeconds, QString(),
                                          QMessageBox::Ok, QMessageBox::NoButton);
        QTimer::singleShot(closeDelayMs, this, &QDialog::accept);
    } else {
        QAutoCloseMessageBox::warning(this, text, failureBoxTimeoutSeconds, QString(),
                                      QMessageBox::Ok, QMessageBox::NoButton);
        QTimer::singleShot(closeDelayMs, this, &QDialog::reject);
    }
}

// ---------------------------------------------------------------------------------------------
// Flashing

void ESPFlasher::on_flashTool_clicked()
{
    if (!activeRowsFitChip())
        return;
    writtenSections.clear();
    finalChecked = -1;
    finalCheckFailures = 0;
    if (!startSectionWalk(OperationFlashing, &ESPFlasher::writeNextSection))
        scheduleAutoClose(false, tr("Cannot load the stub"));
}

bool ESPFlasher::startSectionWalk(Operation walk, void (ESPFlasher::*firstStep)())
{
    operation = walk;
    if (stubLoaded) {
        sectionIndex = 0;
        (this->*firstStep)();
        return true;
    }
    // The "load stub" result adds 1, so the walk starts at row 0.
    sectionIndex = -1;
    return startLoadStub();
}

bool ESPFlasher::startLoadStub()
{
    const QString stub = ui->stubEdit->text();
    QVariant source;
    // With a package open the loader is its entry, whatever the name looks like: a package
    // never makes the tool read a file on this computer.
    if (zip) {
        if (packageFile) {
            QMessageBox::critical(this, tr("Flash Loader"),
                                  tr("The device is busy. Please try again later."),
                                  QMessageBox::Ok);
            cancelStubWait();
            return false;
        }
        EspPackage::EntryStatus status = EspPackage::EntryStatus::Ok;
        std::unique_ptr<QTemporaryFile> entry = zip->extractEntry(stub, &status);
        if (!entry) {
            const QString text = status == EspPackage::EntryStatus::NotFound
                                     ? tr("The stub file %1 is not in the package").arg(stub)
                                     : tr("The stub file %1 cannot be read").arg(stub);
            QMessageBox::critical(this, tr("Flash Loader"), text, QMessageBox::Ok);
            cancelStubWait();
            return false;
        }
        source = handOverPackageEntry(std::move(entry), stub);
    } else {
        const QString path = resolveScatterPath(stub);
        // An empty name resolves to the folder itself, which is no loader either.
        if (!QFileInfo(path).isFile()) {
            QMessageBox::critical(this, tr("Flash Loader"),
                                  tr("Flash loader file %1 does not exist!").arg(path),
                                  QMessageBox::Ok);
            cancelStubWait();
            return false;
        }
        source = path;
    }
    queueCommand(FlashPlan::loadStubCommand(source));
    return true;
}

bool ESPFlasher::waitStubLoaded()
{
    if (ui->stubEdit->text().isEmpty()) {
        log(LogColour::Error,
            tr("Stub loader is needed for this operation. Load a scatter file first"));
        return false;
    }
    if (stubWaitDialog) {
        stubWaitDialog->cancel();
        delete stubWaitDialog;
    }
    // No cancel button: the wait ends with the worker's answer (or Escape).
    stubWaitDialog =
        new QProgressDialog(tr("Waiting for the flash loader"), QString(), 0, 100, this);
    stubWaitDialog->setWindowModality(Qt::WindowModal);
    stubWaitDialog->show();

    // The stub's result then only marks it as loaded; the caller goes on by itself.
    operation = OperationNone;
    log(LogColour::Notice, tr("Must load a stub first."));

    QEventLoop loop;
    connect(stubWaitDialog, &QProgressDialog::canceled, &loop, &QEventLoop::quit);
    // Escape rejects the dialog without cancelling it.
    connect(stubWaitDialog, &QDialog::rejected, &loop, &QEventLoop::quit);
    // Connected after worker_finished, so the result is handled before the loop ends.
    connect(worker, &ESPToolWorker::finished, &loop, &QEventLoop::quit);
    if (startLoadStub())
        loop.exec();

    if (stubWaitDialog) {
        stubWaitDialog->close();
        delete stubWaitDialog;
        stubWaitDialog = nullptr;
    }
    if (!stubLoaded)
        scheduleAutoClose(false, tr("Failed to load the stub"));
    return stubLoaded;
}

void ESPFlasher::cancelStubWait()
{
    if (stubWaitDialog)
        stubWaitDialog->cancel();
}

void ESPFlasher::finishSectionWalk(const QString &message)
{
    log(LogColour::Success, message);
    ui->progressBar->setValue(100);
    enableToolsAfterWalk();
}

void ESPFlasher::enableToolsAfterWalk()
{
    // A package is written only: reading back into it would change the package.
    ui->readTool->setEnabled(!zip);
    ui->flashTool->setEnabled(true);
}

// Both tools stay disabled while a walk runs; an inactive row is logged and passed over.
bool ESPFlasher::skipInactiveSection(void (ESPFlasher::*next)())
{
    ui->readTool->setEnabled(false);
    ui->flashTool->setEnabled(false);
    if (rowActive(sectionIndex))
        return false;
    log(LogColour::Notice, FlashPlan::skippingMessage(sectionIndex));
    ++sectionIndex;
    (this->*next)();
    return true;
}

void ESPFlasher::writeNextSection()
{
    const int rows = ui->scatterTable->rowCount();
    // A table replaced under a running operation leaves nothing to walk.
    if (sectionIndex < 0 || sectionIndex > rows)
        return;
    if (sectionIndex == rows) {
        checkNextWrittenSection();
        return;
    }
    if (skipInactiveSection(&ESPFlasher::writeNextSection))
        return;

    const ScatterSection row = scatterRow(sectionIndex);
    const QString file = cellText(sectionIndex, SourceColumn);
    QVariant source;
    if (zip) {
        // A stopped run still holds its entry: the index stays, the buttons stay disabled.
        if (packageFile) {
            QMessageBox::warning(this, tr("Flash Loader"),
                                 tr("The device is busy. Please try again later."),
                                 QMessageBox::Ok);
            return;
        }
        std::unique_ptr<QTemporaryFile> entry = extractPackageEntry(file);
        if (!entry) {
            scheduleAutoClose(false, tr("Invalid package"));
            return;
        }
        source = handOverPackageEntry(std::move(entry), file);
    } else {
        // A missing file fails in the worker.
        source = resolveScatterPath(file);
    }
    const QString flashSize = row.isApplication() ? getScatterFlashSize() : QString();
    queueCommand(FlashPlan::writeCommand(row, source, flashSize));
}

void ESPFlasher::flashingFinished()
{
    if (runMode == RUN_MODE_UPGRADE && ui->resetBeforeConnectCheck->isChecked()) {
        closingAfterUpgrade = true;
        queueCommand(ESPToolWorker::Disconnect,
                     {QVariantMap{{QLatin1String(ESPToolWorker::HardResetOption), true}}});
        return;
    }
    scheduleAutoClose(true, tr("Upgrade completed."));
}

void ESPFlasher::sectionWritten(int command)
{
    // The expectation comes from the bytes just written: the package entry still in memory, or
    // the file on disk.
    const ScatterSection row = scatterRow(sectionIndex);
    if (packageFile) {
        writtenSections.append(FlashPlan::writtenSection(row, packageFile.get()));
    } else {
        QFile file(resolveScatterPath(row.file));
        const bool opened = file.open(QIODevice::ReadOnly);
        writtenSections.append(
            FlashPlan::writtenSection(row, opened ? &file : nullptr, file.errorString()));
    }
    close_zip_file();
    log(LogColour::Success, FlashPlan::writtenMessage(command));
    ++sectionIndex;
    writeNextSection();
}

void ESPFlasher::checkNextWrittenSection()
{
    if (finalChecked < 0) {
        finalChecked = 0;
        if (!writtenSections.isEmpty())
            log(LogColour::Success, FlashPlan::finalCheckMessage());
    }
    // A section that cannot be checked is reported without asking the chip.
    while (finalChecked < writtenSections.size() &&
           !writtenSections.at(finalChecked).error.isEmpty()) {
        bool matches = false;
        log(FlashPlan::finalCheckReport(writtenSections.at(finalChecked), {}, &matches));
        ++finalCheckFailures;
        ++finalChecked;
    }
    if (finalChecked < writtenSections.size()) {
        queueCommand(FlashPlan::finalCheckCommand(writtenSections.at(finalChecked), finalChecked));
        return;
    }
    finishFlashing();
}

void ESPFlasher::finalCheckFinished(int index, const QVariantList &results)
{
    // A result of an earlier run's check has nothing to say about this one.
    if (index != finalChecked || index >= writtenSections.size())
        return;
    bool matches = false;
    log(FlashPlan::finalCheckReport(writtenSections.at(index), results, &matches));
    if (!matches)
        ++finalCheckFailures;
    ++finalChecked;
    checkNextWrittenSection();
}

void ESPFlasher::finishFlashing()
{
    if (finalCheckFailures == 0) {
        finishSectionWalk(FlashPlan::finishedFlashingMessage());
        flashingFinished();
        return;
    }
    log(LogColour::Error,
        FlashPlan::finalCheckFailedMessage(finalCheckFailures, writtenSections.size()));
    enableToolsAfterWalk();
    scheduleAutoClose(false, tr("The flashed sections did not match at the end."));
}

void ESPFlasher::stubLoadFinished()
{
    log(LogColour::Success, FlashPlan::finishedMessage(ESPToolWorker::LoadStub));
    stubLoaded = true;
    ui->stubSelTool->setEnabled(false);
    close_zip_file();
    switch (operation) {
    case OperationNone:
        // waitStubLoaded's caller resumes on its own.
        operation = OperationFlashing;
        break;
    case OperationReading:
        ++sectionIndex;
        readNextSection();
        break;
    case OperationFlashing:
        ++sectionIndex;
        writeNextSection();
        break;
    default:
        break;
    }
}

QVariant ESPFlasher::handOverPackageEntry(std::unique_ptr<QIODevice> entry, const QString &name)
{
    // The worker reads a copy of the entry, so its thread never touches the archive.
    IODeviceDescriptor descriptor;
    descriptor.device = entry.get();
    descriptor.description = name;
    packageFile = std::move(entry);
    return QVariant::fromValue(descriptor);
}

QString ESPFlasher::resolveScatterPath(const QString &path) const
{
    return QFileInfo(ui->scatterEdit->text()).absoluteDir().absoluteFilePath(path);
}

bool ESPFlasher::rowActive(int row) const
{
    const QTableWidgetItem *active = ui->scatterTable->item(row, ActiveColumn);
    return active && active->checkState() == Qt::Checked;
}

QString ESPFlasher::cellText(int row, int column) const
{
    const QTableWidgetItem *item = ui->scatterTable->item(row, column);
    return item ? item->text() : QString();
}

// ---------------------------------------------------------------------------------------------
// Reading flash into a scatter file

void ESPFlasher::on_readTool_clicked()
{
    const QString loaded = ui->scatterEdit->text();
    if (QFile::exists(loaded) &&
        QMessageBox::question(
            this, tr("Scatter File"), tr("A scatter file is already loaded. Use it as a template?"),
            QMessageBox::Yes | QMessageBox::No, QMessageBox::Yes) == QMessageBox::Yes) {
        if (!useScatterAsTemplate(loaded))
            return;
    } else if (!composeScatter()) {
        return;
    }
    startReading();
}

bool ESPFlasher::useScatterAsTemplate(const QString &scatter)
{
    const QString target = chooseScatterTarget(QFileInfo(scatter).absolutePath());
    if (target.isEmpty())
        return false;

    // Reading must not overwrite files that are already there: a taken name is replaced by one
    // the user gives, which must be free too.
    const QDir targetDir = QFileInfo(target).absoluteDir();
    for (int row = 0; row < ui->scatterTable->rowCount(); ++row) {
        QTableWidgetItem *source = ui->scatterTable->item(row, SourceColumn);
        while (source && targetDir.exists(source->text())) {
            bool accepted = false;
            const QString other = QInputDialog::getText(
                this, tr("Read Flash Memory"),
                tr("File with the same name already exists. Please choose another name:"),
                QLineEdit::Normal, QFileInfo(source->text()).fileName(), &accepted);
            if (!accepted || other.isEmpty())
                return false;
            source->setText(other);
        }
    }
    ui->scatterEdit->setText(target);
    return true;
}

bool ESPFlasher::composeScatter()
{
    const QString target =
        chooseScatterTarget(QSettings().value(QLatin1String(scatterDirKey)).toString());
    if (target.isEmpty())
        return false;

    EspScatterWizard wizard(this);
    if (wizard.exec() != QDialog::Accepted || wizard.scatter().isEmpty())
        return false;
    QJsonObject scatter = wizard.scatter();
    const QDir targetDir = QFileInfo(target).absoluteDir();
    for (const QJsonValue &section : scatter.value(QLatin1String("sections")).toArray()) {
        const QString file = section.toObject().value(QLatin1String("file")).toString();
        if (!confirmReplacing(targetDir.absoluteFilePath(file)))
            return false;
    }
    // Not strict: the chip and the loader come from the dialog, the files do not exist yet.
    QString error;
    parseScatterObject(scatter, false, QFileInfo(), &error);
    ui->scatterEdit->setText(target);
    return true;
}

QString ESPFlasher::chooseScatterTarget(const QString &startDir)
{
    // The dialog's own overwrite question would see the name before ".txt" is added: the
    // question is asked here, about the file that is replaced.
    const QString chosen =
        QFileDialog::getSaveFileName(this, tr("Save As"), startDir, tr("Scatter files (*.txt)"),
                                     nullptr, QFileDialog::DontConfirmOverwrite);
    if (chosen.isEmpty())
        return QString();
    const QString target = withTxtSuffix(chosen);
    QSettings().setValue(QLatin1String(scatterDirKey), QFileInfo(target).absolutePath());
    return confirmReplacing(target) ? target : QString();
}

bool ESPFlasher::confirmReplacing(const QString &path)
{
    if (!QFileInfo::exists(path))
        return true;
    return QMessageBox::question(
               this, tr("Read Flash Memory"), tr("File %1 already exists. Replace it?").arg(path),
               QMessageBox::Yes | QMessageBox::No, QMessageBox::No) == QMessageBox::Yes;
}

void ESPFlasher::startReading()
{
    if (!activeRowsFitChip() || !activeRowsHaveDistinctFiles())
        return;
    // Reading writes loose files only.
    close_pack();
    ui->flashTool->setEnabled(false);
    startSectionWalk(OperationReading, &ESPFlasher::readNextSection);
}

void ESPFlasher::readNextSection()
{
    const int rows = ui->scatterTable->rowCount();
    if (sectionIndex < 0 || sectionIndex > rows)
        return;
    if (sectionIndex == rows) {
        log(LogColour::Success, FlashPlan::finishedReadingMessage());
        ui->progressBar->setValue(100);
        saveScatter();
        enableToolsAfterWalk();
        return;
    }
    if (skipInactiveSection(&ESPFlasher::readNextSection))
        return;
    const ScatterSection row = scatterRow(sectionIndex);
    queueCommand(FlashPlan::readCommand(row, resolveScatterPath(row.file)));
}

void ESPFlasher::sectionRead()
{
    log(LogColour::Success, FlashPlan::readMessage());
    QTableWidgetItem *type = ui->scatterTable->item(sectionIndex, TypeColumn);
    // The scatter saved at the end carries the flash options found in the image read.
    if (type && type->data(kindRole).toInt() == ScatterSection::Firmware) {
        ScatterSection row = scatterRow(sectionIndex);
        FlashPlan::Line line;
        if (FlashPlan::extractFlashParameters(&row, resolveScatterPath(row.file), &line)) {
            type->setData(flashSizeRole, row.flashSize);
            type->setData(flashModeRole, row.flashMode);
            type->setData(flashFrequencyRole, row.flashFrequency);
        }
        log(line);
    }
    ++sectionIndex;
    readNextSection();
}

void ESPFlasher::saveScatter()
{
    if (QMessageBox::question(this, tr("Save Scatter"), tr("Save the scatter file?"),
                              QMessageBox::Yes | QMessageBox::No,
                              QMessageBox::Yes) != QMessageBox::Yes)
        return;
    const QString path = ui->scatterEdit->text();
    const QDir dir = QFileInfo(path).absoluteDir();
    const QJsonObject document = ScatterWriter::savedDocument(
        ui->chipIDField->text(), ui->stubEdit->text(), scatterRows(), dir);
    QString error;
    if (!ScatterWriter::save(path, document, &error)) {
        log(LogColour::Notice, error);
        return;
    }
    log(LogColour::Success, FlashPlan::scatterSavedMessage(path));
    if (QMessageBox::question(this, tr("Save Scatter"), tr("Create a distribution package?"),
                              QMessageBox::Yes | QMessageBox::No,
                              QMessageBox::No) == QMessageBox::Yes)
        on_zipTool_clicked();
}

// ---------------------------------------------------------------------------------------------
// Erase and verify

bool ESPFlasher::askRegion(const QString &title, const QString &preset, bool erase,
                           FlashRegion *region)
{
    if (!stubLoaded && !waitStubLoaded())
        return false;
    ui->progressBar->setValue(0);
    bool accepted = false;
    const QString text = QInputDialog::getText(this, title, tr("Region [address:size]:"),
                                               QLineEdit::Normal, preset, &accepted);
    if (!accepted || text.isEmpty())
        return false;
    const FlashRegion::Parse parsed =
        erase ? FlashRegion::parseErase(text, region) : FlashRegion::parseAddressSize(text, region);
    switch (parsed) {
    case FlashRegion::Parse::Ok:
        return true;
    case FlashRegion::Parse::NoColon:
    case FlashRegion::Parse::Empty:
        log(LogColour::Notice, erase ? FlashRegion::invalidEraseFormatMessage()
                                     : FlashRegion::invalidVerifyFormatMessage());
        return false;
    case FlashRegion::Parse::BadNumber:
        // A mistyped number is ignored without a word.
        return false;
    }
    return false;
}

bool ESPFlasher::regionFitsChip(const FlashRegion &region)
{
    if (region.fitsFlash(detectedFlashSize))
        return true;
    log(LogColour::Error, region.pastFlashMessage(detectedFlashSize));
    return false;
}

bool ESPFlasher::activeRowsFitChip()
{
    for (int row = 0; row < ui->scatterTable->rowCount(); ++row) {
        const ScatterSection section = scatterRow(row);
        if (section.hasCells && section.active &&
            !regionFitsChip(
                FlashRegion(section.startAddress, section.endAddress - section.startAddress)))
            return false;
    }
    return true;
}

bool ESPFlasher::activeRowsHaveDistinctFiles()
{
    QHash<QString, int> rowOfFile; // file -> row number counted from 1; 0: the scatter file
    rowOfFile.insert(QDir::cleanPath(QFileInfo(ui->scatterEdit->text()).absoluteFilePath()), 0);
    for (int row = 0; row < ui->scatterTable->rowCount(); ++row) {
        const ScatterSection section = scatterRow(row);
        if (!section.hasCells || !section.active)
            continue;
        const QString file = QDir::cleanPath(resolveScatterPath(section.file));
        const auto taken = rowOfFile.constFind(file);
        if (taken == rowOfFile.constEnd()) {
            rowOfFile.insert(file, row + 1);
            continue;
        }
        log(LogColour::Error,
            taken.value() == 0
                ? tr("Section no. %1 would be read into the scatter file %2").arg(row + 1).arg(file)
                : tr("Sections no. %1 and %2 would be read into the same file %3")
                      .arg(taken.value())
                      .arg(row + 1)
                      .arg(file));
        return false;
    }
    return true;
}

void ESPFlasher::queueErase(const FlashRegion &region)
{
    pendingErase = std::make_unique<FlashRegion>(region);
    // No announcement: the result lines say what was erased.
    queueCommand(ESPToolWorker::EraseFlash, region.eraseParameters());
}

void ESPFlasher::on_eraseTool_clicked()
{
    FlashRegion region;
    if (askRegion(tr("Erase Flash Memory"), QStringLiteral("0x911"), true, &region) &&
        regionFitsChip(region))
        queueErase(region);
}

void ESPFlasher::on_verifyTool_clicked()
{
    FlashRegion region;
    if (!askRegion(tr("Verify Flash Memory Contents"), QString(), false, &region) ||
        !regionFitsChip(region))
        return;
    log(LogColour::Success, region.md5RequestMessage());
    queueCommand(ESPToolWorker::FlashMd5, region.md5Parameters());
}

void ESPFlasher::eraseActionHandler()
{
    processEraseVerifyAction(qobject_cast<QAction *>(sender()), ESPToolWorker::EraseFlash);
}

void ESPFlasher::md5ActionHandler()
{
    processEraseVerifyAction(qobject_cast<QAction *>(sender()), ESPToolWorker::FlashMd5);
}

void ESPFlasher::processEraseVerifyAction(QAction *action, int command)
{
    if (!stubLoaded)
        waitStubLoaded();
    if (!action || !stubLoaded)
        return;
    const int row = action->data().toInt();
    if (row < 0 || row >= ui->scatterTable->rowCount())
        return;

    bool ok = false;
    const QString startText = cellText(row, StartColumn);
    const quint32 start = parseUnsignedInteger(startText, &ok);
    if (!ok) {
        log(LogColour::Notice,
            tr("Start address %1 of the section no. %2 is invalid").arg(startText).arg(row + 1));
        return;
    }
    const QString endText = cellText(row, EndColumn);
    const quint32 end = parseUnsignedInteger(endText, &ok);
    if (!ok) {
        log(LogColour::Notice,
            tr("End address %1 of the section no. %2 is invalid").arg(endText).arg(row + 1));
        return;
    }

    const FlashRegion region(start, end - start);
    if (!regionFitsChip(region))
        return;
    if (command != ESPToolWorker::FlashMd5) {
        queueErase(region);
        return;
    }
    ScatterSection section = scatterRow(row);
    section.startAddress = start;
    section.endAddress = end;
    QString expected;
    if (!expectedMd5ForRow(section, &expected))
        return;
    queueCommand(FlashPlan::verifyCommand(section, expected));
}

bool ESPFlasher::expectedMd5ForRow(const ScatterSection &row, QString *md5)
{
    // Only a firmware row with a saved md5 needs its image: the header is patched on writing.
    std::unique_ptr<QIODevice> image;
    if (!row.md5.isEmpty() && !row.isApplication()) {
        image = openSectionImage(row.file);
        if (!image)
            return false;
    }
    FlashPlan::Line line;
    if (FlashPlan::expectedMd5(row, image.get(), md5, &line) ==
        FlashPlan::Expectation::InvalidImage) {
        log(line);
        return false;
    }
    return true;
}

std::unique_ptr<QTemporaryFile> ESPFlasher::extractPackageEntry(const QString &file)
{
    EspPackage::EntryStatus status = EspPackage::EntryStatus::Ok;
    std::unique_ptr<QTemporaryFile> entry = zip->extractEntry(file, &status);
    if (entry)
        return entry;
    QString text;
    switch (status) {
    case EspPackage::EntryStatus::NotFound:
        text = tr("File %1 is not in the package").arg(file);
        break;
    case EspPackage::EntryStatus::OutputFailed:
        text = tr("File %1 cannot be read (%2)").arg(file, zip->outputError());
        break;
    default:
        text = tr("File %1 cannot be read (%2)").arg(file).arg(zip->zipError());
        break;
    }
    QMessageBox::critical(this, tr("Flash Loader"), text, QMessageBox::Ok);
    return nullptr;
}

std::unique_ptr<QIODevice> ESPFlasher::openSectionImage(const QString &file)
{
    if (zip)
        return extractPackageEntry(file);
    auto image = std::make_unique<QFile>(resolveScatterPath(file));
    if (!image->open(QIODevice::ReadOnly)) {
        QMessageBox::critical(this, tr("Flash Loader"),
                              tr("File %1 cannot be read (%2)").arg(file, image->errorString()),
                              QMessageBox::Ok);
        return nullptr;
    }
    return image;
}

// ---------------------------------------------------------------------------------------------
// Scatter files and packages

bool ESPFlasher::on_scatterSelTool_clicked()
{
    QSettings settings;
    const QString startDir = ui->scatterEdit->text().isEmpty()
                                 ? settings.value(QLatin1String(scatterDirKey)).toString()
                                 : ui->scatterEdit->text();
    // Everything the tool opens is shown at first; the second filter hides plain images.
    const QString filters =
        QStringLiteral("%1 (*.zip *.txt *.bin)").arg(tr("Packages, Scatter files and Images")) +
        QStringLiteral(";;") +
        QStringLiteral("%1 (*.zip *.txt)").arg(tr("Packages and Scatter files"));
    const QString path =
        QFileDialog::getOpenFileName(this, tr("Select scatter file"), startDir, filters);
    if (path.isEmpty())
        return false;
    settings.setValue(QLatin1String(scatterDirKey), QFileInfo(path).absolutePath());
    if (path.endsWith(QLatin1String(".bin"), Qt::CaseInsensitive))
        return loadImage(path);

    ui->scatterEdit->clear();
    ui->flashTool->setEnabled(false);
    ui->readTool->setEnabled(false);
    close_pack();
    return loadScatter(path);
}

bool ESPFlasher::loadScatter(const QString &path)
{
    ScatterLoader loader;
    if (!loader.load(path, detectedFlashSize)) {
        clearScatterTable();
        QMessageBox::warning(this, tr("Select scatter file"), loader.error());
        return false;
    }

    QString error;
    bool valid = false;
    if (loader.isPackage()) {
        zip = loader.takePackage();
        valid = parseScatterPack(loader.document(), &error);
    } else {
        QJsonObject document = loader.document();
        valid = parseScatterObject(document, true, QFileInfo(path), &error);
    }

    if (!valid) {
        clearScatterTable();
        ui->scatterEdit->clear();
        if (loader.isPackage())
            ui->stubEdit->clear();
        ui->flashTool->setEnabled(false);
        ui->readTool->setEnabled(false);
        close_pack();
        QMessageBox::warning(this, tr("Select scatter file"),
                             ScatterLoader::invalidMessage(path, loader.isPackage(), error));
        return false;
    }

    ui->scatterEdit->setText(path);
    if (zip)
        log(LogColour::Success, ScatterLoader::loadedPackageMessage(path, zip->comment()));
    return true;
}

bool ESPFlasher::loadImage(const QString &path)
{
    // Everything is asked first: a cancel leaves the loaded scatter as it was.
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        QMessageBox::warning(this, tr("Select scatter file"),
                             tr("%1 could not be read: %2").arg(path, file.errorString()));
        return false;
    }
    if (file.size() == 0) {
        QMessageBox::warning(this, tr("Select scatter file"), tr("%1 is empty").arg(path));
        return false;
    }
    quint32 address = 0;
    if (!askImageAddress(path, file.size(), &address))
        return false;
    const QString loader = imageLoader();
    if (loader.isEmpty()) {
        QMessageBox::warning(this, tr("Select scatter file"),
                             tr("An image is written through a flash loader, and none was chosen"));
        return false;
    }

    ScatterSection row;
    row.hasCells = true;
    row.kindSet = true;
    row.file = QFileInfo(path).fileName();
    row.source = path;
    row.startAddress = address;
    row.endAddress = quint32(address + file.size());
    row.md5 = hexlify(ESPTool::get_md5(&file), true);
    ESPImageParser image;
    const unsigned char own = ESPImageParser::kCodeNotGiven;
    // An image with a firmware header is written as firmware with its own flash options.
    const bool firmware = image.load(path, own, own, own);
    if (firmware && takeOwnFlashOptions(image, &row)) {
        row.kind = ScatterSection::Firmware;
        row.typeKey = QStringLiteral("Firmware");
    } else {
        row.kind = ScatterSection::Application;
        row.typeKey = QStringLiteral("Application");
        row.flashMode.clear();
        row.flashSize.clear();
        row.flashFrequency.clear();
    }

    ui->flashTool->setEnabled(false);
    ui->readTool->setEnabled(false);
    close_pack();
    fillScatterTable({row});
    ui->scatterEdit->setText(path);
    ui->stubEdit->setText(loader);
    parseFinish();
    // Written unchanged as data, the header stays exactly as it is.
    if (firmware && row.isApplication())
        log(LogColour::Notice,
            tr("The flash options in the header of %1 have no names that a firmware write keeps; "
               "it is written unchanged, as a user application")
                .arg(row.file));
    log(LogColour::Success,
        row.isApplication()
            ? tr("Loaded image %1 for 0x%2 as a user application").arg(path, hex8(address))
            : tr("Loaded firmware image %1 for 0x%2 (flash memory size %3, mode %4, frequency %5)")
                  .arg(path, hex8(address), row.flashSize, row.flashMode, row.flashFrequency));
    return true;
}

bool ESPFlasher::askImageAddress(const QString &path, qint64 size, quint32 *address)
{
    // Without a detected size, the largest flash there is.
    const quint64 flashEnd =
        detectedFlashSize != 0 ? detectedFlashSize : ESPImageParser::kMaxBlockSize;
    QString text = QStringLiteral("0x0");
    // A mistyped address is explained and offered again as typed.
    for (;;) {
        bool accepted = false;
        text = QInputDialog::getText(this, tr("Flash Image"),
                                     tr("Address to write %1 at:").arg(QFileInfo(path).fileName()),
                                     QLineEdit::Normal, text, &accepted);
        if (!accepted)
            return false;
        bool ok = false;
        *address = parseUnsignedInteger(text.trimmed(), &ok);
        QString problem;
        if (!ok) {
            problem = tr("%1 is not an address").arg(text.trimmed());
        } else if (*address % flashSectorBytes != 0) {
            problem = tr("0x%1 is not the start of a 4 KiB flash sector").arg(hex8(*address));
        } else if (quint64(*address) + quint64(size) > flashEnd) {
            problem = tr("%1 bytes at 0x%2 go past the end of the flash (%3 bytes)")
                          .arg(size)
                          .arg(hex8(*address))
                          .arg(flashEnd);
        }
        if (problem.isEmpty())
            return true;
        QMessageBox::warning(this, tr("Flash Image"), problem);
    }
}

QString ESPFlasher::imageLoader()
{
    // With a package open the field names its entry, never a file on this computer.
    const QString chosen = zip ? QString() : ui->stubEdit->text();
    if (QDir::isAbsolutePath(chosen) && QFileInfo(chosen).isFile())
        return chosen;
    const QString bundled = FlashPlan::defaultLoaderPath();
    if (!bundled.isEmpty())
        return bundled;
    on_stubSelTool_clicked();
    const QString picked = ui->stubEdit->text();
    return QDir::isAbsolutePath(picked) && QFileInfo(picked).isFile() ? picked : QString();
}

void ESPFlasher::on_stubSelTool_clicked()
{
    const QSettings settings;
    const QString path = QFileDialog::getOpenFileName(
        this, tr("Select Flash Loader"), settings.value(QLatin1String(scatterDirKey)).toString(),
        tr("Elf files (*.elf)"));
    if (!path.isEmpty())
        ui->stubEdit->setText(path);
}

bool ESPFlasher::parseScatterObject(QJsonObject &scatter, bool strict, const QFileInfo &scatterFile,
                                    QString *error)
{
    ScatterValidator validator(ui->chipIDField->text(), ui->stubEdit->text(), this);
    validator.setDetectedFlashSize(detectedFlashSize);
    const bool valid = validator.parseScatterObject(scatter, strict, scatterFile, error);
    ui->stubEdit->setText(validator.loaderText());
    if (validator.tableRebuilt())
        fillScatterTable(validator.rows());
    if (valid)
        parseFinish();
    return valid;
}

bool ESPFlasher::parseScatterPack(const QJsonObject &scatter, QString *error)
{
    if (!zip) {
        if (error)
            *error = tr("No package is open");
        return false;
    }
    ScatterValidator validator(ui->chipIDField->text(), ui->stubEdit->text(), this);
    validator.setDetectedFlashSize(detectedFlashSize);
    const bool valid = validator.parseScatterPack(scatter, *zip, error);
    ui->stubEdit->setText(validator.loaderText());
    if (validator.tableRebuilt())
        fillScatterTable(validator.rows());
    if (valid)
        parseFinish();
    return valid;
}

bool ESPFlasher::confirmMissingLoader(const QString &question, const QString &loaderPath)
{
    Q_UNUSED(loaderPath)
    return QMessageBox::question(this, ScatterValidator::promptTitle(), question,
                                 QMessageBox::Yes | QMessageBox::No,
                                 QMessageBox::No) == QMessageBox::Yes;
}

QString ESPFlasher::chooseLoader()
{
    on_stubSelTool_clicked();
    return ui->stubEdit->text();
}

bool ESPFlasher::confirmMissingChecksum(const QString &question, const QString &path,
                                        const QString &md5)
{
    Q_UNUSED(path)
    Q_UNUSED(md5)
    // No is the default, so the countdown answers No when nobody does.
    return QAutoCloseMessageBox::question(this, ScatterValidator::promptTitle(), question,
                                          QMessageBox::Yes | QMessageBox::No, QMessageBox::No,
                                          checksumQuestionTimeoutSeconds) == QMessageBox::Yes;
}

bool ESPFlasher::confirmFlashSize(const QString &question)
{
    return QMessageBox::question(this, ScatterValidator::promptTitle(), question,
                                 QMessageBox::Yes | QMessageBox::No,
                                 QMessageBox::No) == QMessageBox::Yes;
}

void ESPFlasher::notice(const QString &text)
{
    log(LogColour::Notice, text);
}

void ESPFlasher::clearScatterTable()
{
    ui->scatterTable->clearContents();
    ui->scatterTable->setRowCount(0);
}

void ESPFlasher::fillScatterTable(const QVector<ScatterSection> &rows)
{
    QTableWidget *table = ui->scatterTable;
    table->clearContents();
    table->setRowCount(rows.size());
    for (int index = 0; index < rows.size(); ++index) {
        const ScatterSection &row = rows.at(index);
        // A section after a skipped one leaves a row without cells.
        if (!row.hasCells)
            continue;

        auto *active = new QTableWidgetItem;
        active->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable | Qt::ItemIsUserCheckable);
        active->setCheckState(Qt::Checked);
        table->setItem(index, ActiveColumn, active);

        QTableWidgetItem *type = textItem(row.typeDisplayText());
        if (row.kindSet)
            type->setData(kindRole, row.kind);
        if (!row.flashMode.isEmpty())
            type->setData(flashModeRole, row.flashMode);
        if (!row.flashSize.isEmpty())
            type->setData(flashSizeRole, row.flashSize);
        if (!row.flashFrequency.isEmpty())
            type->setData(flashFrequencyRole, row.flashFrequency);
        type->setData(md5Role, row.md5);
        table->setItem(index, TypeColumn, type);

        table->setItem(index, StartColumn, textItem(row.startAddressText()));
        table->setItem(index, EndColumn, textItem(row.endAddressText()));
        table->setItem(index, SourceColumn, textItem(row.file));
    }
    table->resizeColumnsToContents();
}

ScatterSection ESPFlasher::scatterRow(int row) const
{
    const QTableWidget *table = ui->scatterTable;
    ScatterSection section;
    const QTableWidgetItem *active = table->item(row, ActiveColumn);
    const QTableWidgetItem *type = table->item(row, TypeColumn);
    const QTableWidgetItem *start = table->item(row, StartColumn);
    const QTableWidgetItem *end = table->item(row, EndColumn);
    const QTableWidgetItem *source = table->item(row, SourceColumn);
    if (!active || !type || !start || !end || !source)
        return section;

    section.hasCells = true;
    section.active = active->checkState() == Qt::Checked;
    const QVariant kind = type->data(kindRole);
    section.kindSet = kind.isValid();
    section.kind = kind.toInt();
    section.startAddress = parseUnsignedInteger(start->text());
    section.endAddress = parseUnsignedInteger(end->text());
    section.file = source->text();
    section.source = QDir(scatterDirectory()).absoluteFilePath(section.file);
    section.flashMode = type->data(flashModeRole).toString();
    section.flashSize = type->data(flashSizeRole).toString();
    section.flashFrequency = type->data(flashFrequencyRole).toString();
    section.md5 = type->data(md5Role).toString();
    return section;
}

QVector<ScatterSection> ESPFlasher::scatterRows() const
{
    QVector<ScatterSection> rows;
    for (int row = 0; row < ui->scatterTable->rowCount(); ++row)
        rows.append(scatterRow(row));
    return rows;
}

QString ESPFlasher::scatterDirectory() const
{
    return QFileInfo(ui->scatterEdit->text()).absolutePath();
}

void ESPFlasher::parseFinish()
{
    delete ui->eraseTool->menu();
    delete ui->verifyTool->menu();
    auto *eraseMenu = new QMenu(ui->eraseTool);
    auto *verifyMenu = new QMenu(ui->verifyTool);

    for (int row = 0; row < ui->scatterTable->rowCount(); ++row) {
        const QTableWidgetItem *source = ui->scatterTable->item(row, SourceColumn);
        // A row left without cells by a skipped section names no region.
        if (!source)
            continue;
        const QString name = QFileInfo(source->text()).fileName();
        QAction *erase = eraseMenu->addAction(tr("Erase %1 region").arg(name), this,
                                              &ESPFlasher::eraseActionHandler);
        erase->setData(row);
        QAction *verify = verifyMenu->addAction(tr("Verify %1 region").arg(name), this,
                                                &ESPFlasher::md5ActionHandler);
        verify->setData(row);
    }

    ui->eraseTool->setMenu(eraseMenu);
    ui->verifyTool->setMenu(verifyMenu);
    ui->flashTool->setEnabled(true);
    // Reading writes loose files, so it is offered only while no package is open.
    ui->readTool->setEnabled(!zip);
}

bool ESPFlasher::autoSelectByType()
{
    QTableWidget *table = ui->scatterTable;
    QSet<int> kinds;
    for (int row = 0; row < table->rowCount(); ++row) {
        if (const QTableWidgetItem *type = table->item(row, TypeColumn))
            kinds.insert(type->data(kindRole).toInt());
    }
    if (kinds.isEmpty())
        return false;
    if (kinds.size() == 1)
        return true;

    FlashTypeSelector selector(this);
    if (selector.exec() != QDialog::Accepted)
        return false;
    if (!selector.firmwareChecked())
        kinds.remove(ScatterSection::Firmware);
    if (!selector.applicationChecked())
        kinds.remove(ScatterSection::Application);
    if (kinds.isEmpty())
        return false;

    for (int row = 0; row < table->rowCount(); ++row) {
        QTableWidgetItem *active = table->item(row, ActiveColumn);
        const QTableWidgetItem *type = table->item(row, TypeColumn);
        if (!active || !type)
            continue;
        active->setCheckState(kinds.contains(type->data(kindRole).toInt()) ? Qt::Checked
                                                                           : Qt::Unchecked);
    }
    return true;
}

void ESPFlasher::scatterTableHeaderClickHandler(int index)
{
    if (index != ActiveColumn)
        return;
    const QTableWidgetItem *header = ui->scatterTable->horizontalHeaderItem(ActiveColumn);
    const Qt::CheckState state =
        header && header->checkState() == Qt::Checked ? Qt::Checked : Qt::Unchecked;
    for (int row = 0; row < ui->scatterTable->rowCount(); ++row) {
        if (QTableWidgetItem *active = ui->scatterTable->item(row, ActiveColumn))
            active->setCheckState(state);
    }
}

QString ESPFlasher::getScatterFlashSize()
{
    QString notice;
    const QString size = FlashPlan::scatterFlashSize(scatterRows(), detectedFlashSize, &notice);
    if (!notice.isEmpty())
        log(LogColour::Notice, notice);
    return size;
}

void ESPFlasher::on_zipTool_clicked()
{
    // Packages are made from loose scatter files only.
    if (zip) {
        log(LogColour::Notice, tr("The operation is not supported"));
        return;
    }
    QString target = QFileDialog::getSaveFileName(this, tr("Save Package As"), scatterDirectory(),
                                                  tr("ZIP packages (*.zip)"));
    if (target.isEmpty())
        return;
    target = EspPackageWriter::withZipSuffix(target);

    EspPackageWriter writer([this](EspPackageWriter::Severity severity, const QString &text) {
        switch (severity) {
        case EspPackageWriter::Severity::Success:
            log(LogColour::Success, text);
            break;
        case EspPackageWriter::Severity::Notice:
            log(LogColour::Notice, text);
            break;
        case EspPackageWriter::Severity::Error:
            log(LogColour::Error, text);
            break;
        }
    });
    if (!writer.open(target))
        return;
    // A cancelled description is no abort: the package then has an empty description.
    writer.setDescription(QInputDialog::getText(this, tr("Create Package"),
                                                tr("Package Description:"), QLineEdit::Normal));
    if (!writer.addStub(ui->stubEdit->text()))
        return;
    const bool trim =
        QMessageBox::question(this, tr("Create Package"),
                              tr("Remove FF's from the end of application images to save space?"),
                              QMessageBox::Yes | QMessageBox::No) == QMessageBox::Yes;
    if (!writer.addSections(scatterRows(), QDir(scatterDirectory()), trim))
        return;
    writer.finish(ui->chipIDField->text());
}

void ESPFlasher::close_zip_file()
{
    if (!packageFile)
        return;
    packageFile->close();
    packageFile.reset();
}

void ESPFlasher::close_pack()
{
    close_zip_file();
    if (!zip)
        return;
    zip->close();
    zip.reset();
}
