#include "settings/paths.h"

#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace Paths {

const char* const APP_NAME = "Merrow Tuning Arbo";
const char* const DESKTOP_ID = "org.merrowtuning.Arbo";

QString configDir()
{
    return QStandardPaths::writableLocation(QStandardPaths::AppDataLocation);
}

QString resourceDir()
{
    // Decided once: the program does not move while it runs, and the cards
    // ask for their symbols often.
    static const QString dir = [] {
        const QString bin = QCoreApplication::applicationDirPath();
        // A build tree keeps the resources beside the executables.
        if (QFileInfo::exists(bin + QStringLiteral("/patches/shell"))) {
            return bin;
        }
        // An installed program finds them in its prefix's share folder, at
        // the same distance from bin/ wherever the prefix is (/usr, /opt/x, a
        // package's staging root), so no environment variable is needed.
        return QDir::cleanPath(bin + QLatin1Char('/') + QStringLiteral(ARBO_RELATIVE_DATA_DIR));
    }();
    return dir;
}

QString patchDir()
{
    return configDir() + QStringLiteral("/patch");
}

} // namespace Paths
