#include "fuzzsupport.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstdio>
#include <cstdlib>
#include <memory>

void ensureFuzzApplication()
{
    if (QCoreApplication::instance())
        return;
    static int argc = 1;
    static char name[] = "esp-fuzz";
    static char *argv[] = {name, nullptr};
    // Kept until exit: a fuzz process runs every input on this one application.
    static const auto application = std::make_unique<QCoreApplication>(argc, argv);
}

QString fuzzScratchDir()
{
    static QTemporaryDir dir;
    return dir.path();
}

QByteArray scatterFixtureFirmware()
{
    // Header (one segment of 8 bytes at 0x40100000), the segment, padding and checksum.
    return QByteArray::fromHex("e9010020040010400000104008000000") + QByteArray(8, '\x11') +
           QByteArray(7, '\0') + QByteArray(1, '\xef');
}

QByteArray scatterFixtureApplication()
{
    return QByteArray("application bytes ").repeated(20);
}

QByteArray scatterFixtureLoader()
{
    return QByteArrayLiteral("\x7f"
                             "ELF stand-in of a flash loader");
}

QString scatterFixtureComment()
{
    return QStringLiteral("fuzz package");
}

void check(bool condition, const char *what)
{
    if (!condition) {
        std::fprintf(stderr, "invariant broken: %s\n", what);
        std::abort();
    }
}

bool writeFile(const QString &path, const QByteArray &bytes)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
           file.write(bytes) == bytes.size();
}
