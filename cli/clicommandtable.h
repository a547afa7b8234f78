#pragma once

#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>

struct CliArguments;

// The command line's one description of itself: every command with its argument forms and the
// options it takes, every option with its value and help text. Parsing, the global help, each
// command's help, usage errors and the bash completion all derive from it, so a new option is
// one row of options() and its name in the rows of the commands that take it.
class CliCommandTable
{
public:
    // What the shell offers to complete a value or an argument.
    enum class Completion { Nothing, File, Directory, SerialPort, Words };

    struct Option
    {
        QString name;               // "--port"
        QString alias;              // "-o"; empty when there is none
        QString valueName;          // "PATH"; empty for a flag
        bool optionalValue = false; // the value may be left out ("--virtual [N]": a count only)
        QString help;
        // Stores the value (empty for a flag or a left-out value); false with *error set when
        // the value is not acceptable.
        std::function<bool(CliArguments *, const QString &value, QString *error)> apply;
        Completion completion = Completion::Nothing;
        QStringList words; // for Completion::Words
    };

    // One way of calling a command: its arguments and what it does.
    struct Form
    {
        QString arguments; // "SCATTER|PACKAGE"; empty when the command takes none
        QString summary;
    };

    struct Command
    {
        QString name;
        QVector<Form> forms;
        QStringList options;                         // names of the options it takes
        Completion completion = Completion::Nothing; // for its arguments
        QStringList words;
    };

    static const QVector<Option> &options();
    static const QVector<Command> &commands();
    // nullptr when there is no such option or command.
    static const Option *findOption(const QString &nameOrAlias);
    static const Command *findCommand(const QString &name);
    // --help and --version: every command takes them.
    static bool isGlobal(const Option &option);
    static bool takes(const Command &command, const Option &option);

    static QString globalHelp();
    static QString commandHelp(const Command &command);
    // "esp-utility verify SCATTER|PACKAGE | ADDRESS:SIZE", for usage errors.
    static QString synopsis(const Command &command);
    // The script of `esp-utility completion bash`.
    static QString bashCompletion();
};
