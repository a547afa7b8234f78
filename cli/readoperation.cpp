#include "cli/readoperation.h"

#include "cli/boardcontext.h"
#include "flasher/scatterwriter.h"
#include "image/espimageparser.h"

#include <QFile>
#include <QFileInfo>

namespace {

bool startsWithImageMagic(const QString &path)
{
    QFile file(path);
    char first = 0;
    return file.open(QIODevice::ReadOnly) && file.getChar(&first) &&
           static_cast<unsigned char>(first) == ESPImageParser::kImageMagic;
}

} // namespace

ReadOperation::ReadOperation(const QVector<FlashRegion> &regions, const QString &scatterPath,
                             const QString &loaderPath)
    : m_regions(regions)
    , m_scatterPath(QFileInfo(scatterPath).absoluteFilePath())
    , m_loaderPath(QFileInfo(loaderPath).absoluteFilePath())
    , m_dir(QFileInfo(scatterPath).absoluteDir())
{}

QString ReadOperation::fileNameFor(const FlashRegion &region)
{
    return QStringLiteral("region-%1-%2.bin")
        .arg(region.address, 8, 16, QLatin1Char('0'))
        .arg(region.end(), 8, 16, QLatin1Char('0'));
}

bool ReadOperation::begin(BoardContext &board)
{
    // Every region is checked before the first is read: a refused one leaves no files behind.
    for (const FlashRegion &region : qAsConst(m_regions)) {
        if (!region.fitsFlash(board.detectedFlashSize())) {
            board.log(FlashPlan::Tone::Error, region.pastFlashMessage(board.detectedFlashSize()));
            return false;
        }
    }
    m_rows.clear();
    for (const FlashRegion &region : qAsConst(m_regions)) {
        ScatterSection row;
        row.hasCells = true;
        row.startAddress = region.address;
        row.endAddress = region.end();
        row.file = fileNameFor(region);
        row.source = m_dir.absoluteFilePath(row.file);
        m_rows << row;
    }
    return true;
}

BoardOperation::Step ReadOperation::next(BoardContext &board, FlashPlan::Command *command)
{
    if (m_index < m_rows.size()) {
        const ScatterSection &row = m_rows.at(m_index);
        *command = FlashPlan::readCommand(row, row.source);
        return Step::Command;
    }
    board.log(FlashPlan::Tone::Success, FlashPlan::finishedReadingMessage());
    return save(board);
}

bool ReadOperation::handle(BoardContext &board, int, const QVariantList &results)
{
    // Without the chip's digest the file does not hold what the chip holds (the worker said so).
    if (results.isEmpty())
        return false;
    classify(board, &m_rows[m_index]);
    ++m_index;
    return true;
}

void ReadOperation::classify(BoardContext &board, ScatterSection *row)
{
    row->kindSet = true;
    row->kind = ScatterSection::Application;
    row->typeKey = QStringLiteral("Application");
    if (!startsWithImageMagic(row->source))
        return;
    FlashPlan::Line line;
    if (FlashPlan::extractFlashParameters(row, row->source, &line)) {
        row->kind = ScatterSection::Firmware;
        row->typeKey = QStringLiteral("Firmware");
    }
    board.log(line.tone, line.text);
}

BoardOperation::Step ReadOperation::save(BoardContext &board)
{
    const QJsonObject document =
        ScatterWriter::savedDocument(board.chipDescription(), m_loaderPath, m_rows, m_dir);
    QString error;
    if (!ScatterWriter::save(m_scatterPath, document, &error)) {
        board.log(FlashPlan::Tone::Error, error);
        return Step::Failed;
    }
    board.log(FlashPlan::Tone::Success, FlashPlan::scatterSavedMessage(m_scatterPath));
    board.note(QStringLiteral("%1 region(s) read back").arg(m_rows.size()));
    return Step::Done;
}
