#include "flasher/flashplan.h"

#include "image/espimageparser.h"
#include "protocol/esptool.h"
#include "widgets/texthelpers.h"
#include "worker/esptoolworker.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QVariantMap>

namespace {

QString dialogText(const char *source)
{
    return QCoreApplication::translate("ESPFlasher", source);
}

// Key of the tag a final check hands to "flash md5"; the worker returns the tag unchanged.
const QString finalCheckKey = QStringLiteral("finalCheck");

} // namespace

FlashPlan::Command FlashPlan::loadStubCommand(const QVariant &stub)
{
    Command command;
    command.command = ESPToolWorker::LoadStub;
    command.params << stub;
    command.announcement = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Start loading stub from %1"))
                               .arg(gFileDescrString(stub));
    return command;
}

QString FlashPlan::scatterFlashSize(const QVector<ScatterSection> &rows,
                                    unsigned int detectedFlashSize, QString *notice)
{
    for (const ScatterSection &row : rows) {
        if (row.hasCells && !row.isApplication())
            return row.flashSize;
    }
    if (detectedFlashSize != 0) {
        const QString guessed = ESPImageParser::flashSizeString(detectedFlashSize);
        if (notice) {
            *notice =
                dialogText(
                    QT_TRANSLATE_NOOP(
                        "ESPFlasher",
                        "There is no firmware files in the current scatter - using guessed flash memory size %1"))
                    .arg(guessed);
        }
        return guessed;
    }
    if (notice) {
        *notice = dialogText(QT_TRANSLATE_NOOP(
            "ESPFlasher",
            "There is no firmware files in the current scatter - cannot detect flash memory size!"));
    }
    return QString();
}

FlashPlan::Command FlashPlan::writeCommand(const ScatterSection &row, const QVariant &file,
                                           const QString &scatterFlashSize)
{
    Command command;
    command.params << file << row.startAddress;
    if (row.isApplication()) {
        command.command = ESPToolWorker::WriteData;
        command.params << scatterFlashSize;
        command.announcement =
            dialogText(
                QT_TRANSLATE_NOOP("ESPFlasher",
                                  "Start writing user application from %1 to 0x%2 (max size %3)"))
                .arg(gFileDescrString(file), hex8(row.startAddress), scatterFlashSize);
        return command;
    }
    command.command = ESPToolWorker::WriteFirmware;
    command.params << row.flashSize << row.flashMode << row.flashFrequency;
    command.announcement =
        dialogText(
            QT_TRANSLATE_NOOP(
                "ESPFlasher",
                "Start writing firmware from %1 to 0x%2 (flash memory size %3, mode %4, frequency %5)"))
            .arg(gFileDescrString(file), hex8(row.startAddress), row.flashSize, row.flashMode,
                 row.flashFrequency);
    return command;
}

QString FlashPlan::writtenMessage(int command)
{
    if (command == ESPToolWorker::WriteData)
        return dialogText(
            QT_TRANSLATE_NOOP("ESPFlasher", "Application has been successfully flashed."));
    return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Firmware has been successfully flashed."));
}

FlashPlan::WrittenSection FlashPlan::writtenSection(const ScatterSection &row, QIODevice *data,
                                                    const QString &deviceError)
{
    WrittenSection section;
    section.file = row.file;
    section.address = row.startAddress;
    if (!data) {
        section.error = deviceError;
        return section;
    }
    if (row.isApplication()) {
        data->seek(0);
        section.md5 = hexlify(ESPTool::get_md5(data), true);
        section.size = quint32(qBound<qint64>(0, data->size(), 0xFFFFFFFFu));
        return section;
    }
    ESPImageParser parser;
    if (!parser.load(data, ESPImageParser::fm_fromString(row.flashMode),
                     ESPImageParser::fs_fromString(row.flashSize),
                     ESPImageParser::ff_fromString(row.flashFrequency))) {
        section.error =
            dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "the file is no firmware image any more"));
        return section;
    }
    section.md5 = hexlify(parser.md5(), true);
    section.size = parser.file_size();
    return section;
}

QString FlashPlan::finalCheckMessage()
{
    return dialogText(
        QT_TRANSLATE_NOOP("ESPFlasher", "Comparing the written sections with the flash once more"));
}

FlashPlan::Command FlashPlan::finalCheckCommand(const WrittenSection &section, int index)
{
    Command command;
    command.command = ESPToolWorker::FlashMd5;
    command.params << section.address << section.size << QVariantMap{{finalCheckKey, index}};
    return command;
}

