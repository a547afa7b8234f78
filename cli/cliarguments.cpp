#include "cli/cliarguments.h"

#include "cli/clicommandtable.h"

#include <QRegularExpression>

namespace {

// "--name=value" and "--name value" are the same.
struct Word
{
    QString name;
    QString value;
    bool inlineValue = false;
};

Word split(const QString &argument)
{
    const int equals = argument.indexOf(QLatin1Char('='));
    if (argument.startsWith(QLatin1String("--")) && equals > 0)
        return {argument.left(equals), argument.mid(equals + 1), true};
    return {argument, QString(), false};
}

bool isOption(const QString &argument)
{
    return argument.startsWith(QLatin1Char('-')) && argument != QLatin1String("-");
}

// An optional value is taken from the next word only when it is a count.
bool isCount(const QString &text)
{
    static const QRegularExpression digits(QStringLiteral("^[0-9]{1,3}$"));
    return digits.match(text).hasMatch();
}

// Whether the option at `index` takes the next word as its value.
bool takesNextWord(const QStringList &arguments, int index, const CliCommandTable::Option &option,
                   const Word &word)
{
    if (option.valueName.isEmpty() || word.inlineValue || index + 1 >= arguments.size())
        return false;
    return !option.optionalValue || isCount(arguments.at(index + 1));
}

// The command word: the first word that is neither an option nor an option's value (options may
// stand before it); -1 when there is none.
int commandIndex(const QStringList &arguments)
{
    for (int i = 0; i < arguments.size(); ++i) {
        if (!isOption(arguments.at(i)))
            return i;
        const Word word = split(arguments.at(i));
        const CliCommandTable::Option *option = CliCommandTable::findOption(word.name);
        if (option && takesNextWord(arguments, i, *option, word))
            ++i;
    }
    return -1;
}

} // namespace

bool CliArguments::parse(const QStringList &arguments, CliArguments *result, QString *error)
{
    *result = CliArguments();
    const int commandAt = commandIndex(arguments);
    const CliCommandTable::Command *command = nullptr;
    if (commandAt >= 0) {
        result->command = arguments.at(commandAt);
        command = CliCommandTable::findCommand(result->command);
        if (!command) {
            *error =
                QStringLiteral("unknown command %1 (see esp-utility --help)").arg(result->command);
            return false;
        }
    }
    const QString helpHint = command ? QStringLiteral("esp-utility %1 --help").arg(command->name)
                                     : QStringLiteral("esp-utility --help");

    for (int i = 0; i < arguments.size(); ++i) {
        if (i == commandAt)
            continue;
        if (!isOption(arguments.at(i))) {
            result->positional << arguments.at(i);
            continue;
        }
        Word word = split(arguments.at(i));
        const CliCommandTable::Option *option = CliCommandTable::findOption(word.name);
        if (!option) {
            *error = QStringLiteral("unknown option %1 (see %2)").arg(word.name, helpHint);
            return false;
        }
        if (command && !CliCommandTable::takes(*command, *option)) {
            *error = QStringLiteral("%1 takes no option %2 (see %3)")
                         .arg(command->name, word.name, helpHint);
            return false;
        }
        if (option->valueName.isEmpty() && word.inlineValue) {
            *error = QStringLiteral("%1 takes no value").arg(word.name);
            return false;
        }
        if (takesNextWord(arguments, i, *option, word)) {
            word.value = arguments.at(++i);
        } else if (!option->valueName.isEmpty() && !option->optionalValue && !word.inlineValue) {
            *error = QStringLiteral("%1 needs a value").arg(word.name);
            return false;
        }
        if (!option->apply(result, word.value, error))
            return false;
    }
    return true;
}
