#include "flasher/espflasher.h"

#include "flasher/esppackage.h"
#include "flasher/esppackagewriter.h"
#include "flasher/scatterloader.h"
#include "flasher/scattervalidator.h"
#include "image/espimageparser.h"
#include "serial/qcomport.h"
#include "widgets/flashtypeselector.h"
#include "widgets/qautoclosemessagebox.h"
#include "widgets/texthelpers.h"
#include "worker/esptoolworker.h"

#include "ui_espflasher.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QInputDialog>
#include <QMenu>
#include <QMessageBox>
#include <QProgressDialog>
#include <QSet>
#include <QSettings>
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

QTableWidgetItem *textItem(const QString &text)
{
    auto *item = new QTableWidgetItem(text);
    item->setFlags(Qt::ItemIsEnabled | Qt::ItemIsSelectable);
    return item;
}

} // namespace

ESPFlasher::ESPFlasher(RUN_MODE mode, QWidget *parent)
    : QDialog(parent), ui(std::make_unique<Ui_ESPFlasher>()), runMode(mode)
{
    ui->setupUi(this);
    ui->baudRateCombo->setCurrentText(QStringLiteral("115200"));
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
    workerThread.start(QThread::InheritPriority);

    QMetaObject::invokeMethod(this, "on_comPortScanTool_clicked", Qt::DirectConnection);
}

ESPFlasher::~ESPFlasher()
{
    // The worker may still read a package entry: stop it before the package goes away.
    workerThread.quit();
    workerThread.wait();
    close_pack();
    ui.reset();
}

void ESPFlasher::log(LogColour colour, const QString &text)
{
    ui->logBrowser->append(QLatin1String(colourTag(int(colour))) + text + QLatin1String("</font>"));
    textBrowserScroll(ui->logBrowser);
}

