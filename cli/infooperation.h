#pragma once

#include "cli/boardoperation.h"

// Shows what identification found: chip, MAC, flash id and the flash size it suggests.
class InfoOperation : public BoardOperation
{
public:
    explicit InfoOperation(bool loaderGiven) : m_loaderGiven(loaderGiven) {}

    bool begin(BoardContext &board) override;
    Step next(BoardContext &board, FlashPlan::Command *command) override;
    bool handle(BoardContext &board, int command, const QVariantList &results) override;
    // Identification works with the ROM loader too; a loader given with --stub is used.
    bool needsLoader() const override { return m_loaderGiven; }

private:
    bool m_loaderGiven;
};
