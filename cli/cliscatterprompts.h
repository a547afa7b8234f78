#pragma once

#include "flasher/flashplan.h"
#include "flasher/scatterprompts.h"

#include <QString>

#include <functional>

// Answers the scatter validation's questions without asking anyone: with --yes every question
// is answered Yes (the loader is then the one given with --stub), without it No, and the line
// printed with the question says how to change that. A prompt without a sink answers the
// same way silently (for checks repeated on every board).
class CliScatterPrompts : public ScatterPrompts
{
public:
    using Sink = std::function<void(FlashPlan::Tone, const QString &)>;

    // chipSink: where the question that only a board's own check can raise (its flash size) is
    // answered; without it, the sink.
    CliScatterPrompts(bool yes, const QString &loaderPath, Sink sink = Sink(),
                      Sink chipSink = Sink());

    bool confirmMissingLoader(const QString &question, const QString &loaderPath) override;
    QString chooseLoader() override;
    bool confirmMissingChecksum(const QString &question, const QString &path,
                                const QString &md5) override;
    bool confirmFlashSize(const QString &question) override;
    void notice(const QString &text) override;

    // Whether a question was answered No for want of --yes.
    bool refused() const { return m_refused; }

private:
    bool answer(const QString &question, const Sink &sink);

    bool m_yes;
    QString m_loaderPath;
    Sink m_sink;
    Sink m_chipSink;
    bool m_refused = false;
};
