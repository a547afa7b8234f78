#include "cli/clicommandtable.h"

#include "cli/cliarguments.h"

#include <QRegularExpression>

namespace {

using Completion = CliCommandTable::Completion;
using Option = CliCommandTable::Option;
using Command = CliCommandTable::Command;

constexpr int helpWidth = 79;     // columns of the help texts
constexpr int optionColumn = 28;  // where an option's help starts
constexpr int commandColumn = 41; // where a command's summary starts
const char *const program = "esp-utility";

using Applier = std::function<bool(CliArguments *, const QString &, QString *)>;

// One option: `names` is "--name" or "-a|--name", a `valueName` in brackets ("[N]") may be left
// out (a count only).
Option option(const QString &names, const QString &valueName, const Applier &apply,
              const QString &help, Completion completion = Completion::Nothing,
              const QStringList &words = {})
{
    Option row;
    const QStringList parts = names.split(QLatin1Char('|'));
    row.name = parts.last();
    row.alias = parts.size() > 1 ? parts.first() : QString();
    row.optionalValue = valueName.startsWith(QLatin1Char('['));
    row.valueName = row.optionalValue ? valueName.mid(1, valueName.size() - 2) : valueName;
    row.help = help;
    row.apply = apply;
    row.completion = completion;
    row.words = words;
    return row;
}

Command command(const QString &name, const QVector<CliCommandTable::Form> &forms,
                const QStringList &options, Completion completion = Completion::Nothing,
                const QStringList &words = {})
{
    Command row;
    row.name = name;
    row.forms = forms;
    row.options = options;
    row.completion = completion;
    row.words = words;
    return row;
}

Applier text(QString CliArguments::*field)
{
    return [field](CliArguments *arguments, const QString &value, QString *) {
        arguments->*field = value;
        return true;
    };
}

Applier append(QStringList CliArguments::*field)
{
    return [field](CliArguments *arguments, const QString &value, QString *) {
        (arguments->*field) << value;
        return true;
    };
}

Applier flag(bool CliArguments::*field)
{
    return [field](CliArguments *arguments, const QString &, QString *) {
        arguments->*field = true;
        return true;
    };
}

bool addVirtualChips(CliArguments *arguments, const QString &value, QString *error)
{
    static const QRegularExpression count(QStringLiteral("^[0-9]{1,3}$"));
    if (value.isEmpty()) {
        ++arguments->virtualCount;
        return true;
    }
    if (!count.match(value).hasMatch() || value.toInt() < 1) {
        *error =
            QStringLiteral("--virtual takes a number of chips (1 or more), not \"%1\"").arg(value);
        return false;
    }
    arguments->virtualCount += value.toInt();
    return true;
}

constexpr unsigned int lowestBaud = 9600;
constexpr unsigned int highestBaud = 4000000;

bool setBaud(CliArguments *arguments, const QString &value, QString *error)
{
    bool ok = false;
    const unsigned int baud = value.toUInt(&ok);
    if (!ok || baud < lowestBaud || baud > highestBaud) {
        *error = QStringLiteral("--baud takes a rate from %1 to %2, not \"%3\"")
                     .arg(lowestBaud)
                     .arg(highestBaud)
                     .arg(value);
        return false;
    }
    arguments->baud = baud;
    return true;
}

// --before and --after: `yes` sets the field, `no` clears it, anything else is refused.
Applier choice(bool CliArguments::*field, const QString &name, const QString &yes,
               const QString &no)
{
    return [field, name, yes, no](CliArguments *arguments, const QString &value, QString *error) {
        if (value != yes && value != no) {
            *error = QStringLiteral("%1 takes %2 or %3, not \"%4\"").arg(name, yes, no, value);
            return false;
        }
        arguments->*field = value == yes;
        return true;
    };
}

bool setDescription(CliArguments *arguments, const QString &value, QString *)
{
    arguments->description = value;
    arguments->descriptionGiven = true;
    return true;
}

QVector<Option> makeOptions()
{
    return {
        option(QStringLiteral("-h|--help"), {}, flag(&CliArguments::help),
               QStringLiteral("show this help (after a command: its usage and options)")),
        option(QStringLiteral("--version"), {}, flag(&CliArguments::version),
               QStringLiteral("show the version")),
        option(QStringLiteral("--port"), QStringLiteral("PATH"), append(&CliArguments::ports),
               QStringLiteral("a board's serial port; repeat it to work on several boards at "
                              "once"),
               Completion::SerialPort),
        option(QStringLiteral("--virtual"), QStringLiteral("[N]"), addVirtualChips,
               QStringLiteral("start N virtual ESP8266 chips (default 1) in this process and use "
                              "them")),
        option(QStringLiteral("--stub"), QStringLiteral("FILE"), text(&CliArguments::stub),
               QStringLiteral("the flash loader, when the scatter file has none (read, erase and "
                              "verify of a region need one)"),
               Completion::File),
        option(QStringLiteral("--before"), QStringLiteral("reset|no-reset"),
               choice(&CliArguments::resetBefore, QStringLiteral("--before"),
                      QStringLiteral("reset"), QStringLiteral("no-reset")),
               QStringLiteral("reset the board into its boot loader through DTR/RTS first "
                              "(default: reset)"),
               Completion::Words, {QStringLiteral("reset"), QStringLiteral("no-reset")}),
        option(QStringLiteral("--after"), QStringLiteral("reset|stay"),
               choice(&CliArguments::resetAfter, QStringLiteral("--after"), QStringLiteral("reset"),
                      QStringLiteral("stay")),
               QStringLiteral("reset the board when done so that its firmware runs (default: "
                              "reset)"),
               Completion::Words, {QStringLiteral("reset"), QStringLiteral("stay")}),
        option(QStringLiteral("--baud"), QStringLiteral("N"), setBaud,
               QStringLiteral("the line rate once the flash loader runs (default 460800; 115200 "
                              "stays at the connection rate)"),
               Completion::Words,
               {QStringLiteral("115200"), QStringLiteral("230400"), QStringLiteral("460800"),
                QStringLiteral("921600")}),
        option(
            QStringLiteral("--no-skip"), {},
            [](CliArguments *arguments, const QString &, QString *) {
                arguments->skipUnchanged = false;
                return true;
            },
            QStringLiteral("write every block, also those the flash already holds")),
        option(QStringLiteral("-y|--yes"), {}, flag(&CliArguments::yes),
               QStringLiteral("answer Yes to the scatter file's questions (missing loader, "
                              "missing checksum, firmware set for more flash than the board "
                              "has); without it they are answered No")),
        option(QStringLiteral("--force"), {}, flag(&CliArguments::force),
               QStringLiteral("replace files that are there (read and demo refuse otherwise)")),
        option(QStringLiteral("--only"), QStringLiteral("firmware|application"),
               text(&CliArguments::only), QStringLiteral("write only the sections of this kind"),
               Completion::Words, {QStringLiteral("firmware"), QStringLiteral("application")}),
        option(QStringLiteral("--flash-mode"), QStringLiteral("MODE"),
               text(&CliArguments::flashMode),
               QStringLiteral("a firmware header's flash mode: keep (default), qio, qout, dio or "
                              "dout"),
               Completion::Words,
               {QStringLiteral("keep"), QStringLiteral("qio"), QStringLiteral("qout"),
                QStringLiteral("dio"), QStringLiteral("dout")}),
        option(QStringLiteral("--flash-size"), QStringLiteral("SIZE"),
               text(&CliArguments::flashSize),
               QStringLiteral("a firmware header's flash size: keep (default), detect (the "
                              "chip's), or 512KB, 256KB, 1MB, 2MB, 4MB, 8MB, 16MB"),
               Completion::Words,
               {QStringLiteral("keep"), QStringLiteral("detect"), QStringLiteral("512KB"),
                QStringLiteral("256KB"), QStringLiteral("1MB"), QStringLiteral("2MB"),
                QStringLiteral("4MB"), QStringLiteral("8MB"), QStringLiteral("16MB")}),
        option(QStringLiteral("--flash-freq"), QStringLiteral("FREQ"),
               text(&CliArguments::flashFreq),
               QStringLiteral("a firmware header's flash frequency: keep (default), 40m, 26m, "
                              "20m or 80m"),
               Completion::Words,
               {QStringLiteral("keep"), QStringLiteral("40m"), QStringLiteral("26m"),
                QStringLiteral("20m"), QStringLiteral("80m")}),
        option(QStringLiteral("--scatter"), QStringLiteral("OUT.txt"), text(&CliArguments::scatter),
               QStringLiteral("the scatter file to save; the regions' files go beside it"),
               Completion::File),
        option(QStringLiteral("-o|--output"), QStringLiteral("PACKAGE.zip"),
               text(&CliArguments::output), QStringLiteral("the package to make"),
               Completion::File),
        option(QStringLiteral("--description"), QStringLiteral("TEXT"), setDescription,
               QStringLiteral("the package's description (it also keys the package)")),
        option(QStringLiteral("--trim"), {}, flag(&CliArguments::trim),
               QStringLiteral("leave the trailing 0xFF bytes of the images out of the package")),
        option(QStringLiteral("--trailer"), QStringLiteral("OFFSET"), text(&CliArguments::trailer),
               QStringLiteral("where the image's second part starts (shown in the description)")),
        option(QStringLiteral("--out"), QStringLiteral("DIR"), text(&CliArguments::out),
               QStringLiteral("where the read-back goes (default: beside the package; for the "
                              "installed demo package, the user's cache)"),
               Completion::Directory),
    };
}

QVector<Command> makeCommands()
{
    const QString stub = QStringLiteral("--stub");
    const QString yes = QStringLiteral("--yes");
    // Every command that talks to boards: which, how to reach their boot loaders, and the loader.
    const QStringList boards{QStringLiteral("--port"),   QStringLiteral("--virtual"),
                             QStringLiteral("--before"), QStringLiteral("--after"),
                             QStringLiteral("--baud"),   stub};
    const QString noSkip = QStringLiteral("--no-skip");
    return {
        command(QStringLiteral("ports"), {{{}, QStringLiteral("list serial ports")}},
                {QStringLiteral("--virtual")}),
        command(QStringLiteral("info"), {{{}, QStringLiteral("identify the boards")}}, boards),
        command(QStringLiteral("flash"),
                {{QStringLiteral("SCATTER|PACKAGE"), QStringLiteral("write the active sections")}},
                boards + QStringList{yes, noSkip, QStringLiteral("--only")}, Completion::File),
        command(
            QStringLiteral("verify"),
            {{QStringLiteral("SCATTER|PACKAGE"),
              QStringLiteral("compare every section with the flash by MD5")},
             {QStringLiteral("ADDRESS:SIZE"), QStringLiteral("show the MD5 of a flash region")}},
            boards + QStringList{yes}, Completion::File),
        command(QStringLiteral("read"),
                {{QStringLiteral("--scatter OUT.txt REGION..."),
                  QStringLiteral("read regions (ADDRESS:SIZE or ADDRESS-END) into files beside "
                                 "OUT.txt and save OUT.txt")}},
                boards + QStringList{QStringLiteral("--scatter"), QStringLiteral("--force")}),
        command(QStringLiteral("erase"),
                {{QStringLiteral("all|ADDRESS:SIZE"),
                  QStringLiteral("erase the whole chip or a region")}},
                boards, Completion::Words, {QStringLiteral("all")}),
        command(QStringLiteral("write"),
                {{QStringLiteral("ADDRESS FILE [ADDRESS FILE...]"),
                  QStringLiteral("write plain images at addresses (a firmware image's header gets "
                                 "--flash-mode, --flash-size and --flash-freq)")}},
                boards + QStringList{noSkip, QStringLiteral("--flash-mode"),
                                     QStringLiteral("--flash-size"),
                                     QStringLiteral("--flash-freq")},
                Completion::File),
        command(QStringLiteral("pack"),
                {{QStringLiteral("SCATTER -o PACKAGE.zip --description TEXT"),
                  QStringLiteral("make a package of a loose scatter file")}},
                {QStringLiteral("--output"), QStringLiteral("--description"),
                 QStringLiteral("--trim"), stub, yes},
                Completion::File),
        command(QStringLiteral("image-info"),
                {{QStringLiteral("FILE"), QStringLiteral("describe a firmware image")}},
                {QStringLiteral("--trailer")}, Completion::File),
        command(QStringLiteral("demo"),
                {{QStringLiteral("[PACKAGE]"),
                  QStringLiteral("flash, verify and read back a package on a virtual chip")}},
                boards +
                    QStringList{yes, noSkip, QStringLiteral("--force"), QStringLiteral("--out")},
                Completion::File),
        command(QStringLiteral("completion"),
                {{QStringLiteral("bash"), QStringLiteral("print the bash completion script")}}, {},
                Completion::Words, {QStringLiteral("bash")}),
    };
}

// Words of `text` on lines of at most `width` columns, every line after the first indented by
// `indent` (the first continues where the caller stands).
QString wrapped(const QString &text, int indent, int width)
{
    QString result;
    int column = indent;
    for (const QString &word : text.split(QLatin1Char(' '), Qt::SkipEmptyParts)) {
        if (column > indent && column + 1 + word.size() > width) {
            result += QLatin1Char('\n') + QString(indent, QLatin1Char(' '));
            column = indent;
        } else if (column > indent) {
            result += QLatin1Char(' ');
            ++column;
        }
        result += word;
        column += word.size();
    }
    return result;
}

// "  LABEL     help", the help wrapped at the column (or on the next line after a long label).
QString entry(const QString &label, const QString &help, int column)
{
    QString line = QStringLiteral("  ") + label;
    if (line.size() + 1 > column)
        line += QLatin1Char('\n') + QString(column, QLatin1Char(' '));
    else
        line = line.leftJustified(column, QLatin1Char(' '));
    return line + wrapped(help, column, helpWidth) + QLatin1Char('\n');
}

QString optionLabel(const Option &option)
{
    QString label =
        option.alias.isEmpty() ? option.name : option.alias + QStringLiteral(", ") + option.name;
    if (!option.valueName.isEmpty())
        label += option.optionalValue ? QStringLiteral(" [%1]").arg(option.valueName)
                                      : QLatin1Char(' ') + option.valueName;
    return label;
}

QString commandLabel(const Command &command, const CliCommandTable::Form &form)
{
    return form.arguments.isEmpty() ? command.name
                                    : command.name + QLatin1Char(' ') + form.arguments;
}

const QString numbersAndExitStatus = QStringLiteral(
    "Numbers: decimal, 0x hexadecimal, 0b binary, leading 0 octal, or with kb/mb.\n"
    "Exit status: 0 when every board succeeded, 1 on failures, 2 for bad arguments or\n"
    "unreadable files.\n");

// Bash: a `case` pattern of option names ("--port|--stub").
QString casePattern(const QStringList &names)
{
    return names.join(QLatin1Char('|'));
}

QString completionCommand(Completion completion, const QStringList &words)
{
    switch (completion) {
    case Completion::Nothing:
        return QStringLiteral("return");
    case Completion::File:
        return QStringLiteral(
            "_esp_utility_reply \"$(compgen -f -- \"$cur\")\"; compopt -o filenames 2>/dev/null; return");
    case Completion::Directory:
        return QStringLiteral(
            "_esp_utility_reply \"$(compgen -d -- \"$cur\")\"; compopt -o filenames 2>/dev/null; return");
    case Completion::SerialPort:
        return QStringLiteral(
            "_esp_utility_reply \"$(compgen -W \"$(_esp_utility_ports)\" -- \"$cur\")\"; return");
    case Completion::Words:
        break;
    }
    return QStringLiteral("_esp_utility_reply \"$(compgen -W '%1' -- \"$cur\")\"; return")
        .arg(words.join(QLatin1Char(' ')));
}

} // namespace

