#include "testpaths.h"

QString testBuildDir()
{
    return QStringLiteral(ESP_TEST_BUILD_DIR);
}

QString testSourceDir()
{
    return QStringLiteral(ESP_TEST_SOURCE_DIR);
}
