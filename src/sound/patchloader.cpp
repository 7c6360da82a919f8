#include "sound/patchloader.h"

#include "settings/appcontext.h"
#include "sound/pdplayer.h"

#include <QDebug>
#include <QFile>
#include <QFileInfo>

QString PatchLoader::voiceFile()
{
    return AppContext::patchDir() + QStringLiteral("/arbo_voice.pd");
}

QString PatchLoader::mainPatchFile()
{
    return AppContext::patchDir() + QStringLiteral("/arbo_main.pd");
}

bool PatchLoader::loadVoice(PdPlayer* player, const QString& voicePatch)
{
    // The old patch goes first: its voices still use the file about to be replaced.
    player->unloadPatch();

    const QString voice = voiceFile();
    if (QFile::exists(voice) && !QFile::remove(voice)) {
        qCritical() << "Failed to delete" << voice;
        return false;
    }
    if (!QFile::copy(voicePatch, voice)) {
        qCritical() << "Failed to copy" << voicePatch << "to the runtime patch location";
        return false;
    }
    const QString main = mainPatchFile();
    if (!player->loadPatch(QFileInfo(main))) {
        qCritical() << "Failed to load" << main << "after copying in voice";
        return false;
    }
    return true;
}