const QVector<Option> &CliCommandTable::options()
{
    static const QVector<Option> rows = makeOptions();
    return rows;
}

const QVector<Command> &CliCommandTable::commands()
{
    static const QVector<Command> rows = makeCommands();
    return rows;
}

const Option *CliCommandTable::findOption(const QString &nameOrAlias)
{
    for (const Option &option : options()) {
        if (option.name == nameOrAlias || (!option.alias.isEmpty() && option.alias == nameOrAlias))
            return &option;
    }
    return nullptr;
}

const Command *CliCommandTable::findCommand(const QString &name)
{
    for (const Command &command : commands()) {
        if (command.name == name)
            return &command;
    }
    return nullptr;
}

bool CliCommandTable::isGlobal(const Option &option)
{
    return option.name == QLatin1String("--help") || option.name == QLatin1String("--version");
}

bool CliCommandTable::takes(const Command &command, const Option &option)
{
    return isGlobal(option) || command.options.contains(option.name);
}

QString CliCommandTable::globalHelp()
{
    QString help =
        QStringLiteral("Usage: %1 COMMAND [ARGUMENTS] [OPTIONS]\n").arg(QLatin1String(program));
    help += QStringLiteral(
        "Flashes, verifies, reads back and erases ESP8266EX and ESP8285 boards over a\n"
        "serial port, or a virtual chip without a board.\n\nCommands:\n");
    for (const Command &command : commands()) {
        for (const Form &form : command.forms)
            help += entry(commandLabel(command, form), form.summary, commandColumn);
    }
    help += QStringLiteral("\nOptions:\n");
    for (const Option &option : options())
        help += entry(optionLabel(option), option.help, optionColumn);
    help += QStringLiteral("\nA command takes only the options that %1 COMMAND --help lists.\n")
                .arg(QLatin1String(program));
    return help + numbersAndExitStatus;
}

