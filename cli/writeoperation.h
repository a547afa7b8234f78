#pragma once

#include "cli/boardoperation.h"

#include <QString>
#include <QVector>

// Writes plain images at addresses without a scatter file. A file with a firmware header is
// written as firmware, its header patched with the flash options (keep: the header's own;
// detect, for the size: the chip's detected flash size); anything else as data.
class WriteOperation : public BoardOperation
{
public:
    struct Item
    {
        quint32 address = 0;
        QString path;
    };
    struct FlashOptions
    {
        QString mode = QStringLiteral("keep");
        QString size = QStringLiteral("keep");
        QString frequency = QStringLiteral("keep");
    };

    WriteOperation(const QVector<Item> &items, const FlashOptions &options);

    // Checks the option texts; false with one line in *error.
    static bool checkOptions(const FlashOptions &options, QString *error);

    bool begin(BoardContext &board) override;
    Step next(BoardContext &board, FlashPlan::Command *command) override;
    bool handle(BoardContext &board, int command, const QVariantList &results) override;

private:
    // The size text for a write: given, the header's own (firmware) or the detected size.
    QString sizeText(BoardContext &board, const QString &headerSize) const;

    QVector<Item> m_items;
    FlashOptions m_options;
    int m_index = 0;
};
