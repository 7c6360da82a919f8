#include "ui/stylesheetloader.h"

#include "settings/paths.h"

#include <QApplication>
#include <QDebug>
#include <QFile>

bool StyleSheetLoader::load()
{
    const QString resourceDir = Paths::resourceDir();
    // Both sheets are required: the platform sheet is as essential as the main one.
    struct Sheet
    {
        QString path;
        const char* missingText;
    };
    const Sheet sheets[] = {
        {resourceDir + QStringLiteral("/style.qss"), "Failed to find style sheet file %1."},
        {resourceDir + QStringLiteral("/style_mac.qss"),
         "Failed to find platform-specific style sheet file %1."},
    };
    QString styleSheet;
    for (const Sheet& sheet : sheets) {
        QFile file(sheet.path);
        if (!file.exists()) {
            qCritical().noquote() << QString::fromLatin1(sheet.missingText).arg(sheet.path);
            return false;
        }
        if (!file.open(QIODevice::ReadOnly)) {
            qCritical().noquote()
                << QStringLiteral("Failed to open file %1 for reading.").arg(sheet.path);
            return false;
        }
        styleSheet += QString::fromLatin1(file.readAll());
    }
    qApp->setStyleSheet(styleSheet);
    return true;
}