int FlashPlan::finalCheckIndex(const QVariantList &results)
{
    if (results.size() != 2)
        return -1;
    const QVariantMap tag = results.at(1).toMap();
    return tag.contains(finalCheckKey) ? tag.value(finalCheckKey).toInt() : -1;
}

FlashPlan::Line FlashPlan::finalCheckReport(const WrittenSection &section,
                                            const QVariantList &results, bool *matches)
{
    Line line;
    line.tone = Tone::Error;
    const QString address = hex8(section.address);
    const QString chip = results.value(0).toString();
    *matches = section.error.isEmpty() && !chip.isEmpty() &&
               chip.compare(section.md5, Qt::CaseInsensitive) == 0;
    if (!section.error.isEmpty()) {
        line.text = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "%1 at 0x%2 cannot be checked: %3"))
                        .arg(section.file, address, section.error);
    } else if (*matches) {
        line.tone = Tone::Success;
        line.text =
            dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "%1 at 0x%2 still matches (MD5: %3)"))
                .arg(section.file, address, chip);
    } else {
        line.text =
            dialogText(QT_TRANSLATE_NOOP(
                           "ESPFlasher",
                           "%1 at 0x%2 has changed since it was written (MD5: %3 instead of %4)"))
                .arg(section.file, address, chip, section.md5);
    }
    return line;
}

QString FlashPlan::finalCheckFailedMessage(int failed, int total)
{
    return dialogText(QT_TRANSLATE_NOOP(
                          "ESPFlasher",
                          "The flash run failed: %1 of %2 written section(s) no longer match"))
        .arg(failed)
        .arg(total);
}

FlashPlan::Command FlashPlan::readCommand(const ScatterSection &row, const QString &path)
{
    const quint32 size = row.endAddress - row.startAddress;
    Command command;
    command.command = ESPToolWorker::ReadData;
    // The size goes as decimal text; the worker converts it back.
    command.params << path << row.startAddress << QString::number(size, 10);
    command.announcement =
        dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Start reading %1 from region [0x%2:0x%3]"))
            .arg(path, hex8(row.startAddress), hex8(row.startAddress + size));
    return command;
}

QString FlashPlan::readMessage()
{
    return dialogText(
        QT_TRANSLATE_NOOP("ESPFlasher", "Flash memory section has been successfully read."));
}

bool FlashPlan::extractFlashParameters(ScatterSection *row, const QString &path, Line *line)
{
    ESPImageParser parser;
    const bool loaded =
        row && parser.load(path, ESPImageParser::kCodeNotGiven, ESPImageParser::kCodeNotGiven,
                           ESPImageParser::kCodeNotGiven);
    Line result;
    if (loaded) {
        row->flashSize = parser.getFlashSize();
        row->flashMode = parser.getFlashMode();
        row->flashFrequency = parser.getFlashFrequency();
        result.tone = Tone::Success;
        result.text =
            dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Extracted flash parameters: %1 / %2 / %3"))
                .arg(row->flashSize, row->flashMode, row->flashFrequency);
    } else {
        result.tone = Tone::Error;
        result.text = dialogText(QT_TRANSLATE_NOOP("ESPFlasher",
                                                   "Firmware read is invalid - cannot parse %1"))
                          .arg(path);
    }
    if (line)
        *line = result;
    return loaded;
}

FlashPlan::Expectation FlashPlan::expectedMd5(const ScatterSection &row, QIODevice *image,
                                              QString *md5, Line *line)
{
    if (md5)
        md5->clear();
    if (row.md5.isEmpty())
        return Expectation::None;
    if (row.isApplication()) {
        if (md5)
            *md5 = row.md5;
        return Expectation::Ready;
    }
    // The flash holds the image with its header patched to the row's options, so the saved md5
    // of the file is not what the chip reports.
    ESPImageParser parser;
    if (!image || !parser.load(image, ESPImageParser::fm_fromString(row.flashMode),
                               ESPImageParser::fs_fromString(row.flashSize),
                               ESPImageParser::ff_fromString(row.flashFrequency))) {
        if (line) {
            line->tone = Tone::Notice;
            line->text =
                dialogText(
                    QT_TRANSLATE_NOOP("ESPFlasher", "Cannot verify - firmware file %1 is invalid"))
                    .arg(row.file);
        }
        return Expectation::InvalidImage;
    }
    if (md5)
        *md5 = hexlify(parser.md5(), true);
    return Expectation::Ready;
}