QString CliCommandTable::commandHelp(const Command &command)
{
    QString help;
    for (const Form &form : command.forms) {
        help += QStringLiteral("%1 %2 [OPTIONS]\n")
                    .arg(help.isEmpty() ? QStringLiteral("Usage:") : QStringLiteral("   or:"),
                         QLatin1String(program) + QLatin1Char(' ') + commandLabel(command, form));
    }
    for (const Form &form : command.forms) {
        QString summary = form.summary;
        summary[0] = summary.at(0).toUpper();
        help += wrapped(summary + QLatin1Char('.'), 0, helpWidth) + QLatin1Char('\n');
    }
    help += QStringLiteral("\nOptions:\n");
    for (const Option &option : options()) {
        if (takes(command, option))
            help += entry(optionLabel(option), option.help, optionColumn);
    }
    return help + QLatin1Char('\n') + numbersAndExitStatus;
}

QString CliCommandTable::synopsis(const Command &command)
{
    QStringList forms;
    for (const Form &form : command.forms)
        forms << form.arguments;
    return QStringLiteral("%1 %2 %3")
        .arg(QLatin1String(program), command.name, forms.join(QStringLiteral(" | ")))
        .trimmed();
}

QString CliCommandTable::bashCompletion()
{
    QStringList commandNames;
    for (const Command &command : commands())
        commandNames << command.name;
    QStringList valued;  // options that take the next word as their value
    QStringList counted; // options that take it only when it is a count
    for (const Option &option : options()) {
        if (option.valueName.isEmpty())
            continue;
        (option.optionalValue ? counted : valued) << option.name;
        if (!option.alias.isEmpty())
            (option.optionalValue ? counted : valued) << option.alias;
    }

    QString script = QStringLiteral(
        "# bash completion for esp-utility (written by: esp-utility completion bash)\n"
        "\n"
        "# One reply per line of $1 (file names may hold blanks).\n"
        "_esp_utility_reply() {\n"
        "    COMPREPLY=()\n"
        "    [ -n \"$1\" ] && mapfile -t COMPREPLY <<<\"$1\"\n"
        "}\n"
        "\n"
        "# Serial ports: USB adapters, their stable names, and the ports named in\n"
        "# ESP_UTILITY_EXTRA_PORTS (PATH or PATH=SERIAL, separated by colons).\n"
        "_esp_utility_ports() {\n"
        "    local port entry\n"
        "    for port in /dev/ttyUSB* /dev/ttyACM* /dev/serial/by-id/*; do\n"
        "        [ -e \"$port\" ] && printf '%s\\n' \"$port\"\n"
        "    done\n"
        "    local IFS=:\n"
        "    for entry in $ESP_UTILITY_EXTRA_PORTS; do\n"
        "        [ -n \"$entry\" ] && printf '%s\\n' \"${entry%%=*}\"\n"
        "    done\n"
        "}\n"
        "\n"
        "_esp_utility() {\n"
        "    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}\n"
        "    local i command=\n"
        "    # The command is the first word that is neither an option nor an option's value.\n"
        "    for ((i = 1; i < COMP_CWORD; i++)); do\n"
        "        case ${COMP_WORDS[i]} in\n");
    script += QStringLiteral("        %1) ((i++)) ;;\n").arg(casePattern(valued));
    script +=
        QStringLiteral("        -*) ;;\n"
                       "        *)\n"
                       "            case ${COMP_WORDS[i-1]} in\n"
                       "            %1) [[ ${COMP_WORDS[i]} =~ ^[0-9]{1,3}$ ]] && continue ;;\n"
                       "            esac\n"
                       "            command=${COMP_WORDS[i]}\n"
                       "            break\n"
                       "            ;;\n")
            .arg(casePattern(counted));
    script += QStringLiteral("        esac\n"
                             "    done\n"
                             "\n"
                             "    # The value of an option.\n"
                             "    case $prev in\n");
    for (const Option &option : options()) {
        if (option.valueName.isEmpty() || option.optionalValue)
            continue;
        QStringList names{option.name};
        if (!option.alias.isEmpty())
            names << option.alias;
        script += QStringLiteral("    %1) %2 ;;\n")
                      .arg(casePattern(names), completionCommand(option.completion, option.words));
    }
    script += QStringLiteral("    esac\n"
                             "\n"
                             "    local options\n"
                             "    case $command in\n");
    QStringList globalNames;
    for (const Option &option : options()) {
        if (isGlobal(option))
            globalNames << option.name;
    }
    script += QStringLiteral("    '')\n"
                             "        options='%1'\n"
                             "        if [[ $cur != -* ]]; then\n"
                             "            _esp_utility_reply \"$(compgen -W '%2' -- \"$cur\")\"\n"
                             "            return\n"
                             "        fi\n"
                             "        ;;\n")
                  .arg(globalNames.join(QLatin1Char(' ')), commandNames.join(QLatin1Char(' ')));
    for (const Command &command : commands()) {
        QStringList names;
        for (const Option &option : options()) {
            if (takes(command, option))
                names << option.name;
        }
        script += QStringLiteral("    %1)\n"
                                 "        options='%2'\n"
                                 "        if [[ $cur != -* ]]; then %3; fi\n"
                                 "        ;;\n")
                      .arg(command.name, names.join(QLatin1Char(' ')),
                           completionCommand(command.completion, command.words));
    }
    script += QStringLiteral("    *) return ;;\n"
                             "    esac\n"
                             "    _esp_utility_reply \"$(compgen -W \"$options\" -- \"$cur\")\"\n"
                             "}\n"
                             "\n"
                             "complete -F _esp_utility esp-utility\n");
    return script;
}
