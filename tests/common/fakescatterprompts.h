#pragma once

#include "flasher/scatterprompts.h"

#include <QStringList>

// Answers the validator's questions from preset values and records every call in order.
class FakeScatterPrompts : public ScatterPrompts
{
public:
    bool loaderAnswer = false;
    QString chosenLoader;
    bool checksumAnswer = false;

    // One entry per call: "loader:<path>", "choose", "checksum:<path>:<md5>", "notice:<text>".
    QStringList calls;
    QStringList questions;
    QStringList notices;

    bool confirmMissingLoader(const QString &question, const QString &loaderPath) override;
    QString chooseLoader() override;
    bool confirmMissingChecksum(const QString &question, const QString &path,
                                const QString &md5) override;
    void notice(const QString &text) override;
};
