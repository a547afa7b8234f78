#pragma once

#include <QByteArray>
#include <QString>

// Shared set-up of the fuzz targets: one application object for the whole process (serial ports,
// timers and event loops need it) and a scratch directory that lives as long as the process.
void ensureFuzzApplication();
QString fuzzScratchDir();

// Aborts with `what` on standard error when `condition` is false: the fuzzer records the input.
void check(bool condition, const char *what);
// Writes `bytes` to `path`, creating its folder; false when that fails.
bool writeFile(const QString &path, const QByteArray &bytes);

// The small files that fuzzed scatter documents name, loose and inside the fixture package; the
// seed generator writes documents whose checksums match them.
QByteArray scatterFixtureFirmware();
QByteArray scatterFixtureApplication();
QByteArray scatterFixtureLoader();
QString scatterFixtureComment();
