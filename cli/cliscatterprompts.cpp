#include "cli/cliscatterprompts.h"

#include "cli/cliconsole.h"

CliScatterPrompts::CliScatterPrompts(bool yes, const QString &loaderPath, Sink sink, Sink chipSink)
    : m_yes(yes)
    , m_loaderPath(loaderPath)
    , m_sink(std::move(sink))
    , m_chipSink(chipSink ? std::move(chipSink) : m_sink)
{}

bool CliScatterPrompts::answer(const QString &question, const Sink &sink)
{
    if (sink) {
        const QString text = CliConsole::plainText(question);
        if (m_yes)
            sink(FlashPlan::Tone::Notice, QStringLiteral("%1 Yes (--yes)").arg(text));
        else
            sink(FlashPlan::Tone::Error,
                 QStringLiteral("%1 No (pass --yes to answer Yes)").arg(text));
    }
    if (!m_yes)
        m_refused = true;
    return m_yes;
}

bool CliScatterPrompts::confirmMissingLoader(const QString &question, const QString &)
{
    return answer(question, m_sink);
}

QString CliScatterPrompts::chooseLoader()
{
    // Nobody can pick a file here: the loader is what --stub named, if anything.
    return m_loaderPath;
}

bool CliScatterPrompts::confirmMissingChecksum(const QString &question, const QString &,
                                               const QString &)
{
    return answer(question, m_sink);
}

bool CliScatterPrompts::confirmFlashSize(const QString &question)
{
    return answer(question, m_chipSink);
}

void CliScatterPrompts::notice(const QString &text)
{
    if (m_sink)
        m_sink(FlashPlan::Tone::Notice, text);
}
