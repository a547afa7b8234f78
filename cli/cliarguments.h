#pragma once

#include <QString>
#include <QStringList>

// The command line, parsed: one command word, its positional arguments and the options, which
// may stand anywhere. Parsing checks the form against the command table (CliCommandTable): a
// known command, only the options it takes, their values; what a command needs beyond that is
// checked by the command itself.
struct CliArguments
{
    QString command;
    QStringList positional;

    QStringList ports;    // --port, repeatable
    int virtualCount = 0; // --virtual [N], repeatable, adds up
    QString stub;         // --stub
    bool yes = false;     // --yes
    bool force = false;   // --force (read, demo: replace files that are there)
    QString only;         // --only firmware|application
    QString scatter;      // --scatter (read: the scatter file to write)
    QString output;       // -o / --output (pack)
    QString description;  // --description (pack)
    bool descriptionGiven = false;
    bool trim = false;          // --trim (pack)
    QString trailer;            // --trailer (image-info)
    QString out;                // --out (demo: where the read-back goes)
    bool resetBefore = true;    // --before reset|no-reset
    bool resetAfter = true;     // --after reset|stay
    unsigned int baud = 460800; // --baud N: the line rate once the flash loader runs
    bool skipUnchanged = true;  // --no-skip turns it off
    QString flashMode = QStringLiteral("keep"); // --flash-mode (write)
    QString flashSize = QStringLiteral("keep"); // --flash-size (write)
    QString flashFreq = QStringLiteral("keep"); // --flash-freq (write)
    bool help = false;
    bool version = false;

    // False with one line in *error for an unknown command, an option the command does not take
    // or a missing or unwanted value.
    static bool parse(const QStringList &arguments, CliArguments *result, QString *error);
};
