#pragma once

#include "cli/boardoperation.h"
#include "flasher/flashregion.h"
#include "flasher/scattersection.h"

#include <QDir>
#include <QString>
#include <QVector>

// Reads flash regions into files beside a scatter file and saves that scatter file, so that
// the result can be flashed again or packed. A region whose data is an ESP8266 image becomes a
// firmware row with the flash options taken from its header, any other an application row.
class ReadOperation : public BoardOperation
{
public:
    // loaderPath: the flash loader the saved scatter names (relative to its directory).
    ReadOperation(const QVector<FlashRegion> &regions, const QString &scatterPath,
                  const QString &loaderPath);

    // The file a region is read into: "region-<start>-<end>.bin", 8 hex digits each.
    static QString fileNameFor(const FlashRegion &region);

    bool begin(BoardContext &board) override;
    Step next(BoardContext &board, FlashPlan::Command *command) override;
    bool handle(BoardContext &board, int command, const QVariantList &results) override;

private:
    void classify(BoardContext &board, ScatterSection *row);
    Step save(BoardContext &board);

    QVector<FlashRegion> m_regions;
    QString m_scatterPath;
    QString m_loaderPath;
    QDir m_dir;
    QVector<ScatterSection> m_rows;
    int m_index = 0;
};
