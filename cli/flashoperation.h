#pragma once

#include "cli/boardoperation.h"
#include "flasher/scattersection.h"

#include <QString>
#include <QVector>

#include <memory>

class QIODevice;
class ScatterInput;

// Writes the active rows of a scatter file or package, in table order: firmware rows with their
// flash options, application rows with the scatter's flash size. Every write ends with the
// worker's MD5 comparison, and the run with one more comparison of every section written, so
// that a later write cannot have damaged an earlier one unnoticed.
class FlashOperation : public BoardOperation
{
public:
    // Which kinds of rows stay active (--only).
    enum class Kinds { All, FirmwareOnly, ApplicationOnly };

    FlashOperation(ScatterInput &input, Kinds kinds);
    ~FlashOperation() override;

    bool begin(BoardContext &board) override;
    Step next(BoardContext &board, FlashPlan::Command *command) override;
    bool handle(BoardContext &board, int command, const QVariantList &results) override;

    // Unchecks the rows of the other kind; false when no active row is left.
    static bool selectKinds(QVector<ScatterSection> *rows, Kinds kinds);

private:
    Step nextCheck(BoardContext &board, FlashPlan::Command *command);

    ScatterInput &m_input;
    Kinds m_kinds;
    QVector<ScatterSection> m_rows;
    QString m_flashSize;
    int m_index = 0;
    int m_written = 0;
    QVector<FlashPlan::WrittenSection> m_sections;
    int m_checked = -1; // -1: the final check has not started
    int m_mismatches = 0;
    // The in-memory copy of the package entry the worker is writing.
    std::unique_ptr<QIODevice> m_entry;
};