void ESPFlasher::queueCommand(int command, const QVariantList &params)
{
    QMetaObject::invokeMethod(worker, "execute", Qt::AutoConnection, Q_ARG(int, command),
                              Q_ARG(QVariantList, params));
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

void ESPFlasher::on_comPortScanTool_clicked()
{
    ui->comPortCombo->clear();
    ui->comPortCombo->addItems(QComPort::availableComPorts());
    ui->comPortConnect->setEnabled(ui->comPortCombo->count() > 0);
}

void ESPFlasher::on_comPortConnect_clicked()
{
    const QString port = ui->comPortCombo->currentText();
    ui->comPortCombo->setEnabled(false);
    startConnect(port);
}

void ESPFlasher::startConnect(const QString &port)
{
    log(LogColour::Notice, tr("Connecting to %1").arg(port));
    queueCommand(ESPToolWorker::Connect, QVariantList{port});
}

void ESPFlasher::guess(const QString &serial)
{
    const QStringList ports = portsForSerial(serial);
    if (ports.isEmpty())
        return;
    if (ui->comPortCombo->findText(ports.first()) < 0)
        on_comPortScanTool_clicked(); // the list was taken before the port appeared
    ui->comPortCombo->setCurrentText(ports.first());
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
    if (ui->comPortCombo->findText(port) < 0)
        on_comPortScanTool_clicked();
    ui->comPortCombo->setCurrentText(port);
    // Unlike a manual connect, the port list stays enabled.
    startConnect(port);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Worker results

void ESPFlasher::worker_error(const QString &reason)
{
    log(LogColour::Notice, tr("Flasher error: ") + reason);
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
        break;
    case ESPToolWorker::GetInfo:
        chipIdentified(results);
        break;
    case ESPToolWorker::WriteFirmware:
    case ESPToolWorker::WriteData:
    case ESPToolWorker::ReadData:
    case ESPToolWorker::EraseFlash:
    case ESPToolWorker::FlashMd5:
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
    // Buttons disabled by the operation stay disabled and its state stays as it was.
    log(LogColour::Error, tr("UBoot operation %1 (%2) finished with error")
                              .arg(ESPToolWorker::operationName(command))
                              .arg(command));
    scheduleAutoClose(false, tr("UBoot operation failure."));
}

void ESPFlasher::connected()
{
    log(LogColour::Success,
        tr("Connected to ESP UBoot via %1").arg(ui->comPortCombo->currentText()));
    ui->comPortConnect->setText(tr("Disconnect"));
    // The only disconnect this dialog issues is the one after a failed identification.
    ui->comPortConnect->setEnabled(false);
    ui->comPortScanTool->setEnabled(false);
    ui->baudRateCombo->setEnabled(false);
    queueCommand(ESPToolWorker::GetInfo);
}

void ESPFlasher::disconnected()
{
    log(LogColour::Success, tr("Closed connection to %1").arg(ui->comPortCombo->currentText()));
    ui->chipIDField->clear();
    ui->flashIDField->clear();
    ui->macField->clear();
    ui->comPortCombo->setEnabled(true);
    ui->comPortConnect->setText(tr("Connect"));
    ui->comPortConnect->setEnabled(true);
    stubLoaded = false;
    scheduleAutoClose(false, tr("Connection closed."));
}

void ESPFlasher::chipIdentified(const QVariantList &results)
{
    // description, chip id, MAC, flash id text, flash size guess in bytes
    constexpr int chipInfoItems = 5;
    if (results.size() != chipInfoItems) {
        log(LogColour::Notice, tr("Chip could not be identified"));
        queueCommand(ESPToolWorker::Disconnect);
        return;
    }
    log(LogColour::Success, tr("Retrieved chip info"));
    ui->chipIDField->setText(results.at(0).toString() + QStringLiteral(" / ") +
                             results.at(1).toString());
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
    const QString text = message + QLatin1Char('\n') + tr("The tool will be closed");
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
// Flash operations

void ESPFlasher::on_flashTool_clicked() {}

void ESPFlasher::on_readTool_clicked() {}

void ESPFlasher::on_eraseTool_clicked() {}

void ESPFlasher::on_verifyTool_clicked() {}

void ESPFlasher::eraseActionHandler() {}

void ESPFlasher::md5ActionHandler() {}

// ---------------------------------------------------------------------------------------------
// Scatter files and packages

bool ESPFlasher::on_scatterSelTool_clicked()
{
    QSettings settings;
    const QString startDir = ui->scatterEdit->text().isEmpty()
                                 ? settings.value(QLatin1String(scatterDirKey)).toString()
                                 : ui->scatterEdit->text();
    const QString path = QFileDialog::getOpenFileName(
        this, tr("Select scatter file"), startDir,
        QStringLiteral("%1 (*.zip *.txt)").arg(tr("Packages and Scatter files")));
    if (path.isEmpty())
        return false;
    settings.setValue(QLatin1String(scatterDirKey), QFileInfo(path).absolutePath());

    ui->scatterEdit->clear();
    ui->flashTool->setEnabled(false);
    ui->readTool->setEnabled(false);
    close_pack();
    return loadScatter(path);
}

bool ESPFlasher::loadScatter(const QString &path)
{
    ScatterLoader loader;
    if (!loader.load(path)) {
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
    for (int row = 0; row < ui->scatterTable->rowCount(); ++row) {
        const QTableWidgetItem *type = ui->scatterTable->item(row, TypeColumn);
        if (type && type->data(kindRole).toInt() == ScatterSection::Firmware)
            return type->data(flashSizeRole).toString();
    }
    if (detectedFlashSize != 0) {
        const QString size = ESPImageParser::flashSizeString(detectedFlashSize);
        log(LogColour::Notice, tr("There is no firmware files in the current scatter - using "
                                  "guessed flash memory size %1")
                                   .arg(size));
        return size;
    }
    log(LogColour::Notice, tr("There is no firmware files in the current scatter - cannot "
                              "detect flash memory size!"));
    return QString();
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
