#pragma once

#include <QDir>
#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QWidget>

// Helpers for tests of the flasher dialog: its widgets by name, its log read back as coloured
// lines, worker results delivered as the worker delivers them, and scatter documents.
namespace FlasherTestKit {

// The log colours.
constexpr const char *green = "#00b138";
constexpr const char *amber = "#ad6f04";
constexpr const char *red = "#d4280a";

// Longest wait for one worker step, in milliseconds; only a fault lets it run out.
constexpr int workerStepTimeoutMs = 20000;

template <class T>
T *child(QWidget *flasher, const char *name)
{
    return flasher->findChild<T *>(QLatin1String(name));
}

// The log paragraphs from `from` on as "colour|text" lines, the progress dots at their ends
// removed.
QStringList logLines(QWidget *flasher, int from = 0);
QString line(const char *colour, const QString &text);
// Processes events until the log holds `line` at index `from` or later.
bool waitForLogLine(QWidget *flasher, const QString &line, int from = 0);

// Runs the dialog's scatter chooser (on_scatterSelTool_clicked) and returns its result.
bool selectScatter(QObject *flasher);
// Points the default QSettings at a directory of its own, away from the user's settings.
void isolateSettings(const QString &directory);
// Calls the dialog's worker_finished slot, as the worker's queued signal does.
bool deliverFinished(QObject *flasher, bool result, int command,
                     const QVariantList &results = QVariantList());
// A "get info" result: ESP8266EX, chip id 00a1b2c3, a MAC, a flash id text, 4 MB of flash.
QVariantList chipInfo();

// Section objects of a scatter document; an empty md5 leaves the key out.
QJsonObject firmwareSection(const QString &address, const QString &file, const QString &md5,
                            const QString &mode = QStringLiteral("dio"));
QJsonObject applicationSection(const QString &address, const QString &file, const QString &md5);

// A firmware image, an application image and a loader beside a loose scatter file, and the same
// packed into a package: what a flash run writes. The firmware's header says qio / 1MB / 26m;
// the scatter asks for dio / 4MB / 40m, so the chip ends up holding patchedFirmware.
struct FlashTestFiles
{
    static constexpr quint32 applicationAddress = 0x10000;

    QByteArray firmware;
    QByteArray patchedFirmware;
    QByteArray application;
    QString stub;    // the loader beside the scatter file
    QString scatter; // the loose scatter file
    QString package; // the package of the same files

    // Writes boot.bin (for 0), app.bin, loader.elf, scatter.txt and package.zip into dir.
    bool create(const QDir &dir);
    // The scatter document: chip ESP8266EX, both sections with the md5 of their files.
    QJsonObject document() const;
    // Writes a package of the files with `firmwareImage` in place of the firmware.
    bool writePackage(const QString &path, const QByteArray &firmwareImage) const;
};

} // namespace FlasherTestKit
