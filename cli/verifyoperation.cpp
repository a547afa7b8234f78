#include "cli/verifyoperation.h"

#include "cli/boardcontext.h"
#include "cli/scatterinput.h"
#include "worker/esptoolworker.h"

#include <QIODevice>

VerifyOperation::VerifyOperation(ScatterInput &input) : m_input(&input) {}

VerifyOperation::VerifyOperation(const FlashRegion &region) : m_region(region) {}

bool VerifyOperation::begin(BoardContext &board)
{
    if (!m_input) {
        if (!m_region.fitsFlash(board.detectedFlashSize())) {
            board.log(FlashPlan::Tone::Error, m_region.pastFlashMessage(board.detectedFlashSize()));
            return false;
        }
        m_rows = {ScatterSection()};
        return true;
    }
    QString error;
    if (!m_input->validate(
            board.chipDescription(), board.detectedFlashSize(),
            [&board](FlashPlan::Tone tone, const QString &text) { board.log(tone, text); }, &m_rows,
            &error)) {
        board.log(FlashPlan::Tone::Error, error);
        return false;
    }
    return true;
}

BoardOperation::Step VerifyOperation::next(BoardContext &board, FlashPlan::Command *command)
{
    if (m_input)
        return nextRow(board, command);
    if (m_index > 0)
        return finish(board);
    board.log(FlashPlan::Tone::Success, m_region.md5RequestMessage());
    command->command = ESPToolWorker::FlashMd5;
    command->params = m_region.md5Parameters();
    command->announcement.clear();
    return Step::Command;
}

BoardOperation::Step VerifyOperation::nextRow(BoardContext &board, FlashPlan::Command *command)
{
    for (; m_index < m_rows.size(); ++m_index) {
        const ScatterSection &row = m_rows.at(m_index);
        if (!row.hasCells || !row.active)
            continue;
        // Only a firmware row with a saved md5 needs its image: the header is patched on writing.
        std::unique_ptr<QIODevice> image;
        if (!row.md5.isEmpty() && !row.isApplication()) {
            QString error;
            image = m_input->openRow(row, &error);
            if (!image) {
                board.log(FlashPlan::Tone::Error, error);
                ++m_checked;
                ++m_failures;
                continue;
            }
        }
        QString expected;
        FlashPlan::Line line;
        if (FlashPlan::expectedMd5(row, image.get(), &expected, &line) ==
            FlashPlan::Expectation::InvalidImage) {
            board.log(line.tone, line.text);
            ++m_checked;
            ++m_failures;
            continue;
        }
        *command = FlashPlan::verifyCommand(row, expected);
        const FlashRegion region(row.startAddress, row.endAddress - row.startAddress);
        command->announcement = QStringLiteral("%1: %2").arg(row.file, region.md5RequestMessage());
        return Step::Command;
    }
    return finish(board);
}

BoardOperation::Step VerifyOperation::finish(BoardContext &board)
{
    if (!m_input) {
        board.note(QStringLiteral("MD5 %1").arg(m_digest));
        return m_failures == 0 ? Step::Done : Step::Failed;
    }
    if (m_failures > 0) {
        board.log(FlashPlan::Tone::Error, QStringLiteral("%1 of %2 section(s) failed verification")
                                              .arg(m_failures)
                                              .arg(m_checked));
        return Step::Failed;
    }
    board.note(QStringLiteral("%1 of %1 section(s) verified").arg(m_checked));
    return Step::Done;
}

bool VerifyOperation::handle(BoardContext &board, int, const QVariantList &results)
{
    bool verified = false;
    const FlashPlan::Line line = FlashPlan::md5Report(results, &verified);
    board.log(line.tone, line.text);
    ++m_checked;
    if (!verified)
        ++m_failures;
    if (!results.isEmpty())
        m_digest = results.first().toString();
    ++m_index;
    return true;
}
