#include "cli/eraseoperation.h"

#include "cli/boardcontext.h"
#include "flasher/scattersection.h"
#include "worker/esptoolworker.h"

bool EraseOperation::begin(BoardContext &board)
{
    if (m_region.fitsFlash(board.detectedFlashSize()))
        return true;
    board.log(FlashPlan::Tone::Error, m_region.pastFlashMessage(board.detectedFlashSize()));
    return false;
}

BoardOperation::Step EraseOperation::next(BoardContext &board, FlashPlan::Command *command)
{
    if (m_queued) {
        // The chip erases whole sectors: say which.
        const FlashRegion erased = m_region.erasedSectors();
        board.note(m_region.wholeChip ? QStringLiteral("chip erased")
                                      : QStringLiteral("0x%1 bytes erased at %2")
                                            .arg(erased.size, 0, 16)
                                            .arg(ScatterSection::addressText(erased.address)));
        return Step::Done;
    }
    m_queued = true;
    command->command = ESPToolWorker::EraseFlash;
    command->params = m_region.eraseParameters();
    command->announcement.clear();
    return Step::Command;
}

bool EraseOperation::handle(BoardContext &, int, const QVariantList &)
{
    return true;
}
