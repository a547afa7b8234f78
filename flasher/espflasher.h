#pragma once

#include <esputility/esputility_global.h>
#include <esputility/flashplan.h>
#include <esputility/qcomport.h>
#include <esputility/scatterprompts.h>
#include <esputility/scattersection.h>

#include <QDialog>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QThread>
#include <QVariantList>

#include <memory>

class EspPackage;
class FlashRegion;
class ESPToolWorker;
class QAction;
class QFileInfo;
class QIODevice;
class QProgressDialog;
class QTemporaryFile;
class Ui_ESPFlasher;

// The main window of the utility: connects to a board through the operation worker, loads
// scatter files and packages into the scatter table and runs the flash operations on it.
// Scatter and package rules live in the widget-free layer (ScatterValidator, ScatterLoader,
// EspPackageWriter); the dialog asks its questions, fills the table and keeps the log.
class ESPUTILITY_EXPORT ESPFlasher : public QDialog, private ScatterPrompts
{
    Q_OBJECT

public:
    enum RUN_MODE : qint32 {
        // Identify, ask for a package, flash it, report in a box that closes itself, and close
        // with accept (success) or reject (failure) so that the host learns the outcome.
        RUN_MODE_UPGRADE = 0,
        // The interactive tool; any value other than 0 behaves like this one.
        RUN_MODE_STANDALONE = 1,
    };

    explicit ESPFlasher(RUN_MODE mode, QWidget *parent = nullptr);
    ~ESPFlasher() override;

    // Connects to the port whose USB serial number is `serial`. Several matches: in the
    // upgrade mode the user picks one, otherwise nothing happens. True when a connect command
    // was issued.
    bool autoconnect(const QString &serial);
    // Preselects the first port whose USB serial number is `serial`, if any.
    void guess(const QString &serial);
    // Names of all ports with exactly this USB serial number, in enumeration order.
    QStringList portsForSerial(const QString &serial) const;

    // Validates a loose scatter document into the scatter table; relative paths resolve
    // against scatterFile's directory. Not strict: a template for reading flash (no file and
    // checksum checks, a foreign chip is adopted into the document).
    bool parseScatterObject(QJsonObject &scatter, bool strict, const QFileInfo &scatterFile,
                            QString *error);
    // Validates the document of the open package into the scatter table.
    bool parseScatterPack(const QJsonObject &scatter, QString *error);
    // Rebuilds the per-row erase and verify menus and enables the operation buttons.
    void parseFinish();
    // Checks the rows of the kinds to write; asks which ones when both kinds are present.
    bool autoSelectByType();
    // Flash size text for application writes: the first firmware row's, else the size
    // detected from the chip's flash ID; empty when neither is known.
    QString getScatterFlashSize();

    // The port list's text for a port: its path, and the adapter's description when known.
    static QString portItemText(const QComPort::PortEntry &port);
    // The port's tool tip: the path, then description, manufacturer, VID:PID and serial number,
    // each on a line of its own when known.
    static QString portDetails(const QComPort::PortEntry &port);

    // Closes the package entry handed to the worker, then the package itself.
    void close_pack();
    // Closes only the package entry handed to the worker.
    void close_zip_file();

private slots:
    void on_comPortScanTool_clicked();
    void on_comPortConnect_clicked();
    bool on_scatterSelTool_clicked();
    void on_stubSelTool_clicked();
    void on_flashTool_clicked();
    void on_readTool_clicked();
    void on_eraseTool_clicked();
    void on_verifyTool_clicked();
    void on_zipTool_clicked();
    void worker_error(const QString &reason);
    void worker_progress(int total, int current);
    void worker_finished(bool result, int command, const QVariantList &results);
    void worker_notice(const QString &text);
    void worker_connectionLost(const QString &reason);
    void scatterTableHeaderClickHandler(int index);
    void eraseActionHandler();
    void md5ActionHandler();

private:
    // Log colours: success and progress, notices and skips, errors.
    enum class LogColour { Success, Notice, Error };

    // Operations that a successful "load stub" continues with.
    enum Operation { OperationNone = 0, OperationReading = 1, OperationFlashing = 2 };

    // ScatterPrompts: the validators' questions, answered with message boxes and the log.
    bool confirmMissingLoader(const QString &question, const QString &loaderPath) override;
    QString chooseLoader() override;
    bool confirmMissingChecksum(const QString &question, const QString &path,
                                const QString &md5) override;
    bool confirmFlashSize(const QString &question) override;
    void notice(const QString &text) override;

    void log(LogColour colour, const QString &text);
    void log(const FlashPlan::Line &line);
    void queueCommand(int command, const QVariantList &params = QVariantList());
    void queueCommand(const FlashPlan::Command &command);
    void startConnect(const QString &port);
    // The options of "connect" as the connection group sets them.
    QVariantMap connectOptions() const;
    // Index in the port list of the port of that enumeration name or path; -1 when none.
    int portIndex(const QString &port) const;
    // Lets the user change the connection settings (rate, reset, skip, the port scan) or not;
    // the port list itself is enabled by its own rules.
    void setConnectionSettingsEnabled(bool enabled);
    void restoreSettings();
    void connectSettingsPersistence();

    void commandFailed(int command);
    void connected();
    void disconnected();
    // After a failure or a lost port: the operation in work is dropped and the connection
    // controls work again, so that the user can connect (again) without closing the dialog.
    void returnToDisconnected();
    void chipIdentified(const QVariantList &results);

