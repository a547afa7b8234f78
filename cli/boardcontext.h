#pragma once

#include "flasher/flashplan.h"

#include <QString>

// What an operation knows about the board it runs on, and where it reports.
class BoardContext
{
public:
    virtual ~BoardContext() = default;

    virtual QString port() const = 0;
    // "CHIP / chipid", as the dialog's chip field shows it.
    virtual QString chipDescription() const = 0;
    virtual QString mac() const = 0;
    virtual QString flashId() const = 0;
    // Guessed from the flash id, bytes; 0 when unknown.
    virtual unsigned int detectedFlashSize() const = 0;

    virtual void log(FlashPlan::Tone tone, const QString &text) = 0;
    // A short outcome for the summary table ("2 sections written").
    virtual void note(const QString &text) = 0;
};
