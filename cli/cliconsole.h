#pragma once

#include "flasher/flashplan.h"

#include <QMap>
#include <QString>
#include <QTextStream>

// Everything the command line prints. Log lines go to stdout (errors to stderr), prefixed with
// the board's port when several boards run at once. Progress is a bar redrawn in place when
// stderr is a terminal, and plain lines at every quarter otherwise, so logs stay free of
// carriage returns.
class CliConsole
{
public:
    explicit CliConsole(bool progressBar);

    // Whether lines of boards carry their port as a prefix.
    void setBoardPrefix(bool prefix) { m_prefix = prefix; }

    void line(FlashPlan::Tone tone, const QString &text);
    void boardLine(const QString &port, FlashPlan::Tone tone, const QString &text);
    void progress(const QString &port, const QString &what, int total, int current);
    void endProgress(const QString &port);
    // A line that is not part of a board's log (tables, summaries).
    void plain(const QString &text = QString());
    // One clear line on stderr for bad arguments and unreadable files.
    void usageError(const QString &text);

    // Questions arrive as HTML fragments; a terminal wants them on one plain line.
    static QString plainText(const QString &html);

private:
    struct Bar
    {
        QString what;
        int percent = -1;
        int reportedQuarter = 0; // plain lines: the last quarter printed
    };

    void write(QTextStream &stream, const QString &text);
    void clearBar();
    void drawBar();
    QString prefixed(const QString &port, const QString &text) const;

    bool m_progressBar;
    bool m_prefix = false;
    bool m_barShown = false;
    QMap<QString, Bar> m_bars;
    QTextStream m_out;
    QTextStream m_err;
};
