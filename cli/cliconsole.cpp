#include "cli/cliconsole.h"

#include <QRegularExpression>

#include <cstdio>

namespace {

// Width of the bar drawn for a single board, in characters.
constexpr int barWidth = 30;
// Without a terminal, progress is reported at every this many percent.
constexpr int plainStepPercent = 25;

int percentOf(int total, int current)
{
    if (total <= 0)
        return current > 0 ? 100 : 0;
    return int(qBound<qint64>(0, qint64(current) * 100 / total, 100));
}

} // namespace

CliConsole::CliConsole(bool progressBar) : m_progressBar(progressBar), m_out(stdout), m_err(stderr)
{}

QString CliConsole::plainText(const QString &html)
{
    QString text = html;
    text.replace(
        QRegularExpression(QStringLiteral("<br\\s*/?>"), QRegularExpression::CaseInsensitiveOption),
        QStringLiteral(" "));
    return text;
}

QString CliConsole::prefixed(const QString &port, const QString &text) const
{
    if (!m_prefix || port.isEmpty())
        return text;
    return QStringLiteral("[%1] %2").arg(port, text);
}

void CliConsole::write(QTextStream &stream, const QString &text)
{
    clearBar();
    stream << text << '\n';
    stream.flush();
    drawBar();
}

void CliConsole::line(FlashPlan::Tone tone, const QString &text)
{
    write(tone == FlashPlan::Tone::Error ? m_err : m_out, text);
}

void CliConsole::boardLine(const QString &port, FlashPlan::Tone tone, const QString &text)
{
    line(tone, prefixed(port, text));
}

void CliConsole::plain(const QString &text)
{
    write(m_out, text);
}

void CliConsole::usageError(const QString &text)
{
    write(m_err, QStringLiteral("esp-utility: %1").arg(text));
}

void CliConsole::progress(const QString &port, const QString &what, int total, int current)
{
    const int percent = percentOf(total, current);
    Bar &bar = m_bars[port];
    if (bar.what != what) {
        bar = Bar();
        bar.what = what;
    }
    if (percent == bar.percent)
        return;
    bar.percent = percent;
    if (m_progressBar) {
        clearBar();
        drawBar();
        return;
    }
    const int quarter = percent / plainStepPercent;
    if (quarter > bar.reportedQuarter) {
        bar.reportedQuarter = quarter;
        m_err << prefixed(port, QStringLiteral("%1: %2%").arg(what).arg(percent)) << '\n';
        m_err.flush();
    }
}

void CliConsole::endProgress(const QString &port)
{
    clearBar();
    m_bars.remove(port);
    drawBar();
}

void CliConsole::clearBar()
{
    if (!m_barShown)
        return;
    m_err << "\r\033[K";
    m_err.flush();
    m_barShown = false;
}

void CliConsole::drawBar()
{
    if (!m_progressBar || m_bars.isEmpty())
        return;
    QString text;
    if (m_bars.size() == 1) {
        const Bar &bar = m_bars.first();
        const int filled = bar.percent * barWidth / 100;
        text = prefixed(m_bars.firstKey(), QStringLiteral("[%1%2] %3% %4")
                                               .arg(QString(filled, QLatin1Char('#')),
                                                    QString(barWidth - filled, QLatin1Char(' ')))
                                               .arg(bar.percent, 3)
                                               .arg(bar.what));
    } else {
        QStringList parts;
        for (auto it = m_bars.cbegin(); it != m_bars.cend(); ++it)
            parts << QStringLiteral("%1 %2 %3%").arg(it.key(), it->what).arg(it->percent);
        text = parts.join(QStringLiteral(" | "));
    }
    m_err << '\r' << text;
    m_err.flush();
    m_barShown = true;
}
