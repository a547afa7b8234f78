#pragma once

#include "cli/boardoperation.h"
#include "flasher/flashregion.h"

// Erases one region, or the whole chip; a region past the end of the chip's flash is refused.
class EraseOperation : public BoardOperation
{
public:
    explicit EraseOperation(const FlashRegion &region) : m_region(region) {}

    bool begin(BoardContext &board) override;
    Step next(BoardContext &board, FlashPlan::Command *command) override;
    bool handle(BoardContext &board, int command, const QVariantList &results) override;

private:
    FlashRegion m_region;
    bool m_queued = false;
};
