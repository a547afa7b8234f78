#pragma once

#include <esputility/esputility_core_global.h>
#include <esputility/scattersection.h>

#include <QString>
#include <QVariant>
#include <QVariantList>
#include <QVector>

class QIODevice;

// The rules that turn scatter rows into worker commands and worker results into log lines,
// shared by every front end that drives the worker (the dialog, the command line). Texts are
// the dialog's own, translated in its context.
class ESPUTILITY_CORE_EXPORT FlashPlan
{
public:
    // The log's three colours: green, amber and red.
    enum class Tone { Success, Notice, Error };

    struct Line
    {
        Tone tone = Tone::Success;
        QString text;
    };

    // One worker command with its parameters and the line that announces it.
    struct Command
    {
        int command = -1;
        QVariantList params;
        QString announcement;
    };

    // "load stub" with a path or an IODeviceDescriptor, announced as "Start loading stub from %1".
    static Command loadStubCommand(const QVariant &stub);
    // The loader for jobs that name none (plain images): the one the build makes for real boards,
    // else the virtual chip's stand-in, beside the program in the build tree or where an
    // installation keeps them; empty when there is none.
    static QString defaultLoaderPath();

    // The flash size text handed to "write data": the size text of the first firmware row;
    // without one, the size guessed from the chip's flash id (0: none detected, then empty).
    // The second and third cases explain themselves in *notice (an amber line).
    static QString scatterFlashSize(const QVector<ScatterSection> &rows,
                                    unsigned int detectedFlashSize, QString *notice = nullptr);

    // "write firmware" with the row's size, mode and frequency texts, or "write data" with the
    // scatter's flash size for an application row. file: a path or an IODeviceDescriptor.
    static Command writeCommand(const ScatterSection &row, const QVariant &file,
                                const QString &scatterFlashSize);
    // The success line of a write command ("Firmware has been successfully flashed." ...).
    static QString writtenMessage(int command);

    // A section as it was written, for the check that ends a flash run: once every row is
    // written, each section written is compared with the flash again, so that no later write
    // can have damaged an earlier one unnoticed.
    struct WrittenSection
    {
        QString file;
        quint32 address = 0;
        quint32 size = 0;
        // What the chip must report: for firmware the image with its header patched to the row's
        // options, for data the file's bytes (upper-case hexadecimal).
        QString md5;
        // Why the section cannot be checked; it then counts as not matching.
        QString error;
    };
    // From the bytes just written (an open, seekable device; null when it could not be opened,
    // with the reason in deviceError).
    static WrittenSection writtenSection(const ScatterSection &row, QIODevice *data,
                                         const QString &deviceError = QString());
    // "Comparing the written sections with the flash once more".
    static QString finalCheckMessage();
    // "flash md5" of the section, tagged so that its result is told from any other.
    static Command finalCheckCommand(const WrittenSection &section, int index);
    // The index a finished "flash md5" was tagged with, or -1 when it was no final check.
    static int finalCheckIndex(const QVariantList &results);
    // The section's line: it still matches, it has changed, or it cannot be checked.
    static Line finalCheckReport(const WrittenSection &section, const QVariantList &results,
                                 bool *matches);
    // The run's last line when some sections no longer match.
    static QString finalCheckFailedMessage(int failed, int total);

    // "read data" of the row's region into path; the size travels as decimal text.
    static Command readCommand(const ScatterSection &row, const QString &path);
    static QString readMessage();
    // After a firmware region was read: takes size, mode and frequency from the image header
    // of the file into the row. The line says what was extracted, or that the file is no image.
    static bool extractFlashParameters(ScatterSection *row, const QString &path, Line *line);

    // The MD5 a verify expects for a row: nothing without a saved md5; an application row's
    // saved md5 as it stands; for a firmware row the MD5 of the image as it is written, header
    // patched with the row's flash options (image: the row's file, open and seekable).
    enum class Expectation {
        None,        // only the chip's MD5 is shown
        Ready,       // *md5 holds the expected digest
        InvalidImage // *line says "Cannot verify - firmware file %1 is invalid"
    };
    static Expectation expectedMd5(const ScatterSection &row, QIODevice *image, QString *md5,
                                   Line *line = nullptr);
    // "flash md5" of the row's region, with the expected digest when there is one.
    static Command verifyCommand(const ScatterSection &row, const QString &expectedMd5);

    // The line for a finished "flash md5": "MD5: ", "Checksum verified (MD5: %1)",
    // "Checksum verification failed (%1 vs %2)" or "MD5 could not be computed".
    // *verified (when given) is false for the last two, true otherwise.
    static Line md5Report(const QVariantList &results, bool *verified = nullptr);

    // The success line of a finished command: "Connected to ESP UBoot via %1" (port),
    // "Closed connection to %1" (port), "Flash stub loaded", "Retrieved chip info", the
    // written, read and erased lines; empty for "flash md5" (see md5Report) and unknown codes.
    static QString finishedMessage(int command, const QString &port = QString());
    // "UBoot operation %1 (%2) finished with error".
    static QString failedOperationMessage(int command);
    // A worker error() text as the log shows it: "Flasher error: " and the reason.
    static QString workerErrorMessage(const QString &reason);
    // The last lines of a run, untranslated: "Finished flashing package", "Finished reading
    // package".
    static QString finishedFlashingMessage();
    static QString finishedReadingMessage();
    // "Skipping section %1", counted from 1.
    static QString skippingMessage(int rowIndex);
    // "Scatter file saved to %1".
    static QString scatterSavedMessage(const QString &path);
    // "CHIP / chipid", as the dialog's chip field shows it, from "get info" results; empty when
    // the results are not the five items of an identification.
    static QString chipDescription(const QVariantList &getInfoResults);
    // "Chip could not be identified": "get info" did not bring the five items.
    static QString unidentifiedChipMessage();
};
