#pragma once

#include "cli/boardoperation.h"
#include "flasher/flashregion.h"
#include "flasher/scattersection.h"

#include <QVector>

class ScatterInput;

// Compares the chip's MD5 of every active row with what the row should hold (an application's
// saved md5, a firmware image as written with the row's flash options), or shows the MD5 of
// one region typed by the user.
class VerifyOperation : public BoardOperation
{
public:
    explicit VerifyOperation(ScatterInput &input);
    explicit VerifyOperation(const FlashRegion &region);

    bool begin(BoardContext &board) override;
    Step next(BoardContext &board, FlashPlan::Command *command) override;
    bool handle(BoardContext &board, int command, const QVariantList &results) override;

private:
    Step nextRow(BoardContext &board, FlashPlan::Command *command);
    Step finish(BoardContext &board);

    ScatterInput *m_input = nullptr;
    FlashRegion m_region;
    QVector<ScatterSection> m_rows;
    int m_index = 0;
    int m_checked = 0;
    int m_failures = 0;
    QString m_digest;
};
