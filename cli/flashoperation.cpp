#include "cli/flashoperation.h"

#include "cli/boardcontext.h"
#include "cli/scatterinput.h"

#include "worker/esptoolworker.h"

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
    if (!m_input.validate(
            board.chipDescription(), board.detectedFlashSize(),
            [&board](FlashPlan::Tone tone, const QString &text) { board.log(tone, text); }, &m_rows,
            &error)) {
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
    return nextCheck(board, command);
}

BoardOperation::Step FlashOperation::nextCheck(BoardContext &board, FlashPlan::Command *command)
{
    if (m_checked < 0) {
        m_checked = 0;
        if (!m_sections.isEmpty())
            board.log(FlashPlan::Tone::Success, FlashPlan::finalCheckMessage());
    }
    while (m_checked < m_sections.size()) {
        const FlashPlan::WrittenSection &section = m_sections.at(m_checked);
        if (section.error.isEmpty()) {
            *command = FlashPlan::finalCheckCommand(section, m_checked);
            return Step::Command;
        }
        // Without its bytes the section cannot be checked, and so counts as changed.
        bool matches = false;
        const FlashPlan::Line line = FlashPlan::finalCheckReport(section, {}, &matches);
        board.log(line.tone, line.text);
        ++m_mismatches;
        ++m_checked;
    }
    if (m_mismatches > 0) {
        board.log(FlashPlan::Tone::Error,
                  FlashPlan::finalCheckFailedMessage(m_mismatches, m_sections.size()));
        return Step::Failed;
    }
    board.log(FlashPlan::Tone::Success, FlashPlan::finishedFlashingMessage());
    board.note(QStringLiteral("%1 section(s) written").arg(m_written));
    return Step::Done;
}

bool FlashOperation::handle(BoardContext &board, int command, const QVariantList &results)
{
    if (command == ESPToolWorker::FlashMd5) {
        bool matches = false;
        const FlashPlan::Line line =
            FlashPlan::finalCheckReport(m_sections.at(m_checked), results, &matches);
        board.log(line.tone, line.text);
        m_mismatches += matches ? 0 : 1;
        ++m_checked;
        return true;
    }
    // The expectation comes from the bytes just written: the package entry's copy, or the file.
    const ScatterSection &row = m_rows.at(m_index);
    if (m_entry) {
        m_sections.append(FlashPlan::writtenSection(row, m_entry.get()));
    } else {
        QString error;
        const std::unique_ptr<QIODevice> data = m_input.openRow(row, &error);
        m_sections.append(FlashPlan::writtenSection(row, data.get(), error));
    }
    m_entry.reset();
    ++m_written;
    ++m_index;
    return true;
}
