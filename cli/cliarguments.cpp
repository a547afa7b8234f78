#include "cli/cliarguments.h"

#include <QRegularExpression>

namespace {

bool isCount(const QString &text)
{
    static const QRegularExpression digits(QStringLiteral("^[0-9]{1,3}$"));
    return digits.match(text).hasMatch();
}

QString *valueTarget(CliArguments *result, const QString &name)
{
    if (name == QLatin1String("--stub"))
        return &result->stub;
    if (name == QLatin1String("--only"))
        return &result->only;
    if (name == QLatin1String("--scatter"))
        return &result->scatter;
    if (name == QLatin1String("-o") || name == QLatin1String("--output"))
        return &result->output;
    if (name == QLatin1String("--description")) {
        result->descriptionGiven = true;
        return &result->description;
    }
    if (name == QLatin1String("--trailer"))
        return &result->trailer;
    if (name == QLatin1String("--out"))
        return &result->out;
    if (name == QLatin1String("--flash-mode"))
        return &result->flashMode;
    if (name == QLatin1String("--flash-size"))
        return &result->flashSize;
    if (name == QLatin1String("--flash-freq"))
        return &result->flashFreq;
    return nullptr;
}

constexpr unsigned int lowestBaud = 9600;
constexpr unsigned int highestBaud = 4000000;

bool parseLineOption(const QString &name, const QString &value, CliArguments *result,
                     QString *error)
{
    if (name == QLatin1String("--baud")) {
        bool ok = false;
        const unsigned int baud = value.toUInt(&ok);
        if (!ok || baud < lowestBaud || baud > highestBaud) {
            *error = QStringLiteral("--baud takes a rate from %1 to %2, not \"%3\"")
                         .arg(lowestBaud)
                         .arg(highestBaud)
                         .arg(value);
            return false;
        }
        result->baud = baud;
        return true;
    }
    const bool before = name == QLatin1String("--before");
    const QString yes = QStringLiteral("reset");
    const QString no = before ? QStringLiteral("no-reset") : QStringLiteral("stay");
    if (value != yes && value != no) {
        *error = QStringLiteral("%1 takes %2 or %3, not \"%4\"").arg(name, yes, no, value);
        return false;
    }
    (before ? result->resetBefore : result->resetAfter) = value == yes;
    return true;
}

} // namespace

