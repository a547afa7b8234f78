#pragma once

#include <QString>

// Where the build tree and the source tree are, for tests that read generated or checked-in files.
QString testBuildDir();
QString testSourceDir();
