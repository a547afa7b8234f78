// esp-utility: the headless command line. It drives the same worker and the same scatter and
// package rules as the dialog, on one or several boards at once.

#include "cli/cliapp.h"
#include "cli/cliarguments.h"
#include "cli/cliconsole.h"

#include <QCoreApplication>

#include <unistd.h>

int main(int argc, char *argv[])
{
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("esp-utility"));
    QCoreApplication::setApplicationVersion(QStringLiteral(ESP_UTILITY_VERSION));

    CliConsole console(isatty(STDERR_FILENO) != 0);
    CliArguments arguments;
    QString error;
    if (!CliArguments::parse(QCoreApplication::arguments().mid(1), &arguments, &error)) {
        console.usageError(error);
        return CliApp::ExitUsage;
    }
    CliApp cli(arguments, console);
    return cli.run();
}
