#include "cli/flashoperation.h"

#include "cli/boardcontext.h"
#include "cli/scatterinput.h"

#include <QIODevice>

#include <algorithm>

FlashOperation::FlashOperation(ScatterInput &input, Kinds kinds) : m_input(input), m_kinds(kinds) {}

FlashOperation::~FlashOperation() = default;

bool FlashOperation::selectKinds(QVector<ScatterSection> *rows, Kinds kinds)
{
    bool anyActive = false;
    for (ScatterSection &row : *rows) {
        if (!row.hasCells)
            continue;
        if (kinds == Kinds::FirmwareOnly)
            row.active = !row.isApplication();
        else if (kinds == Kinds::ApplicationOnly)
            row.active = row.isApplication();
        anyActive = anyActive || row.active;
    }
    return anyActive;
}

bool FlashOperation::begin(BoardContext &board)
{
    QString error;
    if (!m_input.validate(board.chipDescription(), board.detectedFlashSize(), &m_rows, &error)) {
        board.log(FlashPlan::Tone::Error, error);
        return false;
    }
    selectKinds(&m_rows, m_kinds);
    const bool writesData = std::any_of(m_rows.cbegin(), m_rows.cend(), [](const auto &row) {
        return row.hasCells && row.active && row.isApplication();
    });
    if (writesData) {
        QString notice;
        m_flashSize = FlashPlan::scatterFlashSize(m_rows, board.detectedFlashSize(), &notice);
        if (!notice.isEmpty())
            board.log(FlashPlan::Tone::Notice, notice);
    }
    return true;
}

BoardOperation::Step FlashOperation::next(BoardContext &board, FlashPlan::Command *command)
{
    while (m_index < m_rows.size()) {
        const ScatterSection &row = m_rows.at(m_index);
        if (!row.hasCells) {
            ++m_index;
            continue;
        }
        if (!row.active) {
            board.log(FlashPlan::Tone::Notice, FlashPlan::skippingMessage(m_index));
            ++m_index;
            continue;
        }
        QVariant file;
        QString error;
        if (!m_input.rowParameter(row, &file, &m_entry, &error)) {
            board.log(FlashPlan::Tone::Error, error);
            return Step::Failed;
        }
        *command = FlashPlan::writeCommand(row, file, m_flashSize);
        return Step::Command;
    }
    board.log(FlashPlan::Tone::Success, FlashPlan::finishedFlashingMessage());
    board.note(QStringLiteral("%1 section(s) written").arg(m_written));
    return Step::Done;
}

bool FlashOperation::handle(BoardContext &, int, const QVariantList &)
{
    m_entry.reset();
    ++m_written;
    ++m_index;
    return true;
}