bool CliArguments::parse(const QStringList &arguments, CliArguments *result, QString *error)
{
    *result = CliArguments();
    for (int i = 0; i < arguments.size(); ++i) {
        const QString &argument = arguments.at(i);
        if (!argument.startsWith(QLatin1Char('-')) || argument == QLatin1String("-")) {
            if (result->command.isEmpty())
                result->command = argument;
            else
                result->positional << argument;
            continue;
        }
        // "--name=value" and "--name value" are the same.
        QString name = argument;
        QString value;
        bool inlineValue = false;
        const int equals = argument.indexOf(QLatin1Char('='));
        if (argument.startsWith(QLatin1String("--")) && equals > 0) {
            name = argument.left(equals);
            value = argument.mid(equals + 1);
            inlineValue = true;
        }
        const auto flag = [&](bool *target) {
            if (inlineValue) {
                *error = QStringLiteral("%1 takes no value").arg(name);
                return false;
            }
            *target = true;
            return true;
        };

        if (name == QLatin1String("--help") || name == QLatin1String("-h")) {
            if (!flag(&result->help))
                return false;
        } else if (name == QLatin1String("--version")) {
            if (!flag(&result->version))
                return false;
        } else if (name == QLatin1String("--yes") || name == QLatin1String("-y")) {
            if (!flag(&result->yes))
                return false;
        } else if (name == QLatin1String("--force")) {
            if (!flag(&result->force))
                return false;
        } else if (name == QLatin1String("--trim")) {
            if (!flag(&result->trim))
                return false;
        } else if (name == QLatin1String("--virtual")) {
            // The count is optional: "--virtual", "--virtual 3", "--virtual=3".
            if (!inlineValue && i + 1 < arguments.size() && isCount(arguments.at(i + 1))) {
                value = arguments.at(++i);
                inlineValue = true;
            }
            if (inlineValue && (!isCount(value) || value.toInt() < 1)) {
                *error = QStringLiteral("--virtual takes a number of chips (1 or more), not \"%1\"")
                             .arg(value);
                return false;
            }
            result->virtualCount += inlineValue ? value.toInt() : 1;
        } else if (name == QLatin1String("--no-skip")) {
            bool noSkip = false;
            if (!flag(&noSkip))
                return false;
            result->skipUnchanged = false;
        } else if (name == QLatin1String("--baud") || name == QLatin1String("--before") ||
                   name == QLatin1String("--after")) {
            if (!inlineValue) {
                if (i + 1 >= arguments.size()) {
                    *error = QStringLiteral("%1 needs a value").arg(name);
                    return false;
                }
                value = arguments.at(++i);
            }
            if (!parseLineOption(name, value, result, error))
                return false;
        } else if (name == QLatin1String("--port") || valueTarget(result, name)) {
            if (!inlineValue) {
                if (i + 1 >= arguments.size()) {
                    *error = QStringLiteral("%1 needs a value").arg(name);
                    return false;
                }
                value = arguments.at(++i);
            }
            if (name == QLatin1String("--port"))
                result->ports << value;
            else
                *valueTarget(result, name) = value;
        } else {
            *error = QStringLiteral("unknown option %1 (see esp-utility --help)").arg(name);
            return false;
        }
    }
    return true;
}

QString CliArguments::usage()
{
    return QStringLiteral(
        "usage: esp-utility COMMAND [ARGUMENTS] [OPTIONS]\n\nCommands:\n  ports                                  list serial ports\n  info                                   identify the boards\n  flash SCATTER|PACKAGE [--only firmware|application]\n                                         write the active sections\n  verify SCATTER|PACKAGE                 compare every section with the flash by MD5\n  verify ADDRESS:SIZE                    show the MD5 of a flash region\n  read --scatter OUT.txt REGION...       read regions (ADDRESS:SIZE or ADDRESS-END)\n                                         into files beside OUT.txt and save OUT.txt\n  erase all|ADDRESS:SIZE                 erase the whole chip or a region\n  pack SCATTER -o PACKAGE.zip --description TEXT [--trim]\n                                         make a package of a loose scatter file\n  write ADDRESS FILE [ADDRESS FILE...]   write plain images at addresses (firmware headers\n                                         get --flash-mode/--flash-size/--flash-freq: keep,\n                                         a value, or for the size detect)\n  image-info FILE [--trailer OFFSET]     describe a firmware image\n  demo [PACKAGE] [--out DIR]             flash, verify and read back a package on a\n                                         virtual chip\n\nOptions:\n  --port PATH      a board's serial port; repeat it to work on several boards at once\n  --virtual [N]    start N virtual ESP8266 chips in this process and use them\n  --stub FILE      the flash loader, when the scatter file has none (read, erase and\n                   verify of a region need one)\n  --before reset|no-reset\n                   reset the board into its boot loader through DTR/RTS first (default)\n  --after reset|stay\n                   reset the board when done so that its firmware runs (default)\n  --baud N         the line rate once the flash loader runs (default 460800; 115200\n                   stays at the connection rate)\n  --no-skip        write every block, also those the flash already holds\n  --yes            answer Yes to the scatter file's questions (missing loader, missing\n                   checksum); without it they are answered No\n  --force          read and demo: replace files that are there (they refuse otherwise)\n  --help, --version\n\nNumbers: decimal, 0x hexadecimal, 0b binary, leading 0 octal, or with kb/mb.\nExit status: 0 when every board succeeded, 1 on failures, 2 for bad arguments or\nunreadable files.\n");
}
