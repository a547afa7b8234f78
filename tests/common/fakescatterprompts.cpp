#include "fakescatterprompts.h"

bool FakeScatterPrompts::confirmMissingLoader(const QString &question, const QString &loaderPath)
{
    calls << QStringLiteral("loader:") + loaderPath;
    questions << question;
    return loaderAnswer;
}

QString FakeScatterPrompts::chooseLoader()
{
    calls << QStringLiteral("choose");
    return chosenLoader;
}

bool FakeScatterPrompts::confirmMissingChecksum(const QString &question, const QString &path,
                                                const QString &md5)
{
    calls << QStringLiteral("checksum:%1:%2").arg(path, md5);
    questions << question;
    return checksumAnswer;
}

void FakeScatterPrompts::notice(const QString &text)
{
    calls << QStringLiteral("notice:") + text;
    notices << text;
}