    // In the upgrade mode: shows the outcome in a box that closes itself, then closes the tool.
    void scheduleAutoClose(bool success, const QString &message);

    // Flashing: queues "load stub" (false, after a message box, when it cannot be queued).
    bool startLoadStub();
    // Loads the stub and waits for the worker's answer in a local event loop.
    bool waitStubLoaded();
    void cancelStubWait();
    // Steps shared by the write and the read walk over the scatter table. Starting answers false
    // when the stub is needed and cannot be loaded.
    bool startSectionWalk(Operation walk, void (ESPFlasher::*firstStep)());
    bool skipInactiveSection(void (ESPFlasher::*next)());
    void finishSectionWalk(const QString &message);
    void enableToolsAfterWalk();
    // Writes the row at sectionIndex, passing over unchecked rows; the last row ends the run.
    void writeNextSection();
    // The end of a successful run; in the upgrade mode a board with the reset circuit is
    // reset into its new firmware before the tool closes.
    void flashingFinished();
    void sectionWritten(int command);
    // After the last row every section written is compared with the flash once more; the run
    // succeeds only when all still match.
    void checkNextWrittenSection();
    void finalCheckFinished(int index, const QVariantList &results);
    void finishFlashing();

    // Reading flash into a scatter file.
    bool useScatterAsTemplate(const QString &scatter);
    bool composeScatter();
    // The scatter file a read saves, with ".txt"; empty when cancelled or when the user keeps
    // the file that is there.
    QString chooseScatterTarget(const QString &startDir);
    // Asks before a read replaces a file that is there; false when the user keeps it.
    bool confirmReplacing(const QString &path);
    void startReading();
    void readNextSection();
    void sectionRead();
    void saveScatter();

    // Erase and verify of a scatter row from the buttons' menus.
    void processEraseVerifyAction(QAction *action, int command);
    // Asks for an "address:size" region (for an erase also 0x911, the whole chip), after making
    // sure that the loader runs. False when cancelled or not usable (a format error is logged).
    bool askRegion(const QString &title, const QString &preset, bool erase, FlashRegion *region);
    // A region past the end of the chip's flash is refused with a red line before anything is
    // sent; so is a walk over a table with such an active row.
    bool regionFitsChip(const FlashRegion &region);
    bool activeRowsFitChip();
    // Two regions read into one file would lose the first; nor may a region take the scatter
    // file's name. Logs the clash and returns false.
    bool activeRowsHaveDistinctFiles();
    void queueErase(const FlashRegion &region);
    bool expectedMd5ForRow(const ScatterSection &row, QString *md5);
    // An entry of the open package copied into a temporary file; a missing or unreadable one
    // is reported in a box.
    std::unique_ptr<QTemporaryFile> extractPackageEntry(const QString &file);
    std::unique_ptr<QIODevice> openSectionImage(const QString &file);

    void stubLoadFinished();
    // A copy of a package entry for the worker, kept as packageFile until the worker has
    // finished with it.
    QVariant handOverPackageEntry(std::unique_ptr<QIODevice> entry, const QString &name);
    // A scatter file name as a path: relative names resolve against the scatter file's folder.
    QString resolveScatterPath(const QString &path) const;
    bool rowActive(int row) const;
    QString cellText(int row, int column) const;

    void fillScatterTable(const QVector<ScatterSection> &rows);
    void clearScatterTable();
    bool loadScatter(const QString &path);
    // A plain image file (.bin): asks where it goes, then fills the table with its one row.
    bool loadImage(const QString &path);
    bool askImageAddress(const QString &path, qint64 size, quint32 *address);
    // The loader an image is written with: the one chosen before, the one beside the program,
    // or one the user picks; empty when none.
    QString imageLoader();
    QVector<ScatterSection> scatterRows() const;
    ScatterSection scatterRow(int row) const;
    QString scatterDirectory() const;

    std::unique_ptr<Ui_ESPFlasher> ui;
    QThread workerThread;
    ESPToolWorker *worker = nullptr;
    // Shown while a caller waits for the loader stub; exists only during that wait.
    QProgressDialog *stubWaitDialog = nullptr;
    // The open package; null while a loose scatter file (or nothing) is loaded.
    std::unique_ptr<EspPackage> zip;
    // The copy of a package entry handed to the worker; non-null while the worker uses it.
    std::unique_ptr<QIODevice> packageFile;
    bool stubLoaded = false;
    RUN_MODE runMode;
    qint32 operation = OperationFlashing;
    // A connection to the chip is established (the connect command succeeded).
    bool connectedToChip = false;
    // Scatter table row in work; -1 while the stub loads so that its result starts at row 0.
    qint32 sectionIndex = 0;
    // Flash size in bytes guessed from the chip's flash ID; 0 when unknown.
    quint32 detectedFlashSize = 0;
    // The port of the running connection (the path given to "connect").
    QString connectedPort;
    // A disconnect that resets the board after a successful upgrade: its end closes the tool.
    bool closingAfterUpgrade = false;
    // What the running flash walk wrote, and how far the final check has come through it.
    QVector<FlashPlan::WrittenSection> writtenSections;
    int finalChecked = -1; // -1: the check has not started
    int finalCheckFailures = 0;
    // The region of the erase in work, for the line that says what it cleared.
    std::unique_ptr<FlashRegion> pendingErase;
};
