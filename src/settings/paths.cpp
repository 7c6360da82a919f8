#include "settings/paths.h"

#include <QCoreApplication>
#include <QStandardPaths>

namespace Paths {

const char* const APP_NAME = "Merrow Tuning Arbo";

QString configDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
}

QString resourceDir()
{
    return QCoreApplication::applicationDirPath();
}

QString patchDir()
{
    return configDir() + QStringLiteral("/patch");
}

} // namespace Paths
