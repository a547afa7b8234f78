#include "cli/writeoperation.h"

#include "cli/boardcontext.h"
#include "image/espimageparser.h"
#include "widgets/texthelpers.h"
#include "worker/esptoolworker.h"

namespace {

const QString keep = QStringLiteral("keep");
const QString detect = QStringLiteral("detect");

} // namespace

WriteOperation::WriteOperation(const QVector<Item> &items, const FlashOptions &options)
    : m_items(items), m_options(options)
{}

bool WriteOperation::checkOptions(const FlashOptions &options, QString *error)
{
    const auto bad = [error](const char *option, const QString &value) {
        *error = QStringLiteral("%1 takes keep or a value such as %2, not %3")
                     .arg(QLatin1String(option),
                          QLatin1String(qstrcmp(option, "--flash-mode") == 0   ? "dio"
                                        : qstrcmp(option, "--flash-freq") == 0 ? "40m"
                                                                               : "4MB or detect"),
                          value);
        return false;
    };
    if (options.mode != keep && ESPImageParser::fm_fromString(options.mode) == 0xFF)
        return bad("--flash-mode", options.mode);
    if (options.frequency != keep && ESPImageParser::ff_fromString(options.frequency) == 0xFF)
        return bad("--flash-freq", options.frequency);
    if (options.size != keep && options.size != detect &&
        ESPImageParser::fs_fromString(options.size) == 0xFF)
        return bad("--flash-size", options.size);
    return true;
}

bool WriteOperation::begin(BoardContext &board)
{
    const bool needsDetected = m_options.size == detect;
    if (needsDetected && board.detectedFlashSize() == 0) {
        board.log(FlashPlan::Tone::Error,
                  QStringLiteral("--flash-size detect: the chip's flash size is unknown"));
        return false;
    }
    return true;
}

QString WriteOperation::sizeText(BoardContext &board, const QString &headerSize) const
{
    if (m_options.size == detect || (m_options.size == keep && headerSize.isEmpty()))
        return board.detectedFlashSize()
                   ? ESPImageParser::flashSizeString(board.detectedFlashSize())
                   : QStringLiteral("16MB");
    if (m_options.size == keep)
        return headerSize;
    return m_options.size;
}

BoardOperation::Step WriteOperation::next(BoardContext &board, FlashPlan::Command *command)
{
    if (m_index >= m_items.size()) {
        board.note(QStringLiteral("%1 image(s) written").arg(m_items.size()));
        return Step::Done;
    }
    const Item &item = m_items.at(m_index);
    ESPImageParser image;
    const unsigned char given = ESPImageParser::kCodeNotGiven;
    command->params.clear();
    if (image.load(item.path, given, given, given)) {
        const QString size = sizeText(board, image.getFlashSize());
        const QString mode = m_options.mode == keep ? image.getFlashMode() : m_options.mode;
        const QString freq =
            m_options.frequency == keep ? image.getFlashFrequency() : m_options.frequency;
        command->command = ESPToolWorker::WriteFirmware;
        command->params << item.path << item.address << size << mode << freq;
        command->announcement =
            QStringLiteral(
                "Start writing firmware from %1 to 0x%2 (flash memory size %3, mode %4, frequency %5)")
                .arg(item.path, hex8(item.address), size, mode, freq);
    } else {
        // Data: the size only bounds the write.
        const QString size = sizeText(board, QString());
        command->command = ESPToolWorker::WriteData;
        command->params << item.path << item.address << size;
        command->announcement = QStringLiteral("Start writing data from %1 to 0x%2 (max size %3)")
                                    .arg(item.path, hex8(item.address), size);
    }
    return Step::Command;
}

bool WriteOperation::handle(BoardContext &, int, const QVariantList &)
{
    ++m_index;
    return true;
}
