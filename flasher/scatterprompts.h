#pragma once

#include <esputility/esputility_core_global.h>

#include <QString>

// The questions a scatter validation may need answered, in the order it asks them. The dialog
// answers with message boxes and its log; the command line with flags. Every question text
// arrives already built and translated, so no caller words them again.
class ESPUTILITY_CORE_EXPORT ScatterPrompts
{
public:
    virtual ~ScatterPrompts();

    // Strict loose load without a usable flash loader: Yes goes on to the loader chooser,
    // anything else fails the load. Default answer: No.
    virtual bool confirmMissingLoader(const QString &question, const QString &loaderPath) = 0;
    // Lets the user pick a flash loader file; an empty answer means cancelled.
    virtual QString chooseLoader() = 0;
    // A section without a saved checksum: Yes accepts the computed digest (upper-case hex).
    // The dialog asks with a 10-second auto-closing box; its time-out counts as No.
    virtual bool confirmMissingChecksum(const QString &question, const QString &path,
                                        const QString &md5) = 0;
    // A firmware section is set for a bigger flash than the chip's: Yes flashes it all the same.
    // Default answer: No.
    virtual bool confirmFlashSize(const QString &question) = 0;
    // Amber log lines (skipped sections, accepted missing checksums), already translated.
    virtual void notice(const QString &text) = 0;
};