FlashPlan::Command FlashPlan::verifyCommand(const ScatterSection &row, const QString &expectedMd5)
{
    Command command;
    command.command = ESPToolWorker::FlashMd5;
    command.params << row.startAddress << quint32(row.endAddress - row.startAddress);
    if (!expectedMd5.isEmpty())
        command.params << expectedMd5;
    return command;
}

FlashPlan::Line FlashPlan::md5Report(const QVariantList &results, bool *verified)
{
    Line line;
    bool good = true;
    if (results.size() == 1) {
        line.tone = Tone::Success;
        line.text = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "MD5: ")) + results.at(0).toString();
    } else if (results.size() == 2) {
        const QString chip = results.at(0).toString();
        const QString expected = results.at(1).toString();
        good = chip.compare(expected, Qt::CaseInsensitive) == 0;
        if (good) {
            line.tone = Tone::Success;
            line.text = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Checksum verified (MD5: %1)"))
                            .arg(chip);
        } else {
            line.tone = Tone::Error;
            line.text = dialogText(QT_TRANSLATE_NOOP("ESPFlasher",
                                                     "Checksum verification failed (%1 vs %2)"))
                            .arg(chip, expected);
        }
    } else {
        good = false;
        line.tone = Tone::Notice;
        line.text = dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "MD5 could not be computed"));
    }
    if (verified)
        *verified = good;
    return line;
}

QString FlashPlan::finishedMessage(int command, const QString &port)
{
    switch (command) {
    case ESPToolWorker::Connect:
        return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Connected to ESP UBoot via %1"))
            .arg(port);
    case ESPToolWorker::Disconnect:
        return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Closed connection to %1")).arg(port);
    case ESPToolWorker::LoadStub:
        return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Flash stub loaded"));
    case ESPToolWorker::GetInfo:
        return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Retrieved chip info"));
    case ESPToolWorker::WriteFirmware:
    case ESPToolWorker::WriteData:
        return writtenMessage(command);
    case ESPToolWorker::ReadData:
        return readMessage();
    case ESPToolWorker::EraseFlash:
        return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Flash memory has been erased."));
    default:
        return QString();
    }
}

QString FlashPlan::workerErrorMessage(const QString &reason)
{
    return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Flasher error: ")) + reason;
}

QString FlashPlan::defaultLoaderPath()
{
    const QDir program(QCoreApplication::applicationDirPath());
    const QString installed = QStringLiteral(ESP_INSTALLED_DATA_DIR);
    for (const QString &path :
         {QStringLiteral("../stub/vendor/esp8266_loader_stub.elf"),
          QStringLiteral("../stub/esp8266_loader_stub.elf"),
          installed + QStringLiteral("/esp8266_loader_stub.elf"),
          installed + QStringLiteral("/virtualchip/esp8266_loader_stub.elf")}) {
        if (QFileInfo(program.absoluteFilePath(path)).isFile())
            return QDir::cleanPath(program.absoluteFilePath(path));
    }
    return QString();
}

QString FlashPlan::finishedFlashingMessage()
{
    return QStringLiteral("Finished flashing package");
}

QString FlashPlan::finishedReadingMessage()
{
    return QStringLiteral("Finished reading package");
}

QString FlashPlan::skippingMessage(int rowIndex)
{
    return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Skipping section %1")).arg(rowIndex + 1);
}

QString FlashPlan::scatterSavedMessage(const QString &path)
{
    return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Scatter file saved to %1")).arg(path);
}

QString FlashPlan::failedOperationMessage(int command)
{
    return dialogText(
               QT_TRANSLATE_NOOP("ESPFlasher", "UBoot operation %1 (%2) finished with error"))
        .arg(ESPToolWorker::operationName(command))
        .arg(command);
}

QString FlashPlan::chipDescription(const QVariantList &getInfoResults)
{
    constexpr int identificationItems = 5;
    if (getInfoResults.size() != identificationItems)
        return QString();
    // The separator is not translated.
    return getInfoResults.at(0).toString() + QStringLiteral(" / ") +
           getInfoResults.at(1).toString();
}

QString FlashPlan::unidentifiedChipMessage()
{
    return dialogText(QT_TRANSLATE_NOOP("ESPFlasher", "Chip could not be identified"));
}
