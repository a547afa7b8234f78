#include "cli/infooperation.h"

#include "cli/boardcontext.h"
#include "image/espimageparser.h"

bool InfoOperation::begin(BoardContext &board)
{
    const QString size = board.detectedFlashSize() != 0
                             ? ESPImageParser::flashSizeString(board.detectedFlashSize())
                             : QStringLiteral("unknown");
    board.log(FlashPlan::Tone::Success,
              QStringLiteral("Chip:       %1").arg(board.chipDescription()));
    board.log(FlashPlan::Tone::Success, QStringLiteral("MAC:        %1").arg(board.mac()));
    board.log(FlashPlan::Tone::Success, QStringLiteral("Flash:      %1").arg(board.flashId()));
    board.log(FlashPlan::Tone::Success, QStringLiteral("Flash size: %1").arg(size));
    return true;
}

BoardOperation::Step InfoOperation::next(BoardContext &, FlashPlan::Command *)
{
    return Step::Done;
}

bool InfoOperation::handle(BoardContext &, int, const QVariantList &)
{
    return true;
}
