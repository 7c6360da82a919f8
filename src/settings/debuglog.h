#pragma once

#include <QLoggingCategory>

// The category every message of the program is logged under: Qt's "default".
inline const QLoggingCategory& arboDefaultCategory()
{
    return *QLoggingCategory::defaultCategory();
}

// Like qDebug(), but the message is not even formatted while debug output is
// switched off for the default category: then it costs one flag test and no
// allocation. The application switches debug off when nothing would receive
// it (no diagnostics words on the command line), so the note-by-note debug
// lines of the audio thread cost nothing in a performance.
#define ARBO_DEBUG() qCDebug(arboDefaultCategory)
